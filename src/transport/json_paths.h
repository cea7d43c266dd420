#pragma once

// Reading decoded host answers: member paths into JSON objects, typed reads at the end of a path,
// and addresses that must parse as absolute URLs. Every adapter reads its answers this way; a
// missing member, a member of another type or a step through a non-object reads as absent.

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

}  // namespace vt
