#include "bitbucket_test_support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <variant>
#include <vector>

namespace {

using ::testing::ElementsAre;
using vt::test::BitbucketTest;
using vt::test::nextPage;
using vt::test::urlOf;

using BitbucketPullRequests = BitbucketTest;

constexpr const char* kListTarget =
    "/2.0/repositories/team/project/pullrequests?state=OPEN&sort=-created_on&pagelen=50"
    "&fields=next,values.id,values.author.nickname,values.author.username,"
    "values.author.links.avatar.href,values.title,values.created_on,"
    "values.destination.branch.name,values.source.repository.full_name,values.source.branch.name";

TEST_F(BitbucketPullRequests, AreListedOverPagesWithForkBranchesNamedByTheirRepository) {
    answerGet(kListTarget, R"({"values":[
        {"id":12,"title":"From a fork","created_on":"2024-01-05T17:30:00.654321+00:00",
         "author":{"nickname":"alice","username":"alice-old",
                   "links":{"avatar":{"href":"https://avatars.test/alice.png"}}},
         "destination":{"branch":{"name":"main"}},
         "source":{"repository":{"full_name":"alice/project"},"branch":{"name":"feature"}}},
        {"id":11,"title":"Inside","author":{"username":"bob"},
         "destination":{"branch":{"name":"main"}},
         "source":{"repository":{"full_name":"team/project"},"branch":{"name":"fix"}}}],)" +
                               nextPage("/2.0/repositories/team/project/pullrequests?page=2") +
                               "}");
    answerGet("/2.0/repositories/team/project/pullrequests?page=2",
              R"({"values":[{"id":10,"source":{"branch":{"name":"docs"}}}]})");
    auto pullRequests =
        host.pullRequestsWithUrl(urlOf("ssh://git@bitbucket.test/team/project.git"), token, &error);
    ASSERT_TRUE(pullRequests) << error.description();
    ASSERT_EQ(pullRequests->size(), 3u);

    VTPullRequest fromFork;
    fromFork.identifier = "12";
    fromFork.number = 12;
    fromFork.author = "alice";
    fromFork.avatarUrl = "https://avatars.test/alice.png";
    fromFork.title = "From a fork";
    fromFork.date = "2024-01-05T17:30:00+0000";
    fromFork.baseReference = "team/project:main";
    fromFork.headReference = "alice/project:feature";
    EXPECT_EQ(pullRequests->at(0), fromFork);

    EXPECT_EQ(pullRequests->at(1).author, "bob");
    EXPECT_EQ(pullRequests->at(1).baseReference, "main");
    EXPECT_EQ(pullRequests->at(1).headReference, "fix");
    EXPECT_EQ(pullRequests->at(2).identifier, "10");
    EXPECT_EQ(pullRequests->at(2).baseReference, std::nullopt);
    EXPECT_EQ(pullRequests->at(2).headReference, "docs");
}

TEST_F(BitbucketPullRequests, AFailedPageFailsTheWholeList) {
    answerGet(kListTarget, std::string(R"({"values":[{"id":1}],)") +
                               nextPage("/2.0/repositories/team/project/pullrequests?page=2") +
                               "}");
    answerGet("/2.0/repositories/team/project/pullrequests?page=2",
              R"({"type":"error","error":{"message":"Try again later"}})", 503);
    EXPECT_FALSE(
        host.pullRequestsWithUrl(urlOf("http://bitbucket.test/team/project"), token, &error));
    EXPECT_EQ(error.code, 503);
    EXPECT_EQ(error.recoverySuggestion(), "Try again later");
}

// ---- The conversation

constexpr const char* kBase = "/2.0/repositories/team/project/pullrequests/7";
constexpr const char* kDiffstat =
    "/2.0/repositories/team/project/diffstat/3f2a1b0c%0D9e8d7c6b?from_pullrequest_id=7";
constexpr const char* kCommentsQuery =
    "/comments?sort=created_on&pagelen=50&fields=next,values.id,values.deleted,"
    "values.user.nickname,values.user.links.avatar.href,values.user.uuid,values.created_on,"
    "values.content.raw,values.parent.id";
constexpr const char* kCommitsQuery =
    "/commits?pagelen=100&fields=next,values.author.user.nickname,"
    "values.author.user.links.avatar.href,values.hash,values.date,values.message";

std::string details(const char* authorUuid) {
    return R"({"author":{"uuid":")" + std::string(authorUuid) +
           R"("},"state":"OPEN","description":"Adds the widget",
           "links":{"html":{"href":"https://bitbucket.test/team/project/pull-requests/7"},
           "diffstat":{"href":"http://api.bitbucket.test)" +
           kDiffstat + R"("}}})";
}

std::string commentJson(int id, const char* created, const char* user, const char* content,
                        std::optional<int> parent = std::nullopt) {
    std::string text = R"({"id":)" + std::to_string(id) + R"(,"created_on":")" + created +
                       R"(","user":{"nickname":")" + user + R"(","uuid":"{)" + user +
                       R"(}","links":{"avatar":{"href":"https://avatars.test/)" + user +
                       R"(.png"}}})";
    text += content != nullptr ? R"(,"content":{"raw":")" + std::string(content) + "\"}"
                               : R"(,"deleted":true,"content":{"raw":""})";
    if (parent) {
        text += R"(,"parent":{"id":)" + std::to_string(*parent) + "}";
    }
    return text + "}";
}

std::string commitJson(const char* hash, const char* date, const char* author,
                       const char* message) {
    return R"({"hash":")" + std::string(hash) + R"(","date":")" + date + R"(","message":")" +
           message + R"(","author":{"user":{"nickname":")" + author + R"("}}})";
}

// One line per conversation item: "comment <id> <content> [<reply ids>]", "commits <hashes>".
std::vector<std::string> summary(const VTConversation& conversation) {
    std::vector<std::string> lines;
    for (const VTConversationItem& item : conversation) {
        if (const auto* comment = std::get_if<VTPullRequestComment>(&item)) {
            std::string line = "comment " + comment->identifier.value_or("-") + " " +
                               comment->content.value_or("-");
            for (const VTPullRequestComment& reply :
                 comment->comments.value_or(std::vector<VTPullRequestComment>{})) {
                line += " [" + reply.identifier.value_or("-") + "]";
            }
            lines.push_back(line);
        } else if (const auto* commits = std::get_if<VTPullRequestCommits>(&item)) {
            std::string line = "commits";
            for (const VTPullRequestCommit& commit :
                 commits->commits.value_or(std::vector<VTPullRequestCommit>{})) {
                line += " " + commit.oid.value_or("-");
            }
            lines.push_back(line);
        } else if (std::holds_alternative<VTPullRequest>(item)) {
            lines.emplace_back("pull request");
        } else {
            lines.emplace_back(std::get<bool>(item) ? "yes" : "no");
        }
    }
    return lines;
}

TEST_F(BitbucketPullRequests, AConversationThreadsCommentsAndGroupsCommitsInTimeOrder) {
    const std::string base = kBase;
    answerGet("/2.0/user?fields=uuid", R"({"uuid":"{me}"})");
    answerGet(base + "?fields=author.uuid,state,description,links.html.href,links.diffstat.href",
              details("{me}"));
    // The first conflicting file ends the diffstat: the third page is never asked for.
    answerGet(std::string(kDiffstat) + "&pagelen=200",
              R"({"values":[{"status":"modified"}],)" + nextPage("/2.0/diffstat?page=2") + "}");
    answerGet("/2.0/diffstat?page=2",
              R"({"values":[{"status":"merge conflict"},{"status":"modified"}],)" +
                  nextPage("/2.0/diffstat?page=3") + "}");
    const std::vector<std::string> firstComments{
        commentJson(1, "2024-01-05T10:00:00.100000+00:00", "me", "First"),
        commentJson(2, "2024-01-05T10:00:00.100000+00:00", "bob", "Same second"),
        commentJson(3, "2024-01-05T10:05:00.000000+00:00", "bob", "Lost", 99),
        commentJson(4, "2024-01-05T11:00:00.000000+00:00", "bob", nullptr),
        commentJson(5, "2024-01-06T09:00:00.000000+00:00", "bob", nullptr),
        commentJson(6, "2024-01-06T09:10:00.000000+00:00", "me", "Answer to a deleted one", 5)};
    std::string page = R"({"values":[)";
    for (const std::string& comment : firstComments) {
        page += (&comment == &firstComments.front() ? "" : ",") + comment;
    }
    answerGet(base + kCommentsQuery, page + "]," + nextPage(base + "/comments?page=2") + "}");
    answerGet(base + "/comments?page=2",
              R"({"values":[)" +
                  commentJson(7, "2024-01-05T10:20:00.000000+00:00", "me", "Reply", 1) + "]}");
    answerGet(base + kCommitsQuery,
              R"({"values":[)" +
                  commitJson("c1", "2024-01-05T09:00:00+00:00", "alice", "One\\n\\nWhy") + "," +
                  commitJson("c2", "2024-01-05T09:30:00+00:00", "alice", "Two") + "," +
                  commitJson("c3", "2024-01-05T09:45:00+00:00", "bob", "Three") + "," +
                  commitJson("c5", "2024-01-05T10:30:00+00:00", "bob", "Five") + "]," +
                  nextPage(base + "/commits?page=2") + "}");
    answerGet(base + "/commits?page=2",
              R"({"values":[)" + commitJson("c6", "2024-01-05T10:40:00+00:00", "bob", "Six") + "," +
                  commitJson("c4", "2024-01-06T08:00:00+00:00", "bob", "Four") + "]}");

    VTPullRequest pullRequest = vt::test::bitbucketPullRequestSeven();
    pullRequest.identifier = "7";
    pullRequest.author = "me";
    auto conversation = host.commentsForPullRequest(pullRequest, token, &error);
    ASSERT_TRUE(conversation) << error.description();
    EXPECT_THAT(summary(*conversation),
                ElementsAre("pull request", "comment 7 Adds the widget", "commits c1 c2",
                            "commits c3", "comment 1 First [7]", "comment 2 Same second",
                            "commits c5 c6", "commits c4", "comment 5 \x04\x05\x06 [6]", "yes"));

    EXPECT_EQ(pullRequest.webUrl, "https://bitbucket.test/team/project/pull-requests/7");
    EXPECT_TRUE(pullRequest.commentable && pullRequest.editable && pullRequest.closeable &&
                pullRequest.allowsMerge);
    EXPECT_FALSE(pullRequest.merged);
    EXPECT_EQ(pullRequest.mergeable, 1u);
    EXPECT_EQ(std::get<VTPullRequest>(conversation->front()), pullRequest);

    const auto& first = std::get<VTPullRequestComment>(conversation->at(4));
    EXPECT_EQ(first.replyTo, "1");
    EXPECT_EQ(first.date, "2024-01-05T10:00:00+0000");
    EXPECT_EQ(first.avatarUrl, "https://avatars.test/me.png");
    EXPECT_TRUE(first.editable && first.deletable);
    EXPECT_FALSE(std::get<VTPullRequestComment>(conversation->at(5)).editable);
    const auto& commits = std::get<VTPullRequestCommits>(conversation->at(2));
    EXPECT_EQ(commits.commits->at(0), (VTPullRequestCommit{"alice", std::nullopt, "c1",
                                                           "2024-01-05T09:00:00+0000", "One"}));
}

TEST_F(BitbucketPullRequests, AConversationOfSomeoneElsesCleanPullRequestEndsWithYes) {
    const std::string base = kBase;
    answerGet("/2.0/user?fields=uuid", R"({"uuid":"{me}"})");
    answerGet(base + "?fields=author.uuid,state,description,links.html.href,links.diffstat.href",
              details("{bob}"));
    answerGet(std::string(kDiffstat) + "&pagelen=200", R"({"values":[{"status":"added"}]})");
    answerGet(base + kCommentsQuery, R"({"values":[]})");
    answerGet(base + kCommitsQuery, R"({"values":[]})");
    VTPullRequest pullRequest = vt::test::bitbucketPullRequestSeven();
    auto conversation = host.commentsForPullRequest(pullRequest, token, &error);
    ASSERT_TRUE(conversation) << error.description();
    EXPECT_THAT(summary(*conversation),
                ElementsAre("pull request", "comment - Adds the widget", "yes"));
    EXPECT_TRUE(pullRequest.commentable);
    EXPECT_FALSE(pullRequest.editable || pullRequest.closeable || pullRequest.allowsMerge);
    EXPECT_EQ(pullRequest.mergeable, 0u);
}

}  // namespace
