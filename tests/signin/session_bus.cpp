#include "session_bus.h"

#include <spawn.h>
#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace vt::test {

namespace {

constexpr const char* kConfiguration = R"(<!DOCTYPE busconfig PUBLIC
 "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:path=@FOLDER@/bus</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
)";

}  // namespace

PrivateSessionBus::PrivateSessionBus() {
    std::string configuration = kConfiguration;
    configuration.replace(configuration.find("@FOLDER@"), 8, folder_.path().string());
    const std::string configurationPath = (folder_.path() / "bus.conf").string();
    writeFile(configurationPath, configuration);

    int address[2];
    if (::pipe2(address, O_CLOEXEC) != 0) {
        throw std::system_error(errno, std::generic_category(), "pipe2");
    }
    vt::signin::UniqueFd reading(address[0]);
    vt::signin::UniqueFd writing(address[1]);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, writing.get(), 3);
    // As an unprivileged or contained user the daemon complains about resource limits it may not
    // raise; its address (or its absence) is all the tests need from it.
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    std::string program = "dbus-daemon";
    std::string configArgument = "--config-file=" + configurationPath;
    std::string noFork = "--nofork";
    std::string print = "--print-address=3";
    char* arguments[] = {program.data(), configArgument.data(), noFork.data(), print.data(),
                         nullptr};
    const int status =
        posix_spawnp(&daemon_, program.c_str(), &actions, nullptr, arguments, environ);
    posix_spawn_file_actions_destroy(&actions);
    if (status != 0) {
        throw std::system_error(status, std::generic_category(), "starting dbus-daemon");
    }
    writing = vt::signin::UniqueFd();
    // The daemon prints its address, then a newline, once it listens.
    char buffer[512];
    ssize_t length;
    while ((length = ::read(reading.get(), buffer, sizeof buffer)) != 0) {
        if (length < 0) {
            if (errno == EINTR) {
                continue;
            }
            break;
        }
        address_.append(buffer, static_cast<std::size_t>(length));
        if (address_.find('\n') != std::string::npos) {
            break;
        }
    }
    address_ = address_.substr(0, address_.find('\n'));
    if (address_.empty()) {
        ::kill(daemon_, SIGTERM);
        ::waitpid(daemon_, nullptr, 0);
        throw std::runtime_error("dbus-daemon printed no address");
    }
    variable_.emplace("DBUS_SESSION_BUS_ADDRESS", address_);
}

PrivateSessionBus::~PrivateSessionBus() {
    variable_.reset();
    if (daemon_ > 0) {
        ::kill(daemon_, SIGTERM);
        int status = 0;
        ::waitpid(daemon_, &status, 0);
    }
}

}  // namespace vt::test
