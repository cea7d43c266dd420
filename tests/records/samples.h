#pragma once

// Records with every property set, shared by the value-form and the bus tests.

#include "records/records.h"

inline VTPullRequest samplePullRequest() {
    VTPullRequest pullRequest;
    pullRequest.remoteUrl = "https://github.com/veldtrack/hosts.git";
    pullRequest.hostType = 1;
    pullRequest.identifier = "PR_kwDOAbc123";
    pullRequest.author = "octo";
    pullRequest.avatarUrl = "https://avatars.githubusercontent.com/u/42?v=4";
    pullRequest.title = "Fix the \"Link\" scan — for real";
    pullRequest.number = 1347;
    pullRequest.date = "2024-03-05T10:11:12Z";
    pullRequest.baseReference = "main";
    pullRequest.headReference = "fix/link-scan";
    pullRequest.assignees = boost::json::array{
        boost::json::object{{"login", "octo"}, {"avatar", "https://example.com/a.png"}},
        boost::json::object{{"login", "cat"}, {"teams", boost::json::array{"core", "docs"}}}};
    pullRequest.labels =
        boost::json::array{boost::json::object{{"name", "bug"}, {"color", "d73a4a"}}};
    pullRequest.webUrl = "https://github.com/veldtrack/hosts/pull/1347";
    pullRequest.commentable = true;
    pullRequest.editable = true;
    pullRequest.closeable = true;
    pullRequest.allowsMerge = true;
    pullRequest.merged = true;
    pullRequest.mergeable = 2;
    return pullRequest;
}

inline VTPullRequestComment sampleComment(std::string identifier) {
    VTPullRequestComment comment;
    comment.identifier = std::move(identifier);
    comment.author = "reviewer";
    comment.avatarUrl = "https://avatars.example.com/reviewer";
    comment.date = "2024-03-06T08:00:00Z";
    comment.editable = true;
    comment.deletable = false;
    comment.replyTo = "thread-7";
    comment.content = "Looks good, but see line 12.\n\n```cpp\nint x = 0;\n```";
    return comment;
}

inline VTPullRequestCommit sampleCommit(std::string oid) {
    VTPullRequestCommit commit;
    commit.author = "octo";
    commit.avatarUrl = "https://avatars.example.com/octo";
    commit.oid = std::move(oid);
    commit.date = "2024-03-05T09:00:00Z";
    commit.message = "Scan the Link header once";
    return commit;
}

// The shape every adapter builds: the pull request, its description, comments and commit groups
// in time order, and `true` last.
inline VTConversation sampleConversation() {
    VTPullRequestComment description = sampleComment("PR_kwDOAbc123");
    VTPullRequestCommits commits;
    commits.addCommit(sampleCommit("1111111111111111111111111111111111111111"));
    commits.addCommit(sampleCommit("2222222222222222222222222222222222222222"));
    VTPullRequestComment thread = sampleComment("c1");
    thread.comments = std::vector{sampleComment("c2")};
    return {samplePullRequest(), description, commits, thread, true};
}
