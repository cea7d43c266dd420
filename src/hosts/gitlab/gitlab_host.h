#pragma once

// VTGitLabHost: the adapter for host type 2. GraphQL for most reads and every merge request
// mutation, REST v4 for the user, projects, SSH keys and commits. GitLab issues OAuth tokens that
// expire: every operation but userWithToken first renews a token that is about to expire
// (refreshToken), and the transport asks refreshedToken for a new one when the host says the
// token expired. A renewed token replaces the caller's token variable whole. Those operations
// fail with VTHTTPErrorDomain 401 when called without a token, and with the renewal's error (and
// an emptied token variable) when a due renewal fails.

#include "transport/host.h"

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/value.hpp>

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

class VTGitLabHost : public VTHost {
public:
    // Derives the four API addresses from a repository or server URL: "ssh" becomes "https" (any
    // other scheme stays), the host name is kept, and port, user and path are dropped.
    explicit VTGitLabHost(const VTUrl& url);

    const VTUrl& graphQlUrl() const { return graphQlUrl_; }  // <scheme>://<host>/api/graphql
    const std::string& repositoryUrl() const { return repositoryUrl_; }  // .../api/v4/projects
    const std::string& userUrl() const { return userUrl_; }              // .../api/v4/user
    const std::string& sshKeysUrl() const { return sshKeysUrl_; }        // .../api/v4/user/keys

    // The absolute address of `text`: `text` itself when it has a scheme, else
    // "<scheme>://<host>/<text>" on this server (a text that starts with "/" keeps its slash, so
    // the address has two in a row). nullopt when neither parses as a URL.
    std::optional<std::string> urlWithString(std::string_view text) const;
    // The addresses urlWithString gave during one call, by their text.
    using KnownUrls = std::map<std::string, std::optional<std::string>, std::less<>>;
    // urlWithString of `text`, worked out once per call: the avatars of a list or conversation
    // come from a few people and repeat across its items.
    const std::optional<std::string>& urlWithString(std::string_view text, KnownUrls& known) const;

    // ---- Token refresh
    // Renews `token` when its "created_at" + "expires_in" lies less than 20 seconds ahead (or in
    // the past): the token variable then holds what refreshedToken gave, even nothing, and *error
    // its error. A token without either key, or with time to spare, is left alone and *error is
    // cleared. Callers stop when the variable is empty afterwards.
    void refreshToken(VTToken& token, VTError* error) const;
    // POSTs the refresh grant (client id and secret, "refresh_token", the redirect address) to
    // "/oauth/token" on the scheme and host of `url`, without the caller's "Authorization", and
    // returns the whole answer as the new token. An answer without "access_token", whatever its
    // status, fails with VTGitErrorDomain 1 "Authorisation for GitLab failed" (recovery: the
    // host's message); no answer fails with the session's error.
    std::optional<VTToken> refreshedToken(const VTToken& token, const VTUrl& url,
                                          VTError* error) const override;

    // ---- Account and profile
    // {"username", "profileUrl", "name"?, "avatar"?} of the token's user; the token is not
    // refreshed and a token the transport renews is not handed back. An answer without
    // currentUser fails with VTHTTPErrorDomain 401 "Unauthorized (HTTP status code 401)",
    // recovery "Bad credentials".
    std::optional<boost::json::object> userWithToken(const VTToken& token, VTError* error) override;
    // The REST user's non-empty "location", "company" (organization), "bio", "profileUrl"
    // (web_url), "websiteUrl", "createdAt" (localized) and "email" — the latter only when the user
    // shows a public e-mail address, and then with the account's "email".
    std::optional<boost::json::object> profileWithToken(VTToken& token, VTError* error) override;

    // ---- Repositories and SSH keys
    // Namespace path -> {"name"?, "avatar"?, "repositories", "namespaces"?} for the projects the
    // user maintains (not archived). The user's own entry holds "namespaces": the own namespace
    // (identifier -1) first, then the user's groups (identifier: the group's global id) sorted
    // case-insensitively. A user without own projects still gets an own entry, with empty
    // "repositories" and the own namespace only. Any failed page fails the whole list.
    std::optional<boost::json::object> repositoriesWithToken(VTToken& token,
                                                             VTError* error) override;
    // The repository dictionary of one REST project: each key only when its source has the
    // right type, "urls" always (SSH then HTTP address, those that are strings).
    static boost::json::object fixedKeysRepository(const boost::json::value& project);
    // Creates a project; "namespace_id" is sent only for a namespace identifier that reads as an
    // integer of 1 or more (otherwise the project lands in the user's own namespace).
    // [SSH address, HTTP address], or nullopt — without an error when the answer lacks them.
    std::optional<std::vector<std::string>> createRepositoryWithToken(
        VTToken& token, const boost::json::object& ns, const std::string& slug,
        const std::string& name, const std::string& description, std::int64_t visibility,
        VTError* error) override;
    // {"title"?, "id"?, "createdAt"?, "fingerprint"?} per key, over every page; a key whose
    // fingerprint cannot be made fails the list with that error.
    std::optional<boost::json::array> sshKeysWithToken(VTToken& token, VTError* error) override;
    bool addSshKey(const std::string& key, const std::string& title, VTToken& token,
                   VTError* error) override;
    bool deleteSshKey(const boost::json::value& keyIdentifier, VTToken& token,
                      VTError* error) override;
    // Whether the project's visibility is "private". True (with the error) when the question
    // fails, false for a project the user cannot see.
    bool isPrivateRepositoryAtUrl(const VTUrl& url, VTToken& token, VTError* error) override;
    // [upstream SSH address, upstream HTTP address] of a fork, or empty when it is no fork.
    std::optional<std::vector<std::string>> forksForUrl(const VTUrl& url, VTToken& token,
                                                        VTError* error) override;

    // ---- Merge requests
    // The open merge requests, newest first. A request from another project names both branches
    // with their project ("group/project:main", "fork/project:feature").
    std::optional<std::vector<VTPullRequest>> pullRequestsWithUrl(const VTUrl& url, VTToken& token,
                                                                  VTError* error) override;
    // Completes `pullRequest` (identifier, permissions, state, assignees, labels) and returns
    // [it, its description, threads and commit runs in time order, true when the user may
    // comment]. Any failed request fails the whole conversation.
    std::optional<VTConversation> commentsForPullRequest(VTPullRequest& pullRequest, VTToken& token,
                                                         VTError* error) override;

    // Every action returns true on success. A mutation whose payload lists errors fails with
    // VTHTTPErrorDomain 200 and the first of them as description; transport failures pass on
    // the transport's error.
    // A source branch "group/fork:feature" creates the merge request from that project over REST.
    bool createPullRequestWithUrl(const VTUrl& url, const std::string& baseRefName,
                                  const std::string& headRefName, const std::string& title,
                                  const std::string& comment, VTToken& token,
                                  VTError* error) override;
    bool editPullRequest(const VTPullRequest& pullRequest, const std::string& comment,
                         VTToken& token, VTError* error) override;
    bool addComment(const std::string& comment, const VTPullRequest& pullRequest, VTToken& token,
                    VTError* error) override;
    // `commentIdentifier` is the thread's reply handle (the head's replyTo).
    bool replyTo(const std::string& commentIdentifier, const std::string& comment,
                 const VTPullRequest& pullRequest, VTToken& token, VTError* error) override;
    bool editComment(const std::string& commentIdentifier, const std::string& newComment,
                     const VTPullRequest& pullRequest, VTToken& token, VTError* error) override;
    bool deleteComment(const std::string& commentIdentifier, const VTPullRequest& pullRequest,
                       VTToken& token, VTError* error) override;
    // A nonzero method squashes; a non-empty message becomes the (squash) commit message. The
    // source branch is kept.
    bool mergePullRequest(const VTPullRequest& pullRequest, std::int64_t method, const VTData& oid,
                          const std::string& message, VTToken& token, VTError* error) override;
    // Closes the merge request; only transport failures fail it.
    bool closePullRequest(const VTPullRequest& pullRequest, VTToken& token,
                          VTError* error) override;

private:
    // POSTs a GraphQL request ({"query": text}) to graphQlUrl; the answer's "errors" are left to
    // the caller (the transport already refuses answers that carry them).
    std::optional<boost::json::value> jsonPostWithContent(const boost::json::object& content,
                                                          VTToken& token, VTError* error) const;
    std::optional<boost::json::value> postQuery(std::string_view text, VTToken& token,
                                                VTError* error) const;
    // Posts a mutation and reads the "errors" list of its payload data.<payload>.errors.
    bool postMutation(std::string_view text, std::string_view payload, VTToken& token,
                      VTError* error) const;
    // False, with an error, without a token; else refreshToken, then whether the token variable
    // still holds a token.
    bool hasFreshToken(VTToken& token, VTError* error) const;

    VTUrl graphQlUrl_;
    std::string repositoryUrl_;
    std::string userUrl_;
    std::string sshKeysUrl_;
};
