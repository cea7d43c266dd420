// VeldtrackSignInStandIn: a sign-in application for tests. It owns the sign-in application's bus
// name, binds "<group>.SignIn", announces itself with "signInLaunched" and answers "showSignIn:"
// as its control file says; it exits on "quit".
//
// The control file is named by $VT_STANDIN_CONTROL and read again for every "showSignIn:", so a
// test can change the answer between sign-ins:
//   {"group": "...",                  the application group (required)
//    "log": "/path",                  one line per event: "started <pid>", "received <message>"
//    "launch": [messages],            sent to "<group>.Host" at start; default [signInLaunched]
//    "answer": "credentials" | "empty" | "error" | "notification" | "nothing",
//    "token": {...},                  for "credentials"
//    "error": {domain, code, userInfo} for "error"
//    "notification": "text"}          the VTHostMessage signal's text, for "notification"
// It also exits when it has heard nothing for "lifetime" seconds (default 120), so that a failed
// test leaves nothing running.

#include "service/signin/message_port.h"

#include <sdbus-c++/sdbus-c++.h>
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <iterator>
#include <optional>
#include <string>

#include <poll.h>
#include <unistd.h>

namespace {

using vt::signin::LocalMessagePort;
using vt::signin::RemoteMessagePort;

constexpr const char* kBusName = "com.veldtrack.Veldtrack.VeldtrackSignIn";
constexpr const char* kObjectPath = "/com/veldtrack/Veldtrack/VeldtrackSignIn";
constexpr const char* kNotificationInterface = "com.veldtrack.Veldtrack.Notifications";

std::optional<boost::json::object> readControl() {
    const char* path = std::getenv("VT_STANDIN_CONTROL");
    if (path == nullptr) {
        return std::nullopt;
    }
    std::ifstream file(path);
    const std::string text((std::istreambuf_iterator<char>(file)),
                           std::istreambuf_iterator<char>());
    boost::json::error_code failure;
    boost::json::value value = boost::json::parse(text, failure);
    if (failure || !value.is_object()) {
        return std::nullopt;
    }
    return value.get_object();
}

std::string member(const boost::json::object& object, std::string_view key) {
    const boost::json::value* value = object.if_contains(key);
    return value != nullptr && value->is_string() ? std::string(value->get_string())
                                                  : std::string();
}

class StandIn {
public:
    StandIn(boost::json::object control, LocalMessagePort port)
        : control_(std::move(control)), group_(member(control_, "group")), port_(std::move(port)) {}

    void log(const std::string& line) {
        const std::string path = member(control_, "log");
        if (path.empty()) {
            return;
        }
        std::ofstream file(path, std::ios::app);
        file << line << '\n';
    }

    // Sends an encoded message to the service's port; a service that does not listen is ignored.
    void sendToService(const std::string& data) {
        if (std::optional<RemoteMessagePort> port = RemoteMessagePort::connect(group_ + ".Host")) {
            port->send(data, std::chrono::seconds(1));
        }
    }

    void announce() {
        const boost::json::value* launch = control_.if_contains("launch");
        if (launch == nullptr || !launch->is_array()) {
            sendToService(vt::signin::encodeMessage("signInLaunched"));
            return;
        }
        for (const boost::json::value& message : launch->get_array()) {
            sendToService(boost::json::serialize(message));
        }
    }

    void answerSignIn(sdbus::IObject& object) {
        if (std::optional<boost::json::object> fresh = readControl()) {
            control_ = std::move(*fresh);
        }
        const std::string answer = member(control_, "answer");
        const auto value = [this](std::string_view key) {
            const boost::json::value* found = control_.if_contains(key);
            return found != nullptr ? *found : boost::json::value();
        };
        if (answer == "credentials") {
            sendToService(vt::signin::encodeMessage("receiveCredentials:", value("token")));
        } else if (answer == "empty") {
            sendToService(vt::signin::encodeMessage("receiveCredentials:", boost::json::object()));
        } else if (answer == "error") {
            sendToService(vt::signin::encodeMessage("showError:", value("error")));
        } else if (answer == "notification") {
            sdbus::Signal signal = object.createSignal(kNotificationInterface, "VTHostMessage");
            signal << member(control_, "notification");
            object.emitSignal(signal);
        }
    }

    // Serves the port until "quit" or until nothing has been heard for the lifetime.
    int serve(sdbus::IObject& object) {
        const boost::json::value* lifetimeValue = control_.if_contains("lifetime");
        const int lifetime = lifetimeValue != nullptr && lifetimeValue->is_int64()
                                 ? int(lifetimeValue->as_int64())
                                 : 120;
        pollfd watched{port_.fd(), POLLIN, 0};
        for (;;) {
            const int ready = ::poll(&watched, 1, lifetime * 1000);
            if (ready == 0) {
                log("idle");
                return 3;
            }
            if (ready < 0) {
                continue;
            }
            while (std::optional<std::string> data = port_.receive()) {
                log("received " + *data);
                std::optional<vt::signin::Message> message = vt::signin::decodeMessage(*data);
                if (!message) {
                    continue;
                }
                if (message->selector == "quit") {
                    return 0;
                }
                if (message->selector == "showSignIn:") {
                    answerSignIn(object);
                }
            }
        }
    }

private:
    boost::json::object control_;
    std::string group_;
    LocalMessagePort port_;
};

}  // namespace

int main() {
    std::optional<boost::json::object> control = readControl();
    if (!control || member(*control, "group").empty()) {
        std::cerr << "VeldtrackSignInStandIn: no control file with a group in VT_STANDIN_CONTROL\n";
        return 2;
    }
    // The port is bound before the name is owned: whoever sees the name may send at once.
    std::optional<LocalMessagePort> port =
        LocalMessagePort::create(member(*control, "group") + ".SignIn");
    if (!port) {
        std::perror("VeldtrackSignInStandIn: cannot bind the sign-in port");
        return 2;
    }
    try {
        std::unique_ptr<sdbus::IConnection> bus = sdbus::createSessionBusConnection();
        bus->requestName(kBusName);
        std::unique_ptr<sdbus::IObject> object = sdbus::createObject(*bus, kObjectPath);
        bus->enterEventLoopAsync();
        StandIn standIn(std::move(*control), std::move(*port));
        standIn.log("started " + std::to_string(::getpid()));
        standIn.announce();
        const int status = standIn.serve(*object);
        bus->leaveEventLoop();
        return status;
    } catch (const sdbus::Error& error) {
        std::cerr << "VeldtrackSignInStandIn: " << error.getMessage() << '\n';
        return 2;
    }
}
