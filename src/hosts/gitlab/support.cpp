#include "hosts/gitlab/support.h"

#include "transport/reading.h"

#include <cctype>
#include <charconv>
#include <cstdint>

namespace vt::gitlab {

std::string projectPath(const VTUrl& url) {
    std::string path = url.path();
    if (!path.empty()) {
        path.erase(0, 1);
    }
    while (!path.empty() && path.back() == '/') {
        path.pop_back();
    }
    const std::size_t slash = path.rfind('/');
    const std::size_t nameStart = slash == std::string::npos ? 0 : slash + 1;
    return path.substr(0, nameStart) + vt::deletingPathExtension(path.substr(nameStart));
}

std::string projectPath(std::string_view urlText) {
    auto url = vt::urlWithText(urlText);
    return url ? projectPath(*url) : std::string();
}

std::string encodedProjectIdentifier(std::string_view path) {
    std::string encoded;
    encoded.reserve(path.size() + 8);
    for (char c : path) {
        if (c == '/') {
            encoded += "%2F";
        } else {
            encoded += c;
        }
    }
    return encoded;
}

std::int64_t integerValue(const boost::json::value* value) {
    if (value == nullptr) {
        return 0;
    }
    if (const auto* number = value->if_int64()) {
        return *number;
    }
    if (const auto* number = value->if_uint64()) {
        return *number > static_cast<std::uint64_t>(INT64_MAX) ? INT64_MAX
                                                               : static_cast<std::int64_t>(*number);
    }
    if (const auto* number = value->if_double()) {
        return *number >= 9.2e18 || *number <= -9.2e18 || *number != *number
                   ? 0
                   : static_cast<std::int64_t>(*number);
    }
    if (const auto* text = value->if_string()) {
        std::string_view digits(*text);
        while (!digits.empty() && std::isspace(static_cast<unsigned char>(digits.front()))) {
            digits.remove_prefix(1);
        }
        if (!digits.empty() && digits.front() == '+') {
            digits.remove_prefix(1);
        }
        std::int64_t number = 0;
        auto [end, failure] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
        return failure == std::errc() ? number : 0;
    }
    return 0;
}

std::string lastPathComponent(std::string_view text) {
    while (text.size() > 1 && text.back() == '/') {
        text.remove_suffix(1);
    }
    const std::size_t slash = text.rfind('/');
    return std::string(slash == std::string_view::npos ? text : text.substr(slash + 1));
}

}  // namespace vt::gitlab
