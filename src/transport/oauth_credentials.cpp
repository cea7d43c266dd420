#include "transport/oauth_credentials.h"

#include <boost/json/parse.hpp>
#include <boost/json/value.hpp>

#include <cstdint>
#include <fstream>
#include <iterator>
#include <string_view>
#include <system_error>

namespace vt {
namespace {

// A credentials file is a few hundred bytes; anything far larger is not one.
constexpr std::uintmax_t kMaximumFileSize = 64 * 1024;

std::string stringMember(const boost::json::object* object, std::string_view name) {
    if (object == nullptr) {
        return {};
    }
    const boost::json::value* value = object->if_contains(name);
    return value != nullptr && value->is_string() ? std::string(value->get_string())
                                                  : std::string();
}

OAuthClient clientMember(const boost::json::object& root, std::string_view name) {
    const boost::json::value* value = root.if_contains(name);
    const boost::json::object* client = value != nullptr ? value->if_object() : nullptr;
    return {stringMember(client, "client_id"), stringMember(client, "client_secret")};
}

}  // namespace

OAuthCredentials readOAuthCredentials(const std::filesystem::path& file) {
    OAuthCredentials credentials;
    std::error_code failure;
    const std::uintmax_t size = std::filesystem::file_size(file, failure);
    if (failure || size > kMaximumFileSize) {
        return credentials;
    }
    std::ifstream stream(file, std::ios::binary);
    const std::string text{std::istreambuf_iterator<char>(stream),
                           std::istreambuf_iterator<char>()};
    if (!stream) {
        return credentials;
    }
    boost::system::error_code parseFailure;
    const boost::json::value root = boost::json::parse(text, parseFailure);
    const boost::json::object* object = parseFailure ? nullptr : root.if_object();
    if (object == nullptr) {
        return credentials;
    }
    credentials.gitlab = clientMember(*object, "gitlab");
    credentials.bitbucket = clientMember(*object, "bitbucket");
    if (const boost::json::value* host = object->if_contains("redirect_host");
        host != nullptr && host->is_string()) {
        credentials.redirectHost = std::string(host->get_string());
    }
    return credentials;
}

const OAuthCredentials& oauthCredentials() {
    static const OAuthCredentials credentials = [] {
        std::error_code failure;
        const std::filesystem::path executable =
            std::filesystem::read_symlink("/proc/self/exe", failure);
        if (failure) {
            return OAuthCredentials{};
        }
        return readOAuthCredentials(executable.parent_path() / "veldtrack-hosts-service.oauth");
    }();
    return credentials;
}

}  // namespace vt
