// Endpoints, the GraphQL post every other part uses, and the account reads.

#include "hosts/gitlab/gitlab_host.h"

#include "hosts/gitlab/queries.h"
#include "transport/dates.h"
#include "transport/paging.h"
#include "transport/reading.h"

#include <boost/url/parse.hpp>

#include <utility>

using namespace vt;
using namespace vt::gitlab;

VTGitLabHost::VTGitLabHost(const VTUrl& url) {
    // Clones over SSH talk to the same server's API over HTTPS; any other scheme is kept, so that
    // a server reached over plain HTTP is asked over plain HTTP.
    std::string scheme = url.scheme();
    if (scheme == "ssh") {
        scheme = "https";
    }
    const std::string base = scheme + "://" + std::string(url.encoded_host());
    if (auto parsed = urlWithText(base + "/api/graphql")) {
        graphQlUrl_ = std::move(*parsed);
    }
    repositoryUrl_ = base + "/api/v4/projects";
    userUrl_ = base + "/api/v4/user";
    sshKeysUrl_ = base + "/api/v4/user/keys";
}

std::optional<std::string> VTGitLabHost::urlWithString(std::string_view text) const {
    // GitLab gives avatars of uploads as paths on the server.
    if (auto reference = boost::urls::parse_uri_reference(text);
        reference && reference->has_scheme()) {
        return std::string(text);
    }
    const std::string absolute = std::string(graphQlUrl_.scheme()) + "://" +
                                 std::string(graphQlUrl_.encoded_host()) + "/" + std::string(text);
    if (!boost::urls::parse_uri(absolute)) {
        return std::nullopt;
    }
    return absolute;
}

const std::optional<std::string>& VTGitLabHost::urlWithString(std::string_view text,
                                                              KnownUrls& known) const {
    if (auto found = known.find(text); found != known.end()) {
        return found->second;
    }
    return known.emplace(std::string(text), urlWithString(text)).first->second;
}

std::optional<boost::json::value> VTGitLabHost::jsonPostWithContent(
    const boost::json::object& content, VTToken& token, VTError* error) const {
    return jsonPostWithUrl(graphQlUrl_, content, token, error);
}

std::optional<boost::json::value> VTGitLabHost::postQuery(std::string_view text, VTToken& token,
                                                          VTError* error) const {
    return jsonPostWithContent(graphQlContent(text), token, error);
}

bool VTGitLabHost::hasFreshToken(VTToken& token, VTError* error) const {
    if (token.empty()) {
        // Every GitLab operation acts for a signed-in user; say so rather than answer nothing.
        VTSetError(error, VTError(VTHTTPErrorDomain, 401, stringForStatusCode(401),
                                  "The request carries no GitLab token."));
        return false;
    }
    refreshToken(token, error);
    return !token.empty();
}

// ---- Account and profile

std::optional<boost::json::object> VTGitLabHost::userWithToken(const VTToken& token,
                                                               VTError* error) {
    // Sign-in checks a token it has just been given: a renewal would not reach the client.
    VTToken local = token;
    auto answer = postQuery(kUserQuery, local, error);
    if (!answer) {
        return std::nullopt;
    }
    const boost::json::object* user = objectAt(*answer, {"data", "currentUser"});
    if (user == nullptr) {
        // Phrase first, code in parentheses: the sign-in flow shows this text as it stands.
        VTSetError(error,
                   VTError(VTHTTPErrorDomain, 401, reasonPhrase(401) + " (HTTP status code 401)",
                           "Bad credentials"));
        return std::nullopt;
    }
    boost::json::object result;
    result["username"] = stringAt(*user, {"username"}).value_or("");
    result["profileUrl"] = stringAt(*user, {"webUrl"}).value_or("");
    if (auto name = stringAt(*user, {"name"})) {
        result["name"] = *name;
    }
    if (auto avatar = stringAt(*user, {"avatarUrl"})) {
        if (auto url = urlWithString(*avatar)) {
            result["avatar"] = *url;
        }
    }
    return result;
}

std::optional<boost::json::object> VTGitLabHost::profileWithToken(VTToken& token, VTError* error) {
    if (!hasFreshToken(token, error)) {
        return std::nullopt;
    }
    auto url = urlWithText(userUrl_);
    if (!url) {
        VTSetError(error, VTError(VTURLErrorDomain, -1000, "The user address is not a URL."));
        return std::nullopt;
    }
    auto answer = jsonGetWithUrl(*url, token, nullptr, error);
    if (!answer) {
        return std::nullopt;
    }
    boost::json::object profile;
    auto nonEmpty = [&answer](std::string_view key) -> std::optional<std::string> {
        auto text = stringAt(*answer, {key});
        return text && !text->empty() ? text : std::nullopt;
    };
    if (auto createdAt = stringAt(*answer, {"created_at"})) {
        if (auto date = localizedIsoDate(*createdAt, kIsoFractionDatePattern)) {
            profile["createdAt"] = *date;
        }
    }
    // A user who shows a public address has chosen to be reachable; the account's own address
    // is the one offered (GitLab's public_email may name another of the user's addresses).
    if (nonEmpty("public_email")) {
        if (auto email = stringAt(*answer, {"email"})) {
            profile["email"] = *email;
        }
    }
    const std::pair<std::string_view, std::string_view> fields[] = {
        {"location", "location"},  {"company", "organization"},   {"bio", "bio"},
        {"profileUrl", "web_url"}, {"websiteUrl", "website_url"},
    };
    for (const auto& [key, source] : fields) {
        if (auto text = nonEmpty(source)) {
            profile[key] = *text;
        }
    }
    return profile;
}
