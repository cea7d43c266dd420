#include "vthosts/bus_caller.h"

#include "records/wire.h"
#include "service/bus_names.h"

#include <sdbus-c++/Error.h>

#include <condition_variable>
#include <mutex>
#include <stop_token>
#include <thread>

namespace vt::client {

namespace {

// Turns a bar on one line of a terminal until destroyed, then clears the line.
class Spinner {
public:
    explicit Spinner(std::ostream* out) : out_(out) {
        if (out_ != nullptr) {
            thread_ = std::jthread([this](std::stop_token stop) { spin(stop); });
        }
    }
    ~Spinner() {
        if (out_ == nullptr) {
            return;
        }
        thread_.request_stop();
        thread_.join();
        *out_ << "\r\033[K" << std::flush;
    }
    Spinner(const Spinner&) = delete;
    Spinner& operator=(const Spinner&) = delete;

private:
    void spin(std::stop_token stop) {
        constexpr char kFrames[] = {'|', '/', '-', '\\'};
        std::size_t frame = 0;
        std::unique_lock lock(mutex_);
        // Quick requests end before the first frame, so nothing flickers.
        while (!wake_.wait_for(lock, stop, std::chrono::milliseconds(150),
                               [&stop] { return stop.stop_requested(); })) {
            *out_ << "\r" << kFrames[frame++ % 4] << " waiting for the hosts service" << std::flush;
        }
    }

    std::ostream* out_;
    std::mutex mutex_;
    std::condition_variable_any wake_;
    std::jthread thread_;
};

struct ArgumentWriter {
    sdbus::Message& message;

    void operator()(const std::string& text) const { message << text; }
    void operator()(std::int64_t number) const { message << number; }
    void operator()(const boost::json::object& dictionary) const {
        vt::wire::appendDictionary(message, dictionary);
    }
    void operator()(const AnyValue& value) const { vt::wire::appendVariant(message, value.value); }
    void operator()(const VTData& bytes) const { message << bytes; }
    void operator()(const std::vector<std::string>& texts) const { message << texts; }
    void operator()(const std::vector<std::int64_t>& numbers) const { message << numbers; }
    void operator()(const std::vector<boost::json::object>& dictionaries) const {
        message.openContainer("a{sv}");
        for (const auto& dictionary : dictionaries) {
            vt::wire::appendDictionary(message, dictionary);
        }
        message.closeContainer();
    }
};

}  // namespace

void appendArguments(sdbus::Message& message, const Request& request) {
    for (const auto& argument : request.arguments) {
        std::visit(ArgumentWriter{message}, argument);
    }
}

BusCaller::BusCaller(std::ostream* spinnerOut) : spinnerOut_(spinnerOut) {}

BusCaller::~BusCaller() = default;

CallOutcome BusCaller::operator()(const Request& request) {
    CallOutcome outcome;
    try {
        if (!proxy_) {
            // Always the session bus: sdbus-c++ would pick the system bus for root.
            connection_ = sdbus::createSessionBusConnection();
            proxy_ = sdbus::createProxy(*connection_, vt::bus::kServiceName, vt::bus::kObjectPath);
        }
        auto call = proxy_->createMethodCall(vt::bus::kRequestInterface, request.member);
        appendArguments(call, request);
        sdbus::MethodReply reply;
        {
            Spinner spinner(spinnerOut_);
            reply = proxy_->callMethod(call, kReplyTimeout);
        }
        boost::json::object dictionary;
        std::string fault;
        if (!vt::wire::readDictionary(reply, dictionary, &fault)) {
            outcome.errorName = vt::bus::kFailedError;
            outcome.errorMessage = "the reply could not be read: " + fault;
            return outcome;
        }
        outcome.reply = std::move(dictionary);
    } catch (const sdbus::Error& error) {
        outcome.errorName = error.getName();
        outcome.errorMessage = error.getMessage();
    }
    return outcome;
}

}  // namespace vt::client
