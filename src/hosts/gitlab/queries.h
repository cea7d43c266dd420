#pragma once

// Every text the GitLab adapter sends, in one place: GraphQL queries and mutations, and the REST
// paths below the API root. "%@" marks the places that vt::fillText fills, in order. The texts
// are the host's contract and are sent exactly as they stand, with their quirks: the follow-up
// pages of the discussions ask for userPermissions{adminNote} only, the re-reading of a long
// thread asks for exactly one discussion, and later commit pages ask for the author object
// only.

#include "transport/reading.h"

#include <string_view>

namespace vt::gitlab {

// ---- Account
inline constexpr std::string_view kUserQuery = "query{currentUser{username,name,avatarUrl,webUrl}}";

// ---- Repositories
inline constexpr std::string_view kCurrentUserQuery = "query{currentUser{username,name,avatarUrl}}";
inline constexpr std::string_view kGroupMembershipsQuery =
    "query{currentUser{groupMemberships(first:100){nodes{group{path,id}}pageInfo{hasNextPage,"
    "endCursor}}}}";
inline constexpr std::string_view kGroupMembershipsPageQuery =
    "query{currentUser{groupMemberships(first:100,after:\"%@\"){nodes{group{path,id}}pageInfo{"
    "hasNextPage,endCursor}}}}";
inline constexpr std::string_view kVisibilityQuery = "query{project(fullPath:\"%@\"){visibility}}";

// ---- Merge request list
inline constexpr std::string_view kMergeRequestsQuery =
    "query{project(fullPath:\"%@\"){mergeRequests(first:100,state:opened,sort:CREATED_DESC){"
    "nodes{author{username,avatarUrl}title,iid,createdAt,targetBranch,sourceBranch,"
    "sourceProject{fullPath}}pageInfo{endCursor,hasNextPage}}}}";
inline constexpr std::string_view kMergeRequestsPageQuery =
    "query{project(fullPath:\"%@\"){mergeRequests(first:100,after:\"%@\",state:opened,"
    "sort:CREATED_DESC){nodes{author{username,avatarUrl}title,iid,createdAt,targetBranch,"
    "sourceBranch,sourceProject{fullPath}}pageInfo{endCursor,hasNextPage}}}}";

// ---- Conversation
inline constexpr std::string_view kConversationQuery =
    "query{project(fullPath:\"%@\"){id,mergeRequest(iid:\"%@\"){id,assignees(first:100){nodes{"
    "username,avatarUrl}pageInfo{endCursor,hasNextPage}}labels(first:100){nodes{title,color}"
    "pageInfo{endCursor,hasNextPage}}userPermissions{updateMergeRequest,adminMergeRequest,"
    "canMerge,createNote}webUrl,state,mergeable,description,discussions(first:50){edges{node{"
    "replyId,notes(first:50){nodes{systemNoteIconName,id,author{username,avatarUrl}createdAt,"
    "userPermissions{adminNote,createNote}body}pageInfo{endCursor,hasNextPage}}}cursor}"
    "pageInfo{endCursor,hasNextPage}}commitsWithoutMergeCommits(first:100){nodes{author{"
    "username,avatarUrl},authorName,authorGravatar,sha}pageInfo{endCursor,hasNextPage}}}}}";
inline constexpr std::string_view kAssigneesPageQuery =
    "query{project(fullPath:\"%@\"){mergeRequest(iid:\"%@\"){assignees(first:100,after:\"%@\"){"
    "nodes{username,avatarUrl}pageInfo{endCursor,hasNextPage}}}}}";
inline constexpr std::string_view kLabelsPageQuery =
    "query{project(fullPath:\"%@\"){mergeRequest(iid:\"%@\"){labels(first:100,after:\"%@\"){"
    "nodes{title,color}pageInfo{endCursor,hasNextPage}}}}}";
inline constexpr std::string_view kDiscussionNotesPageQuery =
    "query{project(fullPath:\"%@\"){mergeRequest(iid:\"%@\"){discussions(first:1,after:\"%@\"){"
    "nodes{replyId,notes(first:50,after:\"%@\"){nodes{systemNoteIconName,id,author{username,"
    "avatarUrl}createdAt,userPermissions{adminNote}body}pageInfo{endCursor,hasNextPage}}}}}}}";
inline constexpr std::string_view kDiscussionsPageQuery =
    "query{project(fullPath:\"%@\"){mergeRequest(iid:\"%@\"){discussions(first:50,"
    "after:\"%@\"){edges{node{replyId,notes(first:50){nodes{systemNoteIconName,id,author{"
    "username,avatarUrl}createdAt,userPermissions{adminNote}body}pageInfo{endCursor,"
    "hasNextPage}}}cursor}pageInfo{endCursor,hasNextPage}}}}}";
inline constexpr std::string_view kCommitsPageQuery =
    "query{project(fullPath:\"%@\"){mergeRequest(iid:\"%@\"){"
    "commitsWithoutMergeCommits(first:100,after:\"%@\"){nodes{author{username,avatarUrl}sha}"
    "pageInfo{endCursor,hasNextPage}}}}}";

// ---- Merge request actions
inline constexpr std::string_view kProjectIdQuery = "query{project(fullPath:\"%@\"){id}}";
inline constexpr std::string_view kCreateMergeRequestMutation =
    "mutation{mergeRequestCreate(input:{projectPath:\"%@\",sourceBranch:\"%@\","
    "targetBranch:\"%@\",title:\"%@\",description:\"%@\"}){errors}}";
inline constexpr std::string_view kUpdateDescriptionMutation =
    "mutation{mergeRequestUpdate(input:{projectPath:\"%@\",iid:\"%@\",description:\"%@\"}){"
    "errors}}";
inline constexpr std::string_view kCreateNoteMutation =
    "mutation{createNote(input:{noteableId:\"%@\",body:\"%@\"}){errors}}";
inline constexpr std::string_view kReplyNoteMutation =
    "mutation{createNote(input:{noteableId:\"%@\",discussionId:\"%@\",body:\"%@\"}){errors}}";
inline constexpr std::string_view kUpdateNoteMutation =
    "mutation{updateNote(input:{id:\"%@\",body:\"%@\"}){errors}}";
inline constexpr std::string_view kDestroyNoteMutation =
    "mutation{destroyNote(input:{id:\"%@\"}){errors}}";
inline constexpr std::string_view kMergeSquashMessageMutation =
    "mutation{mergeRequestAccept(input:{projectPath:\"%@\",iid:\"%@\",sha:\"%@\",squash:%@,"
    "squashCommitMessage:\"%@\",shouldRemoveSourceBranch:false}){errors}}";
inline constexpr std::string_view kMergeMutation =
    "mutation{mergeRequestAccept(input:{projectPath:\"%@\",iid:\"%@\",sha:\"%@\",squash:%@,"
    "shouldRemoveSourceBranch:false}){errors}}";
inline constexpr std::string_view kMergeMessageMutation =
    "mutation{mergeRequestAccept(input:{projectPath:\"%@\",iid:\"%@\",sha:\"%@\",squash:%@,"
    "commitMessage:\"%@\",shouldRemoveSourceBranch:false}){errors}}";
inline constexpr std::string_view kCloseMutation =
    "mutation{mergeRequestUpdate(input:{projectPath:\"%@\",iid:\"%@\",state:CLOSED}){errors}}";

// ---- REST paths, appended to the API addresses
inline constexpr std::string_view kOwnProjectsQuery =
    "?min_access_level=40&archived=false&per_page=100";
inline constexpr std::string_view kSshKeysPageQuery = "?per_page=50";
inline constexpr std::string_view kMergeRequestCommitsPath =
    "/%@/merge_requests/%@/commits?per_page=100";
inline constexpr std::string_view kMergeRequestsPath = "/%@/merge_requests";
inline constexpr std::string_view kOAuthTokenUrl = "%@://%@/oauth/token";
// The registered redirect address; the GitHub path is the one the application registered with
// GitLab too, so it must stay as it is.
inline constexpr std::string_view kRedirectUri = "https://%@/OAuth/GitHub";

}  // namespace vt::gitlab
