#include "service/signin/message_port.h"

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace vt::signin {

namespace {

constexpr std::string_view kSelectorKey = "VTMessageSelector";
constexpr std::string_view kArgumentKey = "VTMessageArgument";

// Fills `address` with `path`; false (errno ENAMETOOLONG) when the path does not fit.
bool socketAddress(const std::filesystem::path& path, sockaddr_un& address) {
    std::memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    const std::string& text = path.native();
    if (text.size() >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        return false;
    }
    std::memcpy(address.sun_path, text.data(), text.size());
    return true;
}

bool connectTo(int fd, const sockaddr_un& address) {
    int result;
    do {
        result = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    } while (result != 0 && errno == EINTR);
    return result == 0;
}

// True when `path` is a socket file whose socket is closed: a service that ended without
// removing it. A socket someone still serves, or a file that is not a socket, is not stale.
bool isStaleSocket(const std::filesystem::path& path, const sockaddr_un& address) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0 || !S_ISSOCK(status.st_mode)) {
        return false;
    }
    UniqueFd probe(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!probe) {
        return false;
    }
    return !connectTo(probe.get(), address) && errno == ECONNREFUSED;
}

}  // namespace

UniqueFd& UniqueFd::operator=(UniqueFd&& other) noexcept {
    if (this != &other) {
        UniqueFd old(fd_);
        fd_ = other.release();
    }
    return *this;
}

UniqueFd::~UniqueFd() {
    if (fd_ >= 0) {
        ::close(fd_);
    }
}

int UniqueFd::release() noexcept {
    return std::exchange(fd_, -1);
}

std::optional<std::filesystem::path> messagePortFolder() {
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    if (runtime != nullptr && *runtime != '\0') {
        return std::filesystem::path(runtime);
    }
    std::error_code failure;
    std::filesystem::path temporary = std::filesystem::temp_directory_path(failure);
    if (failure) {
        temporary = "/tmp";
    }
    const uid_t user = ::getuid();
    std::filesystem::path folder = temporary / ("veldtrack-" + std::to_string(user));
    if (::mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
        return std::nullopt;
    }
    // The folder may have been there before us: it must be a real folder of ours, and no one else
    // may look into it.
    struct stat status {};
    if (::lstat(folder.c_str(), &status) != 0) {
        return std::nullopt;
    }
    if (!S_ISDIR(status.st_mode) || status.st_uid != user) {
        errno = EPERM;
        return std::nullopt;
    }
    if ((status.st_mode & 0777) != 0700 && ::chmod(folder.c_str(), 0700) != 0) {
        return std::nullopt;
    }
    return folder;
}

LocalMessagePort::LocalMessagePort(UniqueFd fd, std::filesystem::path path, unsigned long inode)
    : fd_(std::move(fd)), path_(std::move(path)), inode_(inode) {}

std::optional<LocalMessagePort> LocalMessagePort::create(const std::string& name) {
    std::optional<std::filesystem::path> folder = messagePortFolder();
    if (!folder) {
        return std::nullopt;
    }
    std::filesystem::path path = *folder / name;
    sockaddr_un address;
    if (!socketAddress(path, address)) {
        return std::nullopt;
    }
    UniqueFd fd(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd) {
        return std::nullopt;
    }
    const auto* raw = reinterpret_cast<const sockaddr*>(&address);
    if (::bind(fd.get(), raw, sizeof address) != 0) {
        if (errno != EADDRINUSE) {
            return std::nullopt;
        }
        if (!isStaleSocket(path, address)) {
            errno = EADDRINUSE;
            return std::nullopt;
        }
        if (::unlink(path.c_str()) != 0 || ::bind(fd.get(), raw, sizeof address) != 0) {
            return std::nullopt;
        }
    }
    struct stat status {};
    if (::chmod(path.c_str(), 0600) != 0 || ::stat(path.c_str(), &status) != 0) {
        const int failure = errno;
        ::unlink(path.c_str());
        errno = failure;
        return std::nullopt;
    }
    return LocalMessagePort(std::move(fd), std::move(path), status.st_ino);
}

LocalMessagePort::~LocalMessagePort() {
    if (!fd_) {
        return;
    }
    // Another process may have replaced the file since; only our own socket file is removed.
    struct stat status {};
    if (::lstat(path_.c_str(), &status) == 0 && status.st_ino == inode_) {
        ::unlink(path_.c_str());
    }
}

std::optional<std::string> LocalMessagePort::receive() {
    std::string data(kMaximumMessageSize, '\0');
    iovec vector{data.data(), data.size()};
    msghdr header{};
    header.msg_iov = &vector;
    header.msg_iovlen = 1;
    ssize_t length;
    do {
        length = ::recvmsg(fd_.get(), &header, 0);
    } while (length < 0 && errno == EINTR);
    if (length < 0) {
        return std::nullopt;
    }
    if ((header.msg_flags & MSG_TRUNC) != 0) {
        return std::string();
    }
    data.resize(static_cast<std::size_t>(length));
    return data;
}

std::optional<RemoteMessagePort> RemoteMessagePort::connect(const std::string& name) {
    std::optional<std::filesystem::path> folder = messagePortFolder();
    if (!folder) {
        return std::nullopt;
    }
    sockaddr_un address;
    if (!socketAddress(*folder / name, address)) {
        return std::nullopt;
    }
    UniqueFd fd(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!fd || !connectTo(fd.get(), address)) {
        return std::nullopt;
    }
    return RemoteMessagePort(std::move(fd));
}

int RemoteMessagePort::send(std::string_view data, std::chrono::milliseconds timeout) {
    // A datagram socket waits for room in the receiver's queue up to the send time-out.
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(timeout);
    const auto micros = std::chrono::duration_cast<std::chrono::microseconds>(timeout - seconds);
    timeval limit{static_cast<time_t>(seconds.count()), static_cast<suseconds_t>(micros.count())};
    if (::setsockopt(fd_.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) != 0) {
        return kMessagePortTransportError;
    }
    ssize_t sent;
    do {
        sent = ::send(fd_.get(), data.data(), data.size(), MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    if (sent == static_cast<ssize_t>(data.size())) {
        return kMessagePortSuccess;
    }
    if (sent >= 0) {
        return kMessagePortTransportError;
    }
    switch (errno) {
        case EAGAIN:
            return kMessagePortSendTimeout;
        case ECONNREFUSED:
        case ECONNRESET:
        case ENOTCONN:
        case EPIPE:
            return kMessagePortIsInvalid;
        default:
            return kMessagePortTransportError;
    }
}

std::string encodeMessage(std::string_view selector,
                          const std::optional<boost::json::value>& argument) {
    boost::json::object message;
    message[kSelectorKey] = selector;
    if (argument) {
        message[kArgumentKey] = *argument;
    }
    return boost::json::serialize(message);
}

std::optional<Message> decodeMessage(std::string_view data) {
    boost::json::error_code failure;
    boost::json::value value = boost::json::parse(data, failure);
    if (failure || !value.is_object()) {
        return std::nullopt;
    }
    const boost::json::object& object = value.get_object();
    const boost::json::value* selector = object.if_contains(kSelectorKey);
    if (selector == nullptr || !selector->is_string()) {
        return std::nullopt;
    }
    Message message{std::string(selector->get_string()), std::nullopt};
    if (const boost::json::value* argument = object.if_contains(kArgumentKey)) {
        message.argument = *argument;
    }
    return message;
}

}  // namespace vt::signin
