#pragma once

// The vthosts program as a function: command line in, exit status out, with its standard streams,
// environment and the way requests reach the service passed in.

#include "vthosts/inputs.h"
#include "vthosts/request.h"

#include <ostream>
#include <string>
#include <vector>

namespace vt::client {

// Exit statuses.
inline constexpr int kSuccess = 0;
inline constexpr int kFailed = 1;  // the reply carried an error, or the service did not answer
inline constexpr int kUsage = 2;   // the command line or an input was not usable

struct Console {
    Sources sources;
    std::ostream& out;
    bool outIsTerminal = false;
    std::ostream& err;
};

// Runs one command line (without the program name) and returns the exit status.
int run(const std::vector<std::string>& arguments, Console& console, const Caller& caller);

}  // namespace vt::client
