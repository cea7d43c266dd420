// The hosts service end to end against a Bitbucket 20 ms away (bench/support/end_to_end.h says
// what is measured).
//
// ListPullRequests: 200 open pull requests, four pages of 50.
// LoadConversation: the user, the details, a diffstat of three pages of 200 files, 120 comments
// (threaded, some deleted) in three pages of 50 and 250 commits in three pages of 100.

#include "end_to_end.h"
#include "samplehosts/sample_bitbucket.h"

#include <benchmark/benchmark.h>

#include <memory>
#include <stdexcept>
#include <string>

namespace {

struct World {
    vt::sample::SampleBitbucket bitbucket{{.pullRequests = 200,
                                           .comments = 120,
                                           .commits = 250,
                                           .diffstatFiles = 500,
                                           .delay = std::chrono::milliseconds(20)}};
    vt::bench::EndToEnd service{bitbucket.host(), bitbucket.connectTo()};
    const VTToken token{{"token_type", "Bearer"},
                        {"access_token", std::string(vt::sample::kSampleBitbucketToken)}};
};
std::unique_ptr<World> world;

void ListPullRequests(benchmark::State& state) {
    world->service.runListPullRequests(state, std::string(vt::sample::kSampleBitbucketRepository),
                                       3, world->token, 200);
}
BENCHMARK(ListPullRequests)->UseManualTime()->Iterations(15)->Unit(benchmark::kMillisecond);

void LoadConversation(benchmark::State& state) {
    VTPullRequest pullRequest;
    pullRequest.remoteUrl = std::string(vt::sample::kSampleBitbucketRepository);
    pullRequest.hostType = 3;
    // The newest has no conflict, so the whole diffstat is read.
    pullRequest.number = world->bitbucket.newestPullRequest();
    pullRequest.identifier = std::to_string(*pullRequest.number);
    pullRequest.author = "priya-nair";
    pullRequest.date = "2024-09-11T03:15:00+0000";
    world->service.runLoadConversation(
        state, pullRequest, world->token, [](const boost::json::array& items) {
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
    return vt::bench::runEndToEnd(argc, argv, world);
}
