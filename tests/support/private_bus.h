#pragma once

// PrivateBus: a session bus of a test's own. It starts a dbus-daemon (no systemd) in a temporary
// folder, with the build tree's activation file for the hosts service in its service folder, so
// that the first call to com.veldtrack.Veldtrack.HostsService starts the binary just built. While
// it lives, DBUS_SESSION_BUS_ADDRESS names it for the test and every process the test starts.
// Destroying it ends the services the bus activated, then the daemon, and restores the variable.
//
//     vt::test::PrivateBus bus;
//     auto connection = bus.connect();
//     auto proxy = sdbus::createProxy(*connection, "com.veldtrack.Veldtrack.HostsService",
//                                     "/com/veldtrack/Veldtrack/HostsService");

#include <sdbus-c++/IConnection.h>

#include <sys/types.h>

#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vt::test {

class PrivateBus {
public:
    struct Options {
        // Whether the build tree's activation file is offered (false: nothing is activated).
        bool activateService = true;
        // Further folders of activation files.
        std::vector<std::filesystem::path> serviceFolders;
    };

    PrivateBus();
    explicit PrivateBus(Options options);
    ~PrivateBus();
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    // The daemon's address (also in DBUS_SESSION_BUS_ADDRESS).
    const std::string& address() const { return address_; }
    // A temporary folder that goes away with the bus; the daemon's log is "daemon.log" in it.
    const std::filesystem::path& folder() const { return folder_; }

    // The dbus-daemon's process (a test may stop it to play a bus that reads slowly).
    pid_t daemonPid() const { return daemon_; }

    // A new connection to this bus.
    std::unique_ptr<sdbus::IConnection> connect() const;

    // Adds variables to the environment of the services the bus activates from now on.
    void setActivationEnvironment(const std::map<std::string, std::string>& variables);
    // The process that owns `name` on this bus, when one does.
    std::optional<pid_t> ownerPid(const std::string& name) const;
    // Ends the process that owns `name` (SIGTERM, SIGKILL when it outstays its welcome) and
    // returns once it is gone. False when nobody owned the name.
    bool endOwner(const std::string& name);

private:
    void endActivatedServices();

    std::filesystem::path folder_;
    std::string address_;
    pid_t daemon_ = -1;
    std::optional<std::string> previousAddress_;
};

// Whether process `pid` still runs (a zombie does not).
bool isRunning(pid_t pid);
// Waits until process `pid` has ended, at most `limitMilliseconds`; true when it has.
bool waitUntilEnded(pid_t pid, int limitMilliseconds);

}  // namespace vt::test
