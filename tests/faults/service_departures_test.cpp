// A client that leaves the bus with requests queued: the reads it asked for are dropped without
// reaching the host, the actions (and the sign-in) it asked for still run, and the request already
// running finishes.

#include "service_faults.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>

namespace {

using namespace vt::test;

const VTToken kToken{{"token_type", "Bearer"}, {"access_token", "first"}};

// What a request to the fake GitHub asked for.
std::string kindOf(const vt::fake::Request& request) {
    if (request.target == "/user/keys") {
        return "add key";
    }
    if (request.body.find("pullRequests(") != std::string::npos) {
        return "list";
    }
    if (request.body.find("viewer") != std::string::npos) {
        return "sign-in";
    }
    return "other: " + request.target + " " + request.body;
}

class Departures : public ServiceAgainstFakeGitHub {
protected:
    void SetUp() override {
        // Every request is answered; the lists wait until the test lets them go.
        fake.setHandler([this](const vt::fake::Request& request) {
            const std::string kind = kindOf(request);
            if (kind == "add key") {
                return vt::fake::Response::json(R"({"id":1,"title":"laptop"})", 201);
            }
            if (kind == "list") {
                gates.arriveAndWait("list");
                return vt::fake::Response::json(
                    R"({"data":{"repository":{"pullRequests":{"nodes":[],)"
                    R"("pageInfo":{"endCursor":null,"hasNextPage":false}}}}})");
            }
            return vt::fake::Response::json(R"({"data":{"viewer":{"login":"octocat"}}})");
        });
    }

    void TearDown() override {
        gates.open("list");
        ServiceAgainstFakeGitHub::TearDown();
    }

    std::map<std::string, int> requestsByKind() const {
        std::map<std::string, int> kinds;
        for (const vt::fake::Request& request : fake.requests()) {
            ++kinds[kindOf(request)];
        }
        return kinds;
    }
};

TEST_F(Departures, QueuedReadsOfALeavingClientNeverReachTheHostWhileItsActionsDo) {
    auto leaving = std::make_unique<Client>();
    Client staying;
    std::vector<std::future<Outcome>> unanswered;
    unanswered.push_back(
        leaving->callAsync("GetPullRequestsWithUrl", kRemote, std::int64_t{1}, kToken));
    std::vector<std::future<Outcome>> stayingCalls;
    stayingCalls.push_back(
        staying.callAsync("GetPullRequestsWithUrl", kRemote, std::int64_t{1}, kToken));
    ASSERT_TRUE(gates.waitUntilArrived("list", 2));
    stayingCalls.push_back(
        staying.callAsync("GetPullRequestsWithUrl", kRemote, std::int64_t{1}, kToken));
    for (int index = 0; index < 47; ++index) {
        unanswered.push_back(
            leaving->callAsync("GetPullRequestsWithUrl", kRemote, std::int64_t{1}, kToken));
        if (index == 20) {
            unanswered.push_back(leaving->callAsync("AddSshKey", "ssh-ed25519 AAAA", "laptop",
                                                    kToken, kRemote, std::int64_t{1}));
            unanswered.push_back(leaving->callAsync("SignInWithUrl", kRemote, std::int64_t{1},
                                                    "octocat", "password"));
        }
    }
    leaving.reset();
    // The service has seen the client leave once its worker is given back; the client's calls
    // all reached it before that.
    ASSERT_TRUE(eventually([this] { return service.service().clientCount() == 1; }));
    gates.open("list");
    // The client that stayed has all its reads answered.
    for (auto& future : stayingCalls) {
        const Outcome outcome = future.get();
        ASSERT_TRUE(outcome.reply) << outcome.errorName << ": " << outcome.errorMessage;
    }
    ASSERT_TRUE(eventually([this] { return !service.service().busy(); }));

    // One list of the client that left (the one running when it left), two of the one that
    // stayed.
    const std::map<std::string, int> expected{{"list", 3}, {"add key", 1}, {"sign-in", 1}};
    EXPECT_EQ(requestsByKind(), expected);
}

}  // namespace
