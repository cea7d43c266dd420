// The sign-in flow against a sign-in application that the test plays itself over the real ports,
// so that every message and its timing is in the test's hand.

#include "service/signin/sign_in.h"
#include "support.h"

#include <gtest/gtest.h>

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <boost/url/parse.hpp>

namespace {

using vt::signin::encodeMessage;
using vt::test::Answer;
using vt::test::ReplyCatcher;
using vt::test::ScopedVariable;
using vt::test::ScriptedApplication;
using vt::test::TemporaryFolder;
using vt::test::TestMainLoop;
using Running = TestMainLoop::Running;

constexpr const char* kGroup = "com.veldtrack.test";
constexpr const char* kReceiveFailure =
    "Hosts service failed to receive message from sign-in application";
constexpr const char* kSendFailure = "Hosts service failed to send message to sign-in application";

const VTToken kToken{{"token_type", "Bearer"}, {"access_token", "t0ken"}};

VTUrl url(std::string_view text) {
    return VTUrl(boost::urls::parse_absolute_uri(text).value());
}

class SignInFlow : public ::testing::Test {
protected:
    SignInFlow() {
        std::filesystem::create_directories(executable.parent_path());
        vt::test::writeFile(executable, "");
        writeEntitlements(R"({"application-groups": ["com.veldtrack.test"]})");
    }

    void writeEntitlements(const std::string& text) {
        vt::test::writeFile(executable.parent_path() / "veldtrack-hosts-service.entitlements",
                            text);
    }

    void start(Running running, std::chrono::milliseconds waitLimit = vt::test::kPatience) {
        loop.emplace(running);
        flow.emplace(*loop, adapters.factory(), VTSignInOptions{executable, waitLimit});
    }

    // Starts a sign-in for github.com and returns what it answered.
    ReplyCatcher& signIn(std::string_view address = "https://github.com/octocat/hello.git",
                         const std::string& username = "octocat") {
        ReplyCatcher& catcher = catchers.emplace_back();
        flow->signIn(url(address), 1, username, catcher.reply());
        return catcher;
    }

    // Waits for "showSignIn:": from then on the sign-in waits for the application's answer.
    void expectShowSignIn(ScriptedApplication& application) {
        std::optional<vt::signin::Message> message = application.next();
        ASSERT_TRUE(message);
        EXPECT_EQ(message->selector, "showSignIn:");
    }

    void notify(const std::string& text) {
        loop->runOnMainThread([&] { flow->handleNotificationMessage(text); });
    }

    TemporaryFolder root;
    ScopedVariable runtime{"XDG_RUNTIME_DIR", root.path().string()};
    ScopedVariable application{"VELDTRACK_SIGNIN_APP", std::nullopt};
    std::filesystem::path executable = root.path() / "bin" / "veldtrack-hosts-service";
    vt::test::FakeAdapters adapters;
    std::optional<TestMainLoop> loop;
    std::optional<VTSignInFlow> flow;
    std::deque<ReplyCatcher> catchers;
};

struct RequestCase {
    const char* url;
    const char* username;
    const char* identifier;
};

TEST_F(SignInFlow, AsksARunningSignInApplicationForTheHostAndTheUserAndSignsIn) {
    const RequestCase cases[] = {
        {"https://github.com/octocat/hello.git", "octocat", "github.com"},
        {"https://git.example.com:8443/group/project", "", "git.example.com"},
        {"http://[::1]:8080/owner/repository", "someone", "::1"},
    };
    start(Running::yes);
    ScriptedApplication app(kGroup);
    for (const RequestCase& c : cases) {
        SCOPED_TRACE(c.url);
        ReplyCatcher& catcher = signIn(c.url, c.username);
        std::optional<vt::signin::Message> message = app.next();
        ASSERT_TRUE(message);
        EXPECT_EQ(message->selector, "showSignIn:");
        EXPECT_EQ(message->argument, boost::json::value(boost::json::object{
                                         {"identifier", c.identifier}, {"name", c.username}}));
        app.send(encodeMessage("receiveCredentials:", kToken));

        std::optional<Answer> answer = catcher.wait();
        ASSERT_TRUE(answer);
        EXPECT_EQ(answer->result,
                  (boost::json::object{{"VTHostToken", kToken}, {"VTHostUserKey", adapters.user}}));
        EXPECT_FALSE(answer->error);
        ASSERT_FALSE(adapters.calls().empty());
        EXPECT_EQ(adapters.calls().back().url, c.url);
        EXPECT_EQ(adapters.calls().back().type, 1);
        EXPECT_EQ(adapters.calls().back().token, kToken);
    }
    EXPECT_EQ(adapters.calls().size(), std::size(cases));
    EXPECT_EQ(loop->watchedCount(), 1u) << "the receiving port is made once";
}

struct OutcomeCase {
    const char* name;
    std::vector<std::string> answer;  // what the application sends after "showSignIn:"
    bool adapterFails;
    std::optional<boost::json::object> result;
    VTError error;
    std::size_t adapterCalls;
};

// Names the case in test listings instead of dumping its bytes.
void PrintTo(const OutcomeCase& c, std::ostream* out) {
    *out << c.name;
}

const VTError kApplicationError(VTGitErrorDomain, 7, "The user closed the sign-in window.");
const VTError kAdapterError(VTHTTPErrorDomain, 401, "HTTP status code 401 (Unauthorized)",
                            "Bad credentials");

std::vector<OutcomeCase> outcomeCases() {
    return {
        {"CredentialsOfNoKindEndWithNothingAndNoError",
         {encodeMessage("receiveCredentials:")},
         false,
         std::nullopt,
         VTError(),
         0},
        {"AnAdapterThatCannotReadTheUserEndsWithItsError",
         {encodeMessage("receiveCredentials:", kToken)},
         true,
         std::nullopt,
         kAdapterError,
         1},
        {"MessagesTheServiceDoesNotHonourAreIgnored",
         {"not json", "[1, 2]", R"({"VTMessageSelector": 5})", R"({"VTMessageArgument": {}})",
          encodeMessage("showSignIn:", boost::json::object{{"identifier", "x"}}),
          encodeMessage("quit"), encodeMessage("dealloc"),
          encodeMessage("receiveCredentials:", boost::json::array{1, 2}),
          encodeMessage("receiveCredentials:", "token text"),
          encodeMessage("showError:", "not an error"), std::string(70000, '{'),
          encodeMessage("receiveCredentials:", kToken)},
         false,
         boost::json::object{{"VTHostToken", kToken},
                             {"VTHostUserKey", vt::test::FakeAdapters().user}},
         VTError(),
         1},
    };
}

class SignInOutcome : public SignInFlow, public ::testing::WithParamInterface<OutcomeCase> {};

TEST_P(SignInOutcome, FollowsTheSignInApplicationsAnswer) {
    const OutcomeCase& c = GetParam();
    if (c.adapterFails) {
        adapters.failure = kAdapterError;
    }
    start(Running::yes);
    ScriptedApplication app(kGroup);
    ReplyCatcher& catcher = signIn();
    expectShowSignIn(app);
    for (const std::string& datagram : c.answer) {
        app.send(datagram);
    }
    std::optional<Answer> answer = catcher.wait();
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->result, c.result);
    EXPECT_EQ(answer->error, c.error);
    EXPECT_EQ(adapters.calls().size(), c.adapterCalls);
    EXPECT_EQ(catcher.count(), 1u);
}

INSTANTIATE_TEST_SUITE_P(Answers, SignInOutcome, ::testing::ValuesIn(outcomeCases()),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(SignInFlow, AnErrorNotificationEndsTheWaitingSignInWithItsUserInfo) {
    start(Running::yes);
    ScriptedApplication app(kGroup);
    ReplyCatcher& catcher = signIn();
    expectShowSignIn(app);
    // Notifications with other selectors, or that are no object, change nothing.
    notify(R"({"VTMessageSelector": "receiveCredentials:", "VTMessageArgument": {"a": "b"}})");
    notify(R"(["showError:"])");
    notify(R"("showError:")");
    notify(R"({"VTMessageSelector": "showError:",
               "VTMessageArgument": {"description": "Access denied", "host": "github.com"}})");
    std::optional<Answer> answer = catcher.wait();
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->result, std::nullopt);
    EXPECT_EQ(answer->error, VTError(VTGitErrorDomain, -2,
                                     boost::json::object{{"description", "Access denied"},
                                                         {"host", "github.com"}}));
    EXPECT_EQ(catcher.count(), 1u);
}

TEST_F(SignInFlow, AnUnreadableNotificationEndsTheWaitingSignInWithTheParsersError) {
    start(Running::yes);
    ScriptedApplication app(kGroup);
    for (const char* text : {"{\"VTMessageSelector\": ", "showError:", "{} {}"}) {
        SCOPED_TRACE(text);
        ReplyCatcher& catcher = signIn();
        expectShowSignIn(app);
        notify(text);
        std::optional<Answer> answer = catcher.wait();
        ASSERT_TRUE(answer);
        EXPECT_EQ(answer->result, std::nullopt);
        EXPECT_EQ(answer->error.domain, VTJSONErrorDomain);
        EXPECT_EQ(answer->error.code, 3840);
        EXPECT_NE(answer->error.description().find("at byte"), std::string::npos)
            << answer->error.description();
    }
}

TEST_F(SignInFlow, ASecondSignInEndsTheWaitingOneWithTheEmptyDictionaryAndThenRuns) {
    start(Running::yes);
    ScriptedApplication app(kGroup);
    ReplyCatcher& first = signIn("https://github.com/a/b", "first");
    expectShowSignIn(app);
    ReplyCatcher& second = signIn("https://github.com/c/d", "second");

    std::optional<Answer> firstAnswer = first.wait();
    ASSERT_TRUE(firstAnswer);
    EXPECT_EQ(firstAnswer->result, boost::json::object());
    EXPECT_FALSE(firstAnswer->error);

    std::optional<vt::signin::Message> message = app.next();
    ASSERT_TRUE(message);
    EXPECT_EQ(message->argument, boost::json::value(boost::json::object{
                                     {"identifier", "github.com"}, {"name", "second"}}));
    EXPECT_EQ(second.count(), 0u);
    app.send(encodeMessage("receiveCredentials:", kToken));
    std::optional<Answer> secondAnswer = second.wait();
    ASSERT_TRUE(secondAnswer);
    EXPECT_TRUE(secondAnswer->result && secondAnswer->result->contains("VTHostToken"));
    EXPECT_EQ(first.count(), 1u);
    EXPECT_EQ(adapters.calls().size(), 1u);
}

TEST_F(SignInFlow, AnswersThatArriveWhileNoSignInWaitsAreForgottenWhenTheNextStarts) {
    start(Running::yes);
    ScriptedApplication app(kGroup);
    ReplyCatcher& first = signIn();
    expectShowSignIn(app);
    app.send(encodeMessage("receiveCredentials:", boost::json::object()));
    ASSERT_TRUE(first.wait());

    app.send(encodeMessage("receiveCredentials:", kToken));
    app.send(encodeMessage("showError:", kApplicationError.toValue()));
    loop->settle();

    ReplyCatcher& second = signIn();
    expectShowSignIn(app);
    app.send(encodeMessage("receiveCredentials:", boost::json::object()));
    std::optional<Answer> answer = second.wait();
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->result, boost::json::object());
    EXPECT_FALSE(answer->error);
    EXPECT_TRUE(adapters.calls().empty());
}

TEST_F(SignInFlow, WithoutASignInPortTheSignInAndQuitFailToSend) {
    start(Running::yes);
    const VTError expected(VTGitErrorDomain, -2, kSendFailure,
                           "There was an error creating sending communication port.");
    ReplyCatcher& catcher = signIn();
    std::optional<Answer> answer = catcher.wait();
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->result, std::nullopt);
    EXPECT_EQ(answer->error, expected);

    VTError error;
    EXPECT_FALSE(flow->quit(&error));
    EXPECT_EQ(error, expected);
}

TEST_F(SignInFlow, ASignInApplicationThatWentAwayIsReachedAgainOnceItIsBack) {
    start(Running::yes);
    std::optional<ScriptedApplication> app(std::in_place, kGroup);
    ReplyCatcher& first = signIn();
    expectShowSignIn(*app);
    app->send(encodeMessage("receiveCredentials:", boost::json::object()));
    ASSERT_TRUE(first.wait());

    app.reset();
    std::optional<Answer> lost = signIn().wait();
    ASSERT_TRUE(lost);
    EXPECT_EQ(lost->error, VTError(VTGitErrorDomain, -2, kSendFailure,
                                   "There was an error sending message, status -3."));

    app.emplace(kGroup);
    ReplyCatcher& third = signIn();
    expectShowSignIn(*app);
    app->send(encodeMessage("receiveCredentials:", kToken));
    std::optional<Answer> answer = third.wait();
    ASSERT_TRUE(answer);
    EXPECT_FALSE(answer->error);
    EXPECT_TRUE(answer->result && answer->result->contains("VTHostUserKey"));
}

TEST_F(SignInFlow, QuitTellsTheSignInApplicationToQuit) {
    start(Running::yes);
    ScriptedApplication app(kGroup);
    VTError error(VTGitErrorDomain, 1, "left over");
    EXPECT_TRUE(flow->quit(&error));
    EXPECT_FALSE(error);
    std::optional<vt::signin::Message> message = app.next();
    ASSERT_TRUE(message);
    EXPECT_EQ(message->selector, "quit");
    EXPECT_EQ(message->argument, std::nullopt);
}

TEST_F(SignInFlow, ASignInApplicationThatNeverAnswersEndsTheSignInAfterTheWaitLimit) {
    start(Running::yes, std::chrono::milliseconds(50));
    ScriptedApplication app(kGroup);
    ReplyCatcher& catcher = signIn();
    expectShowSignIn(app);
    std::optional<Answer> answer = catcher.wait();
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->result, std::nullopt);
    EXPECT_EQ(answer->error, VTError(VTGitErrorDomain, -2, kReceiveFailure,
                                     "The sign-in application did not answer in time."));
}

TEST_F(SignInFlow, EndingTheFlowAnswersTheWaitingSignIn) {
    start(Running::yes);
    ScriptedApplication app(kGroup);
    ReplyCatcher& catcher = signIn();
    expectShowSignIn(app);
    flow.reset();
    ASSERT_EQ(catcher.count(), 1u);
    std::optional<Answer> answer = catcher.wait();
    EXPECT_EQ(answer->result, std::nullopt);
    EXPECT_EQ(answer->error, VTError(VTGitErrorDomain, -2, kReceiveFailure,
                                     "The hosts service stopped before the sign-in ended."));
}

TEST_F(SignInFlow, AReceivingPortAnotherServiceServesEndsTheSignIn) {
    std::optional<vt::signin::LocalMessagePort> other =
        vt::signin::LocalMessagePort::create("com.veldtrack.test.Host");
    ASSERT_TRUE(other);
    start(Running::yes);
    std::optional<Answer> answer = signIn().wait();
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->result, std::nullopt);
    EXPECT_EQ(answer->error, VTError(VTGitErrorDomain, -2, kReceiveFailure,
                                     "There was an error creating receiving communication port."));
    EXPECT_EQ(loop->watchedCount(), 0u);
}

struct EntitlementCase {
    const char* name;
    bool executableExists;
    std::optional<std::string> entitlements;
    const char* reason;
};

// Names the case in test listings instead of dumping its bytes.
void PrintTo(const EntitlementCase& c, std::ostream* out) {
    *out << c.name;
}

class SignInEntitlement : public SignInFlow,
                          public ::testing::WithParamInterface<EntitlementCase> {};

TEST_P(SignInEntitlement, FailureEndsTheSignInAndQuitWithItsReason) {
    const EntitlementCase& c = GetParam();
    std::filesystem::remove(executable.parent_path() / "veldtrack-hosts-service.entitlements");
    if (c.entitlements) {
        writeEntitlements(*c.entitlements);
    }
    if (!c.executableExists) {
        std::filesystem::remove(executable);
    }
    start(Running::yes);
    std::optional<Answer> answer = signIn().wait();
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->result, std::nullopt);
    EXPECT_EQ(answer->error, VTError(VTGitErrorDomain, -2, kReceiveFailure, c.reason));

    VTError error;
    EXPECT_FALSE(flow->quit(&error));
    EXPECT_EQ(error, VTError(VTGitErrorDomain, -2, kSendFailure, c.reason));
}

INSTANTIATE_TEST_SUITE_P(
    Reasons, SignInEntitlement,
    ::testing::Values(
        EntitlementCase{"ExecutableUnresolved", false, R"({"application-groups": ["g"]})",
                        "There was an error creating security task for the hosts service."},
        EntitlementCase{"EmptyArray", true, R"({"application-groups": []})",
                        "Hosts service groups security entitlement is of unknown type."}),
    [](const auto& info) { return std::string(info.param.name); });

struct LaunchCase {
    const char* name;
    std::optional<std::string> application;  // relative to the test's folder; nullopt: unset
    bool executableFile;                     // the named file exists, without execute rights
    std::int64_t code;
    const char* description;
};

// Names the case in test listings instead of dumping its bytes.
void PrintTo(const LaunchCase& c, std::ostream* out) {
    *out << c.name;
}

class SignInLaunch : public SignInFlow, public ::testing::WithParamInterface<LaunchCase> {};

TEST_P(SignInLaunch, FailureEndsTheSignInWithTheSystemsError) {
    const LaunchCase& c = GetParam();
    std::optional<ScopedVariable> chosen;
    if (c.application) {
        const std::filesystem::path path = root.path() / *c.application;
        if (c.executableFile) {
            vt::test::writeFile(path, "#!/bin/sh\n");
        }
        chosen.emplace("VELDTRACK_SIGNIN_APP", path.string());
    }
    start(Running::no);
    std::optional<Answer> answer = signIn().wait();
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->result, std::nullopt);
    EXPECT_EQ(answer->error, VTError(VTPOSIXErrorDomain, c.code, c.description));
}

INSTANTIATE_TEST_SUITE_P(Launch, SignInLaunch,
                         ::testing::Values(LaunchCase{"NoSignInApplicationBesideTheService",
                                                      std::nullopt, false, ENOENT,
                                                      "No such file or directory"},
                                           LaunchCase{"ChosenApplicationMissing", "missing", false,
                                                      ENOENT, "No such file or directory"},
                                           LaunchCase{"ChosenApplicationNotExecutable", "plain",
                                                      true, EACCES, "Permission denied"}),
                         [](const auto& info) { return std::string(info.param.name); });

// The service's main loop after it has ended: posted work no longer runs.
class EndedLoop : public VTSignInEnvironment {
public:
    void runOnMainThread(const std::function<void()>&) override {}
    void watchDescriptor(int, std::function<void()>) override {}
    bool isSignInApplicationRunning() override { return true; }
};

TEST_F(SignInFlow, ASignInAfterTheMainLoopEndedIsAnsweredAsStopped) {
    EndedLoop ended;
    VTSignInFlow late(ended, adapters.factory(), VTSignInOptions{executable, vt::test::kPatience});
    ReplyCatcher catcher;
    late.signIn(url("https://github.com/o/r"), 1, "octocat", catcher.reply());
    std::optional<Answer> answer = catcher.wait();
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->result, std::nullopt);
    EXPECT_EQ(answer->error, VTError(VTGitErrorDomain, -2, kReceiveFailure,
                                     "The hosts service stopped before the sign-in ended."));
}

}  // namespace
