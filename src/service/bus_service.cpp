#include "service/bus_service.h"

#include "service/arguments.h"
#include "service/bus_names.h"
#include "service/client_queues.h"
#include "service/hosts_service.h"
#include "service/main_loop.h"
#include "service/pending_call.h"

#include <sdbus-c++/Error.h>
#include <sdbus-c++/IObject.h>
#include <sdbus-c++/IProxy.h>
#include <sdbus-c++/Message.h>

#include <array>
#include <csignal>
#include <exception>
#include <iterator>
#include <mutex>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <sys/signalfd.h>
#include <unistd.h>

namespace {

// How long the service waits for the socket to take its last answers when it stops.
constexpr int kFlushLimitMilliseconds = 2000;

// The sign-in flow's view of the service's main loop.
class Environment final : public VTSignInEnvironment {
public:
    explicit Environment(VTMainLoop& loop) : loop_(loop) {}

    void runOnMainThread(const std::function<void()>& work) override {
        loop_.runOnLoopThread(work);
    }

    void watchDescriptor(int fd, std::function<void()> onReadable) override {
        loop_.watchDescriptor(fd, std::move(onReadable));
    }

    // Asked over a connection of its own: the service's connection belongs to the main loop's
    // thread, and this is called from the sign-in queue.
    bool isSignInApplicationRunning() override {
        std::lock_guard lock(mutex_);
        try {
            if (!bus_) {
                bus_ = sdbus::createSessionBusConnection();
            }
            auto daemon =
                sdbus::createProxy(*bus_, "org.freedesktop.DBus", "/org/freedesktop/DBus");
            bool owned = false;
            daemon->callMethod("NameHasOwner")
                .onInterface("org.freedesktop.DBus")
                .withArguments(std::string(vt::bus::kSignInApplicationName))
                .storeResultsTo(owned);
            return owned;
        } catch (...) {
            // Asked afresh next time; until then the sign-in application counts as not running.
            bus_.reset();
            return false;
        }
    }

private:
    VTMainLoop& loop_;
    std::mutex mutex_;
    std::unique_ptr<sdbus::IConnection> bus_;
};

}  // namespace

struct VTBusService::Impl {
    using Call = std::shared_ptr<VTPendingCall>;
    // A reply dictionary, or nullopt when the arguments failed or the answer comes later (the
    // interactive sign-in).
    using Answer = std::optional<VTReplyDictionary>;
    // Reads the arguments of one call, in order, and answers it.
    using Handler = Answer (*)(Impl&, VTArguments&, const Call&);
    // What a request does at the host: a request that only reads is not worth running once its
    // client has left the bus; an action is, because the user asked for it.
    enum class Effect { reads, acts };
    struct Method {
        const char* name;
        std::string signature;
        std::vector<std::string> arguments;
        Handler handler;
        Effect effect;
    };
    // The requests, in the interface's order.
    static const std::vector<Method>& methods();
    template <auto Request, typename... Kinds>
    static Method request(const char* name, const char* const (&arguments)[sizeof...(Kinds)],
                          Effect effect);
    static Answer signIn(Impl& impl, VTArguments& in, const Call& call);

    Impl(std::unique_ptr<sdbus::IConnection> connection, VTBusServiceOptions options);

    void exportInterface();
    void accept(sdbus::MethodCall call, const Method& method);
    void answer(const Call& call, const Method& method);
    void readSignal(int signalFd);

    // Destroyed in reverse: the bus slots and the object first, then the flow and the queues
    // (whose jobs and replies use what is declared above them), the connection last.
    std::unique_ptr<sdbus::IConnection> connection;
    VTMainLoop loop;
    VTPendingCalls calls;
    Environment environment;
    VTHostsService service;
    VTClientQueues queues;
    std::unique_ptr<VTSignInFlow> flow;
    std::unique_ptr<sdbus::IObject> object;
    sdbus::Slot clientsLeaving;
    sdbus::Slot notifications;
    bool terminated = false;  // the loop's own
};

namespace {

// The kinds of request arguments: their D-Bus type and how each is read and checked.
struct Text {
    static constexpr char signature[] = "s";
    static std::string read(VTArguments& in) { return in.string(); }
};
struct Integer {
    static constexpr char signature[] = "x";
    static std::int64_t read(VTArguments& in) { return in.integer(); }
};
struct Url {
    static constexpr char signature[] = "s";
    static VTUrl read(VTArguments& in) { return in.url(); }
};
struct Dictionary {  // a token or a namespace
    static constexpr char signature[] = "a{sv}";
    static boost::json::object read(VTArguments& in) { return in.dictionary(); }
};
struct AnyValue {
    static constexpr char signature[] = "v";
    static boost::json::value read(VTArguments& in) { return in.variant(); }
};
struct Bytes {
    static constexpr char signature[] = "ay";
    static VTData read(VTArguments& in) { return in.data(); }
};
struct PullRequest {
    static constexpr char signature[] = "a{sv}";
    static VTPullRequest read(VTArguments& in) { return in.pullRequest(); }
};
struct HostUrls {
    static constexpr char signature[] = "as";
    static std::vector<VTUrl> read(VTArguments& in) { return in.hostUrls(); }
};
struct Integers {
    static constexpr char signature[] = "ax";
    static std::vector<std::int64_t> read(VTArguments& in) { return in.integers(); }
};
struct Dictionaries {
    static constexpr char signature[] = "aa{sv}";
    static std::vector<boost::json::object> read(VTArguments& in) { return in.dictionaries(); }
};

}  // namespace

// A method that reads arguments of the given kinds, in order, and passes them to `Request`.
template <auto Request, typename... Kinds>
VTBusService::Impl::Method VTBusService::Impl::request(
    const char* name, const char* const (&arguments)[sizeof...(Kinds)], Effect effect) {
    return Method{
        name, (std::string() + ... + Kinds::signature),
        std::vector<std::string>(std::begin(arguments), std::end(arguments)),
        [](Impl& impl, VTArguments& in, const Call&) -> Answer {
            // A braced list is evaluated left to right: the arguments' order.
            std::tuple<decltype(Kinds::read(in))...> values{Kinds::read(in)...};
            if (!in.ok()) {
                return std::nullopt;
            }
            return std::apply(
                [&impl](auto&... value) { return (impl.service.*Request)(std::move(value)...); },
                values);
        },
        effect};
}

const std::vector<VTBusService::Impl::Method>& VTBusService::Impl::methods() {
    using S = VTHostsService;
    static const std::vector<Method> table = {
        {"SignInWithUrl",
         "sxss",
         {"url", "type", "username", "password"},
         &Impl::signIn,
         Effect::acts},
        request<&S::getRepositoriesWithToken, Dictionary, Url, Integer>(
            "GetRepositoriesWithToken", {"token", "url", "type"}, Effect::reads),
        request<&S::createRepositoryWithToken, Dictionary, Url, Integer, Dictionary, Text, Text,
                Text, Integer>(
            "CreateRepositoryWithToken",
            {"token", "url", "type", "namespace", "slug", "name", "description", "visibility"},
            Effect::acts),
        request<&S::getSshKeysWithToken, Dictionary, Url, Integer>(
            "GetSshKeysWithToken", {"token", "url", "type"}, Effect::reads),
        request<&S::addSshKey, Text, Text, Dictionary, Url, Integer>(
            "AddSshKey", {"key", "comment", "token", "url", "type"}, Effect::acts),
        request<&S::deleteSshKey, AnyValue, Dictionary, Url, Integer>(
            "DeleteSshKey", {"keyIdentifier", "token", "url", "type"}, Effect::acts),
        request<&S::getProfileWithToken, Dictionary, Url, Integer>(
            "GetProfileWithToken", {"token", "url", "type"}, Effect::reads),
        request<&S::getPrivacyWithUrl, Url, Integer, Dictionary>(
            "GetPrivacyWithUrl", {"url", "type", "token"}, Effect::reads),
        request<&S::getForksForUrls, HostUrls, Integers, Dictionaries>(
            "GetForksForUrls", {"urls", "types", "tokens"}, Effect::reads),
        request<&S::getPullRequestsWithUrl, Url, Integer, Dictionary>(
            "GetPullRequestsWithUrl", {"url", "type", "token"}, Effect::reads),
        request<&S::getCommentsForPullRequest, PullRequest, Dictionary>(
            "GetCommentsForPullRequest", {"pullRequest", "token"}, Effect::reads),
        request<&S::createPullRequestWithUrl, Url, Integer, Text, Text, Text, Text, Dictionary>(
            "CreatePullRequestWithUrl",
            {"url", "type", "baseRefName", "headRefName", "title", "comment", "token"},
            Effect::acts),
        request<&S::editPullRequest, PullRequest, Text, Dictionary>(
            "EditPullRequest", {"pullRequest", "comment", "token"}, Effect::acts),
        request<&S::addComment, Text, PullRequest, Dictionary>(
            "AddComment", {"comment", "pullRequest", "token"}, Effect::acts),
        request<&S::replyTo, Text, Text, PullRequest, Dictionary>(
            "ReplyTo", {"commentIdentifier", "comment", "pullRequest", "token"}, Effect::acts),
        request<&S::editComment, Text, Text, PullRequest, Dictionary>(
            "EditComment", {"commentIdentifier", "newComment", "pullRequest", "token"},
            Effect::acts),
        request<&S::deleteComment, Text, PullRequest, Dictionary>(
            "DeleteComment", {"commentIdentifier", "pullRequest", "token"}, Effect::acts),
        request<&S::mergePullRequest, PullRequest, Integer, Bytes, Text, Dictionary>(
            "MergePullRequest", {"pullRequest", "method", "oid", "message", "token"}, Effect::acts),
        request<&S::closePullRequest, PullRequest, Dictionary>(
            "ClosePullRequest", {"pullRequest", "token"}, Effect::acts),
    };
    return table;
}

// The direct sign-in answers on the client's queue; the interactive one (no password) leaves the
// queue at once and answers from the sign-in queue when the flow ends.
VTBusService::Impl::Answer VTBusService::Impl::signIn(Impl& impl, VTArguments& in,
                                                      const Call& call) {
    const VTUrl url = in.url();
    const std::int64_t type = in.integer();
    const std::string username = in.string();
    const std::string password = in.string();
    if (!in.ok()) {
        return std::nullopt;
    }
    if (!password.empty()) {
        return impl.service.signInWithUrl(url, type, username, password);
    }
    impl.flow->signIn(url, type, username,
                      [call](std::optional<boost::json::object> result, VTError error) {
                          VTReplyDictionary reply;
                          if (result) {
                              reply.set("result", std::move(*result));
                          }
                          reply.setError(error);
                          call->reply(reply);
                      });
    return std::nullopt;
}

VTBusService::Impl::Impl(std::unique_ptr<sdbus::IConnection> connection,
                         VTBusServiceOptions options)
    : connection(std::move(connection)),
      loop(*this->connection),
      calls([this] { loop.wake(); }),
      environment(loop),
      service(options.factory),
      queues(options.clientIdleLimit, [this] { loop.wake(); }),
      flow(std::make_unique<VTSignInFlow>(environment, options.factory, options.signIn)) {
    exportInterface();
}

void VTBusService::Impl::exportInterface() {
    object = sdbus::createObject(*connection, vt::bus::kObjectPath);
    for (const Method& method : methods()) {
        object->registerMethod(
            vt::bus::kRequestInterface, method.name, method.signature, method.arguments, "a{sv}",
            {"reply"},
            [this, &method](sdbus::MethodCall call) { accept(std::move(call), method); });
    }
    object->finishRegistration();

    // A client that leaves the bus gives its worker back at once, and its queued reads are
    // dropped unanswered. Its calls all came in before the daemon's signal of its leaving.
    clientsLeaving = connection->addMatch(
        "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
        "interface='org.freedesktop.DBus',member='NameOwnerChanged'",
        [this](sdbus::Message& message) {
            try {
                std::string name;
                std::string oldOwner;
                std::string newOwner;
                message >> name >> oldOwner >> newOwner;
                if (!name.empty() && name.front() == ':' && newOwner.empty()) {
                    queues.clientLeft(name);
                }
            } catch (...) {
                // Not the daemon's signal after all.
            }
        });
    notifications = connection->addMatch(std::string("type='signal',interface='") +
                                             vt::bus::kNotificationInterface + "',member='" +
                                             vt::bus::kNotificationSignal + "'",
                                         [this](sdbus::Message& message) {
                                             try {
                                                 std::string text;
                                                 message >> text;
                                                 flow->handleNotificationMessage(text);
                                             } catch (...) {
                                                 // A signal without its text says nothing.
                                             }
                                         });

    // Last, so that a client activating the service finds the interface in place.
    connection->requestName(vt::bus::kServiceName);
}

// On the loop's thread: the call joins its client's queue. Nothing here may throw out of the
// handler: sdbus-c++ lets only sdbus::Error through.
void VTBusService::Impl::accept(sdbus::MethodCall call, const Method& method) {
    std::shared_ptr<VTPendingCall> pending;
    try {
        pending = calls.add(std::move(call));
        VTClientQueues::Job onDrop;
        if (method.effect == Effect::reads) {
            onDrop = [pending] { pending->abandon(); };
        }
        queues.submit(
            pending->sender(), [this, pending, &method] { answer(pending, method); },
            std::move(onDrop));
    } catch (const std::exception& failure) {
        if (pending) {
            pending->fail(vt::bus::kFailedError, failure.what());
        }
    } catch (...) {
        if (pending) {
            pending->fail(vt::bus::kFailedError, "The request could not be queued.");
        }
    }
}

// On the client's queue.
void VTBusService::Impl::answer(const Call& call, const Method& method) {
    try {
        VTArguments arguments(call->message(), method.arguments);
        const Answer reply = method.handler(*this, arguments, call);
        if (!arguments.ok()) {
            call->fail(vt::bus::kInvalidArgumentsError, arguments.fault());
        } else if (reply) {
            call->reply(*reply);
        }
    } catch (const std::exception& failure) {
        call->fail(vt::bus::kFailedError, failure.what());
    } catch (...) {
        call->fail(vt::bus::kFailedError, "The request failed inside the hosts service.");
    }
}

void VTBusService::Impl::readSignal(int signalFd) {
    signalfd_siginfo information{};
    while (::read(signalFd, &information, sizeof information) ==
           static_cast<ssize_t>(sizeof information)) {
        if (information.ssi_signo == SIGTERM && !terminated) {
            terminated = true;
            // The outcome does not matter: the service stops all the same.
            flow->quit();
            loop.stop();
        }
    }
}

VTBusService::VTBusService(std::unique_ptr<sdbus::IConnection> connection,
                           VTBusServiceOptions options)
    : impl_(std::make_unique<Impl>(std::move(connection), std::move(options))) {}

VTBusService::~VTBusService() = default;

VTBusService::Ending VTBusService::run(int signalFd) {
    Impl& impl = *impl_;
    if (signalFd >= 0) {
        impl.loop.watchDescriptor(signalFd, [&impl, signalFd] { impl.readSignal(signalFd); });
    }
    const VTMainLoop::Ending ending = impl.loop.run([&impl] { impl.queues.reap(); });
    // Requests not yet started are dropped, and every request still open is answered now: a
    // request that is still running keeps its adapter, but its answer is no longer awaited.
    impl.queues.stop();
    impl.calls.failAll(vt::bus::kStoppingError,
                       "The hosts service stopped before the request finished.");
    if (ending == VTMainLoop::Ending::busLost) {
        return Ending::busLost;
    }
    impl.loop.flush(kFlushLimitMilliseconds);
    return impl.terminated ? Ending::terminated : Ending::stopped;
}

void VTBusService::stop() {
    impl_->loop.stop();
}

bool VTBusService::busy() const {
    return impl_->queues.jobCount() > 0;
}

std::size_t VTBusService::clientCount() const {
    return impl_->queues.clientCount();
}
