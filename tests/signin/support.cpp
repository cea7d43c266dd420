#include "support.h"

#include <boost/json/serialize.hpp>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <future>
#include <stdexcept>
#include <system_error>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace vt::test {

void writeFile(const std::filesystem::path& path, const std::string& text) {
    // Written aside and renamed, so that a reader never sees half a file.
    const std::filesystem::path aside = path.string() + ".new";
    {
        std::ofstream file(aside, std::ios::binary | std::ios::trunc);
        file << text;
    }
    std::filesystem::rename(aside, path);
}

std::vector<std::string> readLines(const std::filesystem::path& path) {
    std::vector<std::string> lines;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        lines.push_back(line);
    }
    return lines;
}

bool eventually(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

TestMainLoop::TestMainLoop(Running running)
    : running_(running),
      wakeFd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      thread_([this] { loop(); }) {}

TestMainLoop::~TestMainLoop() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wake();
    thread_.join();
}

void TestMainLoop::wake() {
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(wakeFd_.get(), &one, sizeof one);
}

void TestMainLoop::loop() {
    for (;;) {
        std::vector<pollfd> descriptors{{wakeFd_.get(), POLLIN, 0}};
        std::vector<std::function<void()>> handlers;
        {
            std::lock_guard lock(mutex_);
            if (stopping_) {
                return;
            }
            for (const auto& [fd, handler] : watched_) {
                descriptors.push_back({fd, POLLIN, 0});
                handlers.push_back(handler);
            }
        }
        if (::poll(descriptors.data(), descriptors.size(), -1) < 0) {
            continue;
        }
        std::uint64_t count;
        while (::read(wakeFd_.get(), &count, sizeof count) > 0) {
        }
        for (;;) {
            std::function<void()> work;
            {
                std::lock_guard lock(mutex_);
                if (work_.empty()) {
                    break;
                }
                work = std::move(work_.front());
                work_.pop_front();
            }
            work();
        }
        for (std::size_t index = 1; index < descriptors.size(); ++index) {
            if ((descriptors[index].revents & POLLIN) != 0) {
                handlers[index - 1]();
            }
        }
    }
}

void TestMainLoop::runOnMainThread(const std::function<void()>& work) {
    if (std::this_thread::get_id() == thread_.get_id()) {
        work();
        return;
    }
    std::promise<void> done;
    {
        std::lock_guard lock(mutex_);
        work_.push_back([&] {
            try {
                work();
                done.set_value();
            } catch (...) {
                done.set_exception(std::current_exception());
            }
        });
    }
    wake();
    done.get_future().get();
}

void TestMainLoop::watchDescriptor(int fd, std::function<void()> onReadable) {
    {
        std::lock_guard lock(mutex_);
        watched_.emplace_back(fd, std::move(onReadable));
    }
    wake();
}

std::size_t TestMainLoop::watchedCount() {
    std::lock_guard lock(mutex_);
    return watched_.size();
}

void TestMainLoop::settle() {
    // Handlers run on the loop's thread and read everything waiting, so once no watched
    // descriptor is readable there, everything sent before has been handled.
    eventually([this] {
        bool quiet = true;
        runOnMainThread([&] {
            std::lock_guard lock(mutex_);
            for (const auto& entry : watched_) {
                pollfd descriptor{entry.first, POLLIN, 0};
                quiet = quiet && ::poll(&descriptor, 1, 0) == 0;
            }
        });
        return quiet;
    });
}

bool TestMainLoop::isSignInApplicationRunning() {
    if (running_ != Running::askTheBus) {
        return running_ == Running::yes;
    }
    std::lock_guard lock(busMutex_);
    if (!bus_) {
        bus_ = sdbus::createSessionBusConnection();
    }
    auto daemon = sdbus::createProxy(*bus_, "org.freedesktop.DBus", "/org/freedesktop/DBus");
    bool owned = false;
    daemon->callMethod("NameHasOwner")
        .onInterface("org.freedesktop.DBus")
        .withArguments(std::string("com.veldtrack.Veldtrack.VeldtrackSignIn"))
        .storeResultsTo(owned);
    return owned;
}

NotificationListener::NotificationListener(std::function<void(std::string)> handler)
    : bus_(sdbus::createSessionBusConnection()) {
    match_ = bus_->addMatch(
        "type='signal',interface='com.veldtrack.Veldtrack.Notifications',member='VTHostMessage'",
        [handler = std::move(handler)](sdbus::Message& message) {
            std::string text;
            message >> text;
            handler(std::move(text));
        });
    bus_->enterEventLoopAsync();
}

NotificationListener::~NotificationListener() {
    bus_->leaveEventLoop();
    match_.reset();
}

namespace {

class RecordingHost : public VTHost {
public:
    RecordingHost(FakeAdapters& owner, const VTUrl& url, std::int64_t type)
        : owner_(owner), url_(url.buffer()), type_(type) {}

    std::optional<boost::json::object> userWithToken(const VTToken& token,
                                                     VTError* error) override {
        owner_.record({url_, type_, token});
        if (owner_.failure) {
            VTSetError(error, owner_.failure);
            return std::nullopt;
        }
        return owner_.user;
    }

private:
    FakeAdapters& owner_;
    std::string url_;
    std::int64_t type_;
};

}  // namespace

VTHostFactory FakeAdapters::factory() {
    return [this](const VTUrl& url, std::int64_t type) -> std::unique_ptr<VTHost> {
        return std::make_unique<RecordingHost>(*this, url, type);
    };
}

void FakeAdapters::record(AdapterCall call) {
    std::lock_guard lock(mutex_);
    calls_.push_back(std::move(call));
}

std::vector<AdapterCall> FakeAdapters::calls() {
    std::lock_guard lock(mutex_);
    return calls_;
}

VTSignInFlow::Reply ReplyCatcher::reply() {
    return [this](std::optional<boost::json::object> result, VTError error) {
        std::lock_guard lock(mutex_);
        answers_.push_back({std::move(result), std::move(error)});
        changed_.notify_all();
    };
}

std::optional<Answer> ReplyCatcher::wait() {
    std::unique_lock lock(mutex_);
    if (!changed_.wait_for(lock, kPatience, [this] { return !answers_.empty(); })) {
        return std::nullopt;
    }
    return answers_.front();
}

std::size_t ReplyCatcher::count() {
    std::lock_guard lock(mutex_);
    return answers_.size();
}

ScriptedApplication::ScriptedApplication(const std::string& group)
    : group_(group), port_(vt::signin::LocalMessagePort::create(group + ".SignIn")) {
    if (!port_) {
        throw std::system_error(errno, std::generic_category(), "binding the sign-in port");
    }
}

std::optional<vt::signin::Message> ScriptedApplication::next() {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    for (;;) {
        if (std::optional<std::string> data = port_->receive()) {
            return vt::signin::decodeMessage(*data);
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            return std::nullopt;
        }
        pollfd readable{port_->fd(), POLLIN, 0};
        ::poll(&readable, 1, static_cast<int>(left.count()));
    }
}

int ScriptedApplication::send(const std::string& data) {
    std::optional<vt::signin::RemoteMessagePort> service =
        vt::signin::RemoteMessagePort::connect(group_ + ".Host");
    return service ? service->send(data, std::chrono::seconds(1))
                   : vt::signin::kMessagePortIsInvalid;
}

}  // namespace vt::test
