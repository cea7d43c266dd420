#include "harness.h"

#include "records/wire.h"
#include "service/bus_names.h"

#include <algorithm>
#include <cstdlib>
#include <stdexcept>

#include <sys/socket.h>

namespace vt::test {

namespace {

constexpr std::uint64_t kCallTimeoutMicroseconds =
    std::chrono::duration_cast<std::chrono::microseconds>(kPatience).count();

boost::json::array bytes(const VTData& data) {
    boost::json::array array;
    for (std::uint8_t byte : data) {
        array.emplace_back(static_cast<std::int64_t>(byte));
    }
    return array;
}

class TestHost final : public VTHost {
public:
    TestHost(TestAdapters& adapters, const VTUrl& url, std::int64_t type)
        : adapters_(adapters), url_(url.buffer()), type_(type) {}

    std::optional<boost::json::object> userWithToken(const VTToken& token,
                                                     VTError* error) override {
        VTToken copy = token;
        return begin("userWithToken", copy, {}, error) ? std::optional(behaviour().user)
                                                       : std::nullopt;
    }
    std::optional<boost::json::object> repositoriesWithToken(VTToken& token,
                                                             VTError* error) override {
        if (!begin("repositoriesWithToken", token, {}, error)) {
            return std::nullopt;
        }
        return boost::json::object{
            {"octocat", {{"name", "The Octocat"}, {"repositories", boost::json::array()}}}};
    }
    std::optional<std::vector<std::string>> createRepositoryWithToken(
        VTToken& token, const boost::json::object& ns, const std::string& slug,
        const std::string& name, const std::string& description, std::int64_t visibility,
        VTError* error) override {
        if (!begin("createRepositoryWithToken", token, {ns, slug, name, description, visibility},
                   error)) {
            return std::nullopt;
        }
        return behaviour().createdAddresses;
    }
    std::optional<boost::json::array> sshKeysWithToken(VTToken& token, VTError* error) override {
        if (!begin("sshKeysWithToken", token, {}, error)) {
            return std::nullopt;
        }
        return boost::json::array{boost::json::object{{"title", "laptop"}, {"id", 1}}};
    }
    bool addSshKey(const std::string& key, const std::string& title, VTToken& token,
                   VTError* error) override {
        return begin("addSshKey", token, {key, title}, error);
    }
    bool deleteSshKey(const boost::json::value& keyIdentifier, VTToken& token,
                      VTError* error) override {
        return begin("deleteSshKey", token, {keyIdentifier}, error);
    }
    std::optional<boost::json::object> profileWithToken(VTToken& token, VTError* error) override {
        if (!begin("profileWithToken", token, {}, error)) {
            return std::nullopt;
        }
        return boost::json::object{{"email", "octocat@github.test"}};
    }
    bool isPrivateRepositoryAtUrl(const VTUrl& url, VTToken& token, VTError* error) override {
        return begin("isPrivateRepositoryAtUrl", token, {url.buffer()}, error);
    }
    std::optional<std::vector<std::string>> forksForUrl(const VTUrl& url, VTToken& token,
                                                        VTError* error) override {
        if (!begin("forksForUrl", token, {url.buffer()}, error)) {
            return std::nullopt;
        }
        if (behaviour().forks) {
            return behaviour().forks(url);
        }
        return std::vector<std::string>{"fork of " + std::string(url.buffer())};
    }
    std::optional<std::vector<VTPullRequest>> pullRequestsWithUrl(const VTUrl& url, VTToken& token,
                                                                  VTError* error) override {
        if (!begin("pullRequestsWithUrl", token, {url.buffer()}, error)) {
            return std::nullopt;
        }
        return std::vector<VTPullRequest>{samplePullRequest(type_)};
    }
    std::optional<VTConversation> commentsForPullRequest(VTPullRequest& pullRequest, VTToken& token,
                                                         VTError* error) override {
        if (!begin("commentsForPullRequest", token, {pullRequest.toValue()}, error)) {
            return std::nullopt;
        }
        if (!behaviour().conversation.empty()) {
            return behaviour().conversation;
        }
        return VTConversation{pullRequest, true};
    }
    bool createPullRequestWithUrl(const VTUrl& url, const std::string& baseRefName,
                                  const std::string& headRefName, const std::string& title,
                                  const std::string& comment, VTToken& token,
                                  VTError* error) override {
        return begin("createPullRequestWithUrl", token,
                     {url.buffer(), baseRefName, headRefName, title, comment}, error);
    }
    bool editPullRequest(const VTPullRequest& pullRequest, const std::string& comment,
                         VTToken& token, VTError* error) override {
        return begin("editPullRequest", token, {pullRequest.toValue(), comment}, error);
    }
    bool addComment(const std::string& comment, const VTPullRequest& pullRequest, VTToken& token,
                    VTError* error) override {
        return begin("addComment", token, {comment, pullRequest.toValue()}, error);
    }
    bool replyTo(const std::string& commentIdentifier, const std::string& comment,
                 const VTPullRequest& pullRequest, VTToken& token, VTError* error) override {
        return begin("replyTo", token, {commentIdentifier, comment, pullRequest.toValue()}, error);
    }
    bool editComment(const std::string& commentIdentifier, const std::string& newComment,
                     const VTPullRequest& pullRequest, VTToken& token, VTError* error) override {
        return begin("editComment", token, {commentIdentifier, newComment, pullRequest.toValue()},
                     error);
    }
    bool deleteComment(const std::string& commentIdentifier, const VTPullRequest& pullRequest,
                       VTToken& token, VTError* error) override {
        return begin("deleteComment", token, {commentIdentifier, pullRequest.toValue()}, error);
    }
    bool mergePullRequest(const VTPullRequest& pullRequest, std::int64_t method, const VTData& oid,
                          const std::string& message, VTToken& token, VTError* error) override {
        return begin("mergePullRequest", token,
                     {pullRequest.toValue(), method, bytes(oid), message}, error);
    }
    bool closePullRequest(const VTPullRequest& pullRequest, VTToken& token,
                          VTError* error) override {
        return begin("closePullRequest", token, {pullRequest.toValue()}, error);
    }

private:
    const Behaviour& behaviour() const { return adapters_.behaviour; }

    // Records the call and plays the behaviour; false when the operation is to fail.
    bool begin(const char* operation, VTToken& token, boost::json::array arguments,
               VTError* error) {
        AdapterCall call{operation, url_, type_, token, std::move(arguments)};
        adapters_.record(call);
        if (behaviour().onCall) {
            behaviour().onCall(call);
        }
        if (behaviour().throws) {
            throw std::runtime_error("the test adapter throws");
        }
        if (behaviour().onToken) {
            behaviour().onToken(token);
        }
        if (behaviour().failure) {
            VTSetError(error, behaviour().failure);
            return false;
        }
        return true;
    }

    TestAdapters& adapters_;
    const std::string url_;
    const std::int64_t type_;
};

}  // namespace

bool eventually(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return condition();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

void Gates::arriveAndWait(const std::string& name) {
    std::unique_lock lock(mutex_);
    log_.push_back("enter " + name);
    changed_.notify_all();
    changed_.wait(lock, [&] { return open_.count(name) > 0; });
    log_.push_back("leave " + name);
}

bool Gates::waitUntilArrived(const std::string& name, std::size_t times) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kPatience, [&] {
        return static_cast<std::size_t>(std::count(log_.begin(), log_.end(), "enter " + name)) >=
               times;
    });
}

void Gates::open(const std::string& name) {
    std::lock_guard lock(mutex_);
    open_.insert(name);
    changed_.notify_all();
}

long Gates::position(const std::string& entry) {
    std::lock_guard lock(mutex_);
    return indexOf(entry);
}

long Gates::indexOf(const std::string& entry) const {
    for (std::size_t index = 0; index < log_.size(); ++index) {
        if (log_[index] == entry) {
            return static_cast<long>(index);
        }
    }
    return -1;
}

VTHostFactory TestAdapters::factory() {
    return [this](const VTUrl& url, std::int64_t type) -> std::unique_ptr<VTHost> {
        {
            std::lock_guard lock(mutex_);
            built_.emplace_back(url.buffer(), type);
        }
        if (type < 1 || type > 3) {
            return nullptr;
        }
        return std::make_unique<TestHost>(*this, url, type);
    };
}

std::vector<AdapterCall> TestAdapters::calls() const {
    std::lock_guard lock(mutex_);
    return calls_;
}

std::vector<std::pair<std::string, std::int64_t>> TestAdapters::built() const {
    std::lock_guard lock(mutex_);
    return built_;
}

void TestAdapters::record(AdapterCall call) {
    std::lock_guard lock(mutex_);
    calls_.push_back(std::move(call));
}

namespace {

// A connection whose socket holds little, as an unprivileged process's does (the bus library asks
// for more than such a process is allowed), so that large replies take several rounds of the
// service's loop to write.
std::unique_ptr<sdbus::IConnection> narrowConnection() {
    auto connection = sdbus::createSessionBusConnection();
    const int size = 64 * 1024;
    ::setsockopt(connection->getEventLoopPollData().fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    return connection;
}

}  // namespace

InProcessService::InProcessService(VTBusServiceOptions options)
    : service_(std::make_unique<VTBusService>(narrowConnection(), std::move(options))),
      thread_([this] { service_->run(); }) {}

InProcessService::~InProcessService() {
    service_->stop();
    thread_.join();
}

Client::Client()
    : connection_(sdbus::createSessionBusConnection()),
      proxy_(sdbus::createProxy(*connection_, vt::bus::kServiceName, vt::bus::kObjectPath)) {
    connection_->enterEventLoopAsync();
}

Client::~Client() {
    connection_->leaveEventLoop();
}

sdbus::MethodCall Client::newCall(const std::string& member) {
    return proxy_->createMethodCall(vt::bus::kRequestInterface, member);
}

std::future<Outcome> Client::send(sdbus::MethodCall& message) {
    auto promise = std::make_shared<std::promise<Outcome>>();
    std::future<Outcome> future = promise->get_future();
    proxy_->callMethod(
        message,
        [promise](sdbus::MethodReply& reply, const sdbus::Error* error) {
            Outcome outcome;
            if (error != nullptr) {
                outcome.errorName = error->getName();
                outcome.errorMessage = error->getMessage();
            } else {
                boost::json::object dictionary;
                std::string fault;
                if (vt::wire::readDictionary(reply, dictionary, &fault)) {
                    outcome.reply = std::move(dictionary);
                } else {
                    outcome.errorName = "unreadable reply";
                    outcome.errorMessage = fault;
                }
            }
            promise->set_value(std::move(outcome));
        },
        kCallTimeoutMicroseconds);
    return future;
}

void Client::append(sdbus::Message& message, const std::string& text) {
    message << text;
}

void Client::append(sdbus::Message& message, const char* text) {
    message << text;
}

void Client::append(sdbus::Message& message, std::int64_t number) {
    message << number;
}

void Client::append(sdbus::Message& message, const boost::json::object& dictionary) {
    vt::wire::appendDictionary(message, dictionary);
}

void Client::append(sdbus::Message& message, const AnyValue& value) {
    vt::wire::appendVariant(message, value.value);
}

void Client::append(sdbus::Message& message, const VTData& bytes) {
    message << bytes;
}

void Client::append(sdbus::Message& message, const std::vector<std::string>& texts) {
    message << texts;
}

void Client::append(sdbus::Message& message, const std::vector<std::int64_t>& numbers) {
    message << numbers;
}

void Client::append(sdbus::Message& message, const std::vector<boost::json::object>& list) {
    message.openContainer("a{sv}");
    for (const boost::json::object& dictionary : list) {
        vt::wire::appendDictionary(message, dictionary);
    }
    message.closeContainer();
}

PrivateBus::Options withoutActivation() {
    PrivateBus::Options options;
    options.activateService = false;
    return options;
}

VTBusServiceOptions optionsFor(TestAdapters& adapters, std::filesystem::path executable) {
    VTBusServiceOptions options;
    options.factory = adapters.factory();
    // Workers stay for the whole test, so that no worker's end happens to wake the service.
    options.clientIdleLimit = std::chrono::hours(1);
    options.signIn.executable = std::move(executable);
    return options;
}

VTBusServiceOptions optionsWithHostAdapters() {
    VTBusServiceOptions options;
    options.clientIdleLimit = std::chrono::hours(1);
    options.signIn.executable = "/proc/self/exe";
    return options;
}

VTPullRequest samplePullRequest(std::int64_t type) {
    VTPullRequest pullRequest;
    pullRequest.remoteUrl = "https://github.test/octocat/hello.git";
    pullRequest.hostType = type;
    pullRequest.identifier = "PR_kwDOABCD";
    pullRequest.title = "Add a greeting";
    pullRequest.number = 7;
    pullRequest.headReference = "greeting";
    pullRequest.baseReference = "main";
    return pullRequest;
}

}  // namespace vt::test
