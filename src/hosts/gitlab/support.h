#pragma once

// How the GitLab adapter names projects and reads numbers: the project path of a repository
// address, the URL-encoded project identifier of the REST API, the numeric part of a global
// identifier, and identifiers that may come as numbers or as texts.

#include "records/values.h"

#include <boost/json/value.hpp>

#include <cstdint>
#include <string>
#include <string_view>

namespace vt::gitlab {

// The address's path without its leading slash, trailing slashes and extension:
// "/group/sub/project.git" is "group/sub/project".
std::string projectPath(const VTUrl& url);
std::string projectPath(std::string_view urlText);

// The project path as the REST API's project identifier: every "/" written "%2F".
std::string encodedProjectIdentifier(std::string_view path);

// A value read as a whole number the way the client's dictionaries read one: a number's integral
// part, or the leading digits of a text ("42" is 42; a global id such as "gid://gitlab/Group/5",
// like anything else, is 0).
std::int64_t integerValue(const boost::json::value* value);

// The last "/"-separated component of a text: "gid://gitlab/Project/42" is "42".
std::string lastPathComponent(std::string_view text);

}  // namespace vt::gitlab
