#include "transport/json_paths.h"

#include <boost/url/parse.hpp>

namespace vt {

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

}  // namespace vt
