#include "transport/query_text.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>

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

}  // namespace vt
