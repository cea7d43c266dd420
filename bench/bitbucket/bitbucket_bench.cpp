// The hosts service end to end against a Bitbucket 20 ms away (see bench/support/end_to_end.h
// for what is measured).
//
// ListPullRequests: 200 open pull requests, four pages of 50.
// LoadConversation: the user, the details, a diffstat of three pages of 200 files, 120 comments
// (threaded, some deleted) in three pages of 50 and 250 commits in three pages of 100.

#include "end_to_end.h"
#include "records/records.h"
#include "records/wire.h"
#include "samplehosts/sample_bitbucket.h"

#include <benchmark/benchmark.h>
#include <sdbus-c++/sdbus-c++.h>

#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>

namespace {

constexpr std::int64_t kBitbucket = 3;

struct World {
    vt::sample::SampleBitbucket bitbucket{{.pullRequests = 200,
                                           .comments = 120,
                                           .commits = 250,
                                           .diffstatFiles = 500,
                                           .delay = std::chrono::milliseconds(20)}};
    vt::bench::EndToEnd endToEnd{bitbucket.host(),
                                 {{"VELDTRACK_CONNECT_TO", bitbucket.connectTo()}}};
    const VTToken token{{"token_type", "Bearer"},
                        {"access_token", std::string(vt::sample::kSampleBitbucketToken)}};
};
std::unique_ptr<World> world;

void ListPullRequests(benchmark::State& state) {
    world->endToEnd.listPullRequests(state, "ListPullRequests",
                                     std::string(vt::sample::kSampleBitbucketRepository),
                                     kBitbucket, world->token, 200, "pull requests");
}
BENCHMARK(ListPullRequests)->UseManualTime()->Iterations(15)->Unit(benchmark::kMillisecond);

void LoadConversation(benchmark::State& state) {
    VTPullRequest pullRequest;
    pullRequest.remoteUrl = std::string(vt::sample::kSampleBitbucketRepository);
    pullRequest.hostType = kBitbucket;
    // The newest has no conflict, so the whole diffstat is read.
    pullRequest.number = world->bitbucket.newestPullRequest();
    pullRequest.identifier = std::to_string(*pullRequest.number);
    pullRequest.author = "priya-nair";
    pullRequest.date = "2024-09-11T03:15:00+0000";
    const boost::json::object record = pullRequest.toValue();
    world->endToEnd.loadConversation(
        state, "LoadConversation", record, world->token, [](const boost::json::object& reply) {
            const auto& items = reply.at("conversation").as_array();
            // The pull request, its description, then 60 top-level comments (108 with their
            // answers) among the commit groups, and the final yes.
            if (items.size() < 63 || items.front().at("mergeable") != 0) {
                throw std::runtime_error("the conversation is not the whole pull request");
            }
        });
}
BENCHMARK(LoadConversation)->UseManualTime()->Iterations(25)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    return vt::bench::runEndToEnd(
        argc, argv,
        []() -> vt::bench::EndToEnd& {
            world = std::make_unique<World>();
            // The first call activates the service; only then does it have a process to watch.
            world->endToEnd.activate("GetPrivacyWithUrl", [](sdbus::MethodCall& call) {
                call << std::string(vt::sample::kSampleBitbucketRepository) << std::int64_t{0};
                vt::wire::appendDictionary(call, world->token);
            });
            return world->endToEnd;
        },
        [] { world.reset(); });
}
