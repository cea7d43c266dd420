// Every GraphQL text the adapter can send, captured by driving each operation against the fake
// host (follow-up pages included), checked against GitLab's published schema. Deprecated fields
// are reported, not failed: the texts are the ones GitLab has been sent all along.

#include "gitlab_test_support.h"
#include "graphql_schema.h"

#include <gtest/gtest.h>
#include <boost/json/serialize.hpp>

#include <iostream>
#include <set>
#include <string>
#include <vector>

namespace {

using vt::fake::Response;
using vt::gitlab::testing::GitLabTest;
using vt::gitlab::testing::kProjectUrl;
using vt::gitlab::testing::mergeRequestSeven;
using vt::gitlab::testing::pageInfo;
using vt::gitlab::testing::urlOf;

// One answer for every GraphQL text: each connection, and the notes of the first discussion, has
// a next page until a follow-up asks.
std::string graphQlAnswer(bool followUp) {
    const std::string more = followUp ? "false" : "true";
    const std::string c = R"({"nodes":[],)" + pageInfo(!followUp, "c1") + "}";
    const std::string notes = R"({"nodes":[{"systemNoteIconName":null,"id":"gid://gitlab/Note/1",)"
                              R"("createdAt":"2020-03-01T10:00:00Z"}],)" +
                              pageInfo(!followUp, "n1") + "}";
    const std::string discussions = R"({"edges":[{"node":{"replyId":"r1","notes":)" + notes +
                                    R"(},"cursor":"d1"}],"nodes":[{"notes":)" + notes + "}]," +
                                    pageInfo(!followUp, "d2") + "}";
    return R"({"data":{"currentUser":{"username":"erin","groupMemberships":)" + c +
           R"(},"project":{"id":"gid://gitlab/Project/42","visibility":"private",)"
           R"("mergeRequests":)" +
           c + R"(,"mergeRequest":{"id":"gid://gitlab/MergeRequest/70","assignees":)" + c +
           R"(,"labels":)" + c + R"(,"discussions":)" + discussions +
           R"(,"commitsWithoutMergeCommits":)" + c + "}}}}";
}

using GitLabSchema = GitLabTest;

TEST_F(GitLabSchema, EveryTextTheAdapterSendsIsValid) {
    if (const std::string missing = vt::test::missingGraphQlValidator(); !missing.empty()) {
        GTEST_SKIP() << missing;
    }
    fake.setHandler([](const vt::fake::Request& request) {
        if (request.target == "/api/graphql") {
            return Response::json(graphQlAnswer(request.body.find("after:") != std::string::npos));
        }
        return Response::json("{}");
    });
    const VTUrl url = urlOf(kProjectUrl);
    VTPullRequest pullRequest = mergeRequestSeven();
    host.userWithToken(token, &error);
    host.repositoriesWithToken(token, &error);
    host.isPrivateRepositoryAtUrl(url, token, &error);
    host.pullRequestsWithUrl(url, token, &error);
    host.commentsForPullRequest(pullRequest, token, &error);
    host.createPullRequestWithUrl(url, "main", "feature", "A \"title\"", "Body", token, &error);
    host.createPullRequestWithUrl(url, "main", "team/fork:feature", "T", "B", token, &error);
    host.editPullRequest(pullRequest, "New \"body\"", token, &error);
    host.addComment("A \"comment\"", pullRequest, token, &error);
    host.replyTo("r1", "A reply", pullRequest, token, &error);
    host.editComment("gid://gitlab/Note/1", "Edited", pullRequest, token, &error);
    host.deleteComment("gid://gitlab/Note/1", pullRequest, token, &error);
    const VTData oid{0xab, 0xcd, 0xef, 0x01};
    for (std::int64_t method : {0, 1}) {
        for (const char* message : {"", "A \"message\""}) {
            host.mergePullRequest(pullRequest, method, oid, message, token, &error);
        }
    }
    host.closePullRequest(pullRequest, token, &error);

    const auto queries = sentQueries();
    const std::set<std::string> distinct(queries.begin(), queries.end());
    const std::vector<std::string> texts(distinct.begin(), distinct.end());
    EXPECT_EQ(texts.size(), 25u) << "every distinct text the adapter can send";
    const boost::json::array results =
        vt::test::validateGraphQl(VT_SCHEMA_DIR "/gitlab.graphql", texts);
    ASSERT_EQ(results.size(), texts.size());
    for (std::size_t index = 0; index < texts.size(); ++index) {
        EXPECT_TRUE(results[index].at("valid").as_bool())
            << texts[index] << "\n"
            << boost::json::serialize(results[index].at("errors"));
        const boost::json::array& deprecations = results[index].at("deprecations").as_array();
        if (!deprecations.empty()) {
            std::cout << "deprecated in " << texts[index] << ":\n  "
                      << boost::json::serialize(deprecations) << "\n";
        }
    }
}

}  // namespace
