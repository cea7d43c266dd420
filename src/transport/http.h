#pragma once

// One HTTP exchange over the process-wide libcurl session: each thread reuses its own easy handle,
// so connections, TLS sessions and DNS answers are kept between requests.

#include "records/error.h"

#include <map>
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

// Sends one request. `headers` are full header lines ("Name: value"); `body` may be null.
// Every request has the 45-second time-out. VELDTRACK_CONNECT_TO ("HOST:PORT:TO-HOST:TO-PORT",
// comma-separated) routes host names to other addresses without changing the URL or Host header.
Exchange perform(std::string_view method, const std::string& url,
                 const std::vector<std::string>& headers, const std::string* body);

}  // namespace vt::http
