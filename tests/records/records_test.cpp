#include "records/records.h"
#include "samples.h"

#include <gtest/gtest.h>
#include <boost/json/parse.hpp>

#include <functional>

namespace {

namespace json = boost::json;

TEST(APullRequest, WritesEveryValueUnderItsCodingKeyAndReadsAllNineteenBack) {
    const json::object expected = json::parse(R"({
        "$class": "VTPullRequest",
        "remoteUrl": "https://github.com/veldtrack/hosts.git",
        "hostType": 1,
        "identifier": "PR_kwDOAbc123",
        "author": "octo",
        "avatarUrl": "https://avatars.githubusercontent.com/u/42?v=4",
        "title": "Fix the \"Link\" scan — for real",
        "number": 1347,
        "date": "2024-03-05T10:11:12Z",
        "baseReference": "main",
        "headReference": "fix/link-scan",
        "assignees": [{"login": "octo", "avatar": "https://example.com/a.png"},
                      {"login": "cat", "teams": ["core", "docs"]}],
        "labels": [{"name": "bug", "color": "d73a4a"}],
        "webUrl": "https://github.com/veldtrack/hosts/pull/1347",
        "commentable": true, "editable": true, "closeable": true, "allowsMerge": true,
        "merged": true,
        "mergeable": 2})")
                                      .as_object();
    EXPECT_EQ(samplePullRequest().toValue(), expected);
    std::string fault;
    EXPECT_EQ(VTPullRequest::fromValue(expected, &fault), samplePullRequest()) << fault;
}

TEST(APullRequest, LeavesNilPropertiesOutButAlwaysWritesBooleansAndIntegers) {
    const json::object expected = json::parse(R"({
        "$class": "VTPullRequest", "hostType": 0, "commentable": false, "editable": false,
        "closeable": false, "allowsMerge": false, "merged": false, "mergeable": 0})")
                                      .as_object();
    EXPECT_EQ(VTPullRequest().toValue(), expected);
    EXPECT_EQ(VTPullRequest::fromValue(expected), VTPullRequest());
}

TEST(APullRequest, DecodesMissingOrNullKeysAsNilKeepsEmptyListsAndIgnoresUnknownKeys) {
    json::object value = samplePullRequest().toValue();
    value.erase("labels");
    value["assignees"] = nullptr;
    value["reviewers"] = json::array{1, 2};
    std::optional<VTPullRequest> decoded = VTPullRequest::fromValue(value);
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->labels, std::nullopt);
    EXPECT_EQ(decoded->assignees, std::nullopt);
    EXPECT_EQ(decoded->title, samplePullRequest().title);

    value["labels"] = json::array();
    EXPECT_EQ(VTPullRequest::fromValue(value)->labels, json::array());
}

TEST(AComment, KeepsTwoNestedRepliesInOrder) {
    VTPullRequestComment thread = sampleComment("c1");
    VTPullRequestComment first = sampleComment("c2");
    first.comments = std::vector<VTPullRequestComment>();
    VTPullRequestComment second = first;
    second.content = "Second reply";
    thread.comments = std::vector{first, second};

    std::string fault;
    std::optional<VTPullRequestComment> decoded =
        VTPullRequestComment::fromValue(thread.toValue(), &fault);
    ASSERT_TRUE(decoded) << fault;
    EXPECT_EQ(*decoded, thread);
}

TEST(ACommitGroup, CreatesItsListOnTheFirstCommitAndAppendsInOrder) {
    VTPullRequestCommits group;
    EXPECT_EQ(group.commits, std::nullopt);
    group.addCommit(sampleCommit("a"));
    group.addCommit(sampleCommit("b"));
    ASSERT_EQ(group.commits->size(), 2u);
    EXPECT_EQ((*group.commits)[0].oid, "a");
    EXPECT_EQ((*group.commits)[1].oid, "b");
    EXPECT_EQ(VTPullRequestCommits::fromValue(group.toValue()), group);
}

json::value pullRequestWith(std::string_view key, json::value member) {
    json::object value = samplePullRequest().toValue();
    value[key] = std::move(member);
    return value;
}

json::value commentWith(std::string_view key, json::value member) {
    json::object value = sampleComment("c1").toValue();
    value[key] = std::move(member);
    return value;
}

template <typename Record>
bool refuses(const json::value& value, std::string* fault) {
    return !Record::fromValue(value, fault);
}

TEST(ARecord, IsRefusedNamingTheKeyAtFault) {
    json::object badReply = sampleComment("c2").toValue();
    badReply["avatarUrl"] = "avatars/reviewer";
    json::object badInnerReply = sampleComment("c2").toValue();
    badInnerReply["comments"] = json::array{commentWith("author", json::array{"x"})};

    // What was changed, the decoding, the value and the key the refusal must name.
    const struct {
        std::string what;
        bool (*refused)(const json::value&, std::string*);
        json::value value;
        std::string fault;
    } cases[] = {
        {"another class", refuses<VTPullRequest>, pullRequestWith("$class", "VTPullRequestComment"),
         "$class"},
        {"not a dictionary", refuses<VTPullRequest>, json::array{1}, "$class"},
        {"host type as text", refuses<VTPullRequest>, pullRequestWith("hostType", "1"), "hostType"},
        {"number as a fraction", refuses<VTPullRequest>, pullRequestWith("number", 1.5), "number"},
        {"merge state as a boolean", refuses<VTPullRequest>, pullRequestWith("mergeable", true),
         "mergeable"},
        {"permission as an integer", refuses<VTPullRequest>, pullRequestWith("commentable", 1),
         "commentable"},
        {"relative remote", refuses<VTPullRequest>, pullRequestWith("remoteUrl", "/owner/repo"),
         "remoteUrl"},
        {"scp-like remote", refuses<VTPullRequest>,
         pullRequestWith("remoteUrl", "git@github.com:owner/repo.git"), "remoteUrl"},
        {"empty avatar", refuses<VTPullRequest>, pullRequestWith("avatarUrl", ""), "avatarUrl"},
        {"labels as a dictionary", refuses<VTPullRequest>,
         pullRequestWith("labels", json::object{{"name", "bug"}}), "labels"},
        {"a number inside a label", refuses<VTPullRequest>,
         pullRequestWith("labels", json::array{json::object{{"name", "bug"}, {"id", 3}}}),
         "labels[0].id"},
        {"a boolean deep in an assignee", refuses<VTPullRequest>,
         pullRequestWith("assignees",
                         json::array{"octo", json::object{{"teams", json::array{"a", false}}}}),
         "assignees[1].teams[1]"},
        {"a reply of another class", refuses<VTPullRequestComment>,
         commentWith("comments",
                     json::array{sampleComment("c2").toValue(), sampleCommit("a").toValue()}),
         "comments[1].$class"},
        {"a reply with a bad avatar", refuses<VTPullRequestComment>,
         commentWith("comments", json::array{sampleComment("c3").toValue(), badReply}),
         "comments[1].avatarUrl"},
        {"a reply to a reply with a bad author", refuses<VTPullRequestComment>,
         commentWith("comments", json::array{badInnerReply}), "comments[0].comments[0].author"},
        {"replies as a dictionary", refuses<VTPullRequestComment>,
         commentWith("comments", sampleComment("c2").toValue()), "comments"},
        {"a comment among commits", refuses<VTPullRequestCommits>,
         json::object{
             {"$class", "VTPullRequestCommits"},
             {"commits", json::array{sampleCommit("a").toValue(), sampleComment("c").toValue()}}},
         "commits[1].$class"},
    };
    for (const auto& row : cases) {
        std::string fault;
        EXPECT_TRUE(row.refused(row.value, &fault)) << row.what;
        EXPECT_EQ(fault, row.fault) << row.what;
        // The fault is optional: asking for none must still refuse.
        EXPECT_TRUE(row.refused(row.value, nullptr)) << row.what;
    }
}

TEST(AConversation, SurvivesItsValueForm) {
    const VTConversation original = sampleConversation();
    const json::array value = VTConversationToValue(original);
    ASSERT_EQ(value.size(), 5u);
    EXPECT_EQ(value.back(), true);

    std::string fault;
    std::optional<VTConversation> decoded = VTConversationFromValue(value, &fault);
    ASSERT_TRUE(decoded) << fault;
    EXPECT_EQ(*decoded, original);
}

TEST(AConversation, IsRefusedWithThePlaceOfTheFault) {
    const struct {
        std::string what;
        std::function<void(json::array&)> change;
        std::string fault;
    } cases[] = {
        {"a lone commit", [](json::array& a) { a[2] = sampleCommit("a").toValue(); }, "[2].$class"},
        {"a number for the flag", [](json::array& a) { a.back() = 1; }, "[4].$class"},
        {"a bad nested reply",
         [](json::array& a) { a[3].as_object()["comments"].as_array()[0].as_object()["date"] = 5; },
         "[3].comments[0].date"},
    };
    for (const auto& row : cases) {
        json::array value = VTConversationToValue(sampleConversation());
        row.change(value);
        std::string fault;
        EXPECT_FALSE(VTConversationFromValue(value, &fault)) << row.what;
        EXPECT_EQ(fault, row.fault) << row.what;
    }
    std::string fault;
    EXPECT_FALSE(VTConversationFromValue(json::object(), &fault));
    EXPECT_FALSE(fault.empty());
}

}  // namespace
