// Every GraphQL text the adapter can send, captured by driving each operation against the fake
// host (follow-up pages included), must be valid against GitHub's published schema.

#include "github_test_support.h"
#include "graphql_schema.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

namespace {

using vt::fake::Response;
using vt::testing::GitHubTest;
using vt::testing::pageInfo;
using vt::testing::urlOf;

using GitHubSchema = GitHubTest;

TEST_F(GitHubSchema, EveryTextTheAdapterSendsIsValid) {
    if (const std::string missing = vt::test::missingGraphQlValidator(); !missing.empty()) {
        GTEST_SKIP() << missing;
    }
    // One answer fits every query: each connection has a next page until a follow-up asks.
    fake.setHandler([](const vt::fake::Request& request) {
        const bool followUp = request.body.find("after:") != std::string::npos;
        const std::string c = R"({"nodes":[],)" + pageInfo(!followUp, "Y3Vyc29yOjE=") + "}";
        return Response::json(R"({"data":{"viewer":{"login":"octo","organizations":)" + c +
                              R"(,"repositories":)" + c + R"(},"repository":{"pullRequests":)" + c +
                              R"(,"pullRequest":{"assignees":)" + c + R"(,"labels":)" + c +
                              R"(,"comments":)" + c + R"(,"commits":)" + c + "}}}}");
    });
    const VTUrl url = urlOf("http://github.test/owner/my.tool.git");
    host.userWithToken(token, &error);
    host.profileWithToken(token, &error);
    host.repositoriesWithToken(token, &error);  // owns nothing: also asks for the viewer
    host.createRepositoryWithToken(token, {{"identifier", "U_1"}}, "tool", "Tool",
                                   "A \"quoted\" description", 1, &error);
    host.isPrivateRepositoryAtUrl(url, token, &error);
    host.forksForUrl(url, token, &error);
    host.pullRequestsWithUrl(url, token, &error);
    VTPullRequest pullRequest = vt::testing::pullRequestSeven("http://github.test/owner/repo");
    host.commentsForPullRequest(pullRequest, token, &error);
    host.createPullRequestWithUrl(url, "main", "alice/repo:feature/x", "A \"title\"", "Body", token,
                                  &error);
    host.editPullRequest(pullRequest, "New \"body\"", token, &error);
    host.addComment("A \"comment\"", pullRequest, token, &error);
    host.editComment("IC_1", "Edited", pullRequest, token, &error);
    host.deleteComment("IC_1", pullRequest, token, &error);
    const VTData oid{0xab, 0xcd, 0xef, 0x01};
    for (const char* message : {"", "Headline only", "Headline\nBody"}) {
        host.mergePullRequest(pullRequest, 2, oid, message, token, &error);
    }
    host.closePullRequest(pullRequest, token, &error);

    const auto queries = sentQueries();
    const std::set<std::string> distinct(queries.begin(), queries.end());
    const std::vector<std::string> texts(distinct.begin(), distinct.end());
    EXPECT_EQ(texts.size(), 26u) << "every distinct text the adapter can send";
    const boost::json::array results =
        vt::test::validateGraphQl(VT_SCHEMA_DIR "/github.graphql", texts);
    ASSERT_EQ(results.size(), texts.size());
    for (std::size_t index = 0; index < texts.size(); ++index) {
        EXPECT_TRUE(results[index].at("valid").as_bool())
            << texts[index] << "\n"
            << boost::json::serialize(results[index].at("errors"));
    }
}

}  // namespace
