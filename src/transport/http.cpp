#include "transport/http.h"

#include "transport/limits.h"
#include "vt_version.h"

#include <curl/curl.h>
#include <malloc.h>
#include <boost/url/parse.hpp>

#include <algorithm>
#include <array>
#include <atomic>
#include <cctype>
#include <cstdlib>
#include <memory>
#include <mutex>

namespace vt::http {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr const char* kWebProtocols = "http,https";
constexpr const char* kRequestTimedOut =
    "The request timed out: its exchanges with the host took too long together.";

// Zero: the bound of limits.h. Set only by tests.
std::atomic<milliseconds::rep> exchangeTimeoutForTesting{0};
std::atomic<milliseconds::rep> requestTimeoutForTesting{0};

milliseconds exchangeTimeout() {
    const auto shortened = exchangeTimeoutForTesting.load();
    return shortened > 0 ? milliseconds(shortened) : limits::kExchangeTimeout;
}

milliseconds requestTimeout() {
    const auto shortened = requestTimeoutForTesting.load();
    return shortened > 0 ? milliseconds(shortened) : limits::kRequestTimeout;
}

// The open RequestScope of this thread, if any: when its time is up, and whether an answer of
// kLargeAnswerBytes or more passed through it.
thread_local std::optional<Clock::time_point> requestDeadline;
thread_local bool sawLargeAnswer = false;

struct EasyDeleter {
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
struct ListDeleter {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using EasyHandle = std::unique_ptr<CURL, EasyDeleter>;
using HeaderList = std::unique_ptr<curl_slist, ListDeleter>;

void append(HeaderList& list, const std::string& line) {
    curl_slist* grown = curl_slist_append(list.get(), line.c_str());
    if (grown != nullptr) {
        list.release();
        list.reset(grown);
    }
}

// What every thread's handle shares: DNS answers and TLS sessions, so that a client whose worker
// thread is new still resumes the TLS session an earlier thread made. Connections are not shared:
// libcurl's shared connection cache is not meant for handles running at the same time.
class Share {
public:
    Share() : share_(curl_share_init()) {
        if (share_ == nullptr) {
            return;
        }
        curl_share_setopt(share_, CURLSHOPT_LOCKFUNC, lock);
        curl_share_setopt(share_, CURLSHOPT_UNLOCKFUNC, unlock);
        curl_share_setopt(share_, CURLSHOPT_USERDATA, this);
        curl_share_setopt(share_, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
        curl_share_setopt(share_, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
    }
    // Runs after every thread's handle is gone; libcurl refuses (and keeps the data) while a
    // handle still uses it.
    ~Share() { curl_share_cleanup(share_); }
    Share(const Share&) = delete;
    Share& operator=(const Share&) = delete;

    CURLSH* get() const { return share_; }

private:
    static void lock(CURL*, curl_lock_data data, curl_lock_access, void* context) {
        static_cast<Share*>(context)->mutexFor(data).lock();
    }
    static void unlock(CURL*, curl_lock_data data, void* context) {
        static_cast<Share*>(context)->mutexFor(data).unlock();
    }
    std::mutex& mutexFor(curl_lock_data data) {
        const auto index = static_cast<std::size_t>(data);
        return mutexes_[index < mutexes_.size() ? index : 0];
    }

    CURLSH* share_;
    std::array<std::mutex, CURL_LOCK_DATA_LAST> mutexes_;
};

CURLSH* sharedData() {
    static Share share;
    return share.get();
}

// The thread's own handle; reset between requests so that its connection cache is what remains.
CURL* threadHandle() {
    thread_local EasyHandle handle(curl_easy_init());
    return handle.get();
}

// Where one transfer's response goes, and whether its body outgrew the bound.
struct Receiver {
    Exchange& exchange;
    bool tooLarge = false;
    bool sized = false;  // the body's room was reserved from its announced length
};

// Reserves room for a body whose length the host announced (and that arrives as it is sent), so
// that it is not moved and held twice while it grows.
void reserveAnnounced(Receiver& receiver) {
    receiver.sized = true;
    const auto& headers = receiver.exchange.headers;
    const auto length = headers.find("content-length");
    if (length == headers.end() || headers.contains("content-encoding")) {
        return;
    }
    const unsigned long long announced = std::strtoull(length->second.c_str(), nullptr, 10);
    receiver.exchange.body.reserve(
        static_cast<std::size_t>(std::min<unsigned long long>(announced, limits::kMaxAnswerBytes)));
}

std::size_t writeBody(char* data, std::size_t size, std::size_t count, void* context) {
    auto* receiver = static_cast<Receiver*>(context);
    if (!receiver->sized) {
        reserveAnnounced(*receiver);
    }
    const std::size_t length = size * count;
    std::string& body = receiver->exchange.body;
    if (length > limits::kMaxAnswerBytes - body.size()) {
        // Any count but `length` makes libcurl abort the transfer.
        receiver->tooLarge = true;
        return 0;
    }
    body.append(data, length);
    return length;
}

std::size_t readHeader(char* data, std::size_t size, std::size_t count, void* context) {
    auto& exchange = static_cast<Receiver*>(context)->exchange;
    std::string_view line(data, size * count);
    if (line.starts_with("HTTP/")) {
        // A new response (after an interim answer): its headers replace the last.
        exchange.headers.clear();
        return size * count;
    }
    std::size_t colon = line.find(':');
    if (colon != std::string_view::npos) {
        std::string name(line.substr(0, colon));
        for (char& c : name) {
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        }
        std::string_view value = line.substr(colon + 1);
        while (!value.empty() && (value.front() == ' ' || value.front() == '\t')) {
            value.remove_prefix(1);
        }
        while (!value.empty() && (value.back() == '\r' || value.back() == '\n' ||
                                  value.back() == ' ' || value.back() == '\t')) {
            value.remove_suffix(1);
        }
        exchange.headers[std::move(name)] = std::string(value);
    }
    return size * count;
}

std::int64_t urlErrorCode(CURLcode code) {
    switch (code) {
        case CURLE_OPERATION_TIMEDOUT:
            return -1001;
        case CURLE_UNSUPPORTED_PROTOCOL:
            return -1002;
        case CURLE_COULDNT_RESOLVE_HOST:
        case CURLE_COULDNT_RESOLVE_PROXY:
            return -1003;
        case CURLE_COULDNT_CONNECT:
            return -1004;
        case CURLE_GOT_NOTHING:
        case CURLE_RECV_ERROR:
        case CURLE_SEND_ERROR:
        case CURLE_PARTIAL_FILE:
            return -1005;
        case CURLE_TOO_MANY_REDIRECTS:
            return -1007;
        case CURLE_FILESIZE_EXCEEDED:
            return -1103;
        case CURLE_SSL_CONNECT_ERROR:
            return -1200;
        case CURLE_PEER_FAILED_VERIFICATION:
            return -1202;
        default:
            return -1;
    }
}

// VELDTRACK_CONNECT_TO, read on every request so that a change takes effect at once.
HeaderList connectTo() {
    HeaderList list;
    const char* routes = std::getenv("VELDTRACK_CONNECT_TO");
    if (routes == nullptr) {
        return list;
    }
    std::string_view rest(routes);
    while (!rest.empty()) {
        std::size_t comma = rest.find(',');
        std::string_view entry = rest.substr(0, comma);
        if (!entry.empty()) {
            append(list, std::string(entry));
        }
        rest = comma == std::string_view::npos ? std::string_view() : rest.substr(comma + 1);
    }
    return list;
}

// Whether a header line ("Name: value") has the given name, in any letter case.
bool hasName(const std::string& line, std::string_view name) {
    return line.size() > name.size() && line[name.size()] == ':' &&
           std::equal(name.begin(), name.end(), line.begin(), [](char a, char b) {
               return std::tolower(static_cast<unsigned char>(a)) ==
                      std::tolower(static_cast<unsigned char>(b));
           });
}

void dropHeader(std::vector<std::string>& headers, std::string_view name) {
    std::erase_if(headers, [name](const std::string& line) { return hasName(line, name); });
}

bool isRedirect(long status) {
    return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

// One request as it goes out on one hop.
struct Hop {
    std::string method;
    std::string url;
    std::vector<std::string> headers;
    const std::string* body = nullptr;
};

struct HopOutcome {
    CURLcode code = CURLE_OK;
    std::string message;  // the library's message when code is not CURLE_OK
    long status = 0;
    std::string redirect;  // the absolute target of a redirect answer
};

HopOutcome transfer(CURL* handle, const Hop& hop, milliseconds timeout, Receiver& receiver) {
    curl_easy_reset(handle);
    HeaderList list;
    for (const auto& line : hop.headers) {
        append(list, line);
    }
    append(list, "Expect:");
    HeaderList routes = connectTo();

    char errorText[CURL_ERROR_SIZE] = {};
    curl_easy_setopt(handle, CURLOPT_URL, hop.url.c_str());
    // libcurl's own guard against other schemes, besides the check before every hop.
    curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, kWebProtocols);
    curl_easy_setopt(handle, CURLOPT_REDIR_PROTOCOLS_STR, kWebProtocols);
    // Redirects are followed here, hop by hop: libcurl would repeat a custom method such as
    // "POST" on a 301 or 302 together with its Content-Length, and then send no body.
    curl_easy_setopt(handle, CURLOPT_FOLLOWLOCATION, 0L);
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    if (CURLSH* share = sharedData()) {
        curl_easy_setopt(handle, CURLOPT_SHARE, share);
    }
    curl_easy_setopt(handle, CURLOPT_TIMEOUT_MS, static_cast<long>(timeout.count()));
    curl_easy_setopt(handle, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_2TLS));
    curl_easy_setopt(handle, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(handle, CURLOPT_SSL_VERIFYHOST, 2L);
    curl_easy_setopt(handle, CURLOPT_ACCEPT_ENCODING, "");
    curl_easy_setopt(handle, CURLOPT_HTTPHEADER, list.get());
    if (routes) {
        curl_easy_setopt(handle, CURLOPT_CONNECT_TO, routes.get());
    }
    curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, errorText);
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, writeBody);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, &receiver);
    curl_easy_setopt(handle, CURLOPT_HEADERFUNCTION, readHeader);
    curl_easy_setopt(handle, CURLOPT_HEADERDATA, &receiver);
    if (hop.body != nullptr) {
        curl_easy_setopt(handle, CURLOPT_POSTFIELDS, hop.body->data());
        curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE_LARGE,
                         static_cast<curl_off_t>(hop.body->size()));
    }
    if (hop.method == "GET" && hop.body == nullptr) {
        curl_easy_setopt(handle, CURLOPT_HTTPGET, 1L);
    } else {
        curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST, hop.method.c_str());
    }

    HopOutcome outcome;
    outcome.code = curl_easy_perform(handle);
    if (outcome.code != CURLE_OK) {
        outcome.message = errorText[0] != '\0' ? errorText : curl_easy_strerror(outcome.code);
    }
    curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &outcome.status);
    char* redirect = nullptr;
    if (curl_easy_getinfo(handle, CURLINFO_REDIRECT_URL, &redirect) == CURLE_OK &&
        redirect != nullptr) {
        outcome.redirect = redirect;
    }
    // The options point at this call's buffers; leave nothing dangling in the kept handle.
    curl_easy_setopt(handle, CURLOPT_HTTPHEADER, nullptr);
    curl_easy_setopt(handle, CURLOPT_CONNECT_TO, nullptr);
    curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, nullptr);
    curl_easy_setopt(handle, CURLOPT_POSTFIELDS, nullptr);
    return outcome;
}

bool isWebUrl(std::string_view url) {
    auto parsed = boost::urls::parse_absolute_uri(url);
    return parsed && (parsed->scheme_id() == boost::urls::scheme::http ||
                      parsed->scheme_id() == boost::urls::scheme::https);
}

// An exchange that ended without a response.
Exchange failed(std::int64_t code, std::string_view message) {
    Exchange exchange;
    exchange.error = VTError(VTURLErrorDomain, code, message);
    return exchange;
}

}  // namespace

void initialize() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

const std::string& userAgent() {
    static const std::string text = std::string("Veldtrack/") + VT_VERSION_STRING;
    return text;
}

std::optional<std::string> originOf(std::string_view url) {
    auto parsed = boost::urls::parse_absolute_uri(url);
    if (!parsed) {
        return std::nullopt;
    }
    auto lower = [](std::string text) {
        std::transform(text.begin(), text.end(), text.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        return text;
    };
    const std::string scheme = lower(std::string(parsed->scheme()));
    std::string port(parsed->port());
    if (port.empty()) {
        port = scheme == "https" ? "443" : scheme == "http" ? "80" : "";
    }
    return scheme + "://" + lower(std::string(parsed->encoded_host())) + ":" + port;
}

Exchange perform(std::string_view method, const std::string& url,
                 const std::vector<std::string>& headers, const std::string* body) {
    initialize();
    Exchange exchange;
    CURL* handle = threadHandle();
    if (handle == nullptr) {
        return failed(-1, "The HTTP client could not be created.");
    }

    const auto start = Clock::now();
    const auto exchangeEnd = start + exchangeTimeout();
    const std::optional<std::string> origin = originOf(url);
    Hop hop{std::string(method), url, headers, body};
    for (int redirects = 0;; ++redirects) {
        if (!isWebUrl(hop.url)) {
            return failed(-1002, "unsupported URL");
        }
        auto end = exchangeEnd;
        const bool deadlineFirst = requestDeadline && *requestDeadline < end;
        if (deadlineFirst) {
            end = *requestDeadline;
        }
        const auto left = std::chrono::ceil<milliseconds>(end - Clock::now());
        if (left.count() <= 0) {
            return failed(-1001, deadlineFirst ? kRequestTimedOut : "The request timed out.");
        }

        exchange.headers.clear();
        exchange.body.clear();
        Receiver receiver{exchange};
        HopOutcome outcome = transfer(handle, hop, left, receiver);
        if (exchange.body.size() >= limits::kLargeAnswerBytes || receiver.tooLarge) {
            sawLargeAnswer = true;
        }
        if (receiver.tooLarge) {
            return failed(-1103, "answer too large");
        }
        if (outcome.code != CURLE_OK) {
            if (outcome.code == CURLE_OPERATION_TIMEDOUT && deadlineFirst) {
                return failed(-1001, kRequestTimedOut);
            }
            return failed(urlErrorCode(outcome.code), outcome.message);
        }
        if (!isRedirect(outcome.status) || outcome.redirect.empty()) {
            exchange.responded = true;
            exchange.status = outcome.status;
            return exchange;
        }
        if (redirects == limits::kMaxRedirects) {
            return failed(-1007, "too many redirects");
        }

        hop.url = std::move(outcome.redirect);
        if (outcome.status != 307 && outcome.status != 308) {
            // Repeated as a GET: no body, and nothing that announces one.
            hop.method = "GET";
            hop.body = nullptr;
            dropHeader(hop.headers, "Content-Length");
            dropHeader(hop.headers, "Content-Type");
        }
        if (!origin || originOf(hop.url) != origin) {
            dropHeader(hop.headers, "Authorization");
        }
    }
}

RequestScope::RequestScope() : outer_(requestDeadline) {
    const auto mine = Clock::now() + requestTimeout();
    requestDeadline = outer_ ? std::min(*outer_, mine) : mine;
}

RequestScope::~RequestScope() {
    requestDeadline = outer_;
    if (!outer_ && sawLargeAnswer) {
        sawLargeAnswer = false;
        // glibc keeps freed memory of large answers in its arenas; give it back now that the
        // request is done.
        malloc_trim(0);
    }
}

void setTimeoutsForTesting(milliseconds exchange, milliseconds request) {
    exchangeTimeoutForTesting = exchange.count();
    requestTimeoutForTesting = request.count();
}

}  // namespace vt::http
