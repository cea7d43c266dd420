// The hosts service end to end against a GitHub 20 ms away (see bench/support/end_to_end.h for
// what is measured).
//
// ListPullRequests: 1,000 open pull requests, ten pages of 100.
// LoadConversation: 120 assignees, 30 labels, 60 comments and 250 commits: one request and four
// follow-ups.

#include "end_to_end.h"
#include "records/records.h"
#include "records/wire.h"
#include "samplehosts/sample_github.h"

#include <benchmark/benchmark.h>
#include <sdbus-c++/sdbus-c++.h>

#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>

namespace {

constexpr std::int64_t kGitHub = 1;

struct World {
    vt::sample::SampleGitHub github{{.pullRequests = 1000,
                                     .assignees = 120,
                                     .labels = 30,
                                     .comments = 60,
                                     .commits = 250,
                                     .sshKeys = 3,
                                     .delay = std::chrono::milliseconds(20)}};
    vt::bench::EndToEnd endToEnd{github.host(), {{"VELDTRACK_CONNECT_TO", github.connectTo()}}};
    const VTToken token{{"token_type", "Bearer"},
                        {"access_token", std::string(vt::sample::kSampleGitHubToken)}};
};
std::unique_ptr<World> world;

void ListPullRequests(benchmark::State& state) {
    world->endToEnd.listPullRequests(state, "ListPullRequests",
                                     std::string(vt::sample::kSampleGitHubRepository), kGitHub,
                                     world->token, 1000, "pull requests");
}
BENCHMARK(ListPullRequests)->UseManualTime()->Iterations(15)->Unit(benchmark::kMillisecond);

void LoadConversation(benchmark::State& state) {
    VTPullRequest pullRequest;
    pullRequest.remoteUrl = std::string(vt::sample::kSampleGitHubRepository);
    pullRequest.hostType = kGitHub;
    pullRequest.number = world->github.newestPullRequest();
    pullRequest.author = "aiko-tanaka";
    pullRequest.date = "2024-06-19T04:30:00Z";
    const boost::json::object record = pullRequest.toValue();
    world->endToEnd.loadConversation(
        state, "LoadConversation", record, world->token, [](const boost::json::object& reply) {
            const auto& items = reply.at("conversation").as_array();
            if (items.size() < 60 || items.front().at("assignees").as_array().size() != 120) {
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
                call << std::string(vt::sample::kSampleGitHubRepository) << std::int64_t{0};
                vt::wire::appendDictionary(call, world->token);
            });
            return world->endToEnd;
        },
        [] { world.reset(); });
}
