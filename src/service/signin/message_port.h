#pragma once

// The message ports between the hosts service and the sign-in application: Unix datagram sockets
// named "<group>.Host" (the service receives) and "<group>.SignIn" (the sign-in application
// receives), in $XDG_RUNTIME_DIR or, without it, in a private folder "veldtrack-<uid>" of the
// temporary folder. A message is one datagram holding a UTF-8 JSON object with the members
// "VTMessageSelector" and, for operations that take one, "VTMessageArgument".

#include <boost/json/object.hpp>
#include <boost/json/value.hpp>

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace vt::signin {

// Send status codes, as message ports report them.
inline constexpr int kMessagePortSuccess = 0;
inline constexpr int kMessagePortSendTimeout = -1;
inline constexpr int kMessagePortIsInvalid = -3;
inline constexpr int kMessagePortTransportError = -4;

// The largest message either side sends or accepts, in bytes.
inline constexpr std::size_t kMaximumMessageSize = 64 * 1024;

// An owned file descriptor.
class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) noexcept : fd_(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept;
    ~UniqueFd();
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    int get() const noexcept { return fd_; }
    int release() noexcept;
    explicit operator bool() const noexcept { return fd_ >= 0; }

private:
    int fd_ = -1;
};

// The folder that holds the ports: $XDG_RUNTIME_DIR when it is set and not empty, else
// "<temporary folder>/veldtrack-<uid>", created with mode 0700 when missing. nullopt when that
// folder cannot be made or is not a private folder of this user.
std::optional<std::filesystem::path> messagePortFolder();

// A bound port that receives datagrams. The socket file has mode 0600; a socket file that nobody
// serves any more is replaced, one that someone still serves is left alone (creation fails).
class LocalMessagePort {
public:
    // nullopt when the port cannot be made (errno tells why).
    static std::optional<LocalMessagePort> create(const std::string& name);

    LocalMessagePort(LocalMessagePort&&) noexcept = default;
    LocalMessagePort& operator=(LocalMessagePort&&) noexcept = default;
    ~LocalMessagePort();  // removes the socket file while it is still this port's

    // Non-blocking; readable when a datagram waits.
    int fd() const noexcept { return fd_.get(); }
    const std::filesystem::path& path() const noexcept { return path_; }
    // The next waiting datagram; nullopt when none waits. A datagram longer than
    // kMaximumMessageSize is dropped and reads as an empty string.
    std::optional<std::string> receive();

private:
    LocalMessagePort(UniqueFd fd, std::filesystem::path path, unsigned long inode);

    UniqueFd fd_;
    std::filesystem::path path_;
    unsigned long inode_ = 0;
};

// A connection to a port someone else has bound.
class RemoteMessagePort {
public:
    // nullopt while nobody is bound to the port's path.
    static std::optional<RemoteMessagePort> connect(const std::string& name);

    // Sends one datagram, waiting at most `timeout` for room at the receiver. Returns
    // kMessagePortSuccess or one of the failure codes above.
    int send(std::string_view data, std::chrono::milliseconds timeout);

private:
    explicit RemoteMessagePort(UniqueFd fd) : fd_(std::move(fd)) {}

    UniqueFd fd_;
};

// A decoded message.
struct Message {
    std::string selector;
    std::optional<boost::json::value> argument;  // absent when the member is missing
};

// {"VTMessageSelector": selector, "VTMessageArgument": argument} as JSON text.
std::string encodeMessage(std::string_view selector,
                          const std::optional<boost::json::value>& argument = std::nullopt);
// nullopt for anything that is not a JSON object with a string "VTMessageSelector".
std::optional<Message> decodeMessage(std::string_view data);

}  // namespace vt::signin
