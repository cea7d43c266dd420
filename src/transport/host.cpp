#include "transport/host.h"

#include "transport/answer.h"
#include "transport/http.h"
#include "transport/utilities/utilities.h"

#include <boost/json/serialize.hpp>

#include <algorithm>
#include <cctype>

namespace {

// "scheme://host:port" of a URL, the port filled in from the scheme when the URL has none.
std::string originOf(const VTUrl& url) {
    std::string scheme(url.scheme());
    std::string host(url.encoded_host());
    std::transform(host.begin(), host.end(), host.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    std::string port(url.port());
    if (port.empty()) {
        port = scheme == "https" ? "443" : scheme == "http" ? "80" : "";
    }
    return scheme + "://" + host + ":" + port;
}

const boost::json::value* member(const boost::json::value& value, std::string_view key) {
    if (const auto* object = value.if_object()) {
        return object->if_contains(key);
    }
    return nullptr;
}

std::string stringMember(const boost::json::object& object, std::string_view key) {
    if (const auto* value = object.if_contains(key)) {
        if (const auto* text = value->if_string()) {
            return std::string(*text);
        }
    }
    return {};
}

// The headers every request carries; with a body also its length and, unless `extra` names one,
// its type.
std::vector<std::string> commonHeaders(const std::string* body,
                                       const std::vector<std::string>& extra = {}) {
    std::vector<std::string> headers{"Accept: application/json",
                                     "User-Agent: " + vt::http::userAgent(),
                                     "Cache-Control: no-cache"};
    if (body != nullptr) {
        headers.push_back("Content-Length: " + std::to_string(body->size()));
        const bool typed = std::any_of(extra.begin(), extra.end(), [](const std::string& line) {
            constexpr std::string_view kName = "content-type:";
            if (line.size() < kName.size()) {
                return false;
            }
            return std::equal(kName.begin(), kName.end(), line.begin(), [](char a, char b) {
                return a == std::tolower(static_cast<unsigned char>(b));
            });
        });
        if (!typed) {
            headers.push_back("Content-Type: application/json");
        }
    }
    headers.insert(headers.end(), extra.begin(), extra.end());
    return headers;
}

// Whether the 401 answer says that the access token expired (the "error" object's "message").
bool saysTokenExpired(const boost::json::value& answer) {
    const auto* error = member(answer, "error");
    if (error == nullptr || !error->is_object()) {
        return false;
    }
    const auto* message = member(*error, "message");
    if (message == nullptr || !message->is_string()) {
        return false;
    }
    std::string text(message->get_string());
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text.find("access token expired") != std::string::npos;
}

}  // namespace

VTHost::~VTHost() = default;

// ---- The adapter interface: without an adapter, nothing happens.

std::optional<boost::json::object> VTHost::userWithToken(const VTToken&, VTError*) {
    return std::nullopt;
}
std::optional<boost::json::object> VTHost::repositoriesWithToken(VTToken&, VTError*) {
    return std::nullopt;
}
std::optional<std::vector<std::string>> VTHost::createRepositoryWithToken(
    VTToken&, const boost::json::object&, const std::string&, const std::string&,
    const std::string&, std::int64_t, VTError*) {
    return std::nullopt;
}
std::optional<boost::json::array> VTHost::sshKeysWithToken(VTToken&, VTError*) {
    return std::nullopt;
}
bool VTHost::addSshKey(const std::string&, const std::string&, VTToken&, VTError*) {
    return false;
}
bool VTHost::deleteSshKey(const boost::json::value&, VTToken&, VTError*) {
    return false;
}
std::optional<boost::json::object> VTHost::profileWithToken(VTToken&, VTError*) {
    return std::nullopt;
}
bool VTHost::isPrivateRepositoryAtUrl(const VTUrl&, VTToken&, VTError*) {
    return false;
}
std::optional<std::vector<std::string>> VTHost::forksForUrl(const VTUrl&, VTToken&, VTError*) {
    return std::nullopt;
}
std::optional<std::vector<VTPullRequest>> VTHost::pullRequestsWithUrl(const VTUrl&, VTToken&,
                                                                      VTError*) {
    return std::nullopt;
}
std::optional<VTConversation> VTHost::commentsForPullRequest(VTPullRequest&, VTToken&, VTError*) {
    return std::nullopt;
}
bool VTHost::createPullRequestWithUrl(const VTUrl&, const std::string&, const std::string&,
                                      const std::string&, const std::string&, VTToken&, VTError*) {
    return false;
}
bool VTHost::editPullRequest(const VTPullRequest&, const std::string&, VTToken&, VTError*) {
    return false;
}
bool VTHost::addComment(const std::string&, const VTPullRequest&, VTToken&, VTError*) {
    return false;
}
bool VTHost::replyTo(const std::string&, const std::string&, const VTPullRequest&, VTToken&,
                     VTError*) {
    return false;
}
bool VTHost::editComment(const std::string&, const std::string&, const VTPullRequest&, VTToken&,
                         VTError*) {
    return false;
}
bool VTHost::deleteComment(const std::string&, const VTPullRequest&, VTToken&, VTError*) {
    return false;
}
bool VTHost::mergePullRequest(const VTPullRequest&, std::int64_t, const VTData&, const std::string&,
                              VTToken&, VTError*) {
    return false;
}
bool VTHost::closePullRequest(const VTPullRequest&, VTToken&, VTError*) {
    return false;
}

std::optional<VTToken> VTHost::refreshedToken(const VTToken&, const VTUrl&, VTError* error) const {
    VTSetError(error, VTError());
    return std::nullopt;
}

// ---- The transport.

std::optional<boost::json::value> VTHost::jsonGetWithUrl(const VTUrl& url, VTToken& token,
                                                         std::string* link, VTError* error) const {
    return jsonWithContent(nullptr, "GET", url, token, link, error);
}

std::optional<boost::json::value> VTHost::jsonPostWithUrl(const VTUrl& url,
                                                          const boost::json::value& content,
                                                          VTToken& token, VTError* error) const {
    return jsonWithContent(&content, "POST", url, token, nullptr, error);
}

std::optional<boost::json::value> VTHost::jsonPutWithUrl(const VTUrl& url,
                                                         const boost::json::value& content,
                                                         VTToken& token, VTError* error) const {
    return jsonWithContent(&content, "PUT", url, token, nullptr, error);
}

std::optional<boost::json::value> VTHost::jsonDeleteWithUrl(const VTUrl& url, VTToken& token,
                                                            VTError* error) const {
    return jsonWithContent(nullptr, "DELETE", url, token, nullptr, error);
}

std::optional<boost::json::value> VTHost::jsonWithContent(const boost::json::value* content,
                                                          std::string_view method, const VTUrl& url,
                                                          VTToken& token, std::string* link,
                                                          VTError* error) const {
    auto fail = [&](VTError failure) -> std::optional<boost::json::value> {
        if (link != nullptr) {
            link->clear();
        }
        VTSetError(error, std::move(failure));
        return std::nullopt;
    };

    std::optional<std::string> body;
    if (content != nullptr) {
        body = boost::json::serialize(*content);
    }
    const std::vector<std::string> headers = commonHeaders(body ? &*body : nullptr);

    // The token goes only to the origin this adapter first spoke to; addresses a host hands
    // out (paging links) that lead elsewhere are fetched without it.
    const std::string origin = originOf(url);
    if (!origin_) {
        origin_ = origin;
    }
    const bool sameOrigin = *origin_ == origin;
    const std::string urlText(url.buffer());

    bool refreshed = false;
    VTToken current = token;
    for (;;) {
        std::vector<std::string> requestHeaders = headers;
        if (!current.empty() && sameOrigin) {
            requestHeaders.push_back("Authorization: " + stringMember(current, "token_type") + " " +
                                     stringMember(current, "access_token"));
        }
        vt::http::Exchange exchange =
            vt::http::perform(method, urlText, requestHeaders, body ? &*body : nullptr);
        const std::int64_t status = exchange.responded ? exchange.status : 0;
        VTError sessionError = exchange.error;
        std::optional<boost::json::value> json;
        if (exchange.responded) {
            json = vt::decodeAnswerBody(exchange.body, &sessionError);
        }

        if (!json) {
            if (!exchange.responded) {
                return fail(std::move(sessionError));
            }
            if (status == 200 || status == 201 || status == 204) {
                return fail(std::move(sessionError));
            }
            std::string recovery = sessionError.description();
            if (auto suggestion = sessionError.recoverySuggestion()) {
                recovery += " " + *suggestion;
            }
            return fail(VTError(
                sessionError.domain.empty() ? std::string(VTHTTPErrorDomain) : sessionError.domain,
                status, stringForStatusCode(status), recovery));
        }

        if (status == 401) {
            const auto* refreshToken = current.if_contains("refresh_token");
            // Only a request that carried the token may renew it: the refresh sends the client's
            // secret and the refresh token, which must not go to a host the token never went to.
            if (!refreshed && sameOrigin && refreshToken != nullptr && !refreshToken->is_null() &&
                saysTokenExpired(*json)) {
                VTError refreshError;
                std::optional<VTToken> renewed = refreshedToken(current, url, &refreshError);
                if (!renewed) {
                    return fail(std::move(refreshError));
                }
                refreshed = true;
                current = std::move(*renewed);
                continue;
            }
            return fail(VTError(VTHTTPErrorDomain, 401, stringForStatusCode(401),
                                errorMessageWithJson(*json)));
        }

        if (status == 200 || status == 201 || (status == 204 && method == "DELETE")) {
            if (const auto* object = json->if_object();
                object != nullptr && (object->contains("errors") || object->contains("error"))) {
                return fail(VTError(VTHTTPErrorDomain, status, errorMessageWithJson(*json)));
            }
            if (link != nullptr) {
                auto found = exchange.headers.find("link");
                *link = found == exchange.headers.end() || found->second.empty()
                            ? std::string()
                            : vt::nextLinkFromHeader(found->second);
            }
            VTSetError(error, VTError());
            if (refreshed) {
                token = std::move(current);
            }
            return json;
        }

        return fail(VTError(VTHTTPErrorDomain, status, stringForStatusCode(status),
                            errorMessageWithJson(*json)));
    }
}

std::optional<boost::json::value> VTHost::jsonWithRequest(std::string_view method, const VTUrl& url,
                                                          const std::vector<std::string>& headers,
                                                          const std::string* body,
                                                          std::int64_t* status, VTError* error) {
    vt::http::Exchange exchange =
        vt::http::perform(method, std::string(url.buffer()), commonHeaders(body, headers), body);
    if (status != nullptr) {
        *status = exchange.responded ? exchange.status : 0;
    }
    VTError failure = exchange.error;
    std::optional<boost::json::value> json;
    if (exchange.responded) {
        json = vt::decodeAnswerBody(exchange.body, &failure);
    }
    VTSetError(error, json ? VTError() : std::move(failure));
    return json;
}

std::string VTHost::errorMessageWithJson(const boost::json::value& json) {
    const boost::json::object* picked = nullptr;
    if (const auto* answer = json.if_object()) {
        const auto* errors = answer->if_contains("errors");
        const auto* error = answer->if_contains("error");
        if (errors != nullptr && errors->is_array() && !errors->get_array().empty() &&
            errors->get_array().front().is_object()) {
            picked = &errors->get_array().front().get_object();
        } else if (error != nullptr && error->is_object()) {
            picked = &error->get_object();
        } else {
            picked = answer;
        }
    }
    if (picked != nullptr) {
        for (std::string_view key : {"message", "error_description", "error"}) {
            if (const auto* value = picked->if_contains(key); value && value->is_string()) {
                return std::string(value->get_string());
            }
        }
        if (const auto* message = json.get_object().if_contains("message")) {
            return message->is_string() ? std::string(message->get_string())
                                        : boost::json::serialize(*message);
        }
    }
    return "No error description.";
}

std::string VTHost::reasonPhrase(std::int64_t code) {
    switch (code) {
        case 100:
            return "Continue";
        case 101:
            return "Switching Protocols";
        case 200:
            return "OK";
        case 201:
            return "Created";
        case 202:
            return "Accepted";
        case 203:
            return "Non-Authoritative Information";
        case 204:
            return "No Content";
        case 205:
            return "Reset Content";
        case 206:
            return "Partial Content";
        case 300:
            return "Multiple Choices";
        case 301:
            return "Moved Permanently";
        case 302:
            return "Found";
        case 303:
            return "See Other";
        case 304:
            return "Not Modified";
        case 307:
            return "Temporary Redirect";
        case 308:
            return "Permanent Redirect";
        case 400:
            return "Bad Request";
        case 401:
            return "Unauthorized";
        case 402:
            return "Payment Required";
        case 403:
            return "Forbidden";
        case 404:
            return "Not Found";
        case 405:
            return "Method Not Allowed";
        case 406:
            return "Not Acceptable";
        case 407:
            return "Proxy Authentication Required";
        case 408:
            return "Request Timeout";
        case 409:
            return "Conflict";
        case 410:
            return "Gone";
        case 411:
            return "Length Required";
        case 412:
            return "Precondition Failed";
        case 413:
            return "Content Too Large";
        case 414:
            return "URI Too Long";
        case 415:
            return "Unsupported Media Type";
        case 416:
            return "Range Not Satisfiable";
        case 417:
            return "Expectation Failed";
        case 422:
            return "Unprocessable Content";
        case 425:
            return "Too Early";
        case 426:
            return "Upgrade Required";
        case 428:
            return "Precondition Required";
        case 429:
            return "Too Many Requests";
        case 431:
            return "Request Header Fields Too Large";
        case 451:
            return "Unavailable For Legal Reasons";
        case 500:
            return "Internal Server Error";
        case 501:
            return "Not Implemented";
        case 502:
            return "Bad Gateway";
        case 503:
            return "Service Unavailable";
        case 504:
            return "Gateway Timeout";
        case 505:
            return "HTTP Version Not Supported";
        case 511:
            return "Network Authentication Required";
        default:
            break;
    }
    if (code >= 100 && code < 200) {
        return "Informational";
    }
    if (code >= 200 && code < 300) {
        return "Success";
    }
    if (code >= 300 && code < 400) {
        return "Redirection";
    }
    if (code >= 400 && code < 500) {
        return "Client Error";
    }
    if (code >= 500 && code < 600) {
        return "Server Error";
    }
    return "Unknown Status";
}

std::string VTHost::stringForStatusCode(std::int64_t code) {
    return "HTTP status code " + std::to_string(code) + " (" + reasonPhrase(code) + ")";
}

std::optional<std::string> VTHost::fingerprintWithKey(std::string_view key, VTError* error) {
    return vt::fingerprintWithKey(key, error);
}

std::string VTHost::quotesEscapedString(std::string_view text) {
    return vt::quotesEscapedString(text);
}
