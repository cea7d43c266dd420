#pragma once

// Sends requests to the hosts service on the session bus and waits for the reply dictionary, with
// a reply time-out far above the service's 45-second HTTP time-out (a request may page through many
// answers). While it waits, a spinner turns on standard error when that is a terminal.

#include "vthosts/request.h"

#include <sdbus-c++/IConnection.h>
#include <sdbus-c++/IProxy.h>
#include <sdbus-c++/Message.h>

#include <chrono>
#include <memory>
#include <ostream>

namespace vt::client {

inline constexpr std::chrono::minutes kReplyTimeout{10};

// Appends the request's arguments to `message` in their D-Bus types.
void appendArguments(sdbus::Message& message, const Request& request);

class BusCaller {
public:
    // `spinnerOut` is where the spinner turns, or nullptr for none.
    explicit BusCaller(std::ostream* spinnerOut);
    ~BusCaller();
    BusCaller(const BusCaller&) = delete;
    BusCaller& operator=(const BusCaller&) = delete;

    // Connects on first use; a bus that cannot be reached is an outcome without a reply.
    CallOutcome operator()(const Request& request);

private:
    std::ostream* spinnerOut_;
    std::unique_ptr<sdbus::IConnection> connection_;
    std::unique_ptr<sdbus::IProxy> proxy_;
};

}  // namespace vt::client
