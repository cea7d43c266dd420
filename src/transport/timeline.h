#pragma once

// The time-ordered part of a pull request's conversation, written once for every adapter: comments
// and commits keyed by their moment, then listed in time order with runs of commits grouped.

#include "records/records.h"
#include "transport/dates.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <variant>

namespace vt {

using TimelineItem = std::variant<VTPullRequestComment, VTPullRequestCommit>;

// The key of an item: the moment of `text` read with `pattern`, or the reference date (0) when the
// text is missing or does not parse.
double timelineMoment(const std::optional<std::string>& text,
                      std::string_view pattern = kIsoDatePattern);

// The comment a conversation shows a pull request's description as, second after the pull
// request itself: it carries the pull request's identifier, author, picture, date and
// editability, and `content` as its text.
VTPullRequestComment descriptionComment(const VTPullRequest& pullRequest,
                                        std::optional<std::string> content);

// Items of the same moment are told apart by stepping 0.1 seconds, so the one stored first keeps
// the earlier key and is listed first.
//
// Hosts can send thousands of items of one second. Stepping from the moment again for every one of
// them would take quadratic time, so the timeline remembers, for each moment it was given, the key
// where its stepping stopped last and goes on from there: every key before it is still taken, so
// the result is the same key, by the same floating-point sums, as stepping from the moment itself.
class Timeline {
public:
    // Stores the item under the first free key of moment, moment + 0.1, (moment + 0.1) + 0.1, ...
    // and returns that key. A moment that is not finite counts as 0; where 0.1 no longer changes a
    // key that large, the next larger number is taken instead, so stepping always ends.
    double add(double moment, TimelineItem item);

    // Calls keep(comment) for every comment, in time order; a comment for which it returns false
    // leaves the timeline, and its key is free again for later items.
    void keepComments(const std::function<bool(VTPullRequestComment&)>& keep);

    // Appends the items in time order: comments as they are, runs of commits as groups. A group
    // ends at a comment, at a commit by another author (a commit without author always starts a
    // new group) and at a commit on another calendar day.
    void appendTo(VTConversation& conversation) const;

    std::size_t size() const { return items_.size(); }
    // How many keys add() has looked at so far: the measure of its work.
    std::uint64_t probes() const { return probes_; }

private:
    std::map<double, TimelineItem> items_;
    // Moment given to add() -> the key its stepping stopped at last. Valid while no key was freed.
    std::unordered_map<double, double> lastKeys_;
    std::uint64_t probes_ = 0;
};

}  // namespace vt
