#pragma once

// One HTTP exchange over the process-wide libcurl session: each thread reuses its own easy handle,
// so connections, TLS sessions and DNS answers are kept between requests.

#include "records/error.h"

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vt::http {

// Initialises libcurl. Call once before starting threads; later calls do nothing.
void initialize();

// "Veldtrack/<version>", built once.
const std::string& userAgent();

struct Exchange {
    bool responded = false;  // false: no response at all (see error)
    long status = 0;
    std::map<std::string, std::string> headers;  // names lower-cased; the last response's
    std::string body;
    VTError error;  // VTURLErrorDomain when the exchange failed
};

// Sends one request and follows its redirects. `headers` are full header lines ("Name: value");
// `body` may be null. VELDTRACK_CONNECT_TO ("HOST:PORT:TO-HOST:TO-PORT", comma-separated) routes
// host names to other addresses without changing the URL or Host header.
//
// Bounds (see limits.h), each failing with no response and a VTURLErrorDomain error:
// - only http and https addresses are fetched, the first one and every redirect target: -1002;
// - at most kMaxRedirects redirects: -1007. 307 and 308 repeat the method and body; 301, 302 and
//   303 repeat as a GET without a body (and without its Content-Length and Content-Type). The
//   "Authorization" header goes only to the origin (scheme, host, port) of `url`;
// - a body of more than kMaxAnswerBytes after decompression: -1103, the transfer is cut off;
// - the exchange's time-out (kExchangeTimeout), shortened to what is left of the thread's
//   RequestScope: -1001.
Exchange perform(std::string_view method, const std::string& url,
                 const std::vector<std::string>& headers, const std::string* body);

// "scheme://host:port" of an absolute URL, scheme and host lower-cased and the port filled in for
// http and https; nullopt when the text is not an absolute URL.
std::optional<std::string> originOf(std::string_view url);

// One service request on the calling thread. While it lives, every exchange of the thread shares
// one deadline, kRequestTimeout after it opened (an inner scope never extends an outer one). When
// the outermost scope closes after an answer of kLargeAnswerBytes or more, freed memory is handed
// back to the system, so that the idle service shrinks back to its usual size.
class RequestScope {
public:
    RequestScope();
    ~RequestScope();
    RequestScope(const RequestScope&) = delete;
    RequestScope& operator=(const RequestScope&) = delete;

private:
    std::optional<std::chrono::steady_clock::time_point> outer_;
};

// For tests only: shortens the exchange time-out and the request deadline so that tests of
// them finish quickly. Zero restores a bound's own value. Takes effect for exchanges and scopes
// that start afterwards.
void setTimeoutsForTesting(std::chrono::milliseconds exchange, std::chrono::milliseconds request);

}  // namespace vt::http
