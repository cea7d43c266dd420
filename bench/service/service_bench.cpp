// The hosts service's own costs, apart from any host: a trivial request's round trip from one
// client and from eight at once, cold activation to the first reply, the idle resident set, and
// marshalling a 2,000-item conversation into a reply message.
//
// Runs the service binary of this build on a private bus. The trivial request is
// GetPrivacyWithUrl with host type 0, which has no adapter: the service checks the arguments,
// queues the request on the client's worker, and answers {"private": false}.

#include "private_bus.h"
#include "records/records.h"
#include "service/bus_names.h"
#include "service/reply.h"
#include "statistics.h"

#include <benchmark/benchmark.h>
#include <sdbus-c++/sdbus-c++.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using vt::bench::median;

using Clock = std::chrono::steady_clock;

std::unique_ptr<vt::test::PrivateBus> sharedBus;

// Calls the trivial request once and waits for its reply.
void trivialRequest(sdbus::IProxy& proxy) {
    auto call = proxy.createMethodCall(vt::bus::kRequestInterface, "GetPrivacyWithUrl");
    call << std::string("https://github.com/octocat/hello.git") << std::int64_t{0};
    call.openContainer("{sv}");
    call.closeContainer();
    auto reply = proxy.callMethod(call);
    benchmark::DoNotOptimize(reply);
}

std::unique_ptr<sdbus::IProxy> serviceProxy(sdbus::IConnection& connection) {
    return sdbus::createProxy(connection, vt::bus::kServiceName, vt::bus::kObjectPath);
}

// One client or several (one thread and one connection each) sending trivial requests back to
// back. Counters: requests per second over all clients, and the median round trip.
void TrivialRoundTrip(benchmark::State& state) {
    auto connection = sharedBus->connect();
    auto proxy = serviceProxy(*connection);
    trivialRequest(*proxy);  // the service runs and this client has its worker
    std::vector<double> microseconds;
    microseconds.reserve(1 << 16);
    for (auto _ : state) {
        const auto start = Clock::now();
        trivialRequest(*proxy);
        microseconds.push_back(
            std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    }
    state.counters["requests_per_s"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
    state.counters["median_us"] =
        benchmark::Counter(median(std::move(microseconds)), benchmark::Counter::kAvgThreads);
}
BENCHMARK(TrivialRoundTrip)->Threads(1)->Threads(8)->UseRealTime()->MinTime(2.0);

// From the first call on a bus where the service does not run yet to its reply: the daemon starts
// the binary, which exports its interface and takes its name, then answers.
void ColdActivation(benchmark::State& state) {
    for (auto _ : state) {
        vt::test::PrivateBus bus;
        auto connection = bus.connect();
        auto proxy = serviceProxy(*connection);
        const auto start = Clock::now();
        trivialRequest(*proxy);
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
    }
}
BENCHMARK(ColdActivation)->UseManualTime()->Iterations(20)->Unit(benchmark::kMillisecond);

// The service's resident set after it has answered a few hundred requests and gone quiet.
void IdleResidentSet(benchmark::State& state) {
    vt::test::PrivateBus bus;
    auto connection = bus.connect();
    auto proxy = serviceProxy(*connection);
    for (int index = 0; index < 500; ++index) {
        trivialRequest(*proxy);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const auto pid = bus.ownerPid(vt::bus::kServiceName);
    double kilobytes = 0;
    std::ifstream status("/proc/" + std::to_string(pid.value_or(0)) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmRSS:", 0) == 0) {
            kilobytes = std::stod(line.substr(6));
        }
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(kilobytes);
    }
    state.counters["rss_kB"] = kilobytes;
}
BENCHMARK(IdleResidentSet)->Iterations(1);

// A conversation of 2,000 items: the pull request, then 1,998 comments and, last, `true`. With
// `mixed`, as a busy pull request's: every second item a commit group of two commits instead of a
// comment, and every third comment with a reply.
VTConversation largeConversation(bool mixed) {
    VTPullRequest pullRequest;
    pullRequest.remoteUrl = "https://github.com/octocat/hello.git";
    pullRequest.hostType = 1;
    pullRequest.identifier = "PR_kwDOABCD";
    pullRequest.title = "Add a greeting";
    pullRequest.number = 7;
    VTConversation conversation{pullRequest};
    for (int index = 1; index < 1999; ++index) {
        const std::string number = std::to_string(index);
        if (mixed && index % 2 == 0) {
            VTPullRequestCommits group;
            for (int commit = 0; commit < 2; ++commit) {
                VTPullRequestCommit item;
                item.author = "octocat";
                item.avatarUrl = "https://avatars.github.com/u/1";
                item.oid = std::string(40, 'a');
                item.date = "2024-05-01T10:00:00Z";
                item.message = "Change " + number;
                group.addCommit(item);
            }
            conversation.emplace_back(group);
        } else {
            VTPullRequestComment comment;
            comment.identifier = "IC_" + number;
            comment.author = "octocat";
            comment.avatarUrl = "https://avatars.github.com/u/1";
            comment.date = "2024-05-01T10:00:00Z";
            comment.editable = true;
            comment.content = "A comment of a few words, number " + number + ".";
            if (mixed && index % 3 == 0) {
                VTPullRequestComment reply = comment;
                reply.identifier = "RC_" + number;
                reply.replyTo = comment.identifier;
                comment.comments = std::vector<VTPullRequestComment>{reply};
            }
            conversation.emplace_back(comment);
        }
    }
    conversation.emplace_back(true);
    return conversation;
}

void MarshalConversation(benchmark::State& state) {
    auto connection = sharedBus->connect();
    auto proxy = serviceProxy(*connection);
    VTReplyDictionary reply;
    reply.setConversation("conversation", largeConversation(state.range(0) != 0));
    for (auto _ : state) {
        auto message = proxy->createMethodCall(vt::bus::kRequestInterface, "Marshal");
        reply.appendTo(message);
        benchmark::DoNotOptimize(message);
    }
    state.counters["items"] = 2000;
}
BENCHMARK(MarshalConversation)->ArgName("mixed")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    sharedBus = std::make_unique<vt::test::PrivateBus>();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    sharedBus.reset();
    return 0;
}
