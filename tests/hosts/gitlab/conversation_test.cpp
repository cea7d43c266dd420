#include "gitlab_test_support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <variant>
#include <vector>

namespace {

using ::testing::ElementsAre;
using vt::gitlab::testing::GitLabTest;
using vt::gitlab::testing::mergeRequestSeven;
using vt::gitlab::testing::pageInfo;

class GitLabConversation : public GitLabTest {
protected:
    GitLabConversation() {
        pullRequest.author = "erin";
        pullRequest.avatarUrl = "https://gitlab.test/uploads/erin.png";
        pullRequest.date = "2020-02-28T08:00:00Z";
        pullRequest.identifier.reset();
    }

    // The answer of a follow-up page of one connection of merge request 7.
    static std::string connectionPage(const std::string& connection, const std::string& content) {
        return R"({"data":{"project":{"mergeRequest":{")" + connection + R"(":{)" + content +
               "}}}}}";
    }

    VTPullRequest pullRequest = mergeRequestSeven();
};

// A note; `mayReply` is left out where the query does not ask for it (later discussion pages).
std::string note(const char* id, const char* createdAt, std::optional<bool> mayReply = true,
                 const char* systemIcon = nullptr) {
    const std::string createNote =
        mayReply ? std::string(R"(,"createNote":)") + (*mayReply ? "true" : "false") : "";
    return std::string(R"({"systemNoteIconName":)") +
           (systemIcon != nullptr ? std::string("\"") + systemIcon + "\"" : "null") + R"(,"id":")" +
           id + R"(","author":{"username":"bob","avatarUrl":"/uploads/bob.png"},)" +
           R"("createdAt":")" + createdAt + R"(","userPermissions":{"adminNote":true)" +
           createNote + R"(},"body":"Body of )" + id + R"("})";
}

std::string edge(const char* replyId, const std::string& notes, bool moreNotes,
                 const char* cursor) {
    return std::string(R"({"node":{"replyId":")") + replyId + R"(","notes":{"nodes":[)" + notes +
           "]," + pageInfo(moreNotes, "notes-end") + R"(}},"cursor":")" + cursor + R"("})";
}

std::string restCommit(const char* sha, const char* author, const char* committed) {
    return std::string(R"({"id":")") + sha + R"(","title":"Work on )" + sha +
           R"(","author_name":")" + author + R"(","author_email":")" + author +
           R"(@example.com","committed_date":")" + committed + R"("})";
}

// The kinds of a conversation's items: "pr", "comment <id>", "commits <oid> ...", "true".
std::vector<std::string> shape(const VTConversation& conversation) {
    std::vector<std::string> kinds;
    for (const VTConversationItem& item : conversation) {
        if (std::holds_alternative<VTPullRequest>(item)) {
            kinds.emplace_back("pr");
        } else if (const auto* comment = std::get_if<VTPullRequestComment>(&item)) {
            kinds.push_back("comment " + comment->identifier.value_or("?"));
        } else if (const auto* group = std::get_if<VTPullRequestCommits>(&item)) {
            std::string oids;
            for (const VTPullRequestCommit& commit : group->commits.value()) {
                oids += " " + commit.oid.value_or("?");
            }
            kinds.push_back("commits" + oids);
        } else {
            kinds.emplace_back(std::get<bool>(item) ? "true" : "false");
        }
    }
    return kinds;
}

TEST_F(GitLabConversation, FollowsEveryConnectionAndOrdersThreadsAndCommitRunsInTime) {
    answer(
        R"({"data":{"project":{"id":"gid://gitlab/Project/42","mergeRequest":{)"
        R"("id":"gid://gitlab/MergeRequest/70",)"
        R"("assignees":{"nodes":[{"username":"ann","avatarUrl":"/uploads/ann.png"}],)" +
        pageInfo(true, "a1") + R"(},"labels":{"nodes":[{"title":"bug","color":"#d73a4a"}],)" +
        pageInfo(true, "l1") +
        R"(},"userPermissions":{"updateMergeRequest":true,"adminMergeRequest":false,)"
        R"("canMerge":true,"createNote":true},"webUrl":"https://gitlab.test/group/project/-/)"
        R"(merge_requests/7","state":"opened","mergeable":true,"description":"Fixes \"it\"",)"
        R"("discussions":{"edges":[)" +
        edge("r1",
             note("n1", "2020-03-01T08:00:00Z", true, "merge") + "," +
                 note("n1b", "2020-03-01T08:01:00Z"),
             false, "d1") +
        "," +
        edge("r2", note("n2", "2020-03-01T10:00:00Z") + "," + note("n3", "2020-03-01T10:05:00Z"),
             true, "d2") +
        "," + edge("r5", note("n5", "2020-03-01T12:00:00Z", false), false, "d3") + "]," +
        pageInfo(true, "d3") +
        R"(},"commitsWithoutMergeCommits":{"nodes":[)"
        R"({"author":{"username":"erin","avatarUrl":"/uploads/erin.png"},"sha":"c1"},)"
        R"({"author":null,"authorName":"Bob","authorGravatar":"https://gravatar.test/b","sha":"c2"},)"
        R"({"author":{"username":"erin","avatarUrl":"/uploads/erin.png"},"sha":"c3"}],)" +
        pageInfo(true, "k1") + "}}}}}");
    answer(connectionPage(
        "assignees", R"("nodes":[{"username":"cat","avatarUrl":null}],)" + pageInfo(false, "a2")));
    answer(connectionPage("labels",
                          R"("nodes":[{"title":"ui","color":"#fff"}],)" + pageInfo(false, "l2")));
    // The rest of thread d2, asked for as the one discussion after d1.
    answer(connectionPage("discussions", R"("nodes":[{"replyId":"r2","notes":{"nodes":[)" +
                                             note("n4", "2020-03-01T10:09:00Z", std::nullopt) +
                                             "]," + pageInfo(false, "notes-2") + "}}]"));
    // The next page of discussions: a thread of the same second as n2.
    answer(connectionPage(
        "discussions",
        R"("edges":[)" + edge("r6", note("n6", "2020-03-01T10:00:00Z", std::nullopt), false, "d4") +
            "]," + pageInfo(false, "d4")));
    // Later commit pages ask for the account only; c4 has none.
    answer(connectionPage("commitsWithoutMergeCommits",
                          R"("nodes":[{"author":null,"sha":"c4"}],)" + pageInfo(false, "k2")));
    answerRest("GET", "/api/v4/projects/42/merge_requests/7/commits?per_page=100",
               "[" + restCommit("c1", "Erin E", "2020-03-01T09:00:00.000Z") + "," +
                   restCommit("c2", "Bob B", "2020-03-01T11:00:00.000Z") + "," +
                   // A merge commit, not in the GraphQL list: it shows the author before it.
                   restCommit("m3", "Merger", "2020-03-01T12:30:00.000+01:00") + "," +
                   restCommit("c3", "Erin E", "2020-03-01T11:45:00.000Z") + "]",
               "http://gitlab.test/api/v4/projects/42/merge_requests/7/commits?page=2");
    answerRest("GET", "/api/v4/projects/42/merge_requests/7/commits?page=2",
               "[" + restCommit("c4", "Carol", "2020-03-02T08:00:00.000Z") + "," +
                   restCommit("c5", "Carol", "2020-03-03T08:00:00.000Z") + "]");

    auto conversation = host.commentsForPullRequest(pullRequest, token, &error);
    ASSERT_TRUE(conversation) << error.description();
    EXPECT_EQ(fake.requestCount(), 8u);
    // A run ends at a thread, at another author and at another day; the system discussion is
    // left out with its replies.
    EXPECT_THAT(shape(*conversation),
                ElementsAre("pr", "comment gid://gitlab/MergeRequest/70", "commits c1",
                            "comment n2", "comment n6", "commits c2 m3", "commits c3", "comment n5",
                            "commits c4", "commits c5", "true"));

    EXPECT_EQ(pullRequest.identifier, "gid://gitlab/MergeRequest/70");
    EXPECT_EQ(pullRequest.webUrl, "https://gitlab.test/group/project/-/merge_requests/7");
    EXPECT_TRUE(pullRequest.commentable && pullRequest.editable && pullRequest.allowsMerge);
    EXPECT_FALSE(pullRequest.closeable || pullRequest.merged);
    EXPECT_EQ(pullRequest.mergeable, 0u);
    EXPECT_EQ(
        pullRequest.assignees,
        (boost::json::array{{{"author", "ann"}, {"avatar", "http://gitlab.test//uploads/ann.png"}},
                            {{"author", "cat"}}}));
    EXPECT_EQ(pullRequest.labels, (boost::json::array{{{"name", "bug"}, {"color", "#d73a4a"}},
                                                      {{"name", "ui"}, {"color", "#fff"}}}));
    EXPECT_EQ(std::get<VTPullRequest>(conversation->front()), pullRequest);

    VTPullRequestComment description;
    description.identifier = "gid://gitlab/MergeRequest/70";
    description.author = "erin";
    description.avatarUrl = "https://gitlab.test/uploads/erin.png";
    description.date = "2020-02-28T08:00:00Z";
    description.editable = true;
    description.content = "Fixes \"it\"";
    EXPECT_EQ(std::get<VTPullRequestComment>(conversation->at(1)), description);

    auto comment = [](const char* id, const char* date, const char* replyTo) {
        VTPullRequestComment expected;
        expected.identifier = id;
        expected.author = "bob";
        expected.avatarUrl = "http://gitlab.test//uploads/bob.png";
        expected.date = date;
        expected.editable = expected.deletable = true;
        expected.content = std::string("Body of ") + id;
        if (replyTo != nullptr) {
            expected.replyTo = replyTo;
        }
        return expected;
    };
    VTPullRequestComment head = comment("n2", "2020-03-01T10:00:00Z", "r2");
    head.comments = {comment("n3", "2020-03-01T10:05:00Z", nullptr),
                     comment("n4", "2020-03-01T10:09:00Z", nullptr)};
    EXPECT_EQ(std::get<VTPullRequestComment>(conversation->at(3)), head);
    // Without the right to reply, and on later pages (which do not ask), no reply handle.
    EXPECT_EQ(std::get<VTPullRequestComment>(conversation->at(4)).replyTo, "");
    EXPECT_EQ(std::get<VTPullRequestComment>(conversation->at(7)).replyTo, "");

    const auto& bobsRun = std::get<VTPullRequestCommits>(conversation->at(5)).commits.value();
    EXPECT_EQ(bobsRun.at(1), (VTPullRequestCommit{"Bob", "https://gravatar.test/b", "m3",
                                                  "2020-03-01T11:30:00+0000", "Work on m3"}));
    EXPECT_EQ(std::get<VTPullRequestCommits>(conversation->at(2)).commits->front().avatarUrl,
              "http://gitlab.test//uploads/erin.png");
    // Unknown to GraphQL: the commit's own name, and its address for a picture.
    EXPECT_EQ(std::get<VTPullRequestCommits>(conversation->at(9)).commits->front(),
              (VTPullRequestCommit{"Carol", "mailto:Carol@example.com", "c5",
                                   "2020-03-03T08:00:00+0000", "Work on c5"}));

    const auto queries = sentQueries();
    ASSERT_EQ(queries.size(), 6u);
    EXPECT_EQ(queries[0],
              R"(query{project(fullPath:"group/project"){id,mergeRequest(iid:"7"){id,assignees()"
              R"(first:100){nodes{username,avatarUrl}pageInfo{endCursor,hasNextPage}}labels()"
              R"(first:100){nodes{title,color}pageInfo{endCursor,hasNextPage}}userPermissions{)"
              R"(updateMergeRequest,adminMergeRequest,canMerge,createNote}webUrl,state,mergeable,)"
              R"(description,discussions(first:50){edges{node{replyId,notes(first:50){nodes{)"
              R"(systemNoteIconName,id,author{username,avatarUrl}createdAt,userPermissions{)"
              R"(adminNote,createNote}body}pageInfo{endCursor,hasNextPage}}}cursor}pageInfo{)"
              R"(endCursor,hasNextPage}}commitsWithoutMergeCommits(first:100){nodes{author{)"
              R"(username,avatarUrl},authorName,authorGravatar,sha}pageInfo{endCursor,)"
              R"(hasNextPage}}}}})");
    EXPECT_EQ(queries[1],
              R"(query{project(fullPath:"group/project"){mergeRequest(iid:"7"){assignees()"
              R"(first:100,after:"a1"){nodes{username,avatarUrl}pageInfo{endCursor,)"
              R"(hasNextPage}}}}})");
    EXPECT_EQ(queries[2],
              R"(query{project(fullPath:"group/project"){mergeRequest(iid:"7"){labels()"
              R"(first:100,after:"l1"){nodes{title,color}pageInfo{endCursor,hasNextPage}}}}})");
    EXPECT_EQ(queries[3],
              R"(query{project(fullPath:"group/project"){mergeRequest(iid:"7"){discussions()"
              R"(first:1,after:"d1"){nodes{replyId,notes(first:50,after:"notes-end"){nodes{)"
              R"(systemNoteIconName,id,author{username,avatarUrl}createdAt,userPermissions{)"
              R"(adminNote}body}pageInfo{endCursor,hasNextPage}}}}}}})");
    EXPECT_EQ(queries[4],
              R"(query{project(fullPath:"group/project"){mergeRequest(iid:"7"){discussions()"
              R"(first:50,after:"d3"){edges{node{replyId,notes(first:50){nodes{)"
              R"(systemNoteIconName,id,author{username,avatarUrl}createdAt,userPermissions{)"
              R"(adminNote}body}pageInfo{endCursor,hasNextPage}}}cursor}pageInfo{endCursor,)"
              R"(hasNextPage}}}}})");
    EXPECT_EQ(queries[5],
              R"(query{project(fullPath:"group/project"){mergeRequest(iid:"7"){)"
              R"(commitsWithoutMergeCommits(first:100,after:"k1"){nodes{author{username,)"
              R"(avatarUrl}sha}pageInfo{endCursor,hasNextPage}}}}})");
}

TEST_F(GitLabConversation, PermissionsAndStateComeFromTheAnswer) {
    struct Case {
        const char* fields;
        bool merged;
        std::uint64_t mergeable;
        bool mayComment;
    };
    const Case cases[] = {
        {R"("state":"merged","mergeable":false,"userPermissions":{"createNote":false})", true, 1,
         false},
        {R"("state":"opened","mergeable":true,"userPermissions":{"createNote":true})", false, 0,
         true},
    };
    for (const Case& test : cases) {
        answer(std::string(R"({"data":{"project":{"id":"gid://gitlab/Project/42",)") +
               R"("mergeRequest":{"id":"gid://gitlab/MergeRequest/70",)" + test.fields + "}}}}");
        answerRest("GET", "/api/v4/projects/42/merge_requests/7/commits?per_page=100", "[]");
        auto conversation = host.commentsForPullRequest(pullRequest, token, &error);
        ASSERT_TRUE(conversation) << error.description();
        EXPECT_EQ(pullRequest.merged, test.merged) << test.fields;
        EXPECT_EQ(pullRequest.mergeable, test.mergeable) << test.fields;
        EXPECT_EQ(pullRequest.commentable, test.mayComment) << test.fields;
        // Only a user who may comment gets the trailing marker.
        EXPECT_EQ(conversation->size(), test.mayComment ? 3u : 2u) << test.fields;
    }
}

TEST_F(GitLabConversation, AFailedCommitPageFailsTheConversation) {
    answer(R"({"data":{"project":{"id":"gid://gitlab/Project/42","mergeRequest":{}}}})");
    answerRest("GET", "/api/v4/projects/42/merge_requests/7/commits?per_page=100",
               R"({"message":"404 Not found"})", "", 404);
    EXPECT_FALSE(host.commentsForPullRequest(pullRequest, token, &error));
    EXPECT_EQ(error,
              VTError(VTHTTPErrorDomain, 404, "HTTP status code 404 (Not Found)", "404 Not found"));
}

}  // namespace
