// The hosts service end to end against a GitLab 20 ms away (see bench/support/end_to_end.h for
// what is measured).
//
// ListMergeRequests: 300 open merge requests, three pages of 100.
// LoadConversation: 120 assignees, 30 labels, 120 discussions (one thread of 80 notes) and 250
// commits (one a merge commit): the detail query and its GraphQL follow-ups (assignees, the long
// thread's notes, two more pages of discussions, two more of commits) and three REST pages of
// commits.

#include "end_to_end.h"
#include "records/records.h"
#include "records/wire.h"
#include "samplehosts/sample_gitlab.h"

#include <benchmark/benchmark.h>
#include <sdbus-c++/sdbus-c++.h>

#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>

namespace {

constexpr std::int64_t kGitLab = 2;

struct World {
    vt::sample::SampleGitLab gitlab{{.mergeRequests = 300,
                                     .assignees = 120,
                                     .labels = 30,
                                     .discussions = 120,
                                     .longThread = 80,
                                     .commits = 250,
                                     .sshKeys = 3,
                                     .delay = std::chrono::milliseconds(20)}};
    vt::bench::EndToEnd endToEnd{gitlab.host(), {{"VELDTRACK_CONNECT_TO", gitlab.connectTo()}}};
    // The sample's personal token: it never expires, so no call renews it on the way.
    const VTToken token{{"token_type", "Bearer"},
                        {"access_token", std::string(vt::sample::kSampleGitLabToken)}};
};
std::unique_ptr<World> world;

void ListMergeRequests(benchmark::State& state) {
    world->endToEnd.listPullRequests(state, "ListMergeRequests",
                                     std::string(vt::sample::kSampleGitLabProject), kGitLab,
                                     world->token, 300, "merge requests");
}
BENCHMARK(ListMergeRequests)->UseManualTime()->Iterations(15)->Unit(benchmark::kMillisecond);

void LoadConversation(benchmark::State& state) {
    VTPullRequest mergeRequest;
    mergeRequest.remoteUrl = std::string(vt::sample::kSampleGitLabProject);
    mergeRequest.hostType = kGitLab;
    mergeRequest.number = world->gitlab.newestMergeRequest();
    mergeRequest.author = "yusuf-demir";
    mergeRequest.date = "2024-09-11T07:10:00Z";
    const boost::json::object record = mergeRequest.toValue();
    world->endToEnd.loadConversation(
        state, "LoadConversation", record, world->token, [](const boost::json::object& reply) {
            const auto& items = reply.at("conversation").as_array();
            std::size_t notes = 0;
            for (const auto& item : items) {
                if (const auto* comment = item.if_object();
                    comment != nullptr && comment->contains("comments")) {
                    notes += 1 + comment->at("comments").as_array().size();
                }
            }
            // Heads and replies of the discussions that are not system notes.
            if (items.front().at("assignees").as_array().size() != 120 ||
                items.front().at("labels").as_array().size() != 30 || notes < 150) {
                throw std::runtime_error("the conversation is not the whole merge request");
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
                call << std::string(vt::sample::kSampleGitLabProject) << std::int64_t{0};
                vt::wire::appendDictionary(call, world->token);
            });
            return world->endToEnd;
        },
        [] { world.reset(); });
}
