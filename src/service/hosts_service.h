#pragma once

// VTHostsService: the requests of the service, independent of the bus. Each request builds a fresh
// adapter with the factory, calls one adapter operation and answers with its reply dictionary
// (the keys every method returns; a nil reply argument has no entry). Requests share no state and
// may run on any number of threads at once.

#include "records/error.h"
#include "records/records.h"
#include "records/values.h"
#include "service/host_factory.h"
#include "service/reply.h"

#include <boost/json/object.hpp>
#include <boost/json/value.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

class VTHostsService {
public:
    explicit VTHostsService(VTHostFactory factory);

    // The token of the direct sign-in: {"token_type": "Basic", "access_token": base64 of
    // "username:password"} with a user name, else {"token_type": "Bearer", "access_token":
    // password} (the password is then a personal access token).
    static VTToken signInToken(const std::string& username, const std::string& password);

    // The direct sign-in (a non-empty password; the interactive one is the sign-in flow's):
    // "result" {"VTHostToken", "VTHostUserKey"} when the adapter found the user, "error".
    VTReplyDictionary signInWithUrl(const VTUrl& url, std::int64_t type,
                                    const std::string& username, const std::string& password) const;

    // The forwarding requests. The adapter gets the caller's token by reference; the reply has
    // "refreshedToken" only when the adapter left a token that differs (by value) from the one
    // it was given. Requests about a pull request take the adapter's URL and type from it.
    VTReplyDictionary getRepositoriesWithToken(VTToken token, const VTUrl& url,
                                               std::int64_t type) const;
    // "sshUrl" and "httpsUrl" are the first and the last element of the adapter's result.
    VTReplyDictionary createRepositoryWithToken(VTToken token, const VTUrl& url, std::int64_t type,
                                                const boost::json::object& ns,
                                                const std::string& slug, const std::string& name,
                                                const std::string& description,
                                                std::int64_t visibility) const;
    VTReplyDictionary getSshKeysWithToken(VTToken token, const VTUrl& url, std::int64_t type) const;
    VTReplyDictionary addSshKey(const std::string& key, const std::string& comment, VTToken token,
                                const VTUrl& url, std::int64_t type) const;
    VTReplyDictionary deleteSshKey(const boost::json::value& keyIdentifier, VTToken token,
                                   const VTUrl& url, std::int64_t type) const;
    VTReplyDictionary getProfileWithToken(VTToken token, const VTUrl& url, std::int64_t type) const;
    // "private" is always present (false without an adapter).
    VTReplyDictionary getPrivacyWithUrl(const VTUrl& url, std::int64_t type, VTToken token) const;
    VTReplyDictionary getPullRequestsWithUrl(const VTUrl& url, std::int64_t type,
                                             VTToken token) const;
    VTReplyDictionary getCommentsForPullRequest(VTPullRequest pullRequest, VTToken token) const;
    VTReplyDictionary createPullRequestWithUrl(const VTUrl& url, std::int64_t type,
                                               const std::string& baseRefName,
                                               const std::string& headRefName,
                                               const std::string& title, const std::string& comment,
                                               VTToken token) const;
    VTReplyDictionary editPullRequest(const VTPullRequest& pullRequest, const std::string& comment,
                                      VTToken token) const;
    VTReplyDictionary addComment(const std::string& comment, const VTPullRequest& pullRequest,
                                 VTToken token) const;
    VTReplyDictionary replyTo(const std::string& commentIdentifier, const std::string& comment,
                              const VTPullRequest& pullRequest, VTToken token) const;
    VTReplyDictionary editComment(const std::string& commentIdentifier,
                                  const std::string& newComment, const VTPullRequest& pullRequest,
                                  VTToken token) const;
    VTReplyDictionary deleteComment(const std::string& commentIdentifier,
                                    const VTPullRequest& pullRequest, VTToken token) const;
    VTReplyDictionary mergePullRequest(const VTPullRequest& pullRequest, std::int64_t method,
                                       const VTData& oid, const std::string& message,
                                       VTToken token) const;
    VTReplyDictionary closePullRequest(const VTPullRequest& pullRequest, VTToken token) const;

    // A URL of the fork lookup: an absolute URL with a host name, which names its adapter.
    static std::optional<VTUrl> forkUrl(std::string_view text);
    // Fork aggregation. Walks `urls` in order: the first URL on a host name takes the next
    // element of `types` (a missing one reads as 0) and builds that host's adapter, which later
    // URLs on the host reuse; every URL takes the next element of `tokens` (a missing one is the
    // empty token). A lookup that yields nothing stops the walk. The reply has "forks" (the
    // forks found, keyed by the URL text as given) unless the walk ended with an error, and the
    // error. Every URL must be one forkUrl accepts.
    VTReplyDictionary getForksForUrls(const std::vector<VTUrl>& urls,
                                      const std::vector<std::int64_t>& types,
                                      const std::vector<VTToken>& tokens) const;

private:
    std::unique_ptr<VTHost> hostForUrl(const VTUrl& url, std::int64_t type) const;

    // Runs `operation` on the adapter for `url` and `type` (nothing happens without an adapter)
    // with the caller's token, and stores the refreshed token and the error in `reply`.
    template <typename Operation>
    void forward(const VTUrl& url, std::int64_t type, VTToken& token, VTReplyDictionary& reply,
                 Operation&& operation) const;
    template <typename Operation>
    void forward(const VTPullRequest& pullRequest, VTToken& token, VTReplyDictionary& reply,
                 Operation&& operation) const;

    VTHostFactory factory_;
};
