#pragma once

// The time-ordered part of a pull request's conversation, written once for every adapter: comments
// and commits keyed by their moment, then listed in time order with runs of commits grouped.

#include "records/records.h"
#include "transport/dates.h"

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace vt {

using TimelineItem = std::variant<VTPullRequestComment, VTPullRequestCommit>;

// The key of an item: the moment of `text` read with `pattern`, or the reference date (0) when the
// text is missing or does not parse.
double timelineMoment(const std::optional<std::string>& text,
                      std::string_view pattern = kIsoDatePattern);

// Items of the same moment are told apart by stepping 0.1 seconds, so the one stored first keeps
// the earlier key and is listed first.
class Timeline {
public:
    // Stores the item under the first free key of moment, moment + 0.1, (moment + 0.1) + 0.1, ...
    // and returns that key.
    double add(double moment, TimelineItem item);

    // Appends the items in time order: comments as they are, runs of commits as groups. A group
    // ends at a comment, at a commit by another author (a commit without author always starts a
    // new group) and at a commit on another calendar day.
    void appendTo(VTConversation& conversation) const;

    std::size_t size() const { return items_.size(); }

private:
    std::map<double, TimelineItem> items_;
};

}  // namespace vt
