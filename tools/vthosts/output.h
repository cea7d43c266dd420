#pragma once

// How vthosts shows a reply: JSON text (indented or on one line), tokens replaced by a note, the
// reply's error as readable lines, and a new token written to a file of its own.

#include "records/error.h"
#include "records/values.h"

#include <boost/json/object.hpp>
#include <boost/json/value.hpp>

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace vt::client {

// JSON text of `value`: indented by two spaces per level when `pretty`, else on one line. Either
// way without a final line feed.
std::string formatJson(const boost::json::value& value, bool pretty);

// The token a reply hands out: "refreshedToken", or the sign-in result's "VTHostToken".
std::optional<VTToken> tokenInReply(const boost::json::object& reply);
// The reply with that token replaced by `note`, so that it never reaches the screen.
boost::json::object withoutToken(boost::json::object reply, std::string_view note);

// The error a reply carries: nullopt when there is no "error" entry. An entry that is not an
// error object still counts as an error, with its text as the description.
std::optional<VTError> errorInReply(const boost::json::object& reply);
// Lines for standard error: the description, domain and code, and the recovery suggestion.
std::string describeError(const VTError& error);

// Writes `token` as JSON to `path` with mode 0600, replacing the file at once (a temporary file
// beside it is renamed over it), so that a failure never leaves a half-written token behind.
bool saveToken(const std::filesystem::path& path, const VTToken& token, std::string* problem);

}  // namespace vt::client
