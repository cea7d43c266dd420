// The interactive sign-in end to end: a client calls the service binary, which the private session
// bus activates; the service launches the stand-in sign-in application, and the GitHub adapter
// reads the user from a fake host on 127.0.0.1.

#include "fakehost/fake_host.h"
#include "private_bus.h"
#include "records/wire.h"
#include "service/signin/application_group.h"
#include "support.h"

#include <gtest/gtest.h>

#include <boost/json/serialize.hpp>

#include <csignal>

namespace {

using vt::test::TemporaryFolder;

constexpr const char* kServiceName = "com.veldtrack.Veldtrack.HostsService";
constexpr const char* kSignInName = "com.veldtrack.Veldtrack.VeldtrackSignIn";

const VTToken kToken{{"token_type", "Bearer"}, {"access_token", "end-to-end-token"}};

class ServiceSignIn : public ::testing::Test {
protected:
    ServiceSignIn() {
        std::string reason;
        group = vt::signin::applicationGroup(VT_SERVICE_PATH, &reason).value_or("");
        bus.setActivationEnvironment(
            {{"XDG_RUNTIME_DIR", root.path().string()},
             {"VELDTRACK_SIGNIN_APP", VT_STANDIN_PATH},
             {"VT_STANDIN_CONTROL", (root.path() / "control.json").string()},
             {"VELDTRACK_CONNECT_TO",
              "api.github.test:80:127.0.0.1:" + std::to_string(host.port())}});
    }

    ~ServiceSignIn() override { bus.endOwner(kSignInName); }

    void answer(const std::string& kind, boost::json::object extra = {}) {
        extra["group"] = group;
        extra["log"] = log.string();
        extra["answer"] = kind;
        vt::test::writeFile(root.path() / "control.json", boost::json::serialize(extra));
    }

    // Calls SignInWithUrl with an empty password, activating the service, and returns the reply
    // dictionary.
    boost::json::object signIn() {
        auto proxy =
            sdbus::createProxy(*connection, kServiceName, "/com/veldtrack/Veldtrack/HostsService");
        sdbus::MethodCall call =
            proxy->createMethodCall("com.veldtrack.Veldtrack.HostsRequest", "SignInWithUrl");
        call << std::string("http://github.test/octocat/hello") << std::int64_t{1}
             << std::string("octocat") << std::string();
        const auto timeout =
            std::chrono::duration_cast<std::chrono::microseconds>(vt::test::kPatience * 2);
        sdbus::MethodReply reply = proxy->callMethod(call, timeout.count());
        boost::json::object dictionary;
        std::string fault;
        EXPECT_TRUE(vt::wire::readDictionary(reply, dictionary, &fault)) << fault;
        return dictionary;
    }

    std::vector<std::string> received() {
        std::vector<std::string> lines;
        for (const std::string& line : vt::test::readLines(log)) {
            if (line.starts_with("received ")) {
                lines.push_back(line.substr(9));
            }
        }
        return lines;
    }

    vt::fake::FakeHost host;
    vt::test::PrivateBus bus;
    std::unique_ptr<sdbus::IConnection> connection = bus.connect();
    TemporaryFolder root;
    std::filesystem::path log = root.path() / "stand-in.log";
    std::string group;
};

TEST_F(ServiceSignIn, LaunchesTheSignInApplicationAndRepliesWithTheTokenAndTheUser) {
    ASSERT_FALSE(group.empty()) << "no entitlements beside " << VT_SERVICE_PATH;
    answer("credentials", {{"token", kToken}});
    host.expect("POST", "/graphql",
                vt::fake::Response::json(R"({"data":{"viewer":{"login":"octocat",
                    "name":"Mona Octocat","avatarUrl":"https://avatars.github.test/u/1",
                    "url":"https://github.test/octocat"}}})"));

    EXPECT_EQ(signIn(),
              (boost::json::object{{"result",
                                    {{"VTHostToken", kToken},
                                     {"VTHostUserKey",
                                      {{"username", "octocat"},
                                       {"profileUrl", "https://github.test/octocat"},
                                       {"name", "Mona Octocat"},
                                       {"avatar", "https://avatars.github.test/u/1"}}}}}}));
    EXPECT_TRUE(host.problems().empty());
    ASSERT_EQ(host.requestCount(), 1u);
    EXPECT_EQ(host.requests()[0].header("Authorization"), "Bearer end-to-end-token");
    EXPECT_TRUE(bus.ownerPid(kSignInName));
}

TEST_F(ServiceSignIn, OnSigtermTellsTheSignInApplicationToQuit) {
    ASSERT_FALSE(group.empty()) << "no entitlements beside " << VT_SERVICE_PATH;
    answer("empty");
    EXPECT_EQ(signIn(), (boost::json::object{{"result", boost::json::object()}}));
    const std::optional<pid_t> service = bus.ownerPid(kServiceName);
    const std::optional<pid_t> signInApplication = bus.ownerPid(kSignInName);
    ASSERT_TRUE(service && signInApplication);

    ::kill(*service, SIGTERM);
    EXPECT_TRUE(vt::test::waitUntilEnded(*service, 60000));
    EXPECT_TRUE(vt::test::waitUntilEnded(*signInApplication, 60000));
    ASSERT_FALSE(received().empty());
    EXPECT_EQ(received().back(), vt::signin::encodeMessage("quit"));
}

TEST_F(ServiceSignIn, RepliesWithTheErrorTheSignInApplicationNotifies) {
    ASSERT_FALSE(group.empty()) << "no entitlements beside " << VT_SERVICE_PATH;
    answer("notification",
           {{"notification",
             R"({"VTMessageSelector":"showError:","VTMessageArgument":{"reason":"denied"}})"}});
    EXPECT_EQ(
        signIn(),
        (boost::json::object{
            {"error",
             VTError(VTGitErrorDomain, -2, boost::json::object{{"reason", "denied"}}).toValue()}}));
    EXPECT_EQ(host.requestCount(), 0u);
}

}  // namespace
