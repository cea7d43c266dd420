#pragma once

// VTBitbucketbHost: the adapter for host type 3, on the REST API 2.0. Lists page by the "next"
// member of each answer; expired OAuth tokens are renewed at the site's token endpoint with the
// registered client's Basic authorisation.

#include "transport/host.h"
#include "transport/paging.h"

#include <boost/json/object.hpp>
#include <boost/json/value.hpp>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

class VTBitbucketbHost : public VTHost {
public:
    // Derives the endpoints from a repository or server URL: "ssh" becomes "https", and the host
    // name gets the "api." prefix.
    explicit VTBitbucketbHost(const VTUrl& url);

    // "<scheme>://api.<host>/2.0/user", ".../2.0/repositories",
    // ".../2.0/workspaces?role=collaborator" and ".../2.0/users".
    const std::string& userUrl() const { return userUrl_; }
    const std::string& repositoriesUrl() const { return repositoriesUrl_; }
    const std::string& collaboratorsUrl() const { return collaboratorsUrl_; }
    const std::string& sshKeysUrl() const { return sshKeysUrl_; }

    // ---- Account and profile
    // {"username", "name", "profileUrl", "avatar"?}; members the host leaves out are left out.
    std::optional<boost::json::object> userWithToken(const VTToken& token, VTError* error) override;
    // {"createdAt"?, "profileUrl"?}: an answer without them gives an empty dictionary.
    std::optional<boost::json::object> profileWithToken(VTToken& token, VTError* error) override;

    // ---- Token refresh
    // Posts the token's "refresh_token" to "/site/oauth2/access_token" on the request's host
    // (without its "api." prefix) with the registered client's Basic authorisation. Returns the
    // whole answer with "token_type" set to "Bearer"; an answer without "access_token" fails with
    // VTGitErrorDomain 1 "Authorisation for Bitbucket failed" and the host's message.
    std::optional<VTToken> refreshedToken(const VTToken& token, const VTUrl& url,
                                          VTError* error) const override;

    // ---- Shared by the pull request operations
    // `text` read with "yyyy-MM-dd'T'HH:mm:ss.SZ" when `converted` is set, else with
    // "yyyy-MM-dd'T'HH:mm:ssZ", written again with the latter in GMT
    // ("2021-03-04T05:06:07+0000"). nullopt when the text does not parse. `date`, when given,
    // receives the parsed moment (seconds since 2001-01-01 GMT), or nullopt.
    static std::optional<std::string> convertedDateString(std::string_view text, bool converted,
                                                          std::optional<double>* date = nullptr);
    // Prunes deleted replies (no content) depth first: a deleted reply without replies of its own
    // goes, one with replies stays with the content U+0004 U+0005 U+0006.
    static void removeFromComment(VTPullRequestComment& comment);
    // The content that stands for a deleted comment that has answers.
    static const std::string& deletedCommentMarker();

    // ---- Repositories and SSH keys
    std::optional<boost::json::object> repositoriesWithToken(VTToken& token,
                                                             VTError* error) override;
    // The repository dictionary of one repository of an answer.
    static boost::json::object fixedKeysRepository(const boost::json::value& repository);
    std::optional<std::vector<std::string>> createRepositoryWithToken(
        VTToken& token, const boost::json::object& ns, const std::string& slug,
        const std::string& name, const std::string& description, std::int64_t visibility,
        VTError* error) override;
    // False also when the repository cannot be read (with the error saying why).
    bool isPrivateRepositoryAtUrl(const VTUrl& url, VTToken& token, VTError* error) override;
    // The parent's clone addresses, SSH first, as the host sends them; empty for no fork.
    std::optional<std::vector<std::string>> forksForUrl(const VTUrl& url, VTToken& token,
                                                        VTError* error) override;
    // Keys carry an "id" only under a "Basic" token.
    std::optional<boost::json::array> sshKeysWithToken(VTToken& token, VTError* error) override;
    // Only the key text is sent; Bitbucket keeps the key's own comment as its title.
    bool addSshKey(const std::string& key, const std::string& title, VTToken& token,
                   VTError* error) override;
    bool deleteSshKey(const boost::json::value& keyIdentifier, VTToken& token,
                      VTError* error) override;

    // ---- Pull requests
    std::optional<std::vector<VTPullRequest>> pullRequestsWithUrl(const VTUrl& url, VTToken& token,
                                                                  VTError* error) override;
    std::optional<VTConversation> commentsForPullRequest(VTPullRequest& pullRequest, VTToken& token,
                                                         VTError* error) override;
    // A head named "owner/repository:branch" comes from that repository.
    bool createPullRequestWithUrl(const VTUrl& url, const std::string& baseRefName,
                                  const std::string& headRefName, const std::string& title,
                                  const std::string& comment, VTToken& token,
                                  VTError* error) override;
    bool editPullRequest(const VTPullRequest& pullRequest, const std::string& comment,
                         VTToken& token, VTError* error) override;
    bool addComment(const std::string& comment, const VTPullRequest& pullRequest, VTToken& token,
                    VTError* error) override;
    bool replyTo(const std::string& commentIdentifier, const std::string& comment,
                 const VTPullRequest& pullRequest, VTToken& token, VTError* error) override;
    bool editComment(const std::string& commentIdentifier, const std::string& newComment,
                     const VTPullRequest& pullRequest, VTToken& token, VTError* error) override;
    bool deleteComment(const std::string& commentIdentifier, const VTPullRequest& pullRequest,
                       VTToken& token, VTError* error) override;
    // Method 0 makes a merge commit, anything else squashes; `oid` is not used by Bitbucket. The
    // source branch is never closed.
    bool mergePullRequest(const VTPullRequest& pullRequest, std::int64_t method, const VTData& oid,
                          const std::string& message, VTToken& token, VTError* error) override;
    // Declines the pull request.
    bool closePullRequest(const VTPullRequest& pullRequest, VTToken& token,
                          VTError* error) override;

private:
    // GETs a URL text, percent-encoded as a whole where the query may not hold a character.
    std::optional<boost::json::value> jsonGetWithText(const std::string& text, VTToken& token,
                                                      VTError* error) const;
    // Reads the pages of a list from `first` on, following "next", and hands every element of
    // each page's "values" to `each`, which says whether to go on (PageStep::more), stop with
    // success (last) or fail (failed, having set the error).
    bool pageValues(const VTUrl& first,
                    const std::function<vt::PageStep(const boost::json::value&, VTError*)>& each,
                    VTToken& token, VTError* error) const;
    // "<sshKeysUrl>/<the user's username>" + `tail` as a URL; the username is read with its own
    // request.
    std::optional<VTUrl> userKeysUrl(std::string_view tail, VTToken& token, VTError* error) const;
    // "<repositoriesUrl>/<repository path of the remote URL>/pullrequests/<number>".
    std::optional<std::string> pullRequestText(const VTPullRequest& pullRequest,
                                               VTError* error) const;
    // Sends `content` (or nothing, for DELETE) to the pull request's address followed by `tail`
    // and, when given, the comment identifier as one more path segment; true when an answer came.
    bool sendToPullRequest(std::string_view method, const VTPullRequest& pullRequest,
                           std::string_view tail, const boost::json::value* content, VTToken& token,
                           VTError* error,
                           std::optional<std::string_view> commentIdentifier = std::nullopt) const;

    std::string userUrl_;
    std::string repositoriesUrl_;
    std::string collaboratorsUrl_;
    std::string sshKeysUrl_;
};
