#include "github_test_support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace {

using ::testing::ElementsAre;
using vt::testing::GitHubTest;
using vt::testing::urlOf;

class GitHubActions : public GitHubTest {
protected:
    GitHubActions() { pullRequest.identifier = "PR_1"; }

    // Runs `action` against one scripted success answer and returns the one text it sent.
    std::string sentBy(const std::function<bool()>& action) {
        answer(R"({"data":{}})");
        EXPECT_TRUE(action()) << error.description();
        const auto queries = sentQueries();
        return queries.empty() ? std::string() : queries.back();
    }

    VTPullRequest pullRequest = vt::testing::pullRequestSeven("http://github.test/owner/repo");
};

TEST_F(GitHubActions, CreationLooksUpTheRepositoryAndSendsTheHeadInGitHubsForm) {
    struct Case {
        const char* head;
        const char* sent;
    };
    const Case cases[] = {
        {"feature", "feature"},
        {"alice/tool:feature/x", "alice:feature/x"},
        {"alice:feature", "alice:feature:feature"},
    };
    for (const Case& test : cases) {
        answer(R"({"data":{"repositoryOwner":{"repository":{"id":"R_9"}}}})");
        answer(R"({"data":{"createPullRequest":{"pullRequest":{"id":"PR_2"}}}})");
        EXPECT_TRUE(host.createPullRequestWithUrl(urlOf("ssh://git@github.test/owner/repo.git"),
                                                  "main", test.head, "Say \"hi\" \\o/", "Body",
                                                  token, &error))
            << error.description();
        const auto queries = sentQueries();
        EXPECT_EQ(queries.at(queries.size() - 2),
                  R"(query{repositoryOwner(login:"owner"){repository(name:"repo"){id}}})");
        EXPECT_EQ(queries.back(),
                  std::string(R"(mutation{createPullRequest(input:{repositoryId:"R_9",)"
                              R"(baseRefName:"main",headRefName:")") +
                      test.sent + R"(",title:"Say \"hi\" \o/",body:"Body"}){pullRequest{id}}})");
    }
}

TEST_F(GitHubActions, AFailedRepositoryLookupSendsNoCreation) {
    answer(R"({"errors":[{"message":"Not found"}]})");
    EXPECT_FALSE(host.createPullRequestWithUrl(urlOf("http://github.test/owner/repo"), "main", "x",
                                               "t", "b", token, &error));
    EXPECT_EQ(error.description(), "Not found");
    EXPECT_EQ(fake.requestCount(), 1u);
}

TEST_F(GitHubActions, EachActionSendsItsMutationWithUserTextEscaped) {
    EXPECT_EQ(
        sentBy([&] { return host.editPullRequest(pullRequest, "New \"text\"", token, &error); }),
        R"(mutation{updatePullRequest(input:{pullRequestId:"PR_1",body:"New \"text\""}){clientMutationId}})");
    EXPECT_EQ(
        sentBy([&] { return host.addComment("Nice \"work\"", pullRequest, token, &error); }),
        R"(mutation{addComment(input:{subjectId:"PR_1",body:"Nice \"work\""}){clientMutationId}})");
    EXPECT_EQ(
        sentBy([&] { return host.editComment("IC_5", "Edit \"d\"", pullRequest, token, &error); }),
        R"(mutation{updateIssueComment(input:{id:"IC_5",body:"Edit \"d\""}){clientMutationId}})");
    EXPECT_EQ(sentBy([&] { return host.deleteComment("IC_5", pullRequest, token, &error); }),
              R"(mutation{deleteIssueComment(input:{id:"IC_5"}){clientMutationId}})");
    EXPECT_EQ(sentBy([&] { return host.closePullRequest(pullRequest, token, &error); }),
              R"(mutation{closePullRequest(input:{pullRequestId:"PR_1"}){clientMutationId}})");
}

TEST_F(GitHubActions, MergesSendTheMethodWordAndOneOfThreeMessageForms) {
    struct Case {
        std::int64_t method;
        const char* message;
        const char* sent;
    };
    const Case cases[] = {
        {0, "",
         R"(mutation{mergePullRequest(input:{pullRequestId:"PR_1",mergeMethod:MERGE,expectedHeadOid:"00ff10"}){clientMutationId}})"},
        {1, "One \"line\"",
         R"(mutation{mergePullRequest(input:{pullRequestId:"PR_1",mergeMethod:REBASE,expectedHeadOid:"00ff10",commitHeadline:"One \"line\""commitBody:""}){clientMutationId}})"},
        {2, "Head\nBody \"1\"\nBody 2",
         R"(mutation{mergePullRequest(input:{pullRequestId:"PR_1",mergeMethod:SQUASH,expectedHeadOid:"00ff10",commitHeadline:"Head",commitBody:"Body \"1\")"
         "\n"
         R"(Body 2"}){clientMutationId}})"},
        {7, "Only\n",
         R"(mutation{mergePullRequest(input:{pullRequestId:"PR_1",mergeMethod:SQUASH,expectedHeadOid:"00ff10",commitHeadline:"Only",commitBody:""}){clientMutationId}})"},
    };
    const VTData oid{0x00, 0xff, 0x10};
    for (const Case& test : cases) {
        EXPECT_EQ(sentBy([&] {
                      return host.mergePullRequest(pullRequest, test.method, oid, test.message,
                                                   token, &error);
                  }),
                  test.sent)
            << test.method;
    }
}

TEST_F(GitHubActions, ARefusedMergeFailsWithTheHostsMessage) {
    answer(
        R"({"data":{"mergePullRequest":null},"errors":[{"message":"Head branch was modified"}]})");
    EXPECT_FALSE(host.mergePullRequest(pullRequest, 0, VTData{0x01}, "", token, &error));
    EXPECT_EQ(error.code, 200);
    EXPECT_EQ(error.description(), "Head branch was modified");
}

TEST_F(GitHubActions, AReplySendsNothingAndSucceeds) {
    error = VTError(VTHTTPErrorDomain, 500, "left over");
    EXPECT_TRUE(host.replyTo("IC_5", "Thanks", pullRequest, token, &error));
    EXPECT_FALSE(error);
    EXPECT_EQ(fake.requestCount(), 0u);
}

}  // namespace
