#pragma once

// Every address text the Bitbucket adapter sends, below its endpoints, in one place. The "fields"
// queries name exactly what each operation reads, so that the host sends nothing more.

#include <string_view>

namespace vt::bitbucket {

// ---- Account and profile (below userUrl)
inline constexpr std::string_view kUserFields =
    "?fields=username,display_name,links.avatar,links.html";
inline constexpr std::string_view kRepositoriesUserFields =
    "?fields=username,display_name,uuid,links.avatar";
inline constexpr std::string_view kUsernameFields = "?fields=username";
inline constexpr std::string_view kUuidFields = "?fields=uuid";

// ---- Token refresh (on the site's host)
inline constexpr std::string_view kTokenPath = "/site/oauth2/access_token";
inline constexpr std::string_view kRefreshBody = "grant_type=refresh_token&refresh_token=";

// ---- Repositories (below collaboratorsUrl and repositoriesUrl)
inline constexpr std::string_view kWorkspaceFields = "&fields=values.slug,values.uuid";
inline constexpr std::string_view kContributorRepositories =
    "?role=contributor&pagelen=100"
    "&fields=next,values.scm,values.full_name,values.owner.nickname,values.owner.username,"
    "values.owner.display_name,values.owner.links.avatar.href,"
    "values.name,values.is_private,values.description,values.updated_on,"
    "values.parent.links.html.href,values.links.clone";
inline constexpr std::string_view kPrivacyFields = "?fields=is_private";
inline constexpr std::string_view kParentFields = "?fields=parent.links.self.href";
inline constexpr std::string_view kCloneFields = "?fields=links.clone";

// ---- SSH keys (below sshKeysUrl/<username>)
inline constexpr std::string_view kSshKeys = "/ssh-keys";
inline constexpr std::string_view kSshKeysFirstPage =
    "/ssh-keys?pagelen=50&fields=next,values.comment,values.created_on,values.key,values.uuid";

// ---- Pull requests (below repositoriesUrl/<repository path>)
inline constexpr std::string_view kOpenPullRequests =
    "/pullrequests?state=OPEN&sort=-created_on&pagelen=50"
    "&fields=next,values.id,values.author.nickname,values.author.username,"
    "values.author.links.avatar.href,values.title,values.created_on,"
    "values.destination.branch.name,values.source.repository.full_name,values.source.branch.name";
inline constexpr std::string_view kPullRequests = "/pullrequests";
// Below repositoriesUrl/<repository path>/pullrequests/<number>:
inline constexpr std::string_view kDetailsFields =
    "?fields=author.uuid,state,description,links.html.href,links.diffstat.href";
inline constexpr std::string_view kDiffstatPage = "&pagelen=200";
inline constexpr std::string_view kCommentsFirstPage =
    "/comments?sort=created_on&pagelen=50"
    "&fields=next,values.id,values.deleted,values.user.nickname,values.user.links.avatar.href,"
    "values.user.uuid,values.created_on,values.content.raw,values.parent.id";
inline constexpr std::string_view kCommitsFirstPage =
    "/commits?pagelen=100"
    "&fields=next,values.author.user.nickname,values.author.user.links.avatar.href,values.hash,"
    "values.date,values.message";
inline constexpr std::string_view kComments = "/comments";
inline constexpr std::string_view kMerge = "/merge";
inline constexpr std::string_view kDecline = "/decline";

}  // namespace vt::bitbucket
