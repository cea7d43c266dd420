#include "records/error.h"

#include <limits>

namespace {

std::optional<std::int64_t> integerOf(const boost::json::value& value) {
    if (value.is_int64()) {
        return value.get_int64();
    }
    if (value.is_uint64() && value.get_uint64() <= static_cast<std::uint64_t>(
                                                       std::numeric_limits<std::int64_t>::max())) {
        return static_cast<std::int64_t>(value.get_uint64());
    }
    return std::nullopt;
}

}  // namespace

VTError::VTError(std::string_view domain, std::int64_t code, std::string_view description,
                 std::optional<std::string_view> recoverySuggestion)
    : domain(domain), code(code) {
    userInfo.emplace("description", description);
    if (recoverySuggestion) {
        userInfo.emplace("recoverySuggestion", *recoverySuggestion);
    }
}

VTError::VTError(std::string_view domain, std::int64_t code, boost::json::object userInfo)
    : domain(domain), code(code), userInfo(std::move(userInfo)) {}

std::string VTError::description() const {
    const boost::json::value* text = userInfo.if_contains("description");
    return text != nullptr && text->is_string() ? std::string(text->get_string()) : std::string();
}

std::optional<std::string> VTError::recoverySuggestion() const {
    const boost::json::value* text = userInfo.if_contains("recoverySuggestion");
    if (text == nullptr || !text->is_string()) {
        return std::nullopt;
    }
    return std::string(text->get_string());
}

boost::json::object VTError::toValue() const {
    if (!*this) {
        return {};
    }
    return {{"domain", domain}, {"code", code}, {"userInfo", userInfo}};
}

std::optional<VTError> VTError::fromValue(const boost::json::value& value) {
    const boost::json::object* object = value.if_object();
    if (object == nullptr) {
        return std::nullopt;
    }
    const boost::json::value* domain = object->if_contains("domain");
    const boost::json::value* code = object->if_contains("code");
    if (domain == nullptr || !domain->is_string() || domain->get_string().empty() ||
        code == nullptr || !integerOf(*code)) {
        return std::nullopt;
    }
    // A sender may leave the user info out; one that sends it sends a dictionary.
    boost::json::object userInfo;
    if (const boost::json::value* info = object->if_contains("userInfo")) {
        if (!info->is_object()) {
            return std::nullopt;
        }
        userInfo = info->get_object();
    }
    return VTError(domain->get_string(), *integerOf(*code), std::move(userInfo));
}
