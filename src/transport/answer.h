#pragma once

// The pure parts of the transport: decoding an answer body, reading the "Link" header, and the
// texts of HTTP failures.

#include "records/error.h"

#include <boost/json/value.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace vt {

// Decodes an answer body. An empty body is an empty object; any top-level JSON value is accepted.
// A body that is not JSON gives nullopt and a VTJSONErrorDomain error (3840, the parser's message
// and byte offset) — or, when the body is UTF-8 text such as an HTML error page, a
// VTHTTPErrorDomain error with code 0 whose description is that text (see answerText).
std::optional<boost::json::value> decodeAnswerBody(std::string_view body, VTError* error);

// A text taken from an answer, as it may go into an error's description or recovery suggestion:
// at most kMaxAnswerTextBytes, cut before the first character that would not fit whole.
std::string answerText(std::string_view text);

// The address of the entry with rel="next" in a "Link" header, or the empty string.
std::string nextLinkFromHeader(std::string_view header);

}  // namespace vt
