#pragma once

// VTGitHubHost: the adapter for host type 1. GraphQL for everything but SSH keys (REST).
// GitHub tokens are never refreshed: the base class's refresh hook is kept.

#include "transport/host.h"

#include <boost/json/object.hpp>
#include <boost/json/value.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

class VTGitHubHost : public VTHost {
public:
    // Derives the endpoints from a repository or host URL: "ssh" becomes "https", and the host
    // name gets the "api." prefix (self-hosted servers too).
    explicit VTGitHubHost(const VTUrl& url);

    const VTUrl& graphQlUrl() const { return graphQlUrl_; }
    const std::string& sshKeysUrl() const { return sshKeysUrl_; }

    // ---- Account and profile
    // {"username", "profileUrl", "name"?, "avatar"?}. An answer without a viewer fails with
    // VTHTTPErrorDomain 401 "Unauthorized (HTTP status code 401)", recovery "Bad credentials".
    std::optional<boost::json::object> userWithToken(const VTToken& token, VTError* error) override;
    // The non-empty text fields ("createdAt" localized, "url" as "profileUrl") and "organizations":
    // every organization name, sorted case-insensitively, one per line.
    std::optional<boost::json::object> profileWithToken(VTToken& token, VTError* error) override;

    // ---- Repositories and SSH keys
    std::optional<boost::json::object> repositoriesWithToken(VTToken& token,
                                                             VTError* error) override;
    // The repository dictionary of one GraphQL repository node.
    static boost::json::object fixedKeysRepository(const boost::json::value& node);
    std::optional<std::vector<std::string>> createRepositoryWithToken(
        VTToken& token, const boost::json::object& ns, const std::string& slug,
        const std::string& name, const std::string& description, std::int64_t visibility,
        VTError* error) override;
    std::optional<boost::json::array> sshKeysWithToken(VTToken& token, VTError* error) override;
    bool addSshKey(const std::string& key, const std::string& title, VTToken& token,
                   VTError* error) override;
    bool deleteSshKey(const boost::json::value& keyIdentifier, VTToken& token,
                      VTError* error) override;
    // True also when the repository cannot be read (with the error saying why).
    bool isPrivateRepositoryAtUrl(const VTUrl& url, VTToken& token, VTError* error) override;
    // [parent SSH address, parent web address], or empty when the repository is no fork.
    std::optional<std::vector<std::string>> forksForUrl(const VTUrl& url, VTToken& token,
                                                        VTError* error) override;

    // ---- Pull requests
    std::optional<std::vector<VTPullRequest>> pullRequestsWithUrl(const VTUrl& url, VTToken& token,
                                                                  VTError* error) override;
    std::optional<VTConversation> commentsForPullRequest(VTPullRequest& pullRequest, VTToken& token,
                                                         VTError* error) override;
    bool createPullRequestWithUrl(const VTUrl& url, const std::string& baseRefName,
                                  const std::string& headRefName, const std::string& title,
                                  const std::string& comment, VTToken& token,
                                  VTError* error) override;
    bool editPullRequest(const VTPullRequest& pullRequest, const std::string& comment,
                         VTToken& token, VTError* error) override;
    bool addComment(const std::string& comment, const VTPullRequest& pullRequest, VTToken& token,
                    VTError* error) override;
    // Comments are not threaded on GitHub: sends nothing, clears *error and returns true.
    bool replyTo(const std::string& commentIdentifier, const std::string& comment,
                 const VTPullRequest& pullRequest, VTToken& token, VTError* error) override;
    bool editComment(const std::string& commentIdentifier, const std::string& newComment,
                     const VTPullRequest& pullRequest, VTToken& token, VTError* error) override;
    bool deleteComment(const std::string& commentIdentifier, const VTPullRequest& pullRequest,
                       VTToken& token, VTError* error) override;
    // Method 0 merges, 1 rebases, anything else squashes. `oid` is the expected head commit.
    bool mergePullRequest(const VTPullRequest& pullRequest, std::int64_t method, const VTData& oid,
                          const std::string& message, VTToken& token, VTError* error) override;
    bool closePullRequest(const VTPullRequest& pullRequest, VTToken& token,
                          VTError* error) override;

private:
    // POSTs {"query": text} to the GraphQL endpoint.
    std::optional<boost::json::value> jsonPostWithContent(std::string_view text, VTToken& token,
                                                          VTError* error) const;
    // Sends a mutation; true when an answer came.
    bool postMutation(std::string_view text, VTToken& token, VTError* error) const;

    VTUrl graphQlUrl_;
    std::string sshKeysUrl_;
};
