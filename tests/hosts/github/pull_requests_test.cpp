#include "github_test_support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <variant>
#include <vector>

namespace {

using ::testing::ElementsAre;
using vt::testing::fixtureText;
using vt::testing::GitHubTest;
using vt::testing::pageInfo;
using vt::testing::urlOf;

class GitHubPullRequests : public GitHubTest {
protected:
    GitHubPullRequests() {
        pullRequest.author = "erin";
        pullRequest.avatarUrl = "https://avatars.githubusercontent.com/u/15?v=4";
        pullRequest.date = "2020-02-28T08:00:00Z";
    }

    // The answer of a follow-up page of one connection of pull request 7.
    static std::string connectionPage(const std::string& connection, const std::string& nodes,
                                      bool more = false, const std::string& cursor = "end") {
        return R"({"data":{"repository":{"pullRequest":{")" + connection + R"(":{"nodes":[)" +
               nodes + "]," + pageInfo(more, cursor) + "}}}}}";
    }

    VTPullRequest pullRequest = vt::testing::pullRequestSeven("http://github.test/owner/repo.git");
};

std::string listNode(const char* head, const char* headRepository) {
    return std::string(R"({"author":{"login":"erin","avatarUrl":"https://a.test/e.png"},)") +
           R"("title":"Fix","number":3,"createdAt":"2020-02-28T08:00:00Z","baseRefName":"main",)" +
           R"("headRefName":")" + head + R"(","headRepository":)" + headRepository + "}";
}

TEST_F(GitHubPullRequests, ListedHeadsFromForksAreNamedWithTheirRepository) {
    answer(R"({"data":{"repository":{"pullRequests":{"nodes":[)" +
           listNode("fix", R"({"nameWithOwner":"owner/repo"})") + "," +
           listNode("feature/x", R"({"nameWithOwner":"other/repo"})") + "," +
           listNode("gone", "null") + "]," + pageInfo(true, "p1") + "}}}}");
    // Later pages ask for the head repository's owner and name, not "nameWithOwner".
    answer(R"({"data":{"repository":{"pullRequests":{"nodes":[)" +
           listNode("fix", R"({"owner":{"login":"owner"},"name":"repo"})") + "]," +
           pageInfo(false, "p2") + "}}}}");
    auto list = host.pullRequestsWithUrl(urlOf("http://github.test/owner/repo.git"), token, &error);
    ASSERT_TRUE(list) << error.description();
    ASSERT_EQ(list->size(), 4u);
    const std::pair<const char*, const char*> references[] = {
        {"main", "fix"},
        {"owner/repo:main", "other/repo:feature/x"},
        {"main", "gone"},
        {"owner/repo:main", "(null):fix"},
    };
    for (std::size_t index = 0; index < list->size(); ++index) {
        EXPECT_EQ(list->at(index).baseReference, references[index].first) << index;
        EXPECT_EQ(list->at(index).headReference, references[index].second) << index;
    }
    VTPullRequest expected;
    expected.author = "erin";
    expected.avatarUrl = "https://a.test/e.png";
    expected.title = "Fix";
    expected.number = 3;
    expected.date = "2020-02-28T08:00:00Z";
    expected.baseReference = "main";
    expected.headReference = "fix";
    EXPECT_EQ(list->front(), expected);
    EXPECT_THAT(
        sentQueries(),
        ElementsAre(
            "query{repository(owner:\"owner\",name:\"repo\"){pullRequests(first:100,states:[OPEN],"
            "orderBy:{field:CREATED_AT,direction:DESC}){nodes{author{login,avatarUrl}title,number,"
            "createdAt,baseRefName,headRefName,headRepository{nameWithOwner}}pageInfo{endCursor,"
            "hasNextPage}}}}",
            "query{repository(owner:\"owner\",name:\"repo\"){pullRequests(first:100,after:\"p1\","
            "states:[OPEN],orderBy:{field:CREATED_AT,direction:DESC}){nodes{author{login,"
            "avatarUrl}title,number,createdAt,baseRefName,headRefName,headRepository{owner{login}"
            "name}}pageInfo{endCursor,hasNextPage}}}}"));
}

std::string commitNode(const char* oid, const char* committer, const char* author,
                       const char* committedDate) {
    auto user = [](const char* login) {
        return login != nullptr ? std::string(R"({"login":")") + login + R"("})"
                                : std::string("null");
    };
    return std::string(R"({"commit":{"committer":{"user":)") + user(committer) +
           R"(,"avatarUrl":"https://a.test/c.png"},"author":{"user":)" + user(author) +
           R"(,"avatarUrl":"https://a.test/a.png"},"oid":")" + oid + R"(","committedDate":")" +
           committedDate + R"(","messageHeadline":"Work"}})";
}

TEST_F(GitHubPullRequests, TheConversationMergesCommentsAndCommitGroupsInTimeOrder) {
    answer(fixtureText("conversation.json"));
    answer(connectionPage("assignees", R"({"login":"dave","avatarUrl":"https://a.test/d.png"})"));
    answer(connectionPage("comments",
                          R"({"id":"IC_second","author":{"login":"bob","avatarUrl":null},)"
                          R"("createdAt":"2020-03-02T10:00:00Z","body":"Done"})"));
    answer(connectionPage("commits",
                          commitNode("b1", "bob", "bob", "2020-03-01T12:30:00Z") + "," +
                              commitNode("b2", "bob", "bob", "2020-03-02T09:00:00Z") + "," +
                              // The same second as the second comment, by its author only.
                              commitNode("b3", nullptr, "bob", "2020-03-02T10:00:00Z"),
                          true, "commits-2"));
    answer(connectionPage("commits", commitNode("n1", nullptr, nullptr, "2020-03-02T10:30:00Z")));

    auto conversation = host.commentsForPullRequest(pullRequest, token, &error);
    ASSERT_TRUE(conversation) << error.description();
    // A group ends at a comment, at another author and at another day; a commit without author
    // is a group of its own.
    EXPECT_THAT(vt::test::conversationShape(*conversation),
                ElementsAre("pr", "comment PR_kwDOAbc123", "commits a1a1a1a1 a2a2a2a2",
                            "comment IC_first", "commits a3a3a3a3", "commits b1", "commits b2",
                            "comment IC_second", "commits b3", "commits n1", "true"));

    const auto queries = sentQueries();
    ASSERT_EQ(queries.size(), 5u);
    EXPECT_EQ(queries[1],
              R"(query{repository(owner:"owner",name:"repo"){pullRequest(number:7){assignees()"
              R"(first:100,after:"YXNzaWduZWVzOjI="){nodes{login,avatarUrl}pageInfo{endCursor,)"
              R"(hasNextPage}}}}})");
    EXPECT_EQ(queries[2],
              R"(query{repository(owner:"owner",name:"repo"){pullRequest(number:7){comments()"
              R"(first:50,after:"Y29tbWVudHM6MQ=="){nodes{id,author{login,avatarUrl}createdAt,)"
              R"(viewerCanUpdate,viewerCanDelete,body}pageInfo{endCursor,hasNextPage}}}}})");
    EXPECT_EQ(queries[4],
              R"(query{repository(owner:"owner",name:"repo"){pullRequest(number:7){commits()"
              R"(first:100,after:"commits-2"){nodes{commit{committer{user{login}avatarUrl}author{)"
              R"(user{login}avatarUrl}oid,committedDate,messageHeadline}}pageInfo{endCursor,)"
              R"(hasNextPage}}}}})");

    // The record is updated in place, and the conversation starts with a copy of it.
    EXPECT_EQ(pullRequest.identifier, "PR_kwDOAbc123");
    EXPECT_EQ(pullRequest.webUrl, "https://github.com/owner/repo/pull/7");
    EXPECT_TRUE(pullRequest.commentable && pullRequest.editable && pullRequest.closeable &&
                pullRequest.allowsMerge);
    EXPECT_FALSE(pullRequest.merged);
    EXPECT_EQ(pullRequest.mergeable, 2u);  // UNKNOWN
    EXPECT_EQ(
        pullRequest.assignees,
        (boost::json::array{
            {{"author", "alice"}, {"avatar", "https://avatars.githubusercontent.com/u/11?v=4"}},
            {{"author", "bob"}, {"avatar", "https://avatars.githubusercontent.com/u/12?v=4"}},
            {{"author", "dave"}, {"avatar", "https://a.test/d.png"}}}));
    EXPECT_EQ(pullRequest.labels,
              (boost::json::array{{{"name", "bug"}, {"color", "d73a4a"}},
                                  {{"name", "needs review"}, {"color", "fbca04"}}}));
    EXPECT_EQ(std::get<VTPullRequest>(conversation->front()), pullRequest);

    VTPullRequestComment description;
    description.identifier = "PR_kwDOAbc123";
    description.author = "erin";
    description.avatarUrl = "https://avatars.githubusercontent.com/u/15?v=4";
    description.date = "2020-02-28T08:00:00Z";
    description.editable = true;
    description.content = "Fixes the \"flaky\" build.";
    EXPECT_EQ(std::get<VTPullRequestComment>(conversation->at(1)), description);

    VTPullRequestComment second;
    second.identifier = "IC_second";
    second.author = "bob";
    second.date = "2020-03-02T10:00:00Z";
    second.replyTo = "";
    second.content = "Done";
    EXPECT_EQ(std::get<VTPullRequestComment>(conversation->at(7)), second);

    // Committer first; else the author, whose date later pages do not ask for; else nobody.
    auto onlyCommit = [&](std::size_t index) {
        return std::get<VTPullRequestCommits>(conversation->at(index)).commits->front();
    };
    EXPECT_EQ(onlyCommit(4),
              (VTPullRequestCommit{"alice", "https://avatars.githubusercontent.com/u/11?v=4",
                                   "a3a3a3a3", "2020-03-01T12:00:00Z", "Split"}));
    EXPECT_EQ(onlyCommit(8),
              (VTPullRequestCommit{"bob", "https://a.test/a.png", "b3", std::nullopt, "Work"}));
    EXPECT_EQ(onlyCommit(9), (VTPullRequestCommit{std::nullopt, "https://a.test/c.png", "n1",
                                                  "2020-03-02T10:30:00Z", "Work"}));
}

TEST_F(GitHubPullRequests, PermissionsAndMergeStatesComeFromTheAnswer) {
    struct Case {
        const char* mergeable;
        bool viewerCanSubscribe;
        std::uint64_t state;
    };
    const Case cases[] = {{"MERGEABLE", false, 0}, {"CONFLICTING", true, 1}, {"UNKNOWN", true, 2}};
    for (const Case& test : cases) {
        answer(std::string(R"({"data":{"repository":{"pullRequest":{"id":"PR_1","mergeable":")") +
               test.mergeable + R"(","viewerCanSubscribe":)" +
               (test.viewerCanSubscribe ? "true" : "false") + R"(,"viewerCanUpdate":false}}}})");
        auto conversation = host.commentsForPullRequest(pullRequest, token, &error);
        ASSERT_TRUE(conversation) << error.description();
        EXPECT_EQ(pullRequest.mergeable, test.state) << test.mergeable;
        EXPECT_EQ(pullRequest.commentable, test.viewerCanSubscribe);
        EXPECT_FALSE(pullRequest.editable || pullRequest.closeable || pullRequest.allowsMerge);
        // Only a viewer who may subscribe gets the trailing marker that allows commenting.
        EXPECT_EQ(conversation->size(), test.viewerCanSubscribe ? 3u : 2u);
    }
}

TEST_F(GitHubPullRequests, AFailedFollowUpPageFailsTheConversation) {
    answer(fixtureText("conversation.json"));
    answer(R"({"message":"Bad credentials"})", 401);
    EXPECT_FALSE(host.commentsForPullRequest(pullRequest, token, &error));
    EXPECT_EQ(error.code, 401);
    EXPECT_EQ(pullRequest.identifier, "PR_kwDOAbc123");  // already updated, as designed
}

}  // namespace
