#include "service/hosts_service.h"

#include "transport/utilities/utilities.h"

#include <boost/json/array.hpp>
#include <boost/url/parse.hpp>

#include <string>
#include <unordered_map>
#include <utility>

namespace {

boost::json::array stringArray(const std::vector<std::string>& strings) {
    boost::json::array array;
    array.reserve(strings.size());
    for (const std::string& string : strings) {
        array.emplace_back(string);
    }
    return array;
}

// The adapter's URL of a pull request: its remote URL (checked when the record was decoded), or
// the empty URL when it has none.
VTUrl remoteUrlOf(const VTPullRequest& pullRequest) {
    if (pullRequest.remoteUrl) {
        if (auto parsed = boost::urls::parse_uri(*pullRequest.remoteUrl)) {
            return VTUrl(*parsed);
        }
    }
    return VTUrl();
}

}  // namespace

VTHostsService::VTHostsService(VTHostFactory factory) : factory_(std::move(factory)) {}

std::unique_ptr<VTHost> VTHostsService::hostForUrl(const VTUrl& url, std::int64_t type) const {
    return factory_ ? factory_(url, type) : nullptr;
}

template <typename Operation>
void VTHostsService::forward(const VTUrl& url, std::int64_t type, VTToken& token,
                             VTReplyDictionary& reply, Operation&& operation) const {
    // Compared by value: an adapter that stores an equal token has refreshed nothing.
    const VTToken original = token;
    VTError error;
    if (std::unique_ptr<VTHost> host = hostForUrl(url, type)) {
        operation(*host, token, &error);
    }
    if (token != original) {
        reply.setRefreshedToken(token);
    }
    reply.setError(error);
}

template <typename Operation>
void VTHostsService::forward(const VTPullRequest& pullRequest, VTToken& token,
                             VTReplyDictionary& reply, Operation&& operation) const {
    forward(remoteUrlOf(pullRequest), pullRequest.hostType, token, reply,
            std::forward<Operation>(operation));
}

VTToken VTHostsService::signInToken(const std::string& username, const std::string& password) {
    if (!username.empty()) {
        return VTToken{{"token_type", "Basic"},
                       {"access_token", vt::base64String(username + ":" + password)}};
    }
    return VTToken{{"token_type", "Bearer"}, {"access_token", password}};
}

VTReplyDictionary VTHostsService::signInWithUrl(const VTUrl& url, std::int64_t type,
                                                const std::string& username,
                                                const std::string& password) const {
    VTReplyDictionary reply;
    const VTToken token = signInToken(username, password);
    VTError error;
    if (std::unique_ptr<VTHost> host = hostForUrl(url, type)) {
        if (std::optional<boost::json::object> user = host->userWithToken(token, &error)) {
            reply.set("result", boost::json::object{{"VTHostToken", token},
                                                    {"VTHostUserKey", std::move(*user)}});
        }
    }
    reply.setError(error);
    return reply;
}

VTReplyDictionary VTHostsService::getRepositoriesWithToken(VTToken token, const VTUrl& url,
                                                           std::int64_t type) const {
    VTReplyDictionary reply;
    forward(url, type, token, reply, [&](VTHost& host, VTToken& live, VTError* error) {
        if (auto repositories = host.repositoriesWithToken(live, error)) {
            reply.set("repositories", std::move(*repositories));
        }
    });
    return reply;
}

VTReplyDictionary VTHostsService::createRepositoryWithToken(
    VTToken token, const VTUrl& url, std::int64_t type, const boost::json::object& ns,
    const std::string& slug, const std::string& name, const std::string& description,
    std::int64_t visibility) const {
    VTReplyDictionary reply;
    forward(url, type, token, reply, [&](VTHost& host, VTToken& live, VTError* error) {
        auto addresses =
            host.createRepositoryWithToken(live, ns, slug, name, description, visibility, error);
        if (addresses && !addresses->empty()) {
            reply.set("sshUrl", boost::json::string(addresses->front()));
            reply.set("httpsUrl", boost::json::string(addresses->back()));
        }
    });
    return reply;
}

VTReplyDictionary VTHostsService::getSshKeysWithToken(VTToken token, const VTUrl& url,
                                                      std::int64_t type) const {
    VTReplyDictionary reply;
    forward(url, type, token, reply, [&](VTHost& host, VTToken& live, VTError* error) {
        if (auto keys = host.sshKeysWithToken(live, error)) {
            reply.set("keys", std::move(*keys));
        }
    });
    return reply;
}

VTReplyDictionary VTHostsService::addSshKey(const std::string& key, const std::string& comment,
                                            VTToken token, const VTUrl& url,
                                            std::int64_t type) const {
    VTReplyDictionary reply;
    // The client judges an action by its error alone; the boolean result is not passed on.
    forward(url, type, token, reply, [&](VTHost& host, VTToken& live, VTError* error) {
        host.addSshKey(key, comment, live, error);
    });
    return reply;
}

VTReplyDictionary VTHostsService::deleteSshKey(const boost::json::value& keyIdentifier,
                                               VTToken token, const VTUrl& url,
                                               std::int64_t type) const {
    VTReplyDictionary reply;
    forward(url, type, token, reply, [&](VTHost& host, VTToken& live, VTError* error) {
        host.deleteSshKey(keyIdentifier, live, error);
    });
    return reply;
}

VTReplyDictionary VTHostsService::getProfileWithToken(VTToken token, const VTUrl& url,
                                                      std::int64_t type) const {
    VTReplyDictionary reply;
    forward(url, type, token, reply, [&](VTHost& host, VTToken& live, VTError* error) {
        if (auto profile = host.profileWithToken(live, error)) {
            reply.set("profile", std::move(*profile));
        }
    });
    return reply;
}

VTReplyDictionary VTHostsService::getPrivacyWithUrl(const VTUrl& url, std::int64_t type,
                                                    VTToken token) const {
    VTReplyDictionary reply;
    reply.set("private", false);
    forward(url, type, token, reply, [&](VTHost& host, VTToken& live, VTError* error) {
        reply.set("private", host.isPrivateRepositoryAtUrl(url, live, error));
    });
    return reply;
}

VTReplyDictionary VTHostsService::getPullRequestsWithUrl(const VTUrl& url, std::int64_t type,
                                                         VTToken token) const {
    VTReplyDictionary reply;
    forward(url, type, token, reply, [&](VTHost& host, VTToken& live, VTError* error) {
        if (auto pullRequests = host.pullRequestsWithUrl(url, live, error)) {
            reply.setPullRequests("pullRequests", std::move(*pullRequests));
        }
    });
    return reply;
}

VTReplyDictionary VTHostsService::getCommentsForPullRequest(VTPullRequest pullRequest,
                                                            VTToken token) const {
    VTReplyDictionary reply;
    const VTUrl url = remoteUrlOf(pullRequest);
    const std::int64_t type = pullRequest.hostType;
    forward(url, type, token, reply, [&](VTHost& host, VTToken& live, VTError* error) {
        if (auto conversation = host.commentsForPullRequest(pullRequest, live, error)) {
            reply.setConversation("conversation", std::move(*conversation));
        }
    });
    return reply;
}

VTReplyDictionary VTHostsService::createPullRequestWithUrl(const VTUrl& url, std::int64_t type,
                                                           const std::string& baseRefName,
                                                           const std::string& headRefName,
                                                           const std::string& title,
                                                           const std::string& comment,
                                                           VTToken token) const {
    VTReplyDictionary reply;
    forward(url, type, token, reply, [&](VTHost& host, VTToken& live, VTError* error) {
        host.createPullRequestWithUrl(url, baseRefName, headRefName, title, comment, live, error);
    });
    return reply;
}

VTReplyDictionary VTHostsService::editPullRequest(const VTPullRequest& pullRequest,
                                                  const std::string& comment, VTToken token) const {
    VTReplyDictionary reply;
    forward(pullRequest, token, reply, [&](VTHost& host, VTToken& live, VTError* error) {
        host.editPullRequest(pullRequest, comment, live, error);
    });
    return reply;
}

VTReplyDictionary VTHostsService::addComment(const std::string& comment,
                                             const VTPullRequest& pullRequest,
                                             VTToken token) const {
    VTReplyDictionary reply;
    forward(pullRequest, token, reply, [&](VTHost& host, VTToken& live, VTError* error) {
        host.addComment(comment, pullRequest, live, error);
    });
    return reply;
}

VTReplyDictionary VTHostsService::replyTo(const std::string& commentIdentifier,
                                          const std::string& comment,
                                          const VTPullRequest& pullRequest, VTToken token) const {
    VTReplyDictionary reply;
    forward(pullRequest, token, reply, [&](VTHost& host, VTToken& live, VTError* error) {
        host.replyTo(commentIdentifier, comment, pullRequest, live, error);
    });
    return reply;
}

VTReplyDictionary VTHostsService::editComment(const std::string& commentIdentifier,
                                              const std::string& newComment,
                                              const VTPullRequest& pullRequest,
                                              VTToken token) const {
    VTReplyDictionary reply;
    forward(pullRequest, token, reply, [&](VTHost& host, VTToken& live, VTError* error) {
        host.editComment(commentIdentifier, newComment, pullRequest, live, error);
    });
    return reply;
}

VTReplyDictionary VTHostsService::deleteComment(const std::string& commentIdentifier,
                                                const VTPullRequest& pullRequest,
                                                VTToken token) const {
    VTReplyDictionary reply;
    forward(pullRequest, token, reply, [&](VTHost& host, VTToken& live, VTError* error) {
        host.deleteComment(commentIdentifier, pullRequest, live, error);
    });
    return reply;
}

VTReplyDictionary VTHostsService::mergePullRequest(const VTPullRequest& pullRequest,
                                                   std::int64_t method, const VTData& oid,
                                                   const std::string& message,
                                                   VTToken token) const {
    VTReplyDictionary reply;
    forward(pullRequest, token, reply, [&](VTHost& host, VTToken& live, VTError* error) {
        host.mergePullRequest(pullRequest, method, oid, message, live, error);
    });
    return reply;
}

VTReplyDictionary VTHostsService::closePullRequest(const VTPullRequest& pullRequest,
                                                   VTToken token) const {
    VTReplyDictionary reply;
    forward(pullRequest, token, reply, [&](VTHost& host, VTToken& live, VTError* error) {
        host.closePullRequest(pullRequest, live, error);
    });
    return reply;
}

std::optional<VTUrl> VTHostsService::forkUrl(std::string_view text) {
    auto parsed = boost::urls::parse_uri(text);
    if (!parsed || parsed->host().empty()) {
        return std::nullopt;
    }
    return VTUrl(*parsed);
}

VTReplyDictionary VTHostsService::getForksForUrls(const std::vector<VTUrl>& urls,
                                                  const std::vector<std::int64_t>& types,
                                                  const std::vector<VTToken>& tokens) const {
    boost::json::object forks;
    // One adapter per host name, built for the first URL on that host.
    std::unordered_map<std::string, std::unique_ptr<VTHost>> hosts;
    auto nextType = types.begin();
    auto nextToken = tokens.begin();
    // Shared by every lookup: a lookup that succeeds leaves it alone.
    VTError error;
    for (const VTUrl& url : urls) {
        auto host = hosts.find(url.host());
        if (host == hosts.end()) {
            const std::int64_t type = nextType != types.end() ? *nextType++ : 0;
            host = hosts.emplace(url.host(), hostForUrl(url, type)).first;
        }
        // A refreshed token is not reported: each URL starts again from its own token.
        VTToken token = nextToken != tokens.end() ? *nextToken++ : VTToken();
        std::optional<std::vector<std::string>> found;
        if (host->second) {
            found = host->second->forksForUrl(url, token, &error);
        }
        if (!found) {
            break;
        }
        forks[url.buffer()] = stringArray(*found);
    }
    VTReplyDictionary reply;
    if (error) {
        reply.setError(error);
    } else {
        reply.set("forks", std::move(forks));
    }
    return reply;
}
