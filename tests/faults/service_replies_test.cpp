// Replies the bus would refuse: a host's answer nested deeper than the bus carries, and one that
// makes a reply larger than a message may be. The service answers an error in their place, stays
// on the bus, and answers every other client as before.

#include "records/wire.h"
#include "service/bus_names.h"
#include "service_faults.h"

#include <gtest/gtest.h>

#include <boost/json/serialize.hpp>

#include <string>

namespace {

using namespace vt::test;

const VTToken kToken{{"token_type", "Bearer"}, {"access_token", "first"}};
VTPullRequest pullRequestSeven() {
    VTPullRequest pullRequest;
    pullRequest.remoteUrl = ServiceAgainstFakeGitHub::kRemote;
    pullRequest.hostType = 1;
    pullRequest.number = 7;
    return pullRequest;
}

// A label whose "color" is `depth` arrays, one inside the other, around the text "red".
std::string conversationAnswer(int depth) {
    const std::string color = std::string(depth, '[') + "\"red\"" + std::string(depth, ']');
    return R"({"data":{"repository":{"pullRequest":{"id":"PR_7","labels":{"nodes":[)"
           R"({"name":"bug","color":)" +
           color + R"(}]}}}}})";
}

bool isConversationQuery(const vt::fake::Request& request) {
    return request.body.find("pullRequest(number:7)") != std::string::npos;
}

// How many arrays deep `value` nests.
int arrayDepth(const boost::json::value& value) {
    int depth = 0;
    const boost::json::value* at = &value;
    while (at->is_array() && !at->as_array().empty()) {
        ++depth;
        at = &at->as_array().front();
    }
    return depth;
}

class HostileAnswers : public ServiceAgainstFakeGitHub {
protected:
    Outcome conversation() {
        return client.call("GetCommentsForPullRequest", pullRequestSeven().toValue(), kToken);
    }

    Client client;
};

// The label's color sits 12 containers deep in the reply, and every array of it takes two more
// (the array and the variant of its element): 25 arrays are the most the bus carries. Deeper
// colors answer an error in place of the conversation, and the service stays on the bus.
TEST_F(HostileAnswers, ColorsNestedBeyondTheBusLimitAnswerAnErrorAndTheServiceStays) {
    for (int depth : {1, 24, 25, 26, 27, 40, 200, 2}) {
        SCOPED_TRACE(depth);
        fake.expect(isConversationQuery, vt::fake::Response::json(conversationAnswer(depth)));
        const Outcome outcome = conversation();
        ASSERT_TRUE(outcome.reply) << outcome.errorName << ": " << outcome.errorMessage;
        if (depth <= 25) {
            ASSERT_FALSE(outcome.reply->contains("error"))
                << boost::json::serialize(*outcome.reply);
            const boost::json::value& label = outcome.reply->at("conversation")
                                                  .as_array()
                                                  .at(0)
                                                  .as_object()
                                                  .at("labels")
                                                  .as_array()
                                                  .at(0);
            EXPECT_EQ(arrayDepth(label.at("color")), depth);
            continue;
        }
        EXPECT_FALSE(outcome.reply->contains("conversation"));
        const boost::json::value* found = outcome.reply->if_contains("error");
        const std::optional<VTError> error =
            VTError::fromValue(found != nullptr ? *found : boost::json::value());
        ASSERT_TRUE(error) << boost::json::serialize(*outcome.reply);
        EXPECT_EQ(error->domain, VTHTTPErrorDomain);
        EXPECT_EQ(error->code, 200);
        EXPECT_NE(error->description().find("more than 64 levels deep"), std::string::npos)
            << error->description();
    }
}

TEST_F(HostileAnswers, AnotherClientsRequestInFlightIsAnsweredAfterADeepAnswer) {
    fake.setHandler([this](const vt::fake::Request& request) -> std::optional<vt::fake::Response> {
        if (request.body.find("isPrivate") == std::string::npos) {
            return std::nullopt;
        }
        gates.arriveAndWait("privacy");
        return vt::fake::Response::json(R"({"data":{"repository":{"isPrivate":true}}})");
    });
    fake.expect(isConversationQuery, vt::fake::Response::json(conversationAnswer(26)));

    Client other;
    std::future<Outcome> privacy =
        other.callAsync("GetPrivacyWithUrl", std::string(kRemote), std::int64_t{1}, kToken);
    ASSERT_TRUE(gates.waitUntilArrived("privacy"));
    const Outcome deep = conversation();
    gates.open("privacy");

    ASSERT_TRUE(deep.reply) << deep.errorName << ": " << deep.errorMessage;
    EXPECT_TRUE(deep.reply->contains("error"));
    const Outcome answered = privacy.get();
    ASSERT_TRUE(answered.reply) << answered.errorName << ": " << answered.errorMessage;
    EXPECT_EQ(answered.reply->at("private"), boost::json::value(true));
}

// A reply above the size of a message, from adapters of the test's own: the client gets the
// error in its place, and the token the adapter renewed on the way.
TEST(OversizedReplies, AnswerAnErrorAndKeepTheRefreshedToken) {
    PrivateBus bus{withoutActivation()};
    TestAdapters adapters;
    VTConversation conversation{samplePullRequest()};
    const std::size_t commentBytes = 1024 * 1024;
    for (std::size_t total = 0; total <= vt::wire::kMaxBodyBytes; total += commentBytes) {
        VTPullRequestComment comment;
        comment.identifier = "C_" + std::to_string(total);
        comment.content = std::string(commentBytes, 'x');
        conversation.emplace_back(std::move(comment));
    }
    adapters.behaviour.conversation = std::move(conversation);
    const VTToken renewed{{"token_type", "Bearer"}, {"access_token", "renewed"}};
    adapters.behaviour.onToken = [&renewed](VTToken& token) { token = renewed; };
    InProcessService service{optionsFor(adapters)};
    Client client;

    const Outcome outcome =
        client.call("GetCommentsForPullRequest", samplePullRequest().toValue(), kToken);
    ASSERT_TRUE(outcome.reply) << outcome.errorName << ": " << outcome.errorMessage;
    EXPECT_FALSE(outcome.reply->contains("conversation"));
    EXPECT_EQ(outcome.reply->at("refreshedToken"), boost::json::value(renewed));
    const std::optional<VTError> error = VTError::fromValue(outcome.reply->at("error"));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain, VTHTTPErrorDomain);
    EXPECT_NE(error->description().find("larger than the " +
                                        std::to_string(vt::wire::kMaxBodyBytes) + " bytes"),
              std::string::npos)
        << error->description();

    // The same service answers the next request as usual.
    adapters.behaviour.conversation.clear();
    const Outcome next =
        client.call("GetCommentsForPullRequest", samplePullRequest().toValue(), kToken);
    ASSERT_TRUE(next.reply) << next.errorName << ": " << next.errorMessage;
    EXPECT_TRUE(next.reply->contains("conversation"));
}

}  // namespace
