// Construction, the account and profile, the token refresh, and the date and comment helpers the
// pull request operations share.

#include "hosts/bitbucket/bitbucket_host.h"

#include "hosts/bitbucket/paths.h"
#include "transport/dates.h"
#include "transport/oauth_credentials.h"
#include "transport/reading.h"
#include "transport/utilities/utilities.h"

#include <string>
#include <utility>

using namespace vt::bitbucket;

namespace {

constexpr std::string_view kApiPrefix = "api.";

}  // namespace

VTBitbucketbHost::VTBitbucketbHost(const VTUrl& url) {
    // Clones over SSH talk to the same site's API over HTTPS; any other scheme is kept.
    std::string scheme = url.scheme();
    if (scheme == "ssh") {
        scheme = "https";
    }
    const std::string base = scheme + "://api." + std::string(url.encoded_host()) + "/2.0";
    userUrl_ = base + "/user";
    repositoriesUrl_ = base + "/repositories";
    collaboratorsUrl_ = base + "/workspaces?role=collaborator";
    sshKeysUrl_ = base + "/users";
}

std::optional<boost::json::value> VTBitbucketbHost::jsonGetWithText(const std::string& text,
                                                                    VTToken& token,
                                                                    VTError* error) const {
    auto url = vt::urlWithQueryText(text, error);
    if (!url) {
        return std::nullopt;
    }
    return jsonGetWithUrl(*url, token, nullptr, error);
}

bool VTBitbucketbHost::pageValues(
    const VTUrl& first,
    const std::function<vt::PageStep(const boost::json::value&, VTError*)>& each, VTToken& token,
    VTError* error) const {
    auto page = [&each](const boost::json::value& answer, VTError* pageError) {
        if (const boost::json::array* values = vt::arrayAt(answer, {"values"})) {
            for (const boost::json::value& value : *values) {
                if (const vt::PageStep step = each(value, pageError); step != vt::PageStep::more) {
                    return step;
                }
            }
        }
        return vt::PageStep::more;
    };
    return vt::pageNext(*this, first, page, token, error);
}

// ---- Account and profile

std::optional<boost::json::object> VTBitbucketbHost::userWithToken(const VTToken& token,
                                                                   VTError* error) {
    // The sign-in check: a token renewed here is not handed back.
    VTToken local = token;
    auto answer = jsonGetWithText(userUrl_ + std::string(kUserFields), local, error);
    if (!answer) {
        return std::nullopt;
    }
    boost::json::object user;
    if (auto name = vt::stringAt(*answer, {"username"})) {
        user["username"] = *name;
    }
    if (auto name = vt::stringAt(*answer, {"display_name"})) {
        user["name"] = *name;
    }
    if (auto profile = vt::stringAt(*answer, {"links", "html", "href"})) {
        user["profileUrl"] = *profile;
    }
    if (auto avatar = vt::urlAt(*answer, {"links", "avatar", "href"})) {
        user["avatar"] = *avatar;
    }
    return user;
}

std::optional<boost::json::object> VTBitbucketbHost::profileWithToken(VTToken& token,
                                                                      VTError* error) {
    auto answer = jsonGetWithText(userUrl_, token, error);
    if (!answer) {
        return std::nullopt;
    }
    boost::json::object profile;
    if (auto created = vt::stringAt(*answer, {"created_on"})) {
        if (auto date = vt::localizedIsoDate(*created, vt::kIsoFractionDatePattern)) {
            profile["createdAt"] = *date;
        }
    }
    if (auto url = vt::stringAt(*answer, {"links", "html", "href"})) {
        profile["profileUrl"] = *url;
    }
    return profile;
}

// ---- Token refresh

std::optional<VTToken> VTBitbucketbHost::refreshedToken(const VTToken& token, const VTUrl& url,
                                                        VTError* error) const {
    const vt::OAuthClient& client = vt::oauthCredentials().bitbucket;
    // The refresh token goes in as it stands, without form encoding.
    const std::string body =
        std::string(kRefreshBody) + vt::placeText(token.if_contains("refresh_token"));

    // The token endpoint lives on the site, not on its API host.
    std::string host(url.encoded_host());
    if (host.starts_with(kApiPrefix)) {
        host.erase(0, kApiPrefix.size());
    }
    auto tokenUrl =
        vt::urlWithText(std::string(url.scheme()) + "://" + host + std::string(kTokenPath));
    if (!tokenUrl) {
        VTSetError(error, VTError(VTURLErrorDomain, -1000,
                                  "The token address of " + host + " is not a URL."));
        return std::nullopt;
    }
    const std::vector<std::string> headers{
        "Authorization: Basic " + vt::base64String(client.clientId + ":" + client.clientSecret),
        "Content-Type: application/x-www-form-urlencoded"};
    VTError sessionError;
    auto answer = jsonWithRequest("POST", *tokenUrl, headers, &body, nullptr, &sessionError);
    if (!answer) {
        VTSetError(error, std::move(sessionError));
        return std::nullopt;
    }
    const boost::json::object* renewed = answer->if_object();
    if (renewed == nullptr || !renewed->contains("access_token")) {
        VTSetError(error, VTError(VTGitErrorDomain, 1, "Authorisation for Bitbucket failed",
                                  errorMessageWithJson(*answer)));
        return std::nullopt;
    }
    // The host answers "bearer"; the "Authorization" header wants the word as HTTP spells it.
    VTToken result = *renewed;
    result["token_type"] = "Bearer";
    VTSetError(error, std::move(sessionError));
    return result;
}

// ---- Dates and deleted comments

std::optional<std::string> VTBitbucketbHost::convertedDateString(std::string_view text,
                                                                 bool converted,
                                                                 std::optional<double>* date) {
    const std::optional<double> moment =
        vt::momentWithIsoText(text, converted ? vt::kIsoFractionDatePattern : vt::kIsoDatePattern);
    if (date != nullptr) {
        *date = moment;
    }
    if (!moment) {
        return std::nullopt;
    }
    return vt::isoTextWithMoment(*moment);
}

const std::string& VTBitbucketbHost::deletedCommentMarker() {
    static const std::string marker{'\x04', '\x05', '\x06'};
    return marker;
}

void VTBitbucketbHost::removeFromComment(VTPullRequestComment& comment) {
    if (!comment.comments) {
        return;
    }
    std::vector<VTPullRequestComment> kept;
    kept.reserve(comment.comments->size());
    for (VTPullRequestComment& reply : *comment.comments) {
        if (reply.comments && !reply.comments->empty()) {
            removeFromComment(reply);
        }
        if (!reply.content) {
            if (!reply.comments || reply.comments->empty()) {
                continue;
            }
            reply.content = deletedCommentMarker();
        }
        kept.push_back(std::move(reply));
    }
    comment.comments = std::move(kept);
}
