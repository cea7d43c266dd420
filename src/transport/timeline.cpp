#include "transport/timeline.h"

#include <cmath>
#include <limits>
#include <utility>

namespace vt {

double timelineMoment(const std::optional<std::string>& text, std::string_view pattern) {
    return text ? momentWithIsoText(*text, pattern).value_or(0.0) : 0.0;
}

namespace {

double nextKey(double key) {
    const double stepped = key + 0.1;
    return stepped != key ? stepped : std::nextafter(key, std::numeric_limits<double>::infinity());
}

}  // namespace

double Timeline::add(double moment, TimelineItem item) {
    if (!std::isfinite(moment)) {
        moment = 0.0;
    }
    const auto last = lastKeys_.find(moment);
    double key = last != lastKeys_.end() ? last->second : moment;
    ++probes_;
    while (items_.contains(key)) {
        key = nextKey(key);
        ++probes_;
    }
    items_.emplace(key, std::move(item));
    lastKeys_[moment] = key;
    return key;
}

void Timeline::keepComments(const std::function<bool(VTPullRequestComment&)>& keep) {
    for (auto item = items_.begin(); item != items_.end();) {
        auto* comment = std::get_if<VTPullRequestComment>(&item->second);
        if (comment != nullptr && !keep(*comment)) {
            item = items_.erase(item);
            // A freed key may lie before where some moment's stepping stopped: step afresh.
            lastKeys_.clear();
        } else {
            ++item;
        }
    }
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

VTPullRequestComment descriptionComment(const VTPullRequest& pullRequest,
                                        std::optional<std::string> content) {
    VTPullRequestComment description;
    description.identifier = pullRequest.identifier;
    description.author = pullRequest.author;
    description.avatarUrl = pullRequest.avatarUrl;
    description.date = pullRequest.date;
    description.editable = pullRequest.editable;
    description.content = std::move(content);
    return description;
}

}  // namespace vt
