#include "gitlab_test_support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace {

using ::testing::ElementsAre;
using vt::gitlab::testing::GitLabTest;
using vt::gitlab::testing::kProjectUrl;
using vt::gitlab::testing::mergeRequestSeven;
using vt::gitlab::testing::urlOf;

class GitLabActions : public GitLabTest {
protected:
    VTPullRequest pullRequest = mergeRequestSeven();
};

TEST_F(GitLabActions, EachActionSendsItsMutationWithFreeTextEscaped) {
    struct Case {
        const char* payload;
        std::function<bool()> action;
        std::string sent;
    };
    const VTData oid{0xab, 0xcd, 0x01};
    const Case cases[] = {
        {"mergeRequestCreate",
         [&] {
             return host.createPullRequestWithUrl(urlOf(kProjectUrl), "main", "fix\"x",
                                                  "Say \"hi\"", "Body \\o/", token, &error);
         },
         R"(mutation{mergeRequestCreate(input:{projectPath:"group/project",sourceBranch:"fix"x",)"
         R"(targetBranch:"main",title:"Say \"hi\"",description:"Body \o/"}){errors}})"},
        {"mergeRequestUpdate",
         [&] { return host.editPullRequest(pullRequest, "New \"body\"", token, &error); },
         R"(mutation{mergeRequestUpdate(input:{projectPath:"group/project",iid:"7",)"
         R"(description:"New \"body\""}){errors}})"},
        {"createNote", [&] { return host.addComment("A \"note\"", pullRequest, token, &error); },
         R"(mutation{createNote(input:{noteableId:"gid://gitlab/MergeRequest/70",)"
         R"(body:"A \"note\""}){errors}})"},
        {"createNote",
         [&] { return host.replyTo("d1f2", "Re: \"x\"", pullRequest, token, &error); },
         R"(mutation{createNote(input:{noteableId:"gid://gitlab/MergeRequest/70",)"
         R"(discussionId:"d1f2",body:"Re: \"x\""}){errors}})"},
        {"updateNote",
         [&] {
             return host.editComment("gid://gitlab/Note/5", "\"Edited\"", pullRequest, token,
                                     &error);
         },
         R"(mutation{updateNote(input:{id:"gid://gitlab/Note/5",body:"\"Edited\""}){errors}})"},
        {"destroyNote",
         [&] { return host.deleteComment("gid://gitlab/Note/5", pullRequest, token, &error); },
         R"(mutation{destroyNote(input:{id:"gid://gitlab/Note/5"}){errors}})"},
        {"mergeRequestAccept",
         [&] {
             return host.mergePullRequest(pullRequest, 1, oid, "Squash \"all\"", token, &error);
         },
         R"(mutation{mergeRequestAccept(input:{projectPath:"group/project",iid:"7",)"
         R"(sha:"abcd01",squash:true,squashCommitMessage:"Squash \"all\"",)"
         R"(shouldRemoveSourceBranch:false}){errors}})"},
        {"mergeRequestAccept",
         [&] { return host.mergePullRequest(pullRequest, 1, oid, "", token, &error); },
         R"(mutation{mergeRequestAccept(input:{projectPath:"group/project",iid:"7",)"
         R"(sha:"abcd01",squash:true,shouldRemoveSourceBranch:false}){errors}})"},
        {"mergeRequestAccept",
         [&] { return host.mergePullRequest(pullRequest, 0, oid, "Merge \"it\"", token, &error); },
         R"(mutation{mergeRequestAccept(input:{projectPath:"group/project",iid:"7",)"
         R"(sha:"abcd01",squash:false,commitMessage:"Merge \"it\"",)"
         R"(shouldRemoveSourceBranch:false}){errors}})"},
        // Neither squash nor message: GitLab writes its merge commit message itself.
        {"mergeRequestAccept",
         [&] { return host.mergePullRequest(pullRequest, 0, oid, "", token, &error); },
         R"(mutation{mergeRequestAccept(input:{projectPath:"group/project",iid:"7",)"
         R"(sha:"abcd01",squash:false,shouldRemoveSourceBranch:false}){errors}})"},
        {"mergeRequestUpdate", [&] { return host.closePullRequest(pullRequest, token, &error); },
         R"(mutation{mergeRequestUpdate(input:{projectPath:"group/project",iid:"7",)"
         R"(state:CLOSED}){errors}})"},
    };
    for (const Case& test : cases) {
        answer(std::string(R"({"data":{")") + test.payload + R"(":{"errors":[]}}})");
        EXPECT_TRUE(test.action()) << test.sent << "\n" << error.description();
        const auto queries = sentQueries();
        EXPECT_EQ(queries.empty() ? "" : queries.back(), test.sent);
    }
    EXPECT_EQ(fake.requestCount(), std::size(cases));
}

TEST_F(GitLabActions, AMutationThatListsErrorsFailsWithTheFirstOne) {
    answer(R"({"data":{"createNote":{"errors":["Note can't be blank","Second"]}}})");
    EXPECT_FALSE(host.addComment("", pullRequest, token, &error));
    EXPECT_EQ(error, VTError(VTHTTPErrorDomain, 200, "Note can't be blank"));
    // A top-level GraphQL error is the transport's.
    answer(R"({"data":null,"errors":[{"message":"Field 'x' doesn't exist"}]})");
    EXPECT_FALSE(host.editComment("gid://gitlab/Note/5", "x", pullRequest, token, &error));
    EXPECT_EQ(error, VTError(VTHTTPErrorDomain, 200, "Field 'x' doesn't exist"));
}

TEST_F(GitLabActions, ClosingNeverFailsOnAMutationError) {
    answer(R"({"data":{"mergeRequestUpdate":{"errors":["Cannot close"]}}})");
    EXPECT_TRUE(host.closePullRequest(pullRequest, token, &error));
    EXPECT_FALSE(error);
}

TEST_F(GitLabActions, ABranchOfAnotherProjectIsProposedOverRestFromThatProject) {
    answer(R"({"data":{"project":{"id":"gid://gitlab/Project/42"}}})");
    answerRest("POST", "/api/v4/projects/team%2Ffork/merge_requests", R"({"iid":8})", "", 201);
    EXPECT_TRUE(host.createPullRequestWithUrl(urlOf("ssh://git@gitlab.test/group/project.git"),
                                              "main", "team/fork:feature:x", "Say \"hi\"", "Body",
                                              token, &error))
        << error.description();
    EXPECT_THAT(sentQueries(), ElementsAre(R"(query{project(fullPath:"group/project"){id}})"));
    EXPECT_EQ(sentBody(1), (boost::json::object{{"source_branch", "feature:x"},
                                                {"target_branch", "main"},
                                                {"target_project_id", "42"},
                                                {"title", "Say \"hi\""},
                                                {"description", "Body"}}));
}

TEST_F(GitLabActions, AnUnknownTargetProjectSendsNoProposal) {
    answer(R"({"data":{"project":null}})");
    EXPECT_FALSE(host.createPullRequestWithUrl(urlOf(kProjectUrl), "main", "team/fork:feature", "T",
                                               "", token, &error));
    EXPECT_EQ(error.code, 404);
    EXPECT_EQ(fake.requestCount(), 1u);
}

}  // namespace
