#pragma once

// VTHost: the base class of the host adapters. It declares the adapter interface (every operation
// synchronous, returning its result or nothing and reporting through an optional VTError*), and
// carries the JSON transport that adapters call on themselves, so that an adapter's override of
// the refresh hook `refreshedToken` is the one the transport uses.

#include "records/error.h"
#include "records/records.h"
#include "records/values.h"

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/value.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

class VTHost {
public:
    VTHost() = default;
    virtual ~VTHost();
    VTHost(const VTHost&) = delete;
    VTHost& operator=(const VTHost&) = delete;

    // ---- The adapter interface. The base versions do nothing: they return nothing (or false) and
    // leave *error untouched, which is how a request without an adapter behaves.

    // The signed-in user: "username", "profileUrl", "name"?, "avatar"?.
    virtual std::optional<boost::json::object> userWithToken(const VTToken& token, VTError* error);
    // Owner login -> {"name"?, "avatar"?, "repositories", "namespaces"?}.
    virtual std::optional<boost::json::object> repositoriesWithToken(VTToken& token,
                                                                     VTError* error);
    // [SSH clone address, HTTPS clone address].
    virtual std::optional<std::vector<std::string>> createRepositoryWithToken(
        VTToken& token, const boost::json::object& ns, const std::string& slug,
        const std::string& name, const std::string& description, std::int64_t visibility,
        VTError* error);
    virtual std::optional<boost::json::array> sshKeysWithToken(VTToken& token, VTError* error);
    virtual bool addSshKey(const std::string& key, const std::string& title, VTToken& token,
                           VTError* error);
    virtual bool deleteSshKey(const boost::json::value& keyIdentifier, VTToken& token,
                              VTError* error);
    virtual std::optional<boost::json::object> profileWithToken(VTToken& token, VTError* error);
    virtual bool isPrivateRepositoryAtUrl(const VTUrl& url, VTToken& token, VTError* error);
    virtual std::optional<std::vector<std::string>> forksForUrl(const VTUrl& url, VTToken& token,
                                                                VTError* error);
    virtual std::optional<std::vector<VTPullRequest>> pullRequestsWithUrl(const VTUrl& url,
                                                                          VTToken& token,
                                                                          VTError* error);
    // Updates `pullRequest` in place and returns the conversation (whose first item is a copy).
    virtual std::optional<VTConversation> commentsForPullRequest(VTPullRequest& pullRequest,
                                                                 VTToken& token, VTError* error);
    virtual bool createPullRequestWithUrl(const VTUrl& url, const std::string& baseRefName,
                                          const std::string& headRefName, const std::string& title,
                                          const std::string& comment, VTToken& token,
                                          VTError* error);
    virtual bool editPullRequest(const VTPullRequest& pullRequest, const std::string& comment,
                                 VTToken& token, VTError* error);
    virtual bool addComment(const std::string& comment, const VTPullRequest& pullRequest,
                            VTToken& token, VTError* error);
    virtual bool replyTo(const std::string& commentIdentifier, const std::string& comment,
                         const VTPullRequest& pullRequest, VTToken& token, VTError* error);
    virtual bool editComment(const std::string& commentIdentifier, const std::string& newComment,
                             const VTPullRequest& pullRequest, VTToken& token, VTError* error);
    virtual bool deleteComment(const std::string& commentIdentifier,
                               const VTPullRequest& pullRequest, VTToken& token, VTError* error);
    virtual bool mergePullRequest(const VTPullRequest& pullRequest, std::int64_t method,
                                  const VTData& oid, const std::string& message, VTToken& token,
                                  VTError* error);
    virtual bool closePullRequest(const VTPullRequest& pullRequest, VTToken& token, VTError* error);

    // ---- The refresh hook. The base yields no token and sets *error to no error.
    virtual std::optional<VTToken> refreshedToken(const VTToken& token, const VTUrl& url,
                                                  VTError* error) const;

    // ---- The JSON transport (see transport.cpp for the outcome rules).
    // `link` receives the "next" address of the "Link" header on success, else the empty string.
    std::optional<boost::json::value> jsonGetWithUrl(const VTUrl& url, VTToken& token,
                                                     std::string* link, VTError* error) const;
    std::optional<boost::json::value> jsonPostWithUrl(const VTUrl& url,
                                                      const boost::json::value& content,
                                                      VTToken& token, VTError* error) const;
    std::optional<boost::json::value> jsonPutWithUrl(const VTUrl& url,
                                                     const boost::json::value& content,
                                                     VTToken& token, VTError* error) const;
    std::optional<boost::json::value> jsonDeleteWithUrl(const VTUrl& url, VTToken& token,
                                                        VTError* error) const;
    std::optional<boost::json::value> jsonWithContent(const boost::json::value* content,
                                                      std::string_view method, const VTUrl& url,
                                                      VTToken& token, std::string* link,
                                                      VTError* error) const;

    // Sends one request outside the token's reach, for OAuth token endpoints: the common headers
    // (Accept, User-Agent, no cache; with a body also Content-Length and, unless `headers` has
    // one, "Content-Type: application/json") plus `headers` ("Name: value" lines), and never the
    // caller's "Authorization". Returns the decoded answer whatever the HTTP status (a token
    // endpoint's refusal is an answer too), or nullopt with the session's error (no response) or
    // the decoding error (see vt::decodeAnswerBody). `status`, when given, receives the HTTP
    // status, 0 without a response.
    static std::optional<boost::json::value> jsonWithRequest(
        std::string_view method, const VTUrl& url, const std::vector<std::string>& headers,
        const std::string* body, std::int64_t* status, VTError* error);

    // The host's own message out of an error answer, or "No error description.".
    static std::string errorMessageWithJson(const boost::json::value& json);
    // "HTTP status code %ld (%@)" with the standard English reason phrase.
    static std::string stringForStatusCode(std::int64_t code);
    // The standard English reason phrase of an HTTP status ("Unauthorized" for 401).
    static std::string reasonPhrase(std::int64_t code);

    // ---- Host utilities shared by the adapters.
    // MD5 fingerprint of a one-line public key ("type base64 comment"), as 16 colon-separated
    // pairs.
    static std::optional<std::string> fingerprintWithKey(std::string_view key, VTError* error);
    // Puts a backslash before every double quote; nothing else changes.
    static std::string quotesEscapedString(std::string_view text);

private:
    // Scheme, host and port of the first request this adapter made: the "Authorization" header is
    // only ever sent there. Adapters live for one request on one thread.
    mutable std::optional<std::string> origin_;
};
