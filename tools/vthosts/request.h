#pragma once

// A request to the hosts service as plain data (member name and typed arguments), the outcome of
// sending it, and the plan that turns an Invocation into the request(s) to send.

#include "records/values.h"
#include "vthosts/commands.h"
#include "vthosts/inputs.h"

#include <boost/json/object.hpp>
#include <boost/json/value.hpp>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace vt::client {

// A 'v' argument (an SSH key identifier).
struct AnyValue {
    boost::json::value value;
    bool operator==(const AnyValue&) const = default;
};

// One argument, by its D-Bus type: 's', 'x', 'a{sv}', 'v', 'ay', 'as', 'ax', 'aa{sv}'.
using Argument = std::variant<std::string, std::int64_t, boost::json::object, AnyValue, VTData,
                              std::vector<std::string>, std::vector<std::int64_t>,
                              std::vector<boost::json::object>>;

struct Request {
    std::string member;
    std::vector<Argument> arguments;
};

// The D-Bus signature of the request's arguments, e.g. "a{sv}sx".
std::string signature(const Request& request);

// What came back: the reply dictionary, or the D-Bus error that came instead.
struct CallOutcome {
    std::optional<boost::json::object> reply;
    std::string errorName;
    std::string errorMessage;
};

// Sends a request and waits for its outcome.
using Caller = std::function<CallOutcome(const Request&)>;

// What to send for one command line.
struct Plan {
    Request request;
    // For a pull request given by URL and number: the conversation request that loads its record
    // first. The record then replaces request.arguments[recordIndex], and a token the lookup
    // renewed replaces request.arguments[tokenIndex].
    std::optional<Request> lookup;
    std::size_t recordIndex = 0;
    std::size_t tokenIndex = 0;
    // Printed output style.
    bool pretty = false;
};

// Reads what the command needs (token, password, files) and builds its plan. On unusable input
// returns nullopt with the reason in `problem`.
std::optional<Plan> planRequest(const Invocation& invocation, Sources& sources,
                                bool outputIsTerminal, std::string* problem);

}  // namespace vt::client
