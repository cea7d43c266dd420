// The service on the bus: per-client queues, large replies, refused calls, failing adapters, the
// workers' lifetime, the exported interface, and the interactive sign-in's wiring into the main
// loop (its ports, the VTHostMessage signal, the sign-in application's bus name).

#include "harness.h"
#include "records/wire.h"
#include "service/bus_names.h"

#include <gtest/gtest.h>

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include <condition_variable>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>

#include <csignal>

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

using namespace vt::test;

const VTToken kToken{{"token_type", "Bearer"}, {"access_token", "first"}};

std::string lastPathPart(const AdapterCall& call) {
    const std::string url = call.arguments.at(0).as_string().c_str();
    return url.substr(url.rfind('/') + 1);
}

class ServiceBus : public ::testing::Test, protected ServiceWithTestAdapters {
protected:
    std::future<Outcome> privacy(Client& caller, const std::string& name) {
        return caller.callAsync("GetPrivacyWithUrl", "https://github.test/octocat/" + name,
                                std::int64_t{1}, kToken);
    }
};

TEST_F(ServiceBus, AClientsRequestsRunOneAtATimeInOrderWhileAnotherClientsRunAlongside) {
    Gates gates;
    adapters.behaviour.onCall = [&gates](const AdapterCall& call) {
        gates.arriveAndWait(lastPathPart(call));
    };
    Client other;
    std::future<Outcome> first = privacy(client, "first");
    std::future<Outcome> second = privacy(client, "second");
    ASSERT_TRUE(gates.waitUntilArrived("first"));
    std::future<Outcome> elsewhere = privacy(other, "elsewhere");
    // The other client is served while the first client's request still blocks.
    ASSERT_TRUE(gates.waitUntilArrived("elsewhere"));
    gates.open("elsewhere");
    EXPECT_TRUE(elsewhere.get().reply);

    gates.open("first");
    ASSERT_TRUE(gates.waitUntilArrived("second"));
    gates.open("second");
    EXPECT_TRUE(first.get().reply);
    EXPECT_TRUE(second.get().reply);
    EXPECT_LT(gates.position("leave first"), gates.position("enter second"));
    EXPECT_LT(gates.position("enter elsewhere"), gates.position("leave first"));
}

// The bus stops reading while the service writes a reply of several megabytes, so that the
// socket takes only part of it; the service's loop must write on once the bus reads again.
TEST_F(ServiceBus, AConversationOfSeveralMegabytesArrivesIntactThoughTheBusReadsItSlowly) {
    VTConversation conversation{samplePullRequest()};
    std::size_t textBytes = 0;
    for (int index = 0; index < 2000; ++index) {
        VTPullRequestComment comment;
        comment.identifier = "C_" + std::to_string(index);
        comment.author = "octocat";
        comment.date = "2024-05-01T10:00:00Z";
        comment.content =
            std::string(3000, static_cast<char>('a' + index % 26)) + std::to_string(index);
        textBytes += comment.content->size();
        conversation.emplace_back(std::move(comment));
    }
    conversation.emplace_back(true);
    ASSERT_GE(textBytes, 5u * 1024 * 1024);
    adapters.behaviour.conversation = conversation;
    Gates gates;
    adapters.behaviour.onCall = [&gates](const AdapterCall&) { gates.arriveAndWait("large"); };

    std::future<Outcome> pending =
        client.callAsync("GetCommentsForPullRequest", samplePullRequest().toValue(), kToken);
    ASSERT_TRUE(gates.waitUntilArrived("large"));
    ::kill(bus.daemonPid(), SIGSTOP);
    gates.open("large");
    const bool sent = eventually([&] { return !service.service().busy(); });
    ::kill(bus.daemonPid(), SIGCONT);
    ASSERT_TRUE(sent);

    const Outcome outcome = pending.get();
    ASSERT_TRUE(outcome.reply) << outcome.errorName << ": " << outcome.errorMessage;
    std::string fault;
    const std::optional<VTConversation> received =
        VTConversationFromValue(outcome.reply->at("conversation"), &fault);
    ASSERT_TRUE(received) << fault;
    EXPECT_TRUE(*received == conversation);
}

TEST_F(ServiceBus, MalformedCallsAreRefusedWithoutCallingAnAdapterAndTheServiceKeepsServing) {
    boost::json::object wrongClass = samplePullRequest().toValue();
    wrongClass["$class"] = "VTPullRequestComment";
    boost::json::object relativeRemote = samplePullRequest().toValue();
    relativeRemote["remoteUrl"] = "github.test/octocat/hello";
    boost::json::object textNumber = samplePullRequest().toValue();
    textNumber["number"] = "7";

    struct Case {
        const char* name;
        std::function<Outcome()> send;
        const char* errorName;
        const char* named;  // what the error message must name
    };
    const std::vector<Case> cases = {
        {"a URL that is not absolute",
         [&] { return client.call("GetRepositoriesWithToken", kToken, "github.test/x", 1L); },
         vt::bus::kInvalidArgumentsError, "url"},
        {"a record of another class",
         [&] { return client.call("ClosePullRequest", wrongClass, kToken); },
         vt::bus::kInvalidArgumentsError, "$class"},
        {"a record without a class",
         [&] { return client.call("ClosePullRequest", boost::json::object(), kToken); },
         vt::bus::kInvalidArgumentsError, "pullRequest"},
        {"a record whose URL is not absolute",
         [&] { return client.call("AddComment", "Hi", relativeRemote, kToken); },
         vt::bus::kInvalidArgumentsError, "remoteUrl"},
        {"a record key of the wrong kind",
         [&] { return client.call("EditPullRequest", textNumber, "text", kToken); },
         vt::bus::kInvalidArgumentsError, "number"},
        {"a fork URL without a host name",
         [&] {
             return client.call("GetForksForUrls",
                                std::vector<std::string>{"https://github.test/a", "mailto:a@b"},
                                std::vector<std::int64_t>{1}, std::vector<boost::json::object>{});
         },
         vt::bus::kInvalidArgumentsError, "urls[1]"},
        {"an address git writes but no URL parser reads",
         [&] {
             return client.call("GetForksForUrls",
                                std::vector<std::string>{"git@github.test:octocat/hello.git"},
                                std::vector<std::int64_t>{1}, std::vector<boost::json::object>{});
         },
         vt::bus::kInvalidArgumentsError, "urls[0]"},
        {"arguments of the wrong D-Bus types",
         [&] { return client.call("GetPrivacyWithUrl", "https://github.test/x", "1", kToken); },
         "org.freedesktop.DBus.Error.InvalidArgs", "GetPrivacyWithUrl"},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.name);
        const Outcome outcome = test.send();
        EXPECT_FALSE(outcome.reply);
        EXPECT_EQ(outcome.errorName, test.errorName);
        EXPECT_NE(outcome.errorMessage.find(test.named), std::string::npos) << outcome.errorMessage;
    }
    EXPECT_TRUE(adapters.calls().empty());
    EXPECT_EQ(*privacy(client, "fine").get().reply, (boost::json::object{{"private", true}}));
}

TEST_F(ServiceBus, AnAdapterThatThrowsIsAnsweredWithAFailureAndTheServiceKeepsServing) {
    adapters.behaviour.throws = true;
    const Outcome failed = privacy(client, "throws").get();
    EXPECT_EQ(failed.errorName, vt::bus::kFailedError);
    adapters.behaviour.throws = false;
    EXPECT_TRUE(privacy(client, "fine").get().reply);
}

TEST_F(ServiceBus, AClientThatLeavesTheBusGivesBackItsWorker) {
    {
        Client leaving;
        ASSERT_TRUE(privacy(leaving, "once").get().reply);
        ASSERT_TRUE(privacy(client, "once").get().reply);
        EXPECT_EQ(service.service().clientCount(), 2u);
    }
    EXPECT_TRUE(eventually([&] { return service.service().clientCount() == 1; }));
}

TEST(ServiceWorkers, AnIdleClientsWorkerEndsAndItsNextRequestStartsANewOne) {
    PrivateBus bus{withoutActivation()};
    TestAdapters adapters;
    VTBusServiceOptions options = optionsFor(adapters);
    options.clientIdleLimit = std::chrono::milliseconds(1);
    InProcessService service{options};
    Client client;
    for (int round = 0; round < 2; ++round) {
        const Outcome outcome =
            client.call("GetPrivacyWithUrl", "https://github.test/x", std::int64_t{1}, kToken);
        EXPECT_EQ(*outcome.reply, (boost::json::object{{"private", true}}));
        EXPECT_TRUE(eventually([&] { return service.service().clientCount() == 0; }));
    }
}

// method name -> input signature, from introspection data.
std::map<std::string, std::string> methodSignatures(const std::string& xml) {
    std::map<std::string, std::string> methods;
    const std::regex method(R"re(<method name="(\w+)">([\s\S]*?)</method>)re");
    const std::regex input(R"re(<arg[^>]*type="([^"]+)"[^>]*direction="in")re");
    for (auto found = std::sregex_iterator(xml.begin(), xml.end(), method);
         found != std::sregex_iterator(); ++found) {
        const std::string body = (*found)[2];
        std::string signature;
        for (auto arg = std::sregex_iterator(body.begin(), body.end(), input);
             arg != std::sregex_iterator(); ++arg) {
            signature += (*arg)[1];
        }
        methods[(*found)[1]] = signature;
    }
    return methods;
}

TEST_F(ServiceBus, TheExportedInterfaceIsTheOneItsInstalledDescriptionDeclares) {
    std::ifstream file(VT_INTERFACE_XML);
    std::stringstream declared;
    declared << file.rdbuf();

    auto proxy =
        sdbus::createProxy(client.connection(), vt::bus::kServiceName, vt::bus::kObjectPath);
    std::string live;
    proxy->callMethod("Introspect")
        .onInterface("org.freedesktop.DBus.Introspectable")
        .storeResultsTo(live);
    const std::string interfaceStart =
        std::string("<interface name=\"") + vt::bus::kRequestInterface + "\">";
    const auto start = live.find(interfaceStart);
    ASSERT_NE(start, std::string::npos);
    live = live.substr(start, live.find("</interface>", start) - start);

    const auto expected = methodSignatures(declared.str());
    EXPECT_EQ(expected.size(), 19u);
    EXPECT_EQ(methodSignatures(live), expected);
}

// The interactive sign-in, with the sign-in flow's files in a folder of the test's own. The test
// plays the sign-in application: it owns its bus name and reads its port.
class InteractiveSignIn : public ::testing::Test {
protected:
    static constexpr char kGroup[] = "test.veldtrack";

    InteractiveSignIn() {
        // The flow finds its entitlements beside the service's executable, which must exist.
        std::ofstream(bus.folder() / "veldtrack-hosts-service");
        std::ofstream(bus.folder() / "veldtrack-hosts-service.entitlements")
            << R"({"application-groups": [")" << kGroup << R"("]})";
        const auto launcher = bus.folder() / "launch-sign-in";
        std::ofstream(launcher) << "#!/bin/sh\ntouch '" << (bus.folder() / "launched").string()
                                << "'\n";
        ::chmod(launcher.c_str(), 0700);
    }
    ~InteractiveSignIn() override {
        if (port_ >= 0) {
            ::close(port_);
        }
    }

    static sockaddr_un addressOf(const std::string& path) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        return address;
    }
    std::string portPath(const char* word) const {
        return (bus.folder() / (std::string(kGroup) + "." + word)).string();
    }

    // Starts playing the running sign-in application.
    void run() {
        client.connection().requestName(vt::bus::kSignInApplicationName);
        port_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        const sockaddr_un address = addressOf(portPath("SignIn"));
        ASSERT_EQ(::bind(port_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    }
    // The next message the service sent to the sign-in application.
    boost::json::value nextMessage() {
        pollfd readable{port_, POLLIN, 0};
        if (::poll(&readable, 1, static_cast<int>(kPatience.count() * 1000)) != 1) {
            return nullptr;
        }
        char buffer[4096];
        const ssize_t length = ::recv(port_, buffer, sizeof buffer, 0);
        return length > 0 ? boost::json::parse(std::string_view(buffer, length))
                          : boost::json::value();
    }
    void sendToService(const boost::json::object& message) {
        const std::string text = boost::json::serialize(message);
        const sockaddr_un address = addressOf(portPath("Host"));
        ASSERT_EQ(::sendto(port_, text.data(), text.size(), 0,
                           reinterpret_cast<const sockaddr*>(&address), sizeof address),
                  static_cast<ssize_t>(text.size()));
    }
    std::future<Outcome> signIn() {
        return client.callAsync("SignInWithUrl", "https://github.test/x", std::int64_t{1},
                                "octocat", "");
    }

    const boost::json::value showSignIn = boost::json::parse(
        R"({"VTMessageSelector": "showSignIn:",
            "VTMessageArgument": {"identifier": "github.test", "name": "octocat"}})");

    PrivateBus bus{withoutActivation()};
    ScopedVariable runtime{"XDG_RUNTIME_DIR", bus.folder().string()};
    ScopedVariable application{"VELDTRACK_SIGNIN_APP", (bus.folder() / "launch-sign-in").string()};
    TestAdapters adapters;
    InProcessService service{optionsFor(adapters, bus.folder() / "veldtrack-hosts-service")};
    Client client;

private:
    int port_ = -1;
};

TEST_F(InteractiveSignIn, LaunchesTheSignInApplicationWhenItsBusNameHasNoOwner) {
    std::future<Outcome> pending = signIn();
    EXPECT_TRUE(eventually([&] { return std::filesystem::exists(bus.folder() / "launched"); }));
}

TEST_F(InteractiveSignIn, LeavesTheClientsQueueAndEndsWithTheErrorThatTheSignInApplicationPosts) {
    ASSERT_NO_FATAL_FAILURE(run());
    std::future<Outcome> pending = signIn();
    EXPECT_EQ(nextMessage(), showSignIn);
    EXPECT_FALSE(std::filesystem::exists(bus.folder() / "launched")) << "it runs already";

    // The sign-in waits on the sign-in queue, not on the client's.
    EXPECT_TRUE(
        client.call("GetPrivacyWithUrl", "https://github.test/x", std::int64_t{1}, kToken).reply);
    EXPECT_EQ(pending.wait_for(std::chrono::seconds(0)), std::future_status::timeout);

    auto poster = sdbus::createObject(client.connection(), "/test/poster");
    auto signal =
        poster->createSignal(vt::bus::kNotificationInterface, vt::bus::kNotificationSignal);
    signal << std::string(R"({"VTMessageSelector": "showError:",
                              "VTMessageArgument": {"description": "Cancelled"}})");
    poster->emitSignal(signal);

    const Outcome outcome = pending.get();
    ASSERT_TRUE(outcome.reply) << outcome.errorMessage;
    const VTError expected(VTGitErrorDomain, -2, boost::json::object{{"description", "Cancelled"}});
    EXPECT_EQ(*outcome.reply, (boost::json::object{{"error", expected.toValue()}}));
}

TEST_F(InteractiveSignIn, SignsInWithTheCredentialsThatTheSignInApplicationSends) {
    ASSERT_NO_FATAL_FAILURE(run());
    std::future<Outcome> pending = signIn();
    EXPECT_EQ(nextMessage(), showSignIn);
    const boost::json::object credentials{{"token_type", "Bearer"}, {"access_token", "fresh"}};
    sendToService(
        {{"VTMessageSelector", "receiveCredentials:"}, {"VTMessageArgument", credentials}});

    const Outcome outcome = pending.get();
    ASSERT_TRUE(outcome.reply) << outcome.errorMessage;
    const boost::json::object result{{"VTHostToken", credentials},
                                     {"VTHostUserKey", adapters.behaviour.user}};
    EXPECT_EQ(*outcome.reply, (boost::json::object{{"result", result}}));
    ASSERT_EQ(adapters.calls().size(), 1u);
    EXPECT_EQ(adapters.calls()[0].token, credentials);
}

}  // namespace
