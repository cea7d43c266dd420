#pragma once

// VTError: what every operation reports through its optional `VTError*` out-parameter.

#include <boost/json/object.hpp>
#include <boost/json/value.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// The service's own domains.
inline constexpr std::string_view VTHTTPErrorDomain = "VTHTTPErrorDomain";
inline constexpr std::string_view VTGitErrorDomain = "VTGitErrorDomain";
inline constexpr std::string_view VTZlibErrorDomain = "VTZlibErrorDomain";
// The platform's domains (HTTP session, JSON, system calls, key decoding).
inline constexpr std::string_view VTURLErrorDomain = "VTURLErrorDomain";
inline constexpr std::string_view VTJSONErrorDomain = "VTJSONErrorDomain";
inline constexpr std::string_view VTPOSIXErrorDomain = "VTPOSIXErrorDomain";
inline constexpr std::string_view VTSecurityErrorDomain = "VTSecurityErrorDomain";

// A domain, an integer code and user info holding "description" and, where there is one,
// "recoverySuggestion" (plus any other entries a sender put there). A default-constructed
// VTError is "no error": it tests false.
struct VTError {
    std::string domain;
    std::int64_t code = 0;
    boost::json::object userInfo;

    VTError() = default;
    VTError(std::string_view domain, std::int64_t code, std::string_view description,
            std::optional<std::string_view> recoverySuggestion = std::nullopt);
    VTError(std::string_view domain, std::int64_t code, boost::json::object userInfo);

    explicit operator bool() const noexcept { return !domain.empty(); }

    // "description" of the user info, or the empty string.
    std::string description() const;
    // "recoverySuggestion" of the user info, when it holds a string.
    std::optional<std::string> recoverySuggestion() const;

    // {"domain": s, "code": x, "userInfo": {...}}; the no-error value encodes as an empty object.
    boost::json::object toValue() const;
    // The inverse of toValue(); nullopt when the value is not an error object.
    static std::optional<VTError> fromValue(const boost::json::value& value);

    bool operator==(const VTError&) const = default;
};

// Stores `error` in `*out` when the caller asked for errors.
inline void VTSetError(VTError* out, VTError error) {
    if (out != nullptr) {
        *out = std::move(error);
    }
}
