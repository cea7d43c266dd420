#include "transport/timeline.h"

#include <utility>

namespace vt {

double timelineMoment(const std::optional<std::string>& text, std::string_view pattern) {
    return text ? momentWithIsoText(*text, pattern).value_or(0.0) : 0.0;
}

double Timeline::add(double moment, TimelineItem item) {
    while (items_.contains(moment)) {
        moment += 0.1;
    }
    items_.emplace(moment, std::move(item));
    return moment;
}

void Timeline::appendTo(VTConversation& conversation) const {
    std::optional<std::size_t> group;  // index of the current group in `conversation`
    std::optional<std::string> lastAuthor = std::string();
    double lastDay = 0.0;
    bool afterComment = true;
    for (const auto& [moment, item] : items_) {
        if (const auto* comment = std::get_if<VTPullRequestComment>(&item)) {
            conversation.emplace_back(*comment);
            afterComment = true;
            continue;
        }
        const auto& commit = std::get<VTPullRequestCommit>(item);
        if (afterComment || !commit.author || commit.author != lastAuthor ||
            !isSameDay(moment, lastDay)) {
            conversation.emplace_back(VTPullRequestCommits{});
            group = conversation.size() - 1;
        }
        std::get<VTPullRequestCommits>(conversation[*group]).addCommit(commit);
        lastAuthor = commit.author;
        lastDay = moment;
        afterComment = false;
    }
}

}  // namespace vt
