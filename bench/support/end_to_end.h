#pragma once

// The hosts service end to end against a sample host on loopback, for the benchmarks that measure
// what the service adds to a distant host's own time: a client calls the service binary of this
// build over a private bus, the service asks the sample host and replies. Measured per call:
//   wall      from the call to its reply, at the client;
//   floor     the sum of the host's own answer times for the call's requests (from having read a
//             request to having written its answer), which no client of that host can beat;
//   overhead  wall - floor, in ms and in % of the floor: what the bus, the service, the transport
//             and the adapter add;
//   requests  how many HTTP requests the call made;
//   cpu       the service process's user + system time during the call (from /proc/PID/stat, in
//             clock ticks: the mean over all measured calls is given).
// After a few warm-up calls, each benchmark repeats its call and reports the median and the best.

#include "fakehost/fake_host.h"
#include "records/records.h"

#include <benchmark/benchmark.h>
#include <sdbus-c++/sdbus-c++.h>
#include <boost/json/object.hpp>

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

namespace vt::test {
class PrivateBus;
}

namespace vt::bench {

class EndToEnd {
public:
    // Starts a private bus whose activated services route the sample's names with `connectTo`
    // (a VELDTRACK_CONNECT_TO value), and activates the service with a call that needs no host.
    EndToEnd(fake::FakeHost& host, const std::string& connectTo);
    ~EndToEnd();
    EndToEnd(const EndToEnd&) = delete;
    EndToEnd& operator=(const EndToEnd&) = delete;

    // Fills a call's arguments; reads a reply and throws when it is not the expected one.
    using Fill = std::function<void(sdbus::MethodCall&)>;
    using Check = std::function<void(const boost::json::object&)>;

    // Warms up with a few calls of `member`, then measures one per iteration and reports the
    // figures as counters and as one line of the summary.
    void run(benchmark::State& state, const char* name, const char* member, const Fill& fill,
             const Check& check);

    // The two calls every host's benchmark makes: the open pull requests of `url`, which must
    // number `count`, and the conversation of `pullRequest`, which `check` reads.
    void runListPullRequests(benchmark::State& state, const std::string& url, std::int64_t hostType,
                             const VTToken& token, std::size_t count);
    void runLoadConversation(benchmark::State& state, const VTPullRequest& pullRequest,
                             const VTToken& token,
                             const std::function<void(const boost::json::array&)>& check);

    // One line per benchmark run, to print after Google Benchmark's own table.
    const std::vector<std::string>& summary() const { return summary_; }

private:
    struct Call;
    Call measure(const char* member, const Fill& fill, const Check& check);

    fake::FakeHost& host_;
    std::unique_ptr<test::PrivateBus> bus_;
    std::unique_ptr<sdbus::IConnection> connection_;
    std::unique_ptr<sdbus::IProxy> proxy_;
    pid_t service_ = 0;
    std::vector<std::string> summary_;
};

// The main function of an end-to-end benchmark: makes the world (which holds an EndToEnd named
// `service`), runs the registered benchmarks on it, prints the summary and drops the world.
template <typename World>
int runEndToEnd(int argc, char** argv, std::unique_ptr<World>& world) {
    benchmark::Initialize(&argc, argv);
    world = std::make_unique<World>();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    for (const std::string& line : world->service.summary()) {
        std::cout << line << "\n";
    }
    world.reset();
    return 0;
}

}  // namespace vt::bench
