#pragma once

// A private session bus for one test: a dbus-daemon of its own in a temporary folder, named by
// DBUS_SESSION_BUS_ADDRESS while it lives, so that nothing touches the user's session.

#include "support.h"

#include <string>

#include <sys/types.h>

namespace vt::test {

class PrivateSessionBus {
public:
    PrivateSessionBus();
    ~PrivateSessionBus();
    PrivateSessionBus(const PrivateSessionBus&) = delete;
    PrivateSessionBus& operator=(const PrivateSessionBus&) = delete;

    const std::string& address() const { return address_; }

private:
    TemporaryFolder folder_;
    pid_t daemon_ = -1;
    std::string address_;
    std::optional<ScopedVariable> variable_;
};

}  // namespace vt::test
