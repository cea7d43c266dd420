#include "transport/reading.h"

#include <boost/url/parse.hpp>

#include <array>
#include <charconv>
#include <cmath>
#include <utility>
#include <vector>

namespace vt {

std::string fillText(std::string_view text, std::initializer_list<std::string_view> values) {
    constexpr std::string_view kPlace = "%@";
    std::string result;
    result.reserve(text.size() + 64);
    const std::string_view* value = values.begin();
    std::size_t from = 0;
    while (value != values.end()) {
        const std::size_t place = text.find(kPlace, from);
        if (place == std::string_view::npos) {
            break;
        }
        result.append(text.substr(from, place - from));
        result.append(*value);
        ++value;
        from = place + kPlace.size();
    }
    result.append(text.substr(from));
    return result;
}

const boost::json::value* memberAt(JsonRoot root, std::initializer_list<std::string_view> path) {
    const boost::json::value* current = root.value();
    const boost::json::object* object = root.object();
    for (std::string_view member : path) {
        if (object == nullptr) {
            return nullptr;
        }
        current = object->if_contains(member);
        if (current == nullptr) {
            return nullptr;
        }
        object = current->if_object();
    }
    return current;
}

const boost::json::object* objectAt(JsonRoot root, std::initializer_list<std::string_view> path) {
    const boost::json::value* value = memberAt(root, path);
    return value != nullptr ? value->if_object() : nullptr;
}

const boost::json::array* arrayAt(JsonRoot root, std::initializer_list<std::string_view> path) {
    const boost::json::value* value = memberAt(root, path);
    return value != nullptr ? value->if_array() : nullptr;
}

std::optional<std::string> stringAt(JsonRoot root, std::initializer_list<std::string_view> path) {
    const boost::json::value* value = memberAt(root, path);
    if (value == nullptr || !value->is_string()) {
        return std::nullopt;
    }
    return std::string(value->get_string());
}

std::optional<std::int64_t> integerAt(JsonRoot root, std::initializer_list<std::string_view> path) {
    const boost::json::value* value = memberAt(root, path);
    if (value == nullptr || !value->is_number()) {
        return std::nullopt;
    }
    boost::system::error_code failure;
    const auto number = value->to_number<std::int64_t>(failure);
    if (failure) {
        return std::nullopt;
    }
    return number;
}

bool isTrueAt(JsonRoot root, std::initializer_list<std::string_view> path) {
    const boost::json::value* value = memberAt(root, path);
    return value != nullptr && value->is_bool() && value->get_bool();
}

std::optional<std::string> urlAt(JsonRoot root, std::initializer_list<std::string_view> path) {
    auto text = stringAt(root, path);
    if (!text || !boost::urls::parse_uri(*text)) {
        return std::nullopt;
    }
    return text;
}

std::optional<VTUrl> urlWithText(std::string_view text) {
    auto parsed = boost::urls::parse_uri(text);
    if (!parsed) {
        return std::nullopt;
    }
    return VTUrl(*parsed);
}

std::string placeText(const boost::json::value* value) {
    if (value == nullptr) {
        return std::string(kMissingText);
    }
    switch (value->kind()) {
        case boost::json::kind::string:
            return std::string(value->get_string());
        case boost::json::kind::int64:
            return std::to_string(value->get_int64());
        case boost::json::kind::uint64:
            return std::to_string(value->get_uint64());
        case boost::json::kind::bool_:
            return value->get_bool() ? "1" : "0";
        case boost::json::kind::double_: {
            const double number = value->get_double();
            std::array<char, 64> buffer{};
            auto [end, failure] =
                std::trunc(number) == number && std::abs(number) < 1e15
                    ? std::to_chars(buffer.data(), buffer.data() + buffer.size(),
                                    static_cast<std::int64_t>(number))
                    : std::to_chars(buffer.data(), buffer.data() + buffer.size(), number);
            if (failure != std::errc()) {
                return std::string(kMissingText);
            }
            return std::string(buffer.data(), end);
        }
        default:
            return std::string(kMissingText);
    }
}

std::string placeText(const std::optional<std::string>& value) {
    return value ? *value : std::string(kMissingText);
}

std::string deletingPathExtension(std::string_view name) {
    const std::size_t dot = name.rfind('.');
    if (dot == std::string_view::npos || dot == 0) {
        return std::string(name);
    }
    return std::string(name.substr(0, dot));
}

std::optional<RepositoryPath> repositoryPath(const VTUrl& url, VTError* error) {
    std::vector<std::string> components;
    for (std::string segment : boost::urls::url_view(url).segments()) {
        if (!segment.empty()) {
            components.push_back(std::move(segment));
        }
    }
    if (components.empty()) {
        VTSetError(error, VTError(VTURLErrorDomain, -1000,
                                  "The address " + std::string(url.buffer()) +
                                      " does not name a repository."));
        return std::nullopt;
    }
    components.back() = deletingPathExtension(components.back());
    RepositoryPath path{components.front(), components.back(), {}};
    for (const std::string& component : components) {
        if (!path.fullName.empty()) {
            path.fullName += '/';
        }
        path.fullName += component;
    }
    return path;
}

std::optional<RepositoryPath> repositoryPath(std::string_view urlText, VTError* error) {
    auto url = urlWithText(urlText);
    if (!url) {
        VTSetError(error, VTError(VTURLErrorDomain, -1000,
                                  "The address " + std::string(urlText) + " is not a URL."));
        return std::nullopt;
    }
    return repositoryPath(*url, error);
}

}  // namespace vt
