#include "gitlab_test_support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace {

using ::testing::ElementsAre;
using vt::gitlab::testing::GitLabTest;
using vt::gitlab::testing::kProjectUrl;
using vt::gitlab::testing::pageInfo;
using vt::gitlab::testing::urlOf;

using GitLabMergeRequests = GitLabTest;

std::string listNode(const char* iid, const char* source, const char* sourceProject) {
    return std::string(R"({"author":{"username":"erin","avatarUrl":"/uploads/erin.png"},)") +
           R"("title":"Fix \"it\"","iid":")" + iid +
           R"(","createdAt":"2020-02-28T08:00:00Z","targetBranch":"main","sourceBranch":")" +
           source + R"(","sourceProject":)" + sourceProject + "}";
}

TEST_F(GitLabMergeRequests, AreListedOverEveryPageWithForksNamedByTheirProject) {
    answer(R"({"data":{"project":{"mergeRequests":{"nodes":[)" +
           listNode("3", "fix", R"({"fullPath":"group/project"})") + "," +
           listNode("2", "feature/x", R"({"fullPath":"fork/project"})") + "]," +
           pageInfo(true, "c1") + "}}}}");
    answer(R"({"data":{"project":{"mergeRequests":{"nodes":[)" + listNode("1", "gone", "null") +
           "]," + pageInfo(false, "c2") + "}}}}");
    auto list = host.pullRequestsWithUrl(urlOf(kProjectUrl), token, &error);
    ASSERT_TRUE(list) << error.description();
    ASSERT_EQ(list->size(), 3u);

    VTPullRequest expected;
    expected.author = "erin";
    expected.avatarUrl = "http://gitlab.test//uploads/erin.png";
    expected.title = "Fix \"it\"";
    expected.number = 3;
    expected.date = "2020-02-28T08:00:00Z";
    expected.baseReference = "main";
    expected.headReference = "fix";
    EXPECT_EQ(list->at(0), expected);
    EXPECT_EQ(list->at(1).baseReference, "group/project:main");
    EXPECT_EQ(list->at(1).headReference, "fork/project:feature/x");
    EXPECT_EQ(list->at(2).number, 1);
    EXPECT_EQ(list->at(2).headReference, "gone");  // a deleted source project is no fork
    EXPECT_THAT(
        sentQueries(),
        ElementsAre(R"(query{project(fullPath:"group/project"){mergeRequests(first:100,)"
                    R"(state:opened,sort:CREATED_DESC){nodes{author{username,avatarUrl}title,)"
                    R"(iid,createdAt,targetBranch,sourceBranch,sourceProject{fullPath}}pageInfo{)"
                    R"(endCursor,hasNextPage}}}})",
                    R"(query{project(fullPath:"group/project"){mergeRequests(first:100,)"
                    R"(after:"c1",state:opened,sort:CREATED_DESC){nodes{author{username,)"
                    R"(avatarUrl}title,iid,createdAt,targetBranch,sourceBranch,sourceProject{)"
                    R"(fullPath}}pageInfo{endCursor,hasNextPage}}}})"));
}

TEST_F(GitLabMergeRequests, AFailedPageFailsTheList) {
    answer(R"({"data":{"project":{"mergeRequests":{"nodes":[],)" + pageInfo(true, "c1") + "}}}}");
    answer(R"({"errors":[{"message":"Timeout on validation of query"}]})");
    EXPECT_FALSE(host.pullRequestsWithUrl(urlOf(kProjectUrl), token, &error));
    EXPECT_EQ(error, VTError(VTHTTPErrorDomain, 200, "Timeout on validation of query"));
}

}  // namespace
