#include "vthosts/inputs.h"

#include <boost/json/parse.hpp>
#include <boost/url/parse.hpp>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>

namespace vt::client {

namespace {

std::string lowered(std::string_view text) {
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return result;
}

std::string_view trimmed(std::string_view text) {
    constexpr std::string_view kSpace = " \t\r\n\f\v";
    auto first = text.find_first_not_of(kSpace);
    if (first == std::string_view::npos) {
        return {};
    }
    auto last = text.find_last_not_of(kSpace);
    return text.substr(first, last - first + 1);
}

struct PublicSite {
    std::int64_t type;
    std::string_view host;
};
constexpr PublicSite kPublicSites[] = {
    {kGitHub, "github.com"}, {kGitLab, "gitlab.com"}, {kBitbucket, "bitbucket.org"}};

}  // namespace

std::optional<std::int64_t> parseHostType(std::string_view text, std::string* problem) {
    const std::string name = lowered(text);
    if (name == "github") {
        return kGitHub;
    }
    if (name == "gitlab") {
        return kGitLab;
    }
    if (name == "bitbucket") {
        return kBitbucket;
    }
    std::int64_t number = 0;
    const char* end = text.data() + text.size();
    auto [stop, fault] = std::from_chars(text.data(), end, number);
    if (text.empty() || fault != std::errc() || stop != end) {
        *problem =
            "unknown host type '" + std::string(text) + "' (github, gitlab, bitbucket or a number)";
        return std::nullopt;
    }
    return number;
}

std::optional<std::int64_t> hostTypeOfPublicSite(std::string_view url) {
    // The view points into `text`, which must outlive it.
    const std::string text = rewriteScpLikeRemote(url);
    auto parsed = boost::urls::parse_absolute_uri(text);
    if (!parsed) {
        return std::nullopt;
    }
    std::string host = lowered(parsed->host());
    if (host.rfind("www.", 0) == 0) {
        host.erase(0, 4);
    }
    for (const auto& site : kPublicSites) {
        if (host == site.host) {
            return site.type;
        }
    }
    return std::nullopt;
}

std::optional<std::string> publicSite(std::int64_t type) {
    for (const auto& site : kPublicSites) {
        if (site.type == type) {
            return "https://" + std::string(site.host);
        }
    }
    return std::nullopt;
}

std::string rewriteScpLikeRemote(std::string_view remote) {
    if (remote.find("://") != std::string_view::npos) {
        return std::string(remote);
    }
    // scp-like: "[user@]host:path" where the host part holds no slash; a bracketed IPv6 address
    // may hold colons.
    bool inBrackets = false;
    std::size_t colon = std::string_view::npos;
    for (std::size_t i = 0; i < remote.size(); ++i) {
        const char c = remote[i];
        if (c == '/') {
            break;
        }
        if (c == '[') {
            inBrackets = true;
        } else if (c == ']') {
            inBrackets = false;
        } else if (c == ':' && !inBrackets) {
            colon = i;
            break;
        }
    }
    if (colon == std::string_view::npos || colon == 0) {
        return std::string(remote);
    }
    std::string_view path = remote.substr(colon + 1);
    std::string url = "ssh://" + std::string(remote.substr(0, colon));
    if (path.empty() || path.front() != '/') {
        url += '/';
    }
    url += path;
    return url;
}

std::optional<std::string> repositoryUrl(std::string_view remote, std::string* problem) {
    std::string url = rewriteScpLikeRemote(remote);
    auto parsed = boost::urls::parse_absolute_uri(url);
    if (!parsed || parsed->host().empty()) {
        *problem = "'" + std::string(remote) + "' is not a repository address with a host name";
        return std::nullopt;
    }
    return url;
}

std::optional<VTToken> tokenFromText(std::string_view text, std::string* problem) {
    text = trimmed(text);
    if (text.empty()) {
        return VTToken{};
    }
    if (text.front() == '{') {
        boost::system::error_code code;
        boost::json::value value = boost::json::parse(text, code);
        if (code || !value.is_object()) {
            // The parser's message says where, never what: the text is a secret.
            *problem = "the token text starts like a JSON object but is not one" +
                       (code ? " (" + code.message() + ")" : std::string());
            return std::nullopt;
        }
        return std::move(value.as_object());
    }
    // A personal token goes into an HTTP header: anything but printable ASCII would break it.
    const bool printable =
        std::all_of(text.begin(), text.end(), [](unsigned char c) { return c > 0x20 && c < 0x7f; });
    if (!printable) {
        *problem = "a personal token is one word of printable ASCII characters";
        return std::nullopt;
    }
    return VTToken{{"token_type", "Bearer"}, {"access_token", text}};
}

std::optional<std::string> readText(const std::string& path, std::istream& input,
                                    std::string* problem) {
    constexpr std::size_t kLimit = std::size_t{64} << 20;
    std::ifstream file;
    std::istream* stream = &input;
    if (path != "-") {
        file.open(path, std::ios::binary);
        if (!file) {
            *problem = "cannot read '" + path + "': " + std::strerror(errno);
            return std::nullopt;
        }
        stream = &file;
    }
    std::string text;
    char buffer[65536];
    while (*stream) {
        stream->read(buffer, sizeof buffer);
        text.append(buffer, static_cast<std::size_t>(stream->gcount()));
        if (text.size() > kLimit) {
            *problem = "'" + path + "' is larger than 64 MiB";
            return std::nullopt;
        }
    }
    if (stream->bad()) {
        *problem = "cannot read '" + path + "'";
        return std::nullopt;
    }
    return text;
}

std::optional<std::string> readSecret(const std::optional<std::string>& file,
                                      const std::string& variable, bool inputClaimed,
                                      Sources& sources, std::string* problem) {
    if (file) {
        return readText(*file, sources.input, problem);
    }
    if (auto value = sources.variable(variable); value && !value->empty()) {
        return value;
    }
    if (!inputClaimed && !sources.inputIsTerminal) {
        return readText("-", sources.input, problem);
    }
    return std::string();
}

std::optional<boost::json::object> objectFromText(std::string_view text, std::string_view what,
                                                  std::string* problem) {
    boost::system::error_code code;
    boost::json::value value = boost::json::parse(text, code);
    if (code) {
        *problem = std::string(what) + " is not valid JSON: " + code.message();
        return std::nullopt;
    }
    if (!value.is_object()) {
        *problem = std::string(what) + " is not a JSON object";
        return std::nullopt;
    }
    return std::move(value.as_object());
}

std::optional<VTData> objectIdFromHex(std::string_view hex, std::string* problem) {
    auto digit = [](char c) -> int {
        if (c >= '0' && c <= '9') {
            return c - '0';
        }
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
    };
    const bool wellFormed =
        (hex.size() == 40 || hex.size() == 64) &&
        std::all_of(hex.begin(), hex.end(), [&](char c) { return digit(c) >= 0; });
    if (!wellFormed) {
        *problem = "the object id '" + std::string(hex) +
                   "' is not a full commit id (40 or 64 hexadecimal digits)";
        return std::nullopt;
    }
    VTData bytes;
    bytes.reserve(hex.size() / 2);
    for (std::size_t i = 0; i < hex.size(); i += 2) {
        bytes.push_back(static_cast<std::uint8_t>(digit(hex[i]) * 16 + digit(hex[i + 1])));
    }
    return bytes;
}

}  // namespace vt::client
