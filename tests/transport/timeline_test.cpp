// The conversation timeline: same-time items stepped apart exactly as stepping from their own
// moment would place them, in linear work, and commits grouped into runs.

#include "transport/timeline.h"

#include <gtest/gtest.h>

#include <cmath>
#include <set>
#include <string>
#include <vector>

namespace {

VTPullRequestComment comment(std::string identifier) {
    VTPullRequestComment result;
    result.identifier = std::move(identifier);
    return result;
}

VTPullRequestCommit commit(std::optional<std::string> author, std::string oid) {
    VTPullRequestCommit result;
    result.author = std::move(author);
    result.oid = std::move(oid);
    return result;
}

// Stepping from the moment every time, the way the keys are defined.
class PlainStepping {
public:
    double add(double moment) {
        while (keys_.contains(moment)) {
            moment += 0.1;
        }
        keys_.insert(moment);
        return moment;
    }
    void remove(double key) { keys_.erase(key); }

private:
    std::set<double> keys_;
};

TEST(ATimeline, PlacesEveryItemWhereSteppingFromItsOwnMomentWould) {
    vt::Timeline timeline;
    PlainStepping plain;
    // Moments that collide with each other's steps (12.1 is 12 + 0.1 only approximately), in an
    // order that interleaves them; then comments leave and more items arrive, as when deleted
    // comments are pruned before commits are added.
    const std::vector<double> first = {12, 12, 12.1, 12, 12.2, 13, 12.1, 12, 12.3, 12, 13, 12};
    std::vector<double> keys;
    for (std::size_t index = 0; index < first.size(); ++index) {
        const double key = timeline.add(first[index], comment(std::to_string(index)));
        EXPECT_EQ(key, plain.add(first[index])) << "item " << index;  // the same floating sums
        keys.push_back(key);
    }
    const std::set<std::string> leaving = {"1", "3", "6"};
    timeline.keepComments(
        [&](VTPullRequestComment& item) { return !leaving.contains(*item.identifier); });
    for (const std::string& identifier : leaving) {
        plain.remove(keys[std::stoul(identifier)]);
    }
    EXPECT_EQ(timeline.size(), first.size() - leaving.size());
    for (const double moment : {12.0, 12.1, 12.0, 12.0, 13.0, 12.0}) {
        EXPECT_EQ(timeline.add(moment, commit("ana", "c")), plain.add(moment)) << moment;
    }
}

TEST(ATimeline, StepsSameSecondItemsInLinearWork) {
    // 16,000 items of one second must cost about what 16,000 items of different seconds cost;
    // stepping from the moment each time would look at about 128 million keys.
    for (const int count : {1000, 16000}) {
        vt::Timeline sameSecond;
        vt::Timeline distinct;
        for (int index = 0; index < count; ++index) {
            sameSecond.add(100.0, comment("c"));
            distinct.add(100.0 + index, comment("c"));
        }
        EXPECT_EQ(sameSecond.size(), static_cast<std::size_t>(count));
        EXPECT_EQ(distinct.probes(), static_cast<std::uint64_t>(count));
        EXPECT_LE(sameSecond.probes(), 2u * distinct.probes()) << count << " items";
    }
}

TEST(ATimeline, EndsSteppingForMomentsTooLargeForATenthAndForNonFiniteOnes) {
    vt::Timeline timeline;
    const double huge = 1e17;  // huge + 0.1 == huge
    const double first = timeline.add(huge, comment("a"));
    const double second = timeline.add(huge, comment("b"));
    EXPECT_EQ(first, huge);
    EXPECT_GT(second, first);
    EXPECT_EQ(timeline.add(std::nan(""), comment("c")), 0.0);
    EXPECT_EQ(timeline.add(INFINITY, comment("d")), 0.1);
}

TEST(ATimeline, GroupsCommitsIntoRunsBrokenByCommentsAuthorsAndDays) {
    vt::Timeline timeline;
    // Noon GMT, so that the few minutes used fall on one day in any time zone the tests run in.
    const double day = 86400.0 * 3650 + 43200 - 3600;
    timeline.add(day + 3600, commit("ana", "1"));
    timeline.add(day + 3600, commit("ana", "2"));  // same second: stepped, same run
    timeline.add(day + 3700, commit("ben", "3"));  // another author
    timeline.add(day + 3800, comment("x"));
    timeline.add(day + 3900, commit("ben", "4"));  // after a comment
    timeline.add(day + 4000, commit(std::nullopt, "5"));
    timeline.add(day + 4100, commit(std::nullopt, "6"));  // no author never joins a run
    timeline.add(day + 4 * 86400.0, commit(std::nullopt, "7"));
    timeline.add(day + 5 * 86400.0, commit("ana", "8"));
    timeline.add(day + 5 * 86400.0 + 60, commit("ana", "9"));

    VTConversation conversation;
    timeline.appendTo(conversation);
    std::vector<std::string> shape;
    for (const auto& item : conversation) {
        if (const auto* run = std::get_if<VTPullRequestCommits>(&item)) {
            std::string oids;
            for (const auto& c : *run->commits) {
                oids += *c.oid;
            }
            shape.push_back(oids);
        } else {
            shape.push_back("comment " + *std::get<VTPullRequestComment>(item).identifier);
        }
    }
    EXPECT_EQ(shape, (std::vector<std::string>{"12", "3", "comment x", "4", "5", "6", "7", "89"}));
}

}  // namespace
