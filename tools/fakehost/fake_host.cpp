#include "fakehost/fake_host.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <strings.h>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <stdexcept>
#include <thread>

namespace vt::fake {

namespace {

// Owns one socket descriptor.
class Fd {
public:
    explicit Fd(int fd = -1) : fd_(fd) {}
    ~Fd() { reset(); }
    Fd(Fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Fd& operator=(Fd&& other) noexcept {
        if (this != &other) {
            reset();
            fd_ = std::exchange(other.fd_, -1);
        }
        return *this;
    }
    int get() const { return fd_; }
    void reset() {
        if (fd_ >= 0) {
            ::close(fd_);
            fd_ = -1;
        }
    }

private:
    int fd_;
};

bool sendAll(int fd, std::string_view data) {
    while (!data.empty()) {
        ssize_t sent = ::send(fd, data.data(), data.size(), MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) {
            continue;
        }
        if (sent <= 0) {
            return false;
        }
        data.remove_prefix(static_cast<std::size_t>(sent));
    }
    return true;
}

std::string statusText(int status) {
    switch (status) {
        case 200:
            return "OK";
        case 201:
            return "Created";
        case 204:
            return "No Content";
        case 401:
            return "Unauthorized";
        case 404:
            return "Not Found";
        case 502:
            return "Bad Gateway";
        case 599:
            return "Unscripted";
        default:
            return "Status";
    }
}

struct Expectation {
    std::function<bool(const Request&)> match;
    std::string label;
    Response response;
    bool used = false;
};

}  // namespace

std::optional<std::string> Request::header(std::string_view name) const {
    for (const auto& [key, value] : headers) {
        if (key.size() == name.size() && ::strncasecmp(key.data(), name.data(), name.size()) == 0) {
            return value;
        }
    }
    return std::nullopt;
}

Response Response::json(std::string body, int status) {
    Response response;
    response.status = status;
    response.headers.emplace_back("Content-Type", "application/json");
    response.body = std::move(body);
    return response;
}

Response Response::redirect(int status, std::string location) {
    Response response;
    response.status = status;
    response.headers.emplace_back("Location", std::move(location));
    return response;
}

struct FakeHost::Impl {
    Fd listener;
    std::uint16_t port = 0;
    std::thread acceptor;
    std::atomic<bool> stopping{false};

    mutable std::mutex mutex;
    std::condition_variable stopped;  // wakes delayed answers when the host goes away
    std::vector<Expectation> expectations;
    std::function<std::optional<Response>(const Request&)> handler;
    std::vector<Request> requests;
    std::vector<std::string> unmatched;
    std::vector<int> connections;  // open connection descriptors, shut down on stop
    std::size_t accepted = 0;
    std::vector<std::thread> workers;

    void acceptLoop();
    void serve(int fd);
    // Records `request` (its index in `requests` goes to `index`) and finds its answer.
    Response answer(Request request, std::size_t& index);
    // Sends `response` as it asks. False when the connection is to end.
    bool send(int fd, const Response& response);
    // Reads one request from `fd`, keeping leftover bytes in `buffer`. False at the end.
    bool readRequest(int fd, std::string& buffer, Request& request);
};

bool FakeHost::Impl::readRequest(int fd, std::string& buffer, Request& request) {
    auto fill = [&]() {
        char chunk[16384];
        for (;;) {
            ssize_t got = ::recv(fd, chunk, sizeof chunk, 0);
            if (got < 0 && errno == EINTR) {
                continue;
            }
            if (got <= 0) {
                return false;
            }
            buffer.append(chunk, static_cast<std::size_t>(got));
            return true;
        }
    };
    std::size_t headerEnd;
    while ((headerEnd = buffer.find("\r\n\r\n")) == std::string::npos) {
        if (!fill()) {
            return false;
        }
    }
    std::string_view head(buffer.data(), headerEnd);
    std::size_t lineEnd = head.find("\r\n");
    std::string_view requestLine = head.substr(0, lineEnd);
    std::size_t firstSpace = requestLine.find(' ');
    std::size_t secondSpace = requestLine.find(' ', firstSpace + 1);
    if (firstSpace == std::string_view::npos || secondSpace == std::string_view::npos) {
        return false;
    }
    request = Request{};
    request.method = std::string(requestLine.substr(0, firstSpace));
    request.target = std::string(requestLine.substr(firstSpace + 1, secondSpace - firstSpace - 1));
    std::size_t contentLength = 0;
    std::size_t position = lineEnd == std::string_view::npos ? head.size() : lineEnd + 2;
    while (position < head.size()) {
        std::size_t end = head.find("\r\n", position);
        if (end == std::string_view::npos) {
            end = head.size();
        }
        std::string_view line = head.substr(position, end - position);
        std::size_t colon = line.find(':');
        if (colon != std::string_view::npos) {
            std::string name(line.substr(0, colon));
            std::string_view value = line.substr(colon + 1);
            while (!value.empty() && (value.front() == ' ' || value.front() == '\t')) {
                value.remove_prefix(1);
            }
            if (::strcasecmp(name.c_str(), "Content-Length") == 0) {
                contentLength = std::stoul(std::string(value));
            }
            request.headers.emplace_back(std::move(name), std::string(value));
        }
        position = end + 2;
    }
    buffer.erase(0, headerEnd + 4);
    while (buffer.size() < contentLength) {
        if (!fill()) {
            return false;
        }
    }
    request.body = buffer.substr(0, contentLength);
    buffer.erase(0, contentLength);
    return true;
}

Response FakeHost::Impl::answer(Request request, std::size_t& index) {
    std::function<std::optional<Response>(const Request&)> fallback;
    {
        std::lock_guard lock(mutex);
        index = requests.size();
        requests.push_back(request);
        for (auto& expectation : expectations) {
            if (!expectation.used && expectation.match(request)) {
                expectation.used = true;
                // Answers once: a large body is handed over, not copied.
                return std::move(expectation.response);
            }
        }
        fallback = handler;
    }
    if (fallback) {
        if (auto response = fallback(request)) {
            return *response;
        }
    }
    std::lock_guard lock(mutex);
    unmatched.push_back("unmatched request: " + request.method + " " + request.target);
    Response response;
    response.status = 599;
    response.body = "no scripted answer for " + request.method + " " + request.target;
    return response;
}

bool FakeHost::Impl::send(int fd, const Response& response) {
    std::string head =
        "HTTP/1.1 " + std::to_string(response.status) + " " + statusText(response.status) + "\r\n";
    for (const auto& [name, value] : response.headers) {
        head += name + ": " + value + "\r\n";
    }
    head += "Content-Length: " + std::to_string(response.body.size()) + "\r\n\r\n";
    if (!sendAll(fd, head)) {
        return false;
    }
    if (response.silentAfterHeaders) {
        std::unique_lock lock(mutex);
        stopped.wait(lock, [&] { return stopping.load(); });
        return false;
    }
    if (response.resetAfter) {
        sendAll(fd, std::string_view(response.body).substr(0, *response.resetAfter));
        // Closing with a zero linger time resets the connection instead of ending it.
        linger reset{1, 0};
        ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
        return false;
    }
    return sendAll(fd, response.body);
}

void FakeHost::Impl::serve(int fd) {
    std::string buffer;
    Request request;
    while (!stopping && readRequest(fd, buffer, request)) {
        request.received = std::chrono::steady_clock::now();
        std::size_t index = 0;
        Response response = answer(std::move(request), index);
        if (response.delay.count() > 0) {
            std::unique_lock lock(mutex);
            if (stopped.wait_for(lock, response.delay, [&] { return stopping.load(); })) {
                break;
            }
        }
        if (response.drop) {
            break;
        }
        if (!send(fd, response)) {
            break;
        }
        const auto answered = std::chrono::steady_clock::now();
        std::lock_guard lock(mutex);
        requests[index].answered = answered;
    }
    std::lock_guard lock(mutex);
    connections.erase(std::remove(connections.begin(), connections.end(), fd), connections.end());
    ::close(fd);
}

void FakeHost::Impl::acceptLoop() {
    while (!stopping) {
        pollfd watched{listener.get(), POLLIN, 0};
        int ready = ::poll(&watched, 1, 100);
        if (ready <= 0) {
            continue;
        }
        int fd = ::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            continue;
        }
        int one = 1;
        ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        std::lock_guard lock(mutex);
        if (stopping) {
            ::close(fd);
            break;
        }
        connections.push_back(fd);
        ++accepted;
        workers.emplace_back([this, fd] { serve(fd); });
    }
}

FakeHost::FakeHost() : impl_(std::make_unique<Impl>()) {
    impl_->listener = Fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (impl_->listener.get() < 0) {
        throw std::runtime_error(std::string("fake host: socket: ") + std::strerror(errno));
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = 0;
    if (::bind(impl_->listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(impl_->listener.get(), 128) != 0) {
        throw std::runtime_error(std::string("fake host: bind: ") + std::strerror(errno));
    }
    socklen_t length = sizeof address;
    ::getsockname(impl_->listener.get(), reinterpret_cast<sockaddr*>(&address), &length);
    impl_->port = ntohs(address.sin_port);
    impl_->acceptor = std::thread([impl = impl_.get()] { impl->acceptLoop(); });
}

FakeHost::~FakeHost() {
    {
        std::lock_guard lock(impl_->mutex);
        impl_->stopping = true;
        for (int fd : impl_->connections) {
            ::shutdown(fd, SHUT_RDWR);
        }
    }
    impl_->stopped.notify_all();
    impl_->acceptor.join();
    std::vector<std::thread> workers;
    {
        std::lock_guard lock(impl_->mutex);
        workers.swap(impl_->workers);
    }
    for (auto& worker : workers) {
        worker.join();
    }
}

std::uint16_t FakeHost::port() const {
    return impl_->port;
}

std::string FakeHost::url(std::string_view pathAndQuery) const {
    return "http://127.0.0.1:" + std::to_string(impl_->port) + std::string(pathAndQuery);
}

void FakeHost::expect(std::string method, std::string target, Response response) {
    std::string label = method + " " + target;
    expect(
        [method = std::move(method), target = std::move(target)](const Request& request) {
            return request.method == method && request.target == target;
        },
        std::move(response));
    std::lock_guard lock(impl_->mutex);
    impl_->expectations.back().label = std::move(label);
}

void FakeHost::expect(std::function<bool(const Request&)> match, Response response) {
    std::lock_guard lock(impl_->mutex);
    impl_->expectations.push_back(
        Expectation{std::move(match), "request matching a predicate", std::move(response)});
}

void FakeHost::setHandler(std::function<std::optional<Response>(const Request&)> handler) {
    std::lock_guard lock(impl_->mutex);
    impl_->handler = std::move(handler);
}

std::vector<Request> FakeHost::requests() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->requests;
}

std::size_t FakeHost::requestCount() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->requests.size();
}

std::size_t FakeHost::connectionCount() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->accepted;
}

std::vector<std::string> FakeHost::problems() const {
    std::lock_guard lock(impl_->mutex);
    std::vector<std::string> problems = impl_->unmatched;
    for (const auto& expectation : impl_->expectations) {
        if (!expectation.used) {
            problems.push_back("unused expectation: " + expectation.label);
        }
    }
    return problems;
}

}  // namespace vt::fake
