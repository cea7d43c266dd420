#pragma once

// What the transport's fault tests share: a bare listener that tells whether anybody connected,
// gzip bodies made without holding their inflated text, and URL parsing.

#include "records/values.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zlib.h>
#include <boost/url/parse.hpp>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

namespace vt::faults {

inline VTUrl urlOf(std::string_view text) {
    return VTUrl(boost::urls::parse_uri(text).value());
}

// A TCP port on 127.0.0.1 that nobody serves. The kernel completes a client's connection before
// the client can send a byte, so after a call, connected() tells for certain whether the call
// tried to reach this port.
class Listener {
public:
    Listener() : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        if (fd_ < 0 || ::bind(fd_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
            ::listen(fd_, 16) != 0 ||
            ::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
            throw std::runtime_error("listener: cannot listen on 127.0.0.1");
        }
        port_ = ntohs(address.sin_port);
    }
    ~Listener() { ::close(fd_); }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    std::uint16_t port() const { return port_; }

    bool connected() {
        const int client = ::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (client < 0) {
            return false;
        }
        ::close(client);
        return true;
    }

private:
    int fd_;
    std::uint16_t port_ = 0;
};

// A gzip stream of `spaces` blanks followed by `tail`, compressed a slice at a time so that the
// inflated text never exists here.
inline std::string gzipped(std::size_t spaces, std::string_view tail) {
    z_stream stream{};
    if (deflateInit2(&stream, Z_BEST_COMPRESSION, Z_DEFLATED, 15 + 16, 9, Z_DEFAULT_STRATEGY) !=
        Z_OK) {
        throw std::runtime_error("gzip: deflateInit2 failed");
    }
    const std::string blanks(std::size_t{1} << 20, ' ');
    std::string output;
    char buffer[1 << 16];
    auto feed = [&](std::string_view input, int flush) {
        stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(input.data()));
        stream.avail_in = static_cast<uInt>(input.size());
        do {
            stream.next_out = reinterpret_cast<Bytef*>(buffer);
            stream.avail_out = sizeof buffer;
            deflate(&stream, flush);
            output.append(buffer, sizeof buffer - stream.avail_out);
        } while (stream.avail_out == 0 || stream.avail_in > 0);
    };
    for (std::size_t left = spaces; left > 0;) {
        const std::size_t slice = std::min(left, blanks.size());
        feed(std::string_view(blanks).substr(0, slice), Z_NO_FLUSH);
        left -= slice;
    }
    feed(tail, Z_FINISH);
    deflateEnd(&stream);
    return output;
}

}  // namespace vt::faults
