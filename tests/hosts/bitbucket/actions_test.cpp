#include "bitbucket_test_support.h"

#include <gtest/gtest.h>

#include <functional>

namespace {

using vt::test::BitbucketTest;
using vt::test::urlOf;

using BitbucketActions = BitbucketTest;

TEST_F(BitbucketActions, SendEachItsMethodPathAndBody) {
    const VTPullRequest pullRequest = vt::test::bitbucketPullRequestSeven();
    const std::string base = "/2.0/repositories/team/project/pullrequests";
    struct Case {
        const char* name;
        const char* method;
        std::string target;
        std::optional<boost::json::value> body;  // nullopt: no body at all
        std::function<bool()> act;
    };
    const std::vector<Case> cases = {
        {"create from a fork", "POST", base,
         boost::json::object{
             {"title", "Widget"},
             {"description", "Adds it"},
             {"source",
              {{"repository", {{"full_name", "alice/project"}}}, {"branch", {{"name", "feat"}}}}},
             {"destination", {{"branch", {{"name", "main"}}}}}},
         [&] {
             return host.createPullRequestWithUrl(
                 urlOf("ssh://git@bitbucket.test/team/project.git"), "main", "alice/project:feat",
                 "Widget", "Adds it", token, &error);
         }},
        {"create from a branch", "POST", base,
         boost::json::object{{"title", "Fix"},
                             {"description", ""},
                             {"source", {{"branch", {{"name", "fix"}}}}},
                             {"destination", {{"branch", {{"name", "release:1"}}}}}},
         [&] {
             return host.createPullRequestWithUrl(urlOf("http://bitbucket.test/team/project"),
                                                  "release:1", "fix", "Fix", "", token, &error);
         }},
        {"edit keeps the title", "PUT", base + "/7",
         boost::json::object{{"title", "Add the widget"}, {"description", "New text"}},
         [&] { return host.editPullRequest(pullRequest, "New text", token, &error); }},
        {"comment", "POST", base + "/7/comments",
         boost::json::object{{"content", {{"raw", "Looks good"}}}},
         [&] { return host.addComment("Looks good", pullRequest, token, &error); }},
        {"reply names its parent by number", "POST", base + "/7/comments",
         boost::json::object{{"content", {{"raw", "Thanks"}}}, {"parent", {{"id", 42}}}},
         [&] { return host.replyTo("42", "Thanks", pullRequest, token, &error); }},
        {"edit a comment", "PUT", base + "/7/comments/42",
         boost::json::object{{"content", {{"raw", "Fixed typo"}}}},
         [&] { return host.editComment("42", "Fixed typo", pullRequest, token, &error); }},
        {"delete a comment", "DELETE", base + "/7/comments/42", std::nullopt,
         [&] { return host.deleteComment("42", pullRequest, token, &error); }},
        {"an identifier stays in its own segment", "DELETE", base + "/7/comments/4%2F..%3Fx=1",
         std::nullopt, [&] { return host.deleteComment("4/..?x=1", pullRequest, token, &error); }},
        {"merge commit without message", "POST", base + "/7/merge",
         boost::json::object{{"merge_strategy", "merge_commit"}, {"close_source_branch", false}},
         [&] { return host.mergePullRequest(pullRequest, 0, {0xab}, "", token, &error); }},
        {"squash with message", "POST", base + "/7/merge",
         boost::json::object{{"merge_strategy", "squash"},
                             {"close_source_branch", false},
                             {"message", "Widget (#7)"}},
         [&] { return host.mergePullRequest(pullRequest, 2, {}, "Widget (#7)", token, &error); }},
        {"close declines", "POST", base + "/7/decline", boost::json::object(),
         [&] { return host.closePullRequest(pullRequest, token, &error); }},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.name);
        answer(test.method, test.target, "{}");
        EXPECT_TRUE(test.act());
        EXPECT_FALSE(error);
        const vt::fake::Request request = fake.requests().back();
        if (test.body) {
            EXPECT_EQ(boost::json::parse(request.body), *test.body);
        } else {
            EXPECT_EQ(request.body, "");
        }
    }
}

TEST_F(BitbucketActions, AnswerNoWithTheHostsErrorAndAReplyToAWordSendsParentZero) {
    const VTPullRequest pullRequest = vt::test::bitbucketPullRequestSeven();
    answer("POST", "/2.0/repositories/team/project/pullrequests/7/comments",
           R"({"type":"error","error":{"message":"Comment not found"}})", 404);
    EXPECT_FALSE(host.replyTo("abc", "Hi", pullRequest, token, &error));
    EXPECT_EQ(error, VTError(VTHTTPErrorDomain, 404, "HTTP status code 404 (Not Found)",
                             "Comment not found"));
    EXPECT_EQ(bodyOf(0).at("parent"), (boost::json::object{{"id", 0}}));
}

}  // namespace
