#pragma once

// What the sign-in tests share: temporary folders and environment variables, a main loop of
// their own that serves the flow's port, an adapter that records its calls, a reply catcher, and
// a sign-in application played by the test itself over the real ports.

#include "scratch.h"
#include "service/signin/message_port.h"
#include "service/signin/sign_in.h"
#include "transport/host.h"

#include <sdbus-c++/sdbus-c++.h>

#include <boost/json/object.hpp>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace vt::test {

// Long enough that only a broken flow ever reaches it; a test that waits this long fails.
inline constexpr std::chrono::seconds kPatience{60};

void writeFile(const std::filesystem::path& path, const std::string& text);
std::vector<std::string> readLines(const std::filesystem::path& path);

// Polls `condition` until it holds or kPatience has passed; returns its last value.
bool eventually(const std::function<bool()>& condition);

// The flow's environment: a main loop on a thread of its own that runs posted work and serves
// watched descriptors.
class TestMainLoop : public VTSignInEnvironment {
public:
    // How isSignInApplicationRunning answers: fixed, or by asking the session bus whether the
    // sign-in application's name has an owner.
    enum class Running { no, yes, askTheBus };

    explicit TestMainLoop(Running running);
    ~TestMainLoop() override;

    void runOnMainThread(const std::function<void()>& work) override;
    void watchDescriptor(int fd, std::function<void()> onReadable) override;
    bool isSignInApplicationRunning() override;

    std::size_t watchedCount();
    // Returns once every datagram already sent to a watched descriptor has been handled.
    void settle();

private:
    void loop();
    void wake();

    const Running running_;
    vt::signin::UniqueFd wakeFd_;
    std::mutex mutex_;
    std::deque<std::function<void()>> work_;
    std::vector<std::pair<int, std::function<void()>>> watched_;
    bool stopping_ = false;
    std::mutex busMutex_;
    std::unique_ptr<sdbus::IConnection> bus_;
    std::thread thread_;
};

// Forwards every VTHostMessage signal on the session bus to `handler`.
class NotificationListener {
public:
    explicit NotificationListener(std::function<void(std::string)> handler);
    ~NotificationListener();
    NotificationListener(const NotificationListener&) = delete;
    NotificationListener& operator=(const NotificationListener&) = delete;

private:
    std::unique_ptr<sdbus::IConnection> bus_;
    sdbus::Slot match_;
};

// One userWithToken call the fake adapter saw.
struct AdapterCall {
    std::string url;
    std::int64_t type = 0;
    VTToken token;
};

// Builds adapters that record their userWithToken calls and answer with `user`, or fail with
// `failure` when it is set.
class FakeAdapters {
public:
    VTHostFactory factory();
    std::vector<AdapterCall> calls();
    void record(AdapterCall call);

    boost::json::object user{{"username", "octocat"},
                             {"profileUrl", "https://github.test/octocat"}};
    VTError failure;

private:
    std::mutex mutex_;
    std::vector<AdapterCall> calls_;
};

struct Answer {
    std::optional<boost::json::object> result;
    VTError error;
};

// Catches the answers of one sign-in.
class ReplyCatcher {
public:
    VTSignInFlow::Reply reply();
    // The first answer, waiting for it up to kPatience.
    std::optional<Answer> wait();
    std::size_t count();

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Answer> answers_;
};

// The sign-in application, played by the test over the real ports.
class ScriptedApplication {
public:
    explicit ScriptedApplication(const std::string& group);

    // The next message the service sent, waiting up to kPatience.
    std::optional<vt::signin::Message> next();
    // Sends one datagram to the service's port.
    int send(const std::string& data);

private:
    std::string group_;
    std::optional<vt::signin::LocalMessagePort> port_;
};

}  // namespace vt::test
