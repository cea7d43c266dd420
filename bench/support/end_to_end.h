#pragma once

// End-to-end benchmarks of the hosts service against a sample host: a client calls the service
// binary of this build over a private bus, the service asks the sample host (whose answers may be
// delayed like a distant host's) and replies. Measured per call:
//   wall      from the call to its reply, at the client;
//   floor     the sum of the host's own answer times for the call's requests (from having read a
//             request to having written its answer), which no client of that host can beat;
//   overhead  wall - floor, in ms and in % of the floor: what the bus, the service, the transport
//             and the adapter add;
//   requests  how many HTTP requests the call made;
//   cpu       the service process's user + system time during the call (from /proc/PID/stat, in
//             clock ticks: the mean over all measured calls is given).
// After a few warm-up calls (the first activates the service), each benchmark repeats its call
// and reports the median and the best.

#include "fakehost/fake_host.h"
#include "private_bus.h"
#include "records/values.h"

#include <benchmark/benchmark.h>
#include <sdbus-c++/sdbus-c++.h>
#include <boost/json/object.hpp>

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace vt::bench {

class EndToEnd {
public:
    using Fill = std::function<void(sdbus::MethodCall&)>;
    // Reads the reply dictionary (outside the measured time) and throws when it is not the
    // expected one.
    using Check = std::function<void(const boost::json::object&)>;

    // Starts a private bus whose activated service gets `environment` (VELDTRACK_CONNECT_TO).
    EndToEnd(fake::FakeHost& host, const std::map<std::string, std::string>& environment);
    ~EndToEnd();
    EndToEnd(const EndToEnd&) = delete;
    EndToEnd& operator=(const EndToEnd&) = delete;

    // Makes the first call, which activates the service, and finds its process.
    void activate(const char* member, const Fill& fill);
    // Warms up, then measures the call once per iteration of `state`, sets its counters and
    // keeps a summary line with the targets (<= 3 ms and <= 2 % over the floor).
    void run(benchmark::State& state, const char* name, const char* member, const Fill& fill,
             const Check& check);
    // Runs GetPullRequestsWithUrl for the open requests of `url` on the host of `hostType` and
    // checks that the list holds `expectedCount` of them (`noun` names them in the error).
    void listPullRequests(benchmark::State& state, const char* name, const std::string& url,
                          std::int64_t hostType, const VTToken& token, std::size_t expectedCount,
                          const char* noun);
    // Runs GetCommentsForPullRequest for the pull request `record`; `check` reads the reply.
    void loadConversation(benchmark::State& state, const char* name,
                          const boost::json::object& record, const VTToken& token,
                          const Check& check);
    // One line per benchmark that ran.
    const std::vector<std::string>& summary() const { return summary_; }

private:
    struct Call;
    Call measure(const char* member, const Fill& fill, const Check& check);

    fake::FakeHost& host_;
    test::PrivateBus bus_;
    std::unique_ptr<sdbus::IConnection> connection_;
    std::unique_ptr<sdbus::IProxy> proxy_;
    pid_t service_ = 0;
    std::vector<std::string> summary_;
};

// The main of an end-to-end benchmark program: reads the benchmark options, calls `start` (which
// makes the sample host and the EndToEnd, and activates the service), runs the benchmarks,
// prints the summary lines, then calls `stop`.
int runEndToEnd(int argc, char** argv, const std::function<EndToEnd&()>& start,
                const std::function<void()>& stop);

}  // namespace vt::bench
