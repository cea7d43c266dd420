// The hosts service end to end against a GitHub 20 ms away (bench/support/end_to_end.h says what
// is measured).
//
// ListPullRequests: 1,000 open pull requests, ten pages of 100.
// LoadConversation: 120 assignees, 30 labels, 60 comments and 250 commits: one request and four
// follow-ups.

#include "end_to_end.h"
#include "samplehosts/sample_github.h"

#include <benchmark/benchmark.h>

#include <memory>
#include <stdexcept>
#include <string>

namespace {

struct World {
    vt::sample::SampleGitHub github{{.pullRequests = 1000,
                                     .assignees = 120,
                                     .labels = 30,
                                     .comments = 60,
                                     .commits = 250,
                                     .sshKeys = 3,
                                     .delay = std::chrono::milliseconds(20)}};
    vt::bench::EndToEnd service{github.host(), github.connectTo()};
    const VTToken token{{"token_type", "Bearer"},
                        {"access_token", std::string(vt::sample::kSampleGitHubToken)}};
};
std::unique_ptr<World> world;

void ListPullRequests(benchmark::State& state) {
    world->service.runListPullRequests(state, std::string(vt::sample::kSampleGitHubRepository), 1,
                                       world->token, 1000);
}
BENCHMARK(ListPullRequests)->UseManualTime()->Iterations(15)->Unit(benchmark::kMillisecond);

void LoadConversation(benchmark::State& state) {
    VTPullRequest pullRequest;
    pullRequest.remoteUrl = std::string(vt::sample::kSampleGitHubRepository);
    pullRequest.hostType = 1;
    pullRequest.number = world->github.newestPullRequest();
    pullRequest.author = "aiko-tanaka";
    pullRequest.date = "2024-06-19T04:30:00Z";
    world->service.runLoadConversation(
        state, pullRequest, world->token, [](const boost::json::array& items) {
            if (items.size() < 60 || items.front().at("assignees").as_array().size() != 120) {
                throw std::runtime_error("the conversation is not the whole pull request");
            }
        });
}
BENCHMARK(LoadConversation)->UseManualTime()->Iterations(25)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    return vt::bench::runEndToEnd(argc, argv, world);
}
