#include "service/signin/sign_in.h"

#include "service/signin/application_group.h"
#include "service/signin/launcher.h"
#include "service/signin/message_port.h"

#include <boost/json/stream_parser.hpp>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <semaphore>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

namespace {

using vt::signin::LocalMessagePort;
using vt::signin::RemoteMessagePort;

constexpr std::string_view kReceiveFailure =
    "Hosts service failed to receive message from sign-in application";
constexpr std::string_view kSendFailure =
    "Hosts service failed to send message to sign-in application";
constexpr std::string_view kNoReceivingPort =
    "There was an error creating receiving communication port.";
constexpr std::string_view kNoSendingPort =
    "There was an error creating sending communication port.";
constexpr std::string_view kNotArchived = "There was an error archiving message for sending.";

constexpr std::chrono::seconds kSendTimeout{1};
// The sign-in queue is a background queue: it yields to the requests of the clients.
constexpr int kSignInQueueNiceness = 10;

VTError signInError(std::string_view reason) {
    return VTError(VTGitErrorDomain, -2, kReceiveFailure, reason);
}

VTError timedOutError() {
    return signInError("The sign-in application did not answer in time.");
}

VTError stoppedError() {
    return signInError("The hosts service stopped before the sign-in ended.");
}

// The hand-shake between the job that waits for the sign-in application and the events that
// wake it. `signing` is true from just before a wait until a waker or the woken job clears it. A
// waker (an event of the sign-in application) clears it and signals; a newer sign-in signals
// without clearing it, so that the woken job knows it was cancelled. Every transition out of
// "waiting" is a compare-and-swap followed by exactly one release, so two wakers that race can
// never leave a stray count behind for the next job.
class Handshake {
public:
    enum class Outcome { woken, cancelled, stopped, timedOut };

    bool isSigning() const noexcept { return state_.load() != State::idle; }

    // Enters the waiting state before the job asks the sign-in application for anything, so
    // that an answer arriving before the job sleeps still wakes it. False when the flow stops.
    bool begin() {
        state_.store(State::waiting);
        armed_ = true;
        if (stopRequested_.load()) {
            abandon();
            return false;
        }
        return true;
    }

    // Leaves the waiting state without waiting (the request failed); consumes a signal that was
    // already given for this wait.
    void abandon() {
        if (!armed_) {
            return;
        }
        armed_ = false;
        if (state_.exchange(State::idle) != State::waiting) {
            semaphore_.acquire();
        }
    }

    Outcome await(std::chrono::milliseconds limit) {
        armed_ = false;
        if (!semaphore_.try_acquire_for(limit)) {
            State expected = State::waiting;
            if (state_.compare_exchange_strong(expected, State::idle)) {
                return Outcome::timedOut;
            }
            // Someone left "waiting" just now: their signal is on its way.
            semaphore_.acquire();
        }
        switch (state_.exchange(State::idle)) {
            case State::cancelled:
                return Outcome::cancelled;
            case State::stopping:
                return Outcome::stopped;
            default:
                return Outcome::woken;
        }
    }

    // An event of the sign-in application: wakes the waiting job, if any.
    void wake() { signalFrom(State::idle); }
    // A newer sign-in: ends the waiting job, if any.
    void cancel() { signalFrom(State::cancelled); }
    // The flow ends: wakes the waiting job and keeps later waits from starting.
    void stop() {
        stopRequested_.store(true);
        signalFrom(State::stopping);
    }

private:
    enum class State { idle, waiting, cancelled, stopping };

    void signalFrom(State replacement) {
        State expected = State::waiting;
        if (state_.compare_exchange_strong(expected, replacement)) {
            semaphore_.release();
        }
    }

    std::atomic<State> state_{State::idle};
    std::atomic<bool> stopRequested_{false};
    std::counting_semaphore<> semaphore_{0};
    bool armed_ = false;  // the job's own: it entered "waiting" and has not waited yet
};

// What the sign-in application delivered, and the hand-shake. Shared with the receiving port's
// callback, which the main loop may hold longer than the flow lives.
struct SignInState {
    Handshake handshake;
    std::mutex mutex;
    std::optional<boost::json::object> signInResponse;
    VTError signInError;

    void clear() {
        std::lock_guard lock(mutex);
        signInResponse.reset();
        signInError = VTError();
    }

    std::pair<std::optional<boost::json::object>, VTError> delivered() {
        std::lock_guard lock(mutex);
        return {signInResponse, signInError};
    }

    VTError deliveredError() {
        std::lock_guard lock(mutex);
        return signInError;
    }

    void signInLaunched() { handshake.wake(); }

    void receiveCredentials(std::optional<boost::json::object> response) {
        {
            std::lock_guard lock(mutex);
            signInResponse = std::move(response);
        }
        handshake.wake();
    }

    void showError(VTError error) {
        {
            std::lock_guard lock(mutex);
            signInError = std::move(error);
        }
        handshake.wake();
    }

    // The message receiver. Only the three operations of the sign-in application are honoured;
    // anything else, or an argument of the wrong kind, is dropped.
    void receive(std::string_view datagram) {
        std::optional<vt::signin::Message> message = vt::signin::decodeMessage(datagram);
        if (!message) {
            return;
        }
        const bool noArgument = !message->argument || message->argument->is_null();
        if (message->selector == "signInLaunched") {
            signInLaunched();
        } else if (message->selector == "receiveCredentials:") {
            if (noArgument) {
                receiveCredentials(std::nullopt);
            } else if (const auto* response = message->argument->if_object()) {
                receiveCredentials(*response);
            }
        } else if (message->selector == "showError:") {
            if (noArgument) {
                showError(VTError());
            } else if (std::optional<VTError> error = VTError::fromValue(*message->argument)) {
                showError(std::move(*error));
            }
        }
    }
};

// Calls a reply exactly once: the first call goes through, and a reply never called (the job
// failed unexpectedly) is answered with an error when this goes away.
class ReplyOnce {
public:
    explicit ReplyOnce(VTSignInFlow::Reply reply) : reply_(std::move(reply)) {}
    ~ReplyOnce() {
        if (reply_) {
            (*this)(std::nullopt, signInError("The sign-in ended unexpectedly."));
        }
    }
    ReplyOnce(const ReplyOnce&) = delete;
    ReplyOnce& operator=(const ReplyOnce&) = delete;

    void operator()(std::optional<boost::json::object> result, VTError error) {
        VTSignInFlow::Reply reply = std::exchange(reply_, nullptr);
        if (!reply) {
            return;
        }
        try {
            reply(std::move(result), std::move(error));
        } catch (...) {
            // The caller's reply failed; the sign-in is answered all the same.
        }
    }

private:
    VTSignInFlow::Reply reply_;
};

}  // namespace

struct VTSignInFlow::Impl {
    struct Job {
        VTUrl url;
        std::int64_t type = 0;
        std::string username;
        Reply reply;
    };

    Impl(VTSignInEnvironment& environment, VTHostFactory factory, VTSignInOptions options)
        : environment(environment),
          factory(std::move(factory)),
          options(std::move(options)),
          worker([this] { serve(); }) {}

    void serve();
    void run(Job& job);
    void runJob(const Job& job, ReplyOnce& reply);
    bool openReceivingPort(VTError* error);
    bool launch(VTError* error);
    bool sendMessage(std::string_view selector, const std::optional<boost::json::value>& argument,
                     VTError* error);
    void reapLaunched();

    VTSignInEnvironment& environment;
    const VTHostFactory factory;
    const VTSignInOptions options;
    const std::shared_ptr<SignInState> state = std::make_shared<SignInState>();

    // Made on the main thread, kept for the life of the process (the main loop holds it too).
    std::shared_ptr<LocalMessagePort> receivingPort;

    // Used from the sign-in queue ("showSignIn:") and from the main thread ("quit").
    std::mutex sendMutex;
    std::optional<RemoteMessagePort> sendingPort;

    std::vector<pid_t> launched;  // the sign-in queue's own

    std::mutex queueMutex;
    std::condition_variable queueChanged;
    std::deque<Job> jobs;
    bool stopping = false;

    std::thread worker;  // last: it starts serving once everything above is ready
};

void VTSignInFlow::Impl::serve() {
    pthread_setname_np(pthread_self(), "vt-signin");
    setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), kSignInQueueNiceness);
    for (;;) {
        Job job;
        {
            std::unique_lock lock(queueMutex);
            queueChanged.wait(lock, [this] { return stopping || !jobs.empty(); });
            if (stopping) {
                return;
            }
            job = std::move(jobs.front());
            jobs.pop_front();
        }
        run(job);
    }
}

void VTSignInFlow::Impl::run(Job& job) {
    ReplyOnce reply(std::move(job.reply));
    try {
        runJob(job, reply);
    } catch (...) {
        state->handshake.abandon();
        // `reply` answers with an error if it was not called.
    }
}

void VTSignInFlow::Impl::runJob(const Job& job, ReplyOnce& reply) {
    reapLaunched();
    state->clear();
    Handshake& handshake = state->handshake;

    VTError error;
    bool portReady = false;
    // The receiving port is served by the main loop, so it is made there.
    environment.runOnMainThread([&] { portReady = openReceivingPort(&error); });
    if (!portReady) {
        // Without an error the main loop had already ended and did not run the work.
        reply(std::nullopt, error ? std::move(error) : stoppedError());
        return;
    }

    // Enters the wait, makes `request` (which reports its failure in `error`) and waits for the
    // sign-in application's next event. False when the job has been answered instead.
    auto requestAndWait = [&](const std::function<bool()>& request) {
        if (!handshake.begin()) {
            reply(std::nullopt, stoppedError());
            return false;
        }
        if (!request()) {
            handshake.abandon();
            reply(std::nullopt, error);
            return false;
        }
        switch (handshake.await(options.waitLimit)) {
            case Handshake::Outcome::woken:
                return true;
            case Handshake::Outcome::cancelled:
                reply(boost::json::object(), error);
                return false;
            case Handshake::Outcome::stopped:
                reply(std::nullopt, stoppedError());
                return false;
            case Handshake::Outcome::timedOut:
                break;
        }
        reply(std::nullopt, timedOutError());
        return false;
    };

    if (!environment.isSignInApplicationRunning()) {
        // A port held from before belongs to an earlier process of the sign-in application.
        {
            std::lock_guard lock(sendMutex);
            sendingPort.reset();
        }
        // Wait for "signInLaunched" (or an error the sign-in application reports instead).
        if (!requestAndWait([&] { return launch(&error); })) {
            return;
        }
        error = state->deliveredError();
    }

    // After an error reported while starting, the sign-in is not asked for; the job still waits
    // for the next event and answers with whatever stands then.
    boost::json::object argument;
    argument["identifier"] = job.url.host_address();
    argument["name"] = job.username;
    const boost::json::value showSignIn(std::move(argument));
    if (!requestAndWait([&] { return error || sendMessage("showSignIn:", showSignIn, &error); })) {
        return;
    }

    auto [response, deliveredError] = state->delivered();
    error = std::move(deliveredError);
    if (!response) {
        reply(std::nullopt, std::move(error));
        return;
    }
    if (response->empty()) {
        reply(boost::json::object(), std::move(error));
        return;
    }
    const std::unique_ptr<VTHost> host = factory ? factory(job.url, job.type) : nullptr;
    std::optional<boost::json::object> user =
        host ? host->userWithToken(*response, &error) : std::nullopt;
    if (!user) {
        reply(std::nullopt, std::move(error));
        return;
    }
    boost::json::object result;
    result["VTHostToken"] = std::move(*response);
    result["VTHostUserKey"] = std::move(*user);
    reply(std::move(result), std::move(error));
}

bool VTSignInFlow::Impl::openReceivingPort(VTError* error) {
    if (receivingPort) {
        VTSetError(error, VTError());
        return true;
    }
    std::string reason;
    if (std::optional<std::string> group =
            vt::signin::applicationGroup(options.executable, &reason)) {
        if (std::optional<LocalMessagePort> port = LocalMessagePort::create(*group + ".Host")) {
            auto shared = std::make_shared<LocalMessagePort>(std::move(*port));
            std::weak_ptr<SignInState> weakState = state;
            environment.watchDescriptor(shared->fd(), [shared, weakState] {
                try {
                    // Read everything waiting, so that the main loop does not call again for a
                    // datagram already seen; after the flow is gone the data is only drained.
                    while (std::optional<std::string> datagram = shared->receive()) {
                        if (std::shared_ptr<SignInState> live = weakState.lock()) {
                            live->receive(*datagram);
                        }
                    }
                } catch (...) {
                    // A message that cannot be handled is dropped.
                }
            });
            receivingPort = std::move(shared);
            VTSetError(error, VTError());
            return true;
        }
        reason = kNoReceivingPort;
    }
    VTSetError(error, signInError(reason));
    return false;
}

bool VTSignInFlow::Impl::launch(VTError* error) {
    int number = 0;
    std::optional<std::filesystem::path> program =
        vt::signin::signInApplicationPath(options.executable, &number);
    std::optional<pid_t> child =
        program ? vt::signin::launchDetached(*program, &number) : std::nullopt;
    if (!child) {
        VTSetError(error,
                   VTError(VTPOSIXErrorDomain, number, std::system_category().message(number)));
        return false;
    }
    launched.push_back(*child);
    VTSetError(error, VTError());
    return true;
}

bool VTSignInFlow::Impl::sendMessage(std::string_view selector,
                                     const std::optional<boost::json::value>& argument,
                                     VTError* error) {
    std::string reason;
    {
        std::lock_guard lock(sendMutex);
        if (!sendingPort) {
            if (std::optional<std::string> group =
                    vt::signin::applicationGroup(options.executable, &reason)) {
                sendingPort = RemoteMessagePort::connect(*group + ".SignIn");
            }
        }
        if (!sendingPort) {
            if (reason.empty()) {
                reason = kNoSendingPort;
            }
        } else {
            const std::string data = vt::signin::encodeMessage(selector, argument);
            if (data.size() > vt::signin::kMaximumMessageSize) {
                reason = kNotArchived;
            } else if (const int status = sendingPort->send(data, kSendTimeout);
                       status != vt::signin::kMessagePortSuccess) {
                reason =
                    "There was an error sending message, status " + std::to_string(status) + ".";
                // Nobody reads that port any more; the next message connects afresh.
                if (status == vt::signin::kMessagePortIsInvalid) {
                    sendingPort.reset();
                }
            }
        }
    }
    if (!reason.empty()) {
        VTSetError(error, VTError(VTGitErrorDomain, -2, kSendFailure, reason));
        return false;
    }
    VTSetError(error, VTError());
    return true;
}

void VTSignInFlow::Impl::reapLaunched() {
    std::erase_if(launched, [](pid_t child) { return vt::signin::reapIfEnded(child); });
}

VTSignInFlow::VTSignInFlow(VTSignInEnvironment& environment, VTHostFactory factory,
                           VTSignInOptions options)
    : impl_(std::make_unique<Impl>(environment, std::move(factory), std::move(options))) {}

VTSignInFlow::~VTSignInFlow() {
    std::deque<Impl::Job> pending;
    {
        std::lock_guard lock(impl_->queueMutex);
        impl_->stopping = true;
        pending.swap(impl_->jobs);
    }
    impl_->queueChanged.notify_all();
    impl_->state->handshake.stop();
    impl_->worker.join();
    for (Impl::Job& job : pending) {
        ReplyOnce(std::move(job.reply))(std::nullopt, stoppedError());
    }
    impl_->reapLaunched();
}

void VTSignInFlow::signIn(const VTUrl& url, std::int64_t type, const std::string& username,
                          Reply reply) {
    // A sign-in that still waits gives way to this one: it answers with the empty dictionary.
    impl_->state->handshake.cancel();
    bool queued = false;
    {
        std::lock_guard lock(impl_->queueMutex);
        if (!impl_->stopping) {
            impl_->jobs.push_back(Impl::Job{url, type, username, std::move(reply)});
            queued = true;
        }
    }
    if (!queued) {
        ReplyOnce(std::move(reply))(std::nullopt, stoppedError());
        return;
    }
    impl_->queueChanged.notify_one();
}

void VTSignInFlow::handleNotificationMessage(std::string_view text) {
    boost::json::stream_parser parser;
    boost::json::error_code failure;
    std::size_t offset = parser.write(text.data(), text.size(), failure);
    if (!failure) {
        parser.finish(failure);
        offset = text.size();
    }
    if (failure) {
        impl_->state->showError(VTError(VTJSONErrorDomain, 3840,
                                        failure.message() + " at byte " + std::to_string(offset)));
        return;
    }
    const boost::json::value message = parser.release();
    const boost::json::object* object = message.if_object();
    if (object == nullptr) {
        return;
    }
    const boost::json::value* selector = object->if_contains("VTMessageSelector");
    if (selector == nullptr || !selector->is_string() || selector->get_string() != "showError:") {
        return;
    }
    const boost::json::value* argument = object->if_contains("VTMessageArgument");
    boost::json::object userInfo;
    if (argument != nullptr && argument->is_object()) {
        userInfo = argument->get_object();
    }
    impl_->state->showError(VTError(VTGitErrorDomain, -2, std::move(userInfo)));
}

bool VTSignInFlow::quit(VTError* error) {
    return impl_->sendMessage("quit", std::nullopt, error);
}
