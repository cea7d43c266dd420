#pragma once

// FakeHost: a small HTTP/1.1 server on 127.0.0.1 for tests, benchmarks and the demo's sample hosts.
// It serves on its own thread, records every request, and answers either from a script of
// expectations (each answers once; a request no expectation matches is recorded as unmatched and
// answered 599) or from a handler (for sample hosts that answer any number of requests).
//
// To reach it under a real host name, route the name with VELDTRACK_CONNECT_TO, e.g.
// "api.github.test:80:127.0.0.1:<port()>".

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vt::fake {

struct Request {
    std::string method;
    std::string target;  // path and query, as sent
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;
    // When the whole request had been read, and when its answer had been handed to the socket
    // (unset when the host closed the connection instead). Their difference is the host's own
    // share of the exchange.
    std::chrono::steady_clock::time_point received;
    std::optional<std::chrono::steady_clock::time_point> answered;

    // The value of the first header of that name (case-insensitive), or nullopt.
    std::optional<std::string> header(std::string_view name) const;
};

struct Response {
    int status = 200;
    std::vector<std::pair<std::string, std::string>> headers;  // Content-Length is added
    std::string body;
    std::chrono::milliseconds delay{0};  // wait this long before answering
    bool drop = false;                   // close the connection without answering

    // Misbehaviour, for tests of a client's limits:
    // the status line and headers are sent, then nothing until the host goes away;
    bool silentAfterHeaders = false;
    // the status line, headers and this many bytes of the body are sent, then the connection is
    // reset.
    std::optional<std::size_t> resetAfter;

    static Response json(std::string body, int status = 200);
    // A redirect to `location` (absolute or relative, sent as it stands).
    static Response redirect(int status, std::string location);
};

class FakeHost {
public:
    FakeHost();  // binds 127.0.0.1 on an ephemeral port and starts serving
    ~FakeHost();
    FakeHost(const FakeHost&) = delete;
    FakeHost& operator=(const FakeHost&) = delete;

    std::uint16_t port() const;
    // "http://127.0.0.1:<port><pathAndQuery>"
    std::string url(std::string_view pathAndQuery = "") const;

    // Strict script: the first unused expectation whose method and target (or predicate) match
    // answers, once.
    void expect(std::string method, std::string target, Response response);
    void expect(std::function<bool(const Request&)> match, Response response);
    // Answers whatever no expectation matched (sample hosts). nullopt falls through to 599.
    void setHandler(std::function<std::optional<Response>(const Request&)> handler);

    std::vector<Request> requests() const;  // every request received, in arrival order
    std::size_t requestCount() const;
    // Connections accepted so far: a client that keeps its connection alive opens one.
    std::size_t connectionCount() const;
    // One line per problem: requests nobody answered, expectations never used. Empty when clean.
    std::vector<std::string> problems() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace vt::fake
