// Renewing GitLab's expiring OAuth tokens: before an operation when the token is about to expire,
// and for the transport when the host says it has expired.

#include "hosts/gitlab/gitlab_host.h"

#include "hosts/gitlab/queries.h"
#include "transport/oauth_credentials.h"
#include "transport/reading.h"

#include <boost/json/serialize.hpp>

#include <chrono>
#include <cmath>

using namespace vt;
using namespace vt::gitlab;

namespace {

// A token is renewed this long before it expires, so that it does not expire on the way.
constexpr double kRefreshMargin = 20.0;

// The token's member as a whole number of seconds; nullopt when it is missing or no number.
std::optional<std::int64_t> secondsMember(const VTToken& token, std::string_view key) {
    const boost::json::value* value = token.if_contains(key);
    if (value == nullptr) {
        return std::nullopt;
    }
    if (const auto* number = value->if_int64()) {
        return *number;
    }
    if (const auto* number = value->if_uint64()) {
        return static_cast<std::int64_t>(*number);
    }
    if (const auto* number = value->if_double();
        number != nullptr && std::isfinite(*number) && std::abs(*number) < 9.0e18) {
        return static_cast<std::int64_t>(*number);
    }
    return std::nullopt;
}

}  // namespace

void VTGitLabHost::refreshToken(VTToken& token, VTError* error) const {
    const auto createdAt = secondsMember(token, "created_at");
    const auto expiresIn = secondsMember(token, "expires_in");
    if (!createdAt || !expiresIn) {
        VTSetError(error, VTError());
        return;
    }
    const double now =
        std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
    const double remaining = static_cast<double>(*createdAt + *expiresIn) - now;
    if (remaining >= kRefreshMargin) {
        VTSetError(error, VTError());
        return;
    }
    VTError refreshError;
    // The whole token is replaced, by nothing when the renewal failed: the caller then stops.
    token = refreshedToken(token, graphQlUrl_, &refreshError).value_or(VTToken());
    VTSetError(error, std::move(refreshError));
}

std::optional<VTToken> VTGitLabHost::refreshedToken(const VTToken& token, const VTUrl& url,
                                                    VTError* error) const {
    const OAuthCredentials& credentials = oauthCredentials();
    boost::json::object grant;
    grant["client_id"] = credentials.gitlab.clientId;
    grant["client_secret"] = credentials.gitlab.clientSecret;
    grant["grant_type"] = "refresh_token";
    const boost::json::value* refresh = token.if_contains("refresh_token");
    grant["refresh_token"] = refresh != nullptr ? *refresh : boost::json::value();
    grant["redirect_uri"] = fillText(kRedirectUri, {credentials.redirectHost});
    const std::string body = boost::json::serialize(grant);

    // The token endpoint of the server whose request was refused; no "Authorization" goes with
    // it, the grant authenticates itself.
    auto endpoint =
        urlWithText(fillText(kOAuthTokenUrl, {url.scheme(), std::string_view(url.encoded_host())}));
    if (!endpoint) {
        VTSetError(error, VTError(VTURLErrorDomain, -1000, "The token address is not a URL."));
        return std::nullopt;
    }
    auto answer = jsonWithRequest("POST", *endpoint, {}, &body, nullptr, error);
    if (!answer) {
        return std::nullopt;
    }
    // A refused grant comes back as JSON with any status; only the new token tells success.
    const boost::json::object* fresh = answer->if_object();
    if (fresh == nullptr || !fresh->contains("access_token") ||
        !fresh->at("access_token").is_string()) {
        VTSetError(error, VTError(VTGitErrorDomain, 1, "Authorisation for GitLab failed",
                                  errorMessageWithJson(*answer)));
        return std::nullopt;
    }
    VTSetError(error, VTError());
    return *fresh;
}
