#pragma once

// Runs vthosts in-process: standard input, the environment and the service's outcomes are
// scripted; what it printed and every request it sent are kept for the test to look at.

#include "scratch.h"
#include "vthosts/client.h"

#include <gtest/gtest.h>

#include <deque>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace vt::client::test {

class Harness {
public:
    std::string input;
    bool inputIsTerminal = true;
    bool outputIsTerminal = false;
    std::map<std::string, std::string> environment;
    // Answers, in order; a request beyond them fails the test.
    std::deque<CallOutcome> outcomes;

    std::vector<Request> sent;
    std::string out;
    std::string err;

    int run(const std::vector<std::string>& arguments);

    // The token argument of sent request `index` (its first 'a{sv}' that is not a record).
    boost::json::object tokenSent(std::size_t index = 0) const;
};

// An outcome with this reply dictionary.
CallOutcome replying(boost::json::object reply);
// An outcome with a D-Bus error.
CallOutcome failing(std::string name, std::string message);

using vt::test::TemporaryFolder;

}  // namespace vt::client::test
