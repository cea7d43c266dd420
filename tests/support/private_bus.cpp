#include "private_bus.h"

#include <sdbus-c++/IProxy.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <thread>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace vt::test {

namespace {

constexpr char kDaemonName[] = "org.freedesktop.DBus";
constexpr char kDaemonPath[] = "/org/freedesktop/DBus";
// How long an activated service may take to end on SIGTERM before it is killed.
constexpr int kEndingPatienceMilliseconds = 10000;

// A file descriptor that closes itself.
class Descriptor {
public:
    explicit Descriptor(int fd = -1) : fd_(fd) {}
    ~Descriptor() { reset(); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return fd_; }
    void reset() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
        fd_ = -1;
    }

private:
    int fd_;
};

std::filesystem::path makeTemporaryFolder() {
    // Short, so that the socket path stays well inside the limit of a Unix socket address.
    std::string pattern = "/tmp/vt-bus-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), "mkdtemp");
    }
    return pattern;
}

std::string escapeXml(const std::string& text) {
    std::string escaped;
    for (char character : text) {
        switch (character) {
            case '&':
                escaped += "&amp;";
                break;
            case '<':
                escaped += "&lt;";
                break;
            case '>':
                escaped += "&gt;";
                break;
            default:
                escaped += character;
        }
    }
    return escaped;
}

std::string configuration(const std::filesystem::path& folder,
                          const std::vector<std::filesystem::path>& serviceFolders) {
    std::ostringstream text;
    text << R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:path=)"
         << escapeXml((folder / "bus").string()) << R"(</listen>
  <auth>EXTERNAL</auth>
)";
    for (const auto& serviceFolder : serviceFolders) {
        text << "  <servicedir>" << escapeXml(serviceFolder.string()) << "</servicedir>\n";
    }
    // The limits of a desktop session bus, not the daemon's stricter built-in ones.
    text << R"(  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
  <limit name="max_message_size">1000000000</limit>
  <limit name="max_incoming_bytes">1000000000</limit>
  <limit name="max_outgoing_bytes">1000000000</limit>
  <limit name="max_replies_per_connection">50000</limit>
  <limit name="service_start_timeout">120000</limit>
</busconfig>
)";
    return text.str();
}

std::unique_ptr<sdbus::IProxy> daemonProxy(sdbus::IConnection& connection) {
    return sdbus::createProxy(connection, kDaemonName, kDaemonPath);
}

}  // namespace

bool isRunning(pid_t pid) {
    if (::kill(pid, 0) != 0) {
        return errno == EPERM;
    }
    // A zombie waits only for its parent to reap it.
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!std::getline(stat, line)) {
        return false;
    }
    const auto end = line.rfind(')');
    return end == std::string::npos || end + 2 >= line.size() || line[end + 2] != 'Z';
}

bool waitUntilEnded(pid_t pid, int limitMilliseconds) {
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(limitMilliseconds);
    while (isRunning(pid)) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

PrivateBus::PrivateBus() : PrivateBus(Options{}) {}

PrivateBus::PrivateBus(Options options) : folder_(makeTemporaryFolder()) {
    std::vector<std::filesystem::path> serviceFolders;
#ifdef VT_ACTIVATION_DIR
    if (options.activateService) {
        serviceFolders.emplace_back(VT_ACTIVATION_DIR);
    }
#endif
    serviceFolders.insert(serviceFolders.end(), options.serviceFolders.begin(),
                          options.serviceFolders.end());
    const std::filesystem::path configurationPath = folder_ / "bus.conf";
    std::ofstream(configurationPath) << configuration(folder_, serviceFolders);

    // Named before the daemon starts, so that the services it activates inherit it.
    if (const char* previous = std::getenv("DBUS_SESSION_BUS_ADDRESS")) {
        previousAddress_ = previous;
    }
    const std::string plainAddress = "unix:path=" + (folder_ / "bus").string();
    ::setenv("DBUS_SESSION_BUS_ADDRESS", plainAddress.c_str(), 1);

    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) {
        throw std::system_error(errno, std::generic_category(), "pipe2");
    }
    Descriptor reading(ends[0]);
    Descriptor writing(ends[1]);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, writing.get(), 3);
    // An unprivileged daemon complains about resource limits it may not raise; its log is kept
    // for a test that wants to know why activation failed.
    posix_spawn_file_actions_addopen(&actions, 2, (folder_ / "daemon.log").c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0600);
    std::string program = "dbus-daemon";
    std::string configurationArgument = "--config-file=" + configurationPath.string();
    std::string noFork = "--nofork";
    std::string printAddress = "--print-address=3";
    char* arguments[] = {program.data(), configurationArgument.data(), noFork.data(),
                         printAddress.data(), nullptr};
    const int status =
        ::posix_spawnp(&daemon_, program.c_str(), &actions, nullptr, arguments, environ);
    posix_spawn_file_actions_destroy(&actions);
    if (status != 0) {
        std::filesystem::remove_all(folder_);
        throw std::system_error(status, std::generic_category(), "starting dbus-daemon");
    }
    writing.reset();

    // The daemon prints its address and a newline once it listens.
    std::string printed;
    char buffer[512];
    for (;;) {
        const ssize_t length = ::read(reading.get(), buffer, sizeof buffer);
        if (length < 0 && errno == EINTR) {
            continue;
        }
        if (length <= 0) {
            break;
        }
        printed.append(buffer, static_cast<std::size_t>(length));
        if (printed.find('\n') != std::string::npos) {
            break;
        }
    }
    address_ = printed.substr(0, printed.find('\n'));
    if (address_.empty()) {
        ::kill(daemon_, SIGTERM);
        ::waitpid(daemon_, nullptr, 0);
        std::filesystem::remove_all(folder_);
        throw std::runtime_error("dbus-daemon printed no address");
    }
    ::setenv("DBUS_SESSION_BUS_ADDRESS", address_.c_str(), 1);
}

PrivateBus::~PrivateBus() {
    // A daemon a test stopped would neither answer nor end.
    ::kill(daemon_, SIGCONT);
    try {
        endActivatedServices();
    } catch (...) {
        // The daemon may be gone already; its services then end with it.
    }
    ::kill(daemon_, SIGTERM);
    ::waitpid(daemon_, nullptr, 0);
    if (previousAddress_) {
        ::setenv("DBUS_SESSION_BUS_ADDRESS", previousAddress_->c_str(), 1);
    } else {
        ::unsetenv("DBUS_SESSION_BUS_ADDRESS");
    }
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
}

std::unique_ptr<sdbus::IConnection> PrivateBus::connect() const {
    return sdbus::createSessionBusConnectionWithAddress(address_);
}

void PrivateBus::setActivationEnvironment(const std::map<std::string, std::string>& variables) {
    auto connection = connect();
    daemonProxy(*connection)
        ->callMethod("UpdateActivationEnvironment")
        .onInterface(kDaemonName)
        .withArguments(variables);
}

std::optional<pid_t> PrivateBus::ownerPid(const std::string& name) const {
    auto connection = connect();
    try {
        std::uint32_t pid = 0;
        daemonProxy(*connection)
            ->callMethod("GetConnectionUnixProcessID")
            .onInterface(kDaemonName)
            .withArguments(name)
            .storeResultsTo(pid);
        return static_cast<pid_t>(pid);
    } catch (const sdbus::Error&) {
        return std::nullopt;  // nobody owns the name
    }
}

bool PrivateBus::endOwner(const std::string& name) {
    const std::optional<pid_t> owner = ownerPid(name);
    if (!owner || *owner == ::getpid()) {
        return false;
    }
    ::kill(*owner, SIGTERM);
    if (!waitUntilEnded(*owner, kEndingPatienceMilliseconds)) {
        ::kill(*owner, SIGKILL);
        waitUntilEnded(*owner, kEndingPatienceMilliseconds);
    }
    return true;
}

void PrivateBus::endActivatedServices() {
    std::vector<std::string> names;
    {
        auto connection = connect();
        daemonProxy(*connection)
            ->callMethod("ListActivatableNames")
            .onInterface(kDaemonName)
            .storeResultsTo(names);
    }
    for (const std::string& name : names) {
        if (name != kDaemonName) {
            endOwner(name);
        }
    }
}

}  // namespace vt::test
