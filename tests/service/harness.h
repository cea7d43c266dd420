#pragma once

// What the service tests share: adapters that record their calls and behave as a test says, the
// service run in-process on a private bus with those adapters, and a client that calls it.

#include "private_bus.h"
#include "records/records.h"
#include "scratch.h"
#include "service/bus_service.h"
#include "transport/host.h"

#include <sdbus-c++/sdbus-c++.h>
#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/value.hpp>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace vt::test {

// Long enough that only a broken service reaches it; a test that waits this long fails.
inline constexpr std::chrono::seconds kPatience{60};

// Polls `condition` until it holds or kPatience has passed; returns its last value.
bool eventually(const std::function<bool()>& condition);

// Work that waits at a named gate until the test opens it (an adapter call, a fake host's
// answer), with a log of who entered and left, in order.
class Gates {
public:
    // Enters, waits until the gate `name` is open, leaves.
    void arriveAndWait(const std::string& name);
    // Waits (at most kPatience) until `name` has been entered `times` times.
    bool waitUntilArrived(const std::string& name, std::size_t times = 1);
    void open(const std::string& name);
    // The position of `entry` ("enter NAME", "leave NAME") in the log, or -1.
    long position(const std::string& entry);

private:
    long indexOf(const std::string& entry) const;

    std::mutex mutex_;
    std::condition_variable changed_;
    std::set<std::string> open_;
    std::vector<std::string> log_;
};

// One adapter operation as the adapter saw it.
struct AdapterCall {
    std::string operation;  // "repositoriesWithToken", ...
    std::string url;        // the URL the adapter was built for
    std::int64_t type = 0;
    VTToken token;                 // as the operation received it
    boost::json::array arguments;  // the operation's other arguments, in order
};

// How the test adapters behave. Set it before the calls it is meant for.
struct Behaviour {
    // Runs on the caller's token at the start of every operation (renewing it, say).
    std::function<void(VTToken&)> onToken;
    // Runs when an operation starts, on the request's thread (to block it, say).
    std::function<void(const AdapterCall&)> onCall;
    // Every operation fails: it returns nothing (or false) and sets this error.
    VTError failure;
    // Every operation throws.
    bool throws = false;

    boost::json::object user{{"username", "octocat"},
                             {"profileUrl", "https://github.test/octocat"}};
    std::vector<std::string> createdAddresses{"git@github.test:octocat/new.git",
                                              "https://github.test/octocat/new.git"};
    // The forks of one URL; nullopt stops a fork lookup. By default each URL has one fork.
    std::function<std::optional<std::vector<std::string>>(const VTUrl&)> forks;
    VTConversation conversation;
};

// Builds recording adapters for host types 1 to 3; any other type has no adapter.
class TestAdapters {
public:
    VTHostFactory factory();

    std::vector<AdapterCall> calls() const;
    // (url, type) of every adapter built, in order.
    std::vector<std::pair<std::string, std::int64_t>> built() const;
    void record(AdapterCall call);

    Behaviour behaviour;

private:
    mutable std::mutex mutex_;
    std::vector<AdapterCall> calls_;
    std::vector<std::pair<std::string, std::int64_t>> built_;
};

// The service, on a connection to the current session bus, served by a thread of the test.
class InProcessService {
public:
    explicit InProcessService(VTBusServiceOptions options);
    ~InProcessService();
    InProcessService(const InProcessService&) = delete;
    InProcessService& operator=(const InProcessService&) = delete;

    VTBusService& service() { return *service_; }

private:
    std::unique_ptr<VTBusService> service_;
    std::thread thread_;
};

// What a call came back with: the reply dictionary, or a D-Bus error.
struct Outcome {
    std::optional<boost::json::object> reply;
    std::string errorName;
    std::string errorMessage;
};

// A 'v' argument.
struct AnyValue {
    boost::json::value value;
};

// A client of the service with a bus connection of its own.
class Client {
public:
    Client();
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    template <typename... Arguments>
    std::future<Outcome> callAsync(const std::string& member, const Arguments&... arguments) {
        sdbus::MethodCall message = newCall(member);
        (append(message, arguments), ...);
        return send(message);
    }
    template <typename... Arguments>
    Outcome call(const std::string& member, const Arguments&... arguments) {
        return callAsync(member, arguments...).get();
    }
    // Sends `message`, built with newCall() (to send what no typed call would).
    std::future<Outcome> send(sdbus::MethodCall& message);
    sdbus::MethodCall newCall(const std::string& member);

    sdbus::IConnection& connection() { return *connection_; }
    std::string uniqueName() const { return connection_->getUniqueName(); }

private:
    static void append(sdbus::Message& message, const std::string& text);
    static void append(sdbus::Message& message, const char* text);
    static void append(sdbus::Message& message, std::int64_t number);
    static void append(sdbus::Message& message, const boost::json::object& dictionary);
    static void append(sdbus::Message& message, const AnyValue& value);
    static void append(sdbus::Message& message, const VTData& bytes);
    static void append(sdbus::Message& message, const std::vector<std::string>& texts);
    static void append(sdbus::Message& message, const std::vector<std::int64_t>& numbers);
    static void append(sdbus::Message& message, const std::vector<boost::json::object>& list);

    std::unique_ptr<sdbus::IConnection> connection_;
    std::unique_ptr<sdbus::IProxy> proxy_;
};

// A private bus that activates nothing: the tests run the service themselves.
PrivateBus::Options withoutActivation();
// The service's options with the test adapters, and the sign-in flow's files beside `executable`.
VTBusServiceOptions optionsFor(TestAdapters& adapters,
                               std::filesystem::path executable = "/proc/self/exe");

// The service's options with the adapters of the real hosts, for tests against the fake host.
VTBusServiceOptions optionsWithHostAdapters();

// A pull request record on GitHub's test host.
VTPullRequest samplePullRequest(std::int64_t type = 1);

// The service in-process with the test adapters, on a private bus of its own, and one client: what
// most tests of the service stand on.
struct ServiceWithTestAdapters {
    PrivateBus bus{withoutActivation()};
    TestAdapters adapters;
    InProcessService service{optionsFor(adapters)};
    Client client;
};

}  // namespace vt::test
