#pragma once

// Every text the GitHub adapter sends, in one place. "%@" marks the places that are filled in, in
// order, by vt::fillText. The texts are the host's contract and are sent exactly as they stand,
// with their quirks: the follow-up pages of the pull request list and of the commits ask for other
// fields than the first page, and the one-line merge has no comma before its empty body.

#include <string_view>

namespace vt::github {

// ---- Account and profile
inline constexpr std::string_view kUserQuery = "query{viewer{login,name,avatarUrl,url}}";
inline constexpr std::string_view kProfileQuery =
    "query{viewer{createdAt,email,location,company,bio,url,websiteUrl,organizations(first:100){"
    "nodes{name}pageInfo{endCursor,hasNextPage}}}}";
inline constexpr std::string_view kOrganizationsPageQuery =
    "query{viewer{organizations(first:100,after:\"%@\"){nodes{name}pageInfo{endCursor,"
    "hasNextPage}}}}";

// ---- Repositories
inline constexpr std::string_view kRepositoriesQuery =
    "query{viewer{login,repositories(first:100,affiliations:[OWNER,ORGANIZATION_MEMBER,"
    "COLLABORATOR],ownerAffiliations:[OWNER,ORGANIZATION_MEMBER,COLLABORATOR]){nodes{owner{...on "
    "User{login,name,avatarUrl,id}...on Organization{login,name,avatarUrl,id,"
    "viewerCanCreateRepositories}}name,isPrivate,description,updatedAt,parent{url}watchers{"
    "totalCount}stargazers{totalCount}forkCount,url,sshUrl}pageInfo{endCursor,hasNextPage}}}}";
inline constexpr std::string_view kRepositoriesPageQuery =
    "query{viewer{repositories(first:100,after:\"%@\",affiliations:[OWNER,ORGANIZATION_MEMBER,"
    "COLLABORATOR],ownerAffiliations:[OWNER,ORGANIZATION_MEMBER,COLLABORATOR]){nodes{owner{...on "
    "User{login,name,avatarUrl,id}...on Organization{login,name,avatarUrl,id,"
    "viewerCanCreateRepositories}}name,isPrivate,description,updatedAt,parent{url}watchers{"
    "totalCount}stargazers{totalCount}forkCount,url,sshUrl}pageInfo{endCursor,hasNextPage}}}}";
inline constexpr std::string_view kViewerQuery = "query{viewer{name,avatarUrl,id}}";
inline constexpr std::string_view kCreateRepositoryMutation =
    "mutation{createRepository(input:{ownerId:\"%@\",name:\"%@\",description:\"%@\","
    "visibility:%@}){repository{sshUrl,url}}}";
inline constexpr std::string_view kPrivacyQuery =
    "query{repository(owner:\"%@\",name:\"%@\"){isPrivate}}";
inline constexpr std::string_view kParentQuery =
    "query{repository(owner:\"%@\",name:\"%@\"){parent{sshUrl,url}}}";

// ---- Pull request list
inline constexpr std::string_view kPullRequestsQuery =
    "query{repository(owner:\"%@\",name:\"%@\"){pullRequests(first:100,states:[OPEN],orderBy:{"
    "field:CREATED_AT,direction:DESC}){nodes{author{login,avatarUrl}title,number,createdAt,"
    "baseRefName,headRefName,headRepository{nameWithOwner}}pageInfo{endCursor,hasNextPage}}}}";
inline constexpr std::string_view kPullRequestsPageQuery =
    "query{repository(owner:\"%@\",name:\"%@\"){pullRequests(first:100,after:\"%@\",states:["
    "OPEN],orderBy:{field:CREATED_AT,direction:DESC}){nodes{author{login,avatarUrl}title,number,"
    "createdAt,baseRefName,headRefName,headRepository{owner{login}name}}pageInfo{endCursor,"
    "hasNextPage}}}}";

// ---- Conversation
inline constexpr std::string_view kConversationQuery =
    "query{repository(owner:\"%@\",name:\"%@\"){pullRequest(number:%@){id,assignees(first:100){"
    "nodes{login,avatarUrl}pageInfo{endCursor,hasNextPage}}labels(first:100){nodes{name,color}"
    "pageInfo{endCursor,hasNextPage}}viewerCanUpdate,viewerCanSubscribe,url,merged,mergeable,body,"
    "comments(first:50){nodes{id,author{login,avatarUrl}createdAt,viewerCanUpdate,"
    "viewerCanDelete,body}pageInfo{endCursor,hasNextPage}}commits(first:100){nodes{commit{"
    "committer{user{login}avatarUrl}author{user{login}avatarUrl}oid,committedDate,authoredDate,"
    "messageHeadline}}pageInfo{endCursor,hasNextPage}}}}}";
inline constexpr std::string_view kAssigneesPageQuery =
    "query{repository(owner:\"%@\",name:\"%@\"){pullRequest(number:%@){assignees(first:100,"
    "after:\"%@\"){nodes{login,avatarUrl}pageInfo{endCursor,hasNextPage}}}}}";
inline constexpr std::string_view kLabelsPageQuery =
    "query{repository(owner:\"%@\",name:\"%@\"){pullRequest(number:%@){labels(first:100,after:"
    "\"%@\"){nodes{name,color}pageInfo{endCursor,hasNextPage}}}}}";
inline constexpr std::string_view kCommentsPageQuery =
    "query{repository(owner:\"%@\",name:\"%@\"){pullRequest(number:%@){comments(first:50,after:"
    "\"%@\"){nodes{id,author{login,avatarUrl}createdAt,viewerCanUpdate,viewerCanDelete,body}"
    "pageInfo{endCursor,hasNextPage}}}}}";
inline constexpr std::string_view kCommitsPageQuery =
    "query{repository(owner:\"%@\",name:\"%@\"){pullRequest(number:%@){commits(first:100,after:"
    "\"%@\"){nodes{commit{committer{user{login}avatarUrl}author{user{login}avatarUrl}oid,"
    "committedDate,messageHeadline}}pageInfo{endCursor,hasNextPage}}}}}";

// ---- Pull request actions
inline constexpr std::string_view kRepositoryIdQuery =
    "query{repositoryOwner(login:\"%@\"){repository(name:\"%@\"){id}}}";
inline constexpr std::string_view kCreatePullRequestMutation =
    "mutation{createPullRequest(input:{repositoryId:\"%@\",baseRefName:\"%@\",headRefName:\"%@\","
    "title:\"%@\",body:\"%@\"}){pullRequest{id}}}";
inline constexpr std::string_view kUpdatePullRequestMutation =
    "mutation{updatePullRequest(input:{pullRequestId:\"%@\",body:\"%@\"}){clientMutationId}}";
inline constexpr std::string_view kAddCommentMutation =
    "mutation{addComment(input:{subjectId:\"%@\",body:\"%@\"}){clientMutationId}}";
inline constexpr std::string_view kUpdateCommentMutation =
    "mutation{updateIssueComment(input:{id:\"%@\",body:\"%@\"}){clientMutationId}}";
inline constexpr std::string_view kDeleteCommentMutation =
    "mutation{deleteIssueComment(input:{id:\"%@\"}){clientMutationId}}";
inline constexpr std::string_view kMergeMutation =
    "mutation{mergePullRequest(input:{pullRequestId:\"%@\",mergeMethod:%@,expectedHeadOid:\"%@\"})"
    "{clientMutationId}}";
inline constexpr std::string_view kMergeWithBodyMutation =
    "mutation{mergePullRequest(input:{pullRequestId:\"%@\",mergeMethod:%@,expectedHeadOid:\"%@\","
    "commitHeadline:\"%@\",commitBody:\"%@\"}){clientMutationId}}";
inline constexpr std::string_view kMergeWithHeadlineMutation =
    "mutation{mergePullRequest(input:{pullRequestId:\"%@\",mergeMethod:%@,expectedHeadOid:\"%@\","
    "commitHeadline:\"%@\"commitBody:\"\"}){clientMutationId}}";
inline constexpr std::string_view kClosePullRequestMutation =
    "mutation{closePullRequest(input:{pullRequestId:\"%@\"}){clientMutationId}}";

}  // namespace vt::github
