#pragma once

// Reading host answers and repository addresses, for every adapter: member paths into decoded
// JSON, the texts that fill the places of query and path texts, and the parts of a repository URL.

#include "records/error.h"
#include "records/values.h"

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/value.hpp>

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

namespace vt {

// Where a member path starts: a decoded value or an object inside one.
class JsonRoot {
public:
    JsonRoot(const boost::json::value& value) : value_(&value), object_(value.if_object()) {}
    JsonRoot(const boost::json::object& object) : object_(&object) {}

    const boost::json::value* value() const { return value_; }
    const boost::json::object* object() const { return object_; }

private:
    const boost::json::value* value_ = nullptr;
    const boost::json::object* object_ = nullptr;
};

// The value at `path` (object members from `root`), or nullptr when a step is missing or not an
// object.
const boost::json::value* memberAt(JsonRoot root, std::initializer_list<std::string_view> path);
const boost::json::object* objectAt(JsonRoot root, std::initializer_list<std::string_view> path);
const boost::json::array* arrayAt(JsonRoot root, std::initializer_list<std::string_view> path);
std::optional<std::string> stringAt(JsonRoot root, std::initializer_list<std::string_view> path);
std::optional<std::int64_t> integerAt(JsonRoot root, std::initializer_list<std::string_view> path);
// True only for the boolean true.
bool isTrueAt(JsonRoot root, std::initializer_list<std::string_view> path);
// The text at `path` when it parses as an absolute URL.
std::optional<std::string> urlAt(JsonRoot root, std::initializer_list<std::string_view> path);

// The absolute URL of `text`, or nullopt when it is none.
std::optional<VTUrl> urlWithText(std::string_view text);

// `text` with each "%@" replaced by the next of `values`, in order; places beyond the values stay.
std::string fillText(std::string_view text, std::initializer_list<std::string_view> values);

// What stands in a query place for a value that is missing.
inline constexpr std::string_view kMissingText = "(null)";

// The text of a value as it goes into a query place: a string as it is, a number in decimal
// (integral doubles without a fraction), true as "1" and false as "0", anything else kMissingText.
std::string placeText(const boost::json::value* value);
std::string placeText(const std::optional<std::string>& value);

// The parts of a repository address, from its non-empty, percent-decoded path components.
struct RepositoryPath {
    std::string owner;     // the first component
    std::string name;      // the last component without its extension
    std::string fullName;  // every component joined by "/", the last without its extension
};

// nullopt, with a VTURLErrorDomain error (-1000, bad URL), when the path has no component.
std::optional<RepositoryPath> repositoryPath(const VTUrl& url, VTError* error);
std::optional<RepositoryPath> repositoryPath(std::string_view urlText, VTError* error);

// `name` without its extension: the text from the last dot on, when that dot is not the first
// character ("my.tool.git" is "my.tool", "my.tool" is "my", ".git" stays).
std::string deletingPathExtension(std::string_view name);

}  // namespace vt
