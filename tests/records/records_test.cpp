#include "records/records.h"
#include "samples.h"

#include <gtest/gtest.h>
#include <boost/json/parse.hpp>

#include <cctype>
#include <functional>
#include <ostream>

namespace {

namespace json = boost::json;

TEST(APullRequest, WritesEveryValueUnderItsCodingKey) {
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
}

TEST(APullRequest, SurvivesItsValueFormWithAllNineteenValues) {
    const VTPullRequest original = samplePullRequest();
    std::string fault;
    std::optional<VTPullRequest> decoded = VTPullRequest::fromValue(original.toValue(), &fault);
    ASSERT_TRUE(decoded) << fault;
    EXPECT_EQ(*decoded, original);
}

TEST(APullRequest, LeavesNilPropertiesOutButAlwaysWritesBooleansAndIntegers) {
    const json::object expected = json::parse(R"({
        "$class": "VTPullRequest", "hostType": 0, "commentable": false, "editable": false,
        "closeable": false, "allowsMerge": false, "merged": false, "mergeable": 0})")
                                      .as_object();
    EXPECT_EQ(VTPullRequest().toValue(), expected);
    EXPECT_EQ(VTPullRequest::fromValue(expected), VTPullRequest());
}

TEST(APullRequest, DecodesMissingOrNullKeysAsNilAndIgnoresUnknownKeys) {
    json::object value = samplePullRequest().toValue();
    value.erase("labels");
    value["assignees"] = nullptr;
    value["reviewers"] = json::array{1, 2};

    std::optional<VTPullRequest> decoded = VTPullRequest::fromValue(value);
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->labels, std::nullopt);
    EXPECT_EQ(decoded->assignees, std::nullopt);
    EXPECT_EQ(decoded->title, samplePullRequest().title);
}

TEST(APullRequest, KeepsEmptyListsApartFromNil) {
    VTPullRequest pullRequest;
    pullRequest.labels = json::array();
    std::optional<VTPullRequest> decoded = VTPullRequest::fromValue(pullRequest.toValue());
    ASSERT_TRUE(decoded);
    ASSERT_TRUE(decoded->labels);
    EXPECT_TRUE(decoded->labels->empty());
}

TEST(APullRequest, ReadsAnUnsignedMergeStateWrittenAsAnyInteger) {
    json::object value = VTPullRequest().toValue();
    value["mergeable"] = std::uint64_t{1};
    EXPECT_EQ(VTPullRequest::fromValue(value)->mergeable, 1u);
}

TEST(AComment, KeepsTwoNestedRepliesInOrder) {
    VTPullRequestComment thread = sampleComment("c1");
    VTPullRequestComment first = sampleComment("c2");
    first.comments = std::vector<VTPullRequestComment>();
    VTPullRequestComment second = sampleComment("c3");
    second.comments = std::vector<VTPullRequestComment>();
    second.content = "Second reply";
    thread.comments = std::vector{first, second};

    const json::object value = thread.toValue();
    EXPECT_EQ(value.at("comments").as_array().at(1).as_object().at("$class"),
              "VTPullRequestComment");

    std::string fault;
    std::optional<VTPullRequestComment> decoded = VTPullRequestComment::fromValue(value, &fault);
    ASSERT_TRUE(decoded) << fault;
    EXPECT_EQ(*decoded, thread);
    ASSERT_EQ(decoded->comments->size(), 2u);
    EXPECT_EQ((*decoded->comments)[1].content, "Second reply");
    EXPECT_TRUE((*decoded->comments)[1].comments->empty());
}

TEST(ACommitGroup, CreatesItsListOnTheFirstCommitAndAppendsInOrder) {
    VTPullRequestCommits group;
    EXPECT_EQ(group.commits, std::nullopt);
    group.addCommit(sampleCommit("a"));
    group.addCommit(sampleCommit("b"));
    ASSERT_EQ(group.commits->size(), 2u);
    EXPECT_EQ((*group.commits)[0].oid, "a");
    EXPECT_EQ((*group.commits)[1].oid, "b");

    std::optional<VTPullRequestCommits> decoded = VTPullRequestCommits::fromValue(group.toValue());
    ASSERT_TRUE(decoded);
    EXPECT_EQ(*decoded, group);
    decoded->addCommit(sampleCommit("c"));
    EXPECT_EQ(decoded->commits->back().oid, "c");
}

// One refused value per row: what was changed, the decoding, and the key it must name.
struct Refusal {
    std::string what;
    std::function<json::value()> value;
    std::function<bool(const json::value&, std::string*)> decode;
    std::string fault;
};

void PrintTo(const Refusal& refusal, std::ostream* out) {
    *out << refusal.what;
}

template <typename Record>
std::function<bool(const json::value&, std::string*)> decoderOf() {
    return [](const json::value& value, std::string* fault) {
        return Record::fromValue(value, fault).has_value();
    };
}

json::value pullRequestWith(std::string_view key, json::value member) {
    json::object value = samplePullRequest().toValue();
    value[key] = std::move(member);
    return value;
}

json::value commentWithReplies(json::array replies) {
    json::object value = sampleComment("c1").toValue();
    value["comments"] = std::move(replies);
    return value;
}

class ARecord : public testing::TestWithParam<Refusal> {};

TEST_P(ARecord, IsRefusedNamingTheKeyAtFault) {
    const Refusal& refusal = GetParam();
    std::string fault;
    EXPECT_FALSE(refusal.decode(refusal.value(), &fault));
    EXPECT_EQ(fault, refusal.fault);
    // The fault is optional: asking for none must still refuse.
    EXPECT_FALSE(refusal.decode(refusal.value(), nullptr));
}

const auto pullRequest = decoderOf<VTPullRequest>();
const auto comment = decoderOf<VTPullRequestComment>();
const auto commits = decoderOf<VTPullRequestCommits>();

INSTANTIATE_TEST_SUITE_P(
    Refusals, ARecord,
    testing::Values(
        Refusal{"another class", [] { return pullRequestWith("$class", "VTPullRequestComment"); },
                pullRequest, "$class"},
        Refusal{"no class",
                [] {
                    json::object value = samplePullRequest().toValue();
                    value.erase("$class");
                    return json::value(value);
                },
                pullRequest, "$class"},
        Refusal{"not a dictionary", [] { return json::value(json::array{1}); }, pullRequest,
                "$class"},
        Refusal{"host type as text", [] { return pullRequestWith("hostType", "1"); }, pullRequest,
                "hostType"},
        Refusal{"number as a fraction", [] { return pullRequestWith("number", 1.5); }, pullRequest,
                "number"},
        Refusal{"merge state as a boolean", [] { return pullRequestWith("mergeable", true); },
                pullRequest, "mergeable"},
        Refusal{"permission as an integer", [] { return pullRequestWith("commentable", 1); },
                pullRequest, "commentable"},
        Refusal{"title as a number", [] { return pullRequestWith("title", 7); }, pullRequest,
                "title"},
        Refusal{"relative remote", [] { return pullRequestWith("remoteUrl", "/owner/repo"); },
                pullRequest, "remoteUrl"},
        Refusal{"scp-like remote",
                [] { return pullRequestWith("remoteUrl", "git@github.com:owner/repo.git"); },
                pullRequest, "remoteUrl"},
        Refusal{"empty avatar", [] { return pullRequestWith("avatarUrl", ""); }, pullRequest,
                "avatarUrl"},
        Refusal{"labels as a dictionary",
                [] {
                    return pullRequestWith("labels", json::object{{"name", "bug"}});
                },
                pullRequest, "labels"},
        Refusal{"a number inside a label",
                [] {
                    return pullRequestWith("labels",
                                           json::array{json::object{{"name", "bug"}, {"id", 3}}});
                },
                pullRequest, "labels[0].id"},
        Refusal{"a boolean deep in an assignee",
                [] {
                    return pullRequestWith(
                        "assignees",
                        json::array{"octo", json::object{{"teams", json::array{"a", false}}}});
                },
                pullRequest, "assignees[1].teams[1]"},
        Refusal{"a reply of another class",
                [] {
                    return commentWithReplies(
                        {sampleComment("c2").toValue(), sampleCommit("a").toValue()});
                },
                comment, "comments[1].$class"},
        Refusal{"a reply with a bad avatar",
                [] {
                    json::object reply = sampleComment("c2").toValue();
                    reply["avatarUrl"] = "avatars/reviewer";
                    return commentWithReplies({sampleComment("c3").toValue(), reply});
                },
                comment, "comments[1].avatarUrl"},
        Refusal{"a reply to a reply with a bad author",
                [] {
                    json::object inner = sampleComment("c3").toValue();
                    inner["author"] = json::array{"x"};
                    json::object reply = sampleComment("c2").toValue();
                    reply["comments"] = json::array{inner};
                    return commentWithReplies({reply});
                },
                comment, "comments[0].comments[0].author"},
        Refusal{"replies as a dictionary",
                [] {
                    json::object value = sampleComment("c1").toValue();
                    value["comments"] = sampleComment("c2").toValue();
                    return json::value(value);
                },
                comment, "comments"},
        Refusal{"a comment among commits",
                [] {
                    return json::value(json::object{
                        {"$class", "VTPullRequestCommits"},
                        {"commits",
                         json::array{sampleCommit("a").toValue(), sampleComment("c").toValue()}}});
                },
                commits, "commits[1].$class"}),
    [](const testing::TestParamInfo<Refusal>& info) {
        std::string name;
        for (char c : info.param.what) {
            name.push_back(std::isalnum(static_cast<unsigned char>(c)) ? c : '_');
        }
        return name;
    });

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
