// The sign-in flow with a real sign-in application: the stand-in process, launched by the flow,
// found through its bus name on a private session bus, answering over the ports and through the
// VTHostMessage signal.

#include "private_bus.h"
#include "service/signin/sign_in.h"
#include "support.h"

#include <gtest/gtest.h>

#include <boost/json/serialize.hpp>
#include <boost/url/parse.hpp>

#include <algorithm>
#include <csignal>

namespace {

using vt::test::Answer;
using vt::test::ReplyCatcher;
using vt::test::ScopedVariable;
using vt::test::TemporaryFolder;
using vt::test::TestMainLoop;

const VTToken kToken{{"token_type", "Bearer"}, {"access_token", "stand-in-token"}};
const VTError kApplicationError(VTGitErrorDomain, 9, "The sign-in window was closed.",
                                "Sign in again.");

class StandIn : public ::testing::Test {
protected:
    StandIn() {
        std::filesystem::create_directories(executable.parent_path());
        vt::test::writeFile(executable, "");
        vt::test::writeFile(executable.parent_path() / "veldtrack-hosts-service.entitlements",
                            R"({"application-groups": ["com.veldtrack.standin"]})");
        answer("nothing");
        flow.emplace(loop, adapters.factory(), VTSignInOptions{executable, vt::test::kPatience});
        listener.emplace([this](std::string text) {
            loop.runOnMainThread([&] { flow->handleNotificationMessage(text); });
        });
    }

    ~StandIn() override {
        // A stand-in still running is told to quit, and killed if it does not.
        listener.reset();
        if (loop.isSignInApplicationRunning()) {
            flow->quit();
            if (!vt::test::eventually([this] { return !loop.isSignInApplicationRunning(); })) {
                for (pid_t pid : standInProcesses()) {
                    ::kill(pid, SIGKILL);
                }
            }
        }
    }

    // Tells the stand-in how to answer the next "showSignIn:".
    void answer(const std::string& kind, boost::json::object extra = {}) {
        boost::json::object control = std::move(extra);
        control["group"] = "com.veldtrack.standin";
        control["log"] = log.string();
        control["answer"] = kind;
        vt::test::writeFile(root.path() / "control.json", boost::json::serialize(control));
    }

    ReplyCatcher& signIn(const std::string& username = "octocat") {
        ReplyCatcher& catcher = catchers.emplace_back();
        flow->signIn(VTUrl(boost::urls::parse_absolute_uri("https://github.com/o/r").value()), 1,
                     username, catcher.reply());
        return catcher;
    }

    std::vector<std::string> logged(std::string_view prefix) {
        std::vector<std::string> lines;
        for (const std::string& line : vt::test::readLines(log)) {
            if (line.starts_with(prefix)) {
                lines.push_back(line.substr(prefix.size()));
            }
        }
        return lines;
    }

    std::vector<pid_t> standInProcesses() {
        std::vector<pid_t> processes;
        for (const std::string& pid : logged("started ")) {
            processes.push_back(static_cast<pid_t>(std::stol(pid)));
        }
        return processes;
    }

    vt::test::PrivateBus bus{
        vt::test::PrivateBus::Options{.activateService = false, .serviceFolders = {}}};
    TemporaryFolder root;
    std::filesystem::path log = root.path() / "stand-in.log";
    ScopedVariable runtime{"XDG_RUNTIME_DIR", root.path().string()};
    ScopedVariable application{"VELDTRACK_SIGNIN_APP", VT_STANDIN_PATH};
    ScopedVariable control{"VT_STANDIN_CONTROL", (root.path() / "control.json").string()};
    std::filesystem::path executable = root.path() / "bin" / "veldtrack-hosts-service";
    vt::test::FakeAdapters adapters;
    TestMainLoop loop{TestMainLoop::Running::askTheBus};
    std::optional<VTSignInFlow> flow;
    std::optional<vt::test::NotificationListener> listener;
    std::deque<ReplyCatcher> catchers;
};

TEST_F(StandIn, IsLaunchedWhenNotRunningAndSignsInWithItsCredentials) {
    answer("credentials", {{"token", kToken}});
    ASSERT_FALSE(loop.isSignInApplicationRunning());
    std::optional<Answer> answer = signIn().wait();
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->result,
              (boost::json::object{{"VTHostToken", kToken}, {"VTHostUserKey", adapters.user}}));
    EXPECT_FALSE(answer->error);
    EXPECT_EQ(standInProcesses().size(), 1u);
    EXPECT_EQ(logged("received "),
              std::vector<std::string>{vt::signin::encodeMessage(
                  "showSignIn:",
                  boost::json::object{{"identifier", "github.com"}, {"name", "octocat"}})});
    EXPECT_TRUE(loop.isSignInApplicationRunning());
}

TEST_F(StandIn, ThatIsRunningIsAskedWithoutBeingLaunchedAgain) {
    answer("credentials", {{"token", kToken}});
    for (int attempt = 0; attempt < 3; ++attempt) {
        std::optional<Answer> answer = signIn().wait();
        ASSERT_TRUE(answer);
        EXPECT_TRUE(answer->result && answer->result->contains("VTHostToken"));
    }
    EXPECT_EQ(standInProcesses().size(), 1u);
    EXPECT_EQ(logged("received ").size(), 3u);
    EXPECT_EQ(adapters.calls().size(), 3u);
}

struct StandInCase {
    const char* name;
    const char* answer;
    boost::json::object control;
    std::optional<boost::json::object> result;
    VTError error;  // compared whole unless `errorDomainOnly`
    bool errorDomainOnly;
};

// Names the case in test listings instead of dumping its bytes.
void PrintTo(const StandInCase& c, std::ostream* out) {
    *out << c.name;
}

std::vector<StandInCase> standInCases() {
    return {
        {"EmptyCredentials", "empty", {}, boost::json::object(), VTError(), false},
        {"ErrorByMessage",
         "error",
         {{"error", kApplicationError.toValue()}},
         std::nullopt,
         kApplicationError,
         false},
        {"ErrorByNotification",
         "notification",
         {{"notification",
           R"({"VTMessageSelector":"showError:","VTMessageArgument":{"reason":"denied"}})"}},
         std::nullopt,
         VTError(VTGitErrorDomain, -2, boost::json::object{{"reason", "denied"}}),
         false},
        {"UnreadableNotification",
         "notification",
         {{"notification", "{\"VTMessageSelector\": \"showError:\""}},
         std::nullopt,
         VTError(VTJSONErrorDomain, 3840, ""),
         true},
    };
}

class StandInAnswer : public StandIn, public ::testing::WithParamInterface<StandInCase> {};

TEST_P(StandInAnswer, EndsTheSignInWithThatOutcome) {
    const StandInCase& c = GetParam();
    answer(c.answer, c.control);
    std::optional<Answer> answer = signIn().wait();
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->result, c.result);
    if (c.errorDomainOnly) {
        EXPECT_EQ(answer->error.domain, c.error.domain);
        EXPECT_EQ(answer->error.code, c.error.code);
    } else {
        EXPECT_EQ(answer->error, c.error);
    }
    EXPECT_TRUE(adapters.calls().empty());
}

INSTANTIATE_TEST_SUITE_P(Outcomes, StandInAnswer, ::testing::ValuesIn(standInCases()),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(StandIn, ASecondSignInEndsTheWaitingOneAndIsAnsweredItself) {
    ReplyCatcher& first = signIn("first");
    // Once the stand-in has been asked, the first sign-in waits for its answer.
    ASSERT_TRUE(vt::test::eventually([this] { return logged("received ").size() == 1; }));
    answer("credentials", {{"token", kToken}});
    ReplyCatcher& second = signIn("second");

    std::optional<Answer> firstAnswer = first.wait();
    ASSERT_TRUE(firstAnswer);
    EXPECT_EQ(firstAnswer->result, boost::json::object());
    EXPECT_FALSE(firstAnswer->error);
    std::optional<Answer> secondAnswer = second.wait();
    ASSERT_TRUE(secondAnswer);
    EXPECT_EQ(secondAnswer->result,
              (boost::json::object{{"VTHostToken", kToken}, {"VTHostUserKey", adapters.user}}));
    EXPECT_EQ(first.count(), 1u);
    EXPECT_EQ(second.count(), 1u);
    EXPECT_EQ(standInProcesses().size(), 1u);
}

TEST_F(StandIn, QuitsWhenTheServiceSaysSo) {
    answer("empty");
    ASSERT_TRUE(signIn().wait());
    ASSERT_TRUE(loop.isSignInApplicationRunning());
    bool sent = false;
    loop.runOnMainThread([&] { sent = flow->quit(); });
    EXPECT_TRUE(sent);
    EXPECT_TRUE(vt::test::eventually([this] { return !loop.isSignInApplicationRunning(); }));
    const std::vector<std::string> received = logged("received ");
    ASSERT_FALSE(received.empty());
    EXPECT_EQ(received.back(), vt::signin::encodeMessage("quit"));
}

}  // namespace
