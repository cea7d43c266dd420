#pragma once

// Making the texts adapters send: query and path formats whose "%@" places are filled in order,
// the text of a value as it goes into such a place, and repository names without their
// extension.

#include <boost/json/value.hpp>

#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

namespace vt {

// `text` with each "%@" replaced by the next of `values`, in order. Places beyond the values stay
// as they are; values beyond the places are ignored.
std::string fillText(std::string_view text, std::initializer_list<std::string_view> values);

// What stands in a query place for a value that is missing.
inline constexpr std::string_view kMissingText = "(null)";

// The text of a value as it goes into a query place: a string as it is, a number in decimal
// (integral doubles without a fraction), true as "1" and false as "0", anything else kMissingText.
std::string placeText(const boost::json::value* value);
std::string placeText(const std::optional<std::string>& value);

// `name` without its extension: the text from the last dot on, when that dot is not the first
// character ("my.tool.git" is "my.tool", "my.tool" is "my", ".git" stays).
std::string deletingPathExtension(std::string_view name);

}  // namespace vt
