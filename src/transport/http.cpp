#include "transport/http.h"

#include "vt_version.h"

#include <curl/curl.h>

#include <array>
#include <cctype>
#include <cstdlib>
#include <memory>
#include <mutex>

namespace vt::http {

namespace {

constexpr long kTimeoutMilliseconds = 45'000;

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

std::size_t writeBody(char* data, std::size_t size, std::size_t count, void* context) {
    static_cast<Exchange*>(context)->body.append(data, size * count);
    return size * count;
}

std::size_t readHeader(char* data, std::size_t size, std::size_t count, void* context) {
    auto* exchange = static_cast<Exchange*>(context);
    std::string_view line(data, size * count);
    if (line.starts_with("HTTP/")) {
        // A new response (after a redirect or an interim answer): its headers replace the last.
        exchange->headers.clear();
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
        exchange->headers[std::move(name)] = std::string(value);
    }
    return size * count;
}

std::int64_t urlErrorCode(CURLcode code) {
    switch (code) {
        case CURLE_OPERATION_TIMEDOUT:
            return -1001;
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

}  // namespace

void initialize() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

const std::string& userAgent() {
    static const std::string text = std::string("Veldtrack/") + VT_VERSION_STRING;
    return text;
}

Exchange perform(std::string_view method, const std::string& url,
                 const std::vector<std::string>& headers, const std::string* body) {
    initialize();
    Exchange exchange;
    CURL* handle = threadHandle();
    if (handle == nullptr) {
        exchange.error = VTError(VTURLErrorDomain, -1, "The HTTP client could not be created.");
        return exchange;
    }
    curl_easy_reset(handle);

    HeaderList list;
    for (const auto& line : headers) {
        append(list, line);
    }
    append(list, "Expect:");
    HeaderList routes = connectTo();

    const std::string methodText(method);
    char errorText[CURL_ERROR_SIZE] = {};
    curl_easy_setopt(handle, CURLOPT_URL, url.c_str());
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    if (CURLSH* share = sharedData()) {
        curl_easy_setopt(handle, CURLOPT_SHARE, share);
    }
    curl_easy_setopt(handle, CURLOPT_TIMEOUT_MS, kTimeoutMilliseconds);
    curl_easy_setopt(handle, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_2TLS));
    curl_easy_setopt(handle, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(handle, CURLOPT_SSL_VERIFYHOST, 2L);
    curl_easy_setopt(handle, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(handle, CURLOPT_MAXREDIRS, 10L);
    curl_easy_setopt(handle, CURLOPT_ACCEPT_ENCODING, "");
    curl_easy_setopt(handle, CURLOPT_HTTPHEADER, list.get());
    if (routes) {
        curl_easy_setopt(handle, CURLOPT_CONNECT_TO, routes.get());
    }
    curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, errorText);
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, writeBody);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, &exchange);
    curl_easy_setopt(handle, CURLOPT_HEADERFUNCTION, readHeader);
    curl_easy_setopt(handle, CURLOPT_HEADERDATA, &exchange);
    if (body != nullptr) {
        curl_easy_setopt(handle, CURLOPT_POSTFIELDS, body->data());
        curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE_LARGE,
                         static_cast<curl_off_t>(body->size()));
    }
    if (methodText == "GET" && body == nullptr) {
        curl_easy_setopt(handle, CURLOPT_HTTPGET, 1L);
    } else {
        curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST, methodText.c_str());
    }

    CURLcode code = curl_easy_perform(handle);
    long status = 0;
    curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status);
    // The options point at this call's buffers; leave nothing dangling in the kept handle.
    curl_easy_setopt(handle, CURLOPT_HTTPHEADER, nullptr);
    curl_easy_setopt(handle, CURLOPT_CONNECT_TO, nullptr);
    curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, nullptr);

    if (code != CURLE_OK) {
        std::string message = errorText[0] != '\0' ? errorText : curl_easy_strerror(code);
        exchange.error = VTError(VTURLErrorDomain, urlErrorCode(code), message);
        exchange.body.clear();
        exchange.headers.clear();
        return exchange;
    }
    exchange.responded = true;
    exchange.status = status;
    return exchange;
}

}  // namespace vt::http
