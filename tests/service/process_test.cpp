// The service binary: started by D-Bus activation, ended by SIGTERM while a request waits for its
// host, and ended by the loss of its bus.

#include "fakehost/fake_host.h"
#include "harness.h"
#include "service/bus_names.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace {

using namespace vt::test;

// The service binary started by hand, with extra environment variables.
class ServiceProcess {
public:
    explicit ServiceProcess(std::vector<std::string> variables = {}) {
        for (char** entry = environ; *entry != nullptr; ++entry) {
            variables.emplace_back(*entry);
        }
        std::vector<char*> environment;
        for (std::string& variable : variables) {
            environment.push_back(variable.data());
        }
        environment.push_back(nullptr);
        std::string path = VT_SERVICE_PATH;
        char* arguments[] = {path.data(), nullptr};
        if (::posix_spawn(&pid_, path.c_str(), nullptr, nullptr, arguments, environment.data()) !=
            0) {
            pid_ = -1;
        }
    }
    ~ServiceProcess() {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
    }
    ServiceProcess(const ServiceProcess&) = delete;
    ServiceProcess& operator=(const ServiceProcess&) = delete;

    pid_t pid() const { return pid_; }
    // Waits for the process to end, at most kPatience: its exit status, -1 when a signal ended
    // it, -2 when it is still running.
    int exitStatus() {
        int status = 0;
        pid_t ended = 0;
        eventually([&] {
            ended = ::waitpid(pid_, &status, WNOHANG);
            return ended != 0;
        });
        if (ended == 0) {
            return -2;
        }
        pid_ = -1;
        return ended > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

private:
    pid_t pid_ = -1;
};

const VTToken kToken{{"token_type", "Bearer"}, {"access_token", "process-token"}};

TEST(ServiceProcess, TheFirstCallStartsTheServiceAndTypesWithoutAnAdapterAnswerEmptyReplies) {
    PrivateBus bus;
    ASSERT_FALSE(bus.ownerPid(vt::bus::kServiceName));
    Client client;
    for (const std::int64_t type : {std::int64_t{0}, std::int64_t{2}, std::int64_t{4}}) {
        const Outcome privacy = client.call("GetPrivacyWithUrl", "https://gitlab.test/a/b", type,
                                            boost::json::object());
        ASSERT_TRUE(privacy.reply) << privacy.errorName << ": " << privacy.errorMessage;
        EXPECT_EQ(*privacy.reply, (boost::json::object{{"private", false}})) << type;
        const Outcome repositories =
            client.call("GetRepositoriesWithToken", kToken, "https://gitlab.test/a/b", type);
        EXPECT_EQ(*repositories.reply, boost::json::object()) << type;
    }
    const std::optional<pid_t> owner = bus.ownerPid(vt::bus::kServiceName);
    ASSERT_TRUE(owner);
    EXPECT_TRUE(std::filesystem::equivalent(
        std::filesystem::read_symlink("/proc/" + std::to_string(*owner) + "/exe"),
        VT_SERVICE_PATH));
}

TEST(ServiceProcess, SigtermWhileARequestWaitsForItsHostAnswersItAndEndsTheProcessCleanly) {
    PrivateBus bus{withoutActivation()};
    vt::fake::FakeHost host;
    // The host would answer long after the test has given up; the service must not wait for it.
    vt::fake::Response late = vt::fake::Response::json("{}");
    late.delay = 10 * kPatience;
    host.expect([](const vt::fake::Request&) { return true; }, late);
    ServiceProcess service(
        {"VELDTRACK_CONNECT_TO=api.github.test:80:127.0.0.1:" + std::to_string(host.port())});
    ASSERT_GT(service.pid(), 0);
    ASSERT_TRUE(eventually([&] { return bus.ownerPid(vt::bus::kServiceName).has_value(); }));

    Client client;
    std::future<Outcome> pending = client.callAsync(
        "GetRepositoriesWithToken", kToken, "http://github.test/octocat/hello", std::int64_t{1});
    ASSERT_TRUE(eventually([&] { return host.requestCount() == 1; }));
    ::kill(service.pid(), SIGTERM);

    EXPECT_EQ(service.exitStatus(), 0);
    const Outcome outcome = pending.get();
    EXPECT_FALSE(outcome.reply);
    EXPECT_EQ(outcome.errorName, vt::bus::kStoppingError);
}

TEST(ServiceProcess, LosingTheBusEndsTheProcess) {
    auto bus = std::make_unique<PrivateBus>(withoutActivation());
    ServiceProcess service;
    ASSERT_TRUE(eventually([&] { return bus->ownerPid(vt::bus::kServiceName).has_value(); }));
    bus.reset();
    EXPECT_EQ(service.exitStatus(), 1);
}

}  // namespace
