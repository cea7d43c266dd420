// The requests end to end over a private bus, with recording adapters: what reaches the adapter,
// the refreshed token, adapter errors, host types without an adapter, the direct sign-in and the
// fork lookup.

#include "harness.h"
#include "hosts/bitbucket/bitbucket_host.h"
#include "hosts/github/github_host.h"
#include "hosts/gitlab/gitlab_host.h"
#include "service/host_factory.h"

#include <gtest/gtest.h>

#include <boost/json/serialize.hpp>

namespace {

using namespace vt::test;

const std::string kUrl = "https://github.test/octocat/hello.git";
const VTToken kToken{{"token_type", "Bearer"}, {"access_token", "first"}};
const VTToken kRenewed{{"token_type", "Bearer"}, {"access_token", "renewed"}};
const boost::json::object kNamespace{{"name", "octocat"}, {"identifier", "MDQ6VXNlcjE="}};

boost::json::object pullRequestValue(std::int64_t type) {
    return samplePullRequest(type).toValue();
}

// One request that forwards to one adapter operation.
struct Forwarding {
    const char* member;
    const char* operation;
    // The reply's result entries (none for an action: it answers only the token and the error).
    std::vector<std::string> resultKeys;
    boost::json::array arguments;  // what the adapter operation receives besides the token
    std::function<Outcome(Client&, const VTToken&, std::int64_t type)> send;
};

std::vector<Forwarding> forwardingRequests() {
    const boost::json::value pr = pullRequestValue(1);
    return {
        {"GetRepositoriesWithToken",
         "repositoriesWithToken",
         {"repositories"},
         {},
         [](Client& c, const VTToken& t, std::int64_t type) {
             return c.call("GetRepositoriesWithToken", t, kUrl, type);
         }},
        {"CreateRepositoryWithToken",
         "createRepositoryWithToken",
         {"sshUrl", "httpsUrl"},
         {kNamespace, "hello", "Hello", "Says hello", 1},
         [](Client& c, const VTToken& t, std::int64_t type) {
             return c.call("CreateRepositoryWithToken", t, kUrl, type, kNamespace, "hello", "Hello",
                           "Says hello", std::int64_t{1});
         }},
        {"GetSshKeysWithToken",
         "sshKeysWithToken",
         {"keys"},
         {},
         [](Client& c, const VTToken& t, std::int64_t type) {
             return c.call("GetSshKeysWithToken", t, kUrl, type);
         }},
        {"AddSshKey",
         "addSshKey",
         {},
         {"ssh-ed25519 AAAA", "laptop"},
         [](Client& c, const VTToken& t, std::int64_t type) {
             return c.call("AddSshKey", "ssh-ed25519 AAAA", "laptop", t, kUrl, type);
         }},
        {"DeleteSshKey",
         "deleteSshKey",
         {},
         {42},
         [](Client& c, const VTToken& t, std::int64_t type) {
             return c.call("DeleteSshKey", AnyValue{42}, t, kUrl, type);
         }},
        {"GetProfileWithToken",
         "profileWithToken",
         {"profile"},
         {},
         [](Client& c, const VTToken& t, std::int64_t type) {
             return c.call("GetProfileWithToken", t, kUrl, type);
         }},
        {"GetPrivacyWithUrl",
         "isPrivateRepositoryAtUrl",
         {"private"},
         {kUrl},
         [](Client& c, const VTToken& t, std::int64_t type) {
             return c.call("GetPrivacyWithUrl", kUrl, type, t);
         }},
        {"GetPullRequestsWithUrl",
         "pullRequestsWithUrl",
         {"pullRequests"},
         {kUrl},
         [](Client& c, const VTToken& t, std::int64_t type) {
             return c.call("GetPullRequestsWithUrl", kUrl, type, t);
         }},
        {"GetCommentsForPullRequest",
         "commentsForPullRequest",
         {"conversation"},
         {pr},
         [](Client& c, const VTToken& t, std::int64_t type) {
             return c.call("GetCommentsForPullRequest", pullRequestValue(type), t);
         }},
        {"CreatePullRequestWithUrl",
         "createPullRequestWithUrl",
         {},
         {kUrl, "main", "greeting", "Add a greeting", "Please"},
         [](Client& c, const VTToken& t, std::int64_t type) {
             return c.call("CreatePullRequestWithUrl", kUrl, type, "main", "greeting",
                           "Add a greeting", "Please", t);
         }},
        {"EditPullRequest",
         "editPullRequest",
         {},
         {pr, "New text"},
         [](Client& c, const VTToken& t, std::int64_t type) {
             return c.call("EditPullRequest", pullRequestValue(type), "New text", t);
         }},
        {"AddComment",
         "addComment",
         {},
         {"Nice", pr},
         [](Client& c, const VTToken& t, std::int64_t type) {
             return c.call("AddComment", "Nice", pullRequestValue(type), t);
         }},
        {"ReplyTo",
         "replyTo",
         {},
         {"C_1", "Thanks", pr},
         [](Client& c, const VTToken& t, std::int64_t type) {
             return c.call("ReplyTo", "C_1", "Thanks", pullRequestValue(type), t);
         }},
        {"EditComment",
         "editComment",
         {},
         {"C_1", "Better", pr},
         [](Client& c, const VTToken& t, std::int64_t type) {
             return c.call("EditComment", "C_1", "Better", pullRequestValue(type), t);
         }},
        {"DeleteComment",
         "deleteComment",
         {},
         {"C_1", pr},
         [](Client& c, const VTToken& t, std::int64_t type) {
             return c.call("DeleteComment", "C_1", pullRequestValue(type), t);
         }},
        {"MergePullRequest",
         "mergePullRequest",
         {},
         {pr, 2, boost::json::array{0xab, 0x01}, "Merged"},
         [](Client& c, const VTToken& t, std::int64_t type) {
             return c.call("MergePullRequest", pullRequestValue(type), std::int64_t{2},
                           VTData{0xab, 0x01}, "Merged", t);
         }},
        {"ClosePullRequest",
         "closePullRequest",
         {},
         {pr},
         [](Client& c, const VTToken& t, std::int64_t type) {
             return c.call("ClosePullRequest", pullRequestValue(type), t);
         }},
    };
}

class ServiceRequests : public ::testing::Test {
protected:
    PrivateBus bus{withoutActivation()};
    TestAdapters adapters;
    InProcessService service{optionsFor(adapters)};
    Client client;
};

TEST_F(ServiceRequests, EveryRequestCallsItsAdapterOperationWithItsArgumentsAndAnswersItsResult) {
    for (const Forwarding& request : forwardingRequests()) {
        SCOPED_TRACE(request.member);
        const std::size_t before = adapters.calls().size();
        const Outcome outcome = request.send(client, kToken, 1);
        ASSERT_TRUE(outcome.reply) << outcome.errorName << ": " << outcome.errorMessage;
        const std::vector<AdapterCall> calls = adapters.calls();
        ASSERT_EQ(calls.size(), before + 1);
        EXPECT_EQ(calls.back().operation, request.operation);
        // Requests about a pull request build their adapter from the record's remote URL.
        EXPECT_EQ(calls.back().url, kUrl);
        EXPECT_EQ(calls.back().type, 1);
        EXPECT_EQ(calls.back().token, kToken);
        EXPECT_EQ(calls.back().arguments, request.arguments);
        // Nothing else: no error, and a token left alone is no refresh.
        EXPECT_EQ(outcome.reply->size(), request.resultKeys.size());
        for (const std::string& key : request.resultKeys) {
            EXPECT_TRUE(outcome.reply->contains(key)) << key;
        }
        // The list is written from the records themselves: it must read as their value form.
        if (request.member == std::string("GetPullRequestsWithUrl")) {
            EXPECT_EQ(outcome.reply->at("pullRequests"),
                      boost::json::array{samplePullRequest(1).toValue()});
        }
    }
}

TEST_F(ServiceRequests, ATokenTheAdapterRenewedComesBackAndAnEqualOneDoesNot) {
    struct Case {
        const char* name;
        VTToken incoming;
        std::function<void(VTToken&)> onToken;
        std::optional<VTToken> refreshed;
    };
    const std::vector<Case> cases = {
        {"renewed", kToken, [](VTToken& token) { token = kRenewed; }, kRenewed},
        {"equal but distinct", kToken, [](VTToken& token) { token = VTToken(token); },
         std::nullopt},
        {"equal after a change and a change back", kToken,
         [](VTToken& token) {
             token["access_token"] = "other";
             token["access_token"] = "first";
         },
         std::nullopt},
        {"none incoming, then replaced", VTToken(), [](VTToken& token) { token = kRenewed; },
         kRenewed},
    };
    for (const Case& test : cases) {
        adapters.behaviour.onToken = test.onToken;
        for (const Forwarding& request : forwardingRequests()) {
            SCOPED_TRACE(std::string(test.name) + ", " + request.member);
            const Outcome outcome = request.send(client, test.incoming, 1);
            ASSERT_TRUE(outcome.reply) << outcome.errorMessage;
            const boost::json::value* refreshed = outcome.reply->if_contains("refreshedToken");
            if (test.refreshed) {
                ASSERT_NE(refreshed, nullptr);
                EXPECT_EQ(*refreshed, *test.refreshed);
            } else {
                EXPECT_EQ(refreshed, nullptr);
            }
        }
    }
}

TEST_F(ServiceRequests, AnAdapterErrorIsPassedOnUnchangedWithoutAResult) {
    const VTError failure(VTHTTPErrorDomain, 401, "Unauthorized (HTTP status code 401)",
                          "Bad credentials");
    adapters.behaviour.failure = failure;
    adapters.behaviour.onToken = [](VTToken& token) { token = kRenewed; };
    for (const Forwarding& request : forwardingRequests()) {
        SCOPED_TRACE(request.member);
        const Outcome outcome = request.send(client, kToken, 1);
        ASSERT_TRUE(outcome.reply) << outcome.errorMessage;
        boost::json::object expected{{"refreshedToken", kRenewed}, {"error", failure.toValue()}};
        if (request.member == std::string("GetPrivacyWithUrl")) {
            expected["private"] = false;
        }
        EXPECT_EQ(*outcome.reply, expected);
    }
}

TEST_F(ServiceRequests, HostTypesWithoutAnAdapterAnswerEmptyRepliesAndNoError) {
    for (const std::int64_t type : {std::int64_t{0}, std::int64_t{4}, std::int64_t{-1}}) {
        for (const Forwarding& request : forwardingRequests()) {
            SCOPED_TRACE(std::string(request.member) + " with type " + std::to_string(type));
            const Outcome outcome = request.send(client, kToken, type);
            ASSERT_TRUE(outcome.reply) << outcome.errorMessage;
            const boost::json::object expected = request.member == std::string("GetPrivacyWithUrl")
                                                     ? boost::json::object{{"private", false}}
                                                     : boost::json::object();
            EXPECT_EQ(*outcome.reply, expected);
        }
        SCOPED_TRACE("type " + std::to_string(type));
        EXPECT_EQ(*client.call("SignInWithUrl", kUrl, type, "u", "p").reply, boost::json::object());
        EXPECT_EQ(*client
                       .call("GetForksForUrls", std::vector<std::string>{kUrl},
                             std::vector<std::int64_t>{type}, std::vector<boost::json::object>{})
                       .reply,
                  (boost::json::object{{"forks", boost::json::object()}}));
    }
    EXPECT_TRUE(adapters.calls().empty());
}

TEST(HostForUrl, BuildsTheAdapterOfEachHostTypeAndNoneForOtherTypes) {
    const VTUrl url("https://github.com/octocat/hello.git");
    EXPECT_NE(dynamic_cast<VTGitHubHost*>(VTHostForUrl(url, 1).get()), nullptr);
    EXPECT_NE(dynamic_cast<VTGitLabHost*>(VTHostForUrl(url, 2).get()), nullptr);
    EXPECT_NE(dynamic_cast<VTBitbucketbHost*>(VTHostForUrl(url, 3).get()), nullptr);
    for (const std::int64_t type : {0, 4, -1}) {
        EXPECT_EQ(VTHostForUrl(url, type), nullptr) << type;
    }
}

TEST_F(ServiceRequests, CreateRepositoryAnswersTheFirstAndTheLastAddress) {
    struct Case {
        std::vector<std::string> addresses;
        boost::json::object expected;
    };
    const std::vector<Case> cases = {
        {{"ssh", "middle", "https"}, {{"sshUrl", "ssh"}, {"httpsUrl", "https"}}},
        {{"only"}, {{"sshUrl", "only"}, {"httpsUrl", "only"}}},
        {{}, {}},
    };
    for (const Case& test : cases) {
        adapters.behaviour.createdAddresses = test.addresses;
        const Outcome outcome =
            client.call("CreateRepositoryWithToken", kToken, kUrl, std::int64_t{1}, kNamespace,
                        "hello", "Hello", "", std::int64_t{0});
        ASSERT_TRUE(outcome.reply) << outcome.errorMessage;
        EXPECT_EQ(*outcome.reply, test.expected) << test.addresses.size() << " addresses";
    }
}

TEST_F(ServiceRequests, TheDirectSignInSendsBasicOrBearerCredentialsAndAnswersTokenAndUser) {
    struct Case {
        const char* username;
        const char* password;
        VTToken token;
    };
    const std::vector<Case> cases = {
        {"u", "p", {{"token_type", "Basic"}, {"access_token", "dTpw"}}},
        {"octocat",
         "pässword:1",
         {{"token_type", "Basic"}, {"access_token", "b2N0b2NhdDpww6Rzc3dvcmQ6MQ=="}}},
        {"", "ghp_personal", {{"token_type", "Bearer"}, {"access_token", "ghp_personal"}}},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.password);
        const Outcome outcome =
            client.call("SignInWithUrl", kUrl, std::int64_t{1}, test.username, test.password);
        ASSERT_TRUE(outcome.reply) << outcome.errorMessage;
        EXPECT_EQ(adapters.calls().back().operation, "userWithToken");
        EXPECT_EQ(adapters.calls().back().token, test.token);
        const boost::json::object expected{
            {"result", {{"VTHostToken", test.token}, {"VTHostUserKey", adapters.behaviour.user}}}};
        EXPECT_EQ(*outcome.reply, expected);
    }

    const VTError failure(VTHTTPErrorDomain, 401, "Unauthorized (HTTP status code 401)");
    adapters.behaviour.failure = failure;
    const Outcome refused = client.call("SignInWithUrl", kUrl, std::int64_t{1}, "u", "wrong");
    ASSERT_TRUE(refused.reply);
    EXPECT_EQ(*refused.reply, (boost::json::object{{"error", failure.toValue()}}));
}

// The fork lookup: the types advance once per new host name, the tokens once per URL.
TEST_F(ServiceRequests, TheForkLookupBuildsOneAdapterPerHostAndTakesOneTokenPerUrl) {
    const std::vector<std::string> urls = {"https://github.test/a/one", "https://gitlab.test/b/two",
                                           "https://github.test/a/three"};
    const std::vector<boost::json::object> tokens = {
        {{"access_token", "t1"}}, {{"access_token", "t2"}}, {{"access_token", "t3"}}};
    // Renewals are not reported and do not carry over to the next URL.
    adapters.behaviour.onToken = [](VTToken& token) { token = kRenewed; };
    const Outcome outcome =
        client.call("GetForksForUrls", urls, std::vector<std::int64_t>{1, 2}, tokens);
    ASSERT_TRUE(outcome.reply) << outcome.errorMessage;
    boost::json::object forks;
    for (const std::string& url : urls) {
        forks[url] = boost::json::array{"fork of " + url};
    }
    EXPECT_EQ(*outcome.reply, (boost::json::object{{"forks", forks}}));

    const auto built = adapters.built();
    ASSERT_EQ(built.size(), 2u);
    EXPECT_EQ(built[0], (std::pair<std::string, std::int64_t>{urls[0], 1}));
    EXPECT_EQ(built[1], (std::pair<std::string, std::int64_t>{urls[1], 2}));
    const auto calls = adapters.calls();
    ASSERT_EQ(calls.size(), 3u);
    for (std::size_t index = 0; index < calls.size(); ++index) {
        EXPECT_EQ(calls[index].arguments, boost::json::array{urls[index]});
        EXPECT_EQ(calls[index].token, tokens[index]);
    }
    EXPECT_EQ(calls[2].url, urls[0]) << "the third URL reuses the first host's adapter";
}

TEST_F(ServiceRequests, TheForkLookupStopsAtTheFirstUrlWithoutForks) {
    const VTError failure(VTHTTPErrorDomain, 404, "Not Found (HTTP status code 404)");
    struct Case {
        const char* name;
        std::vector<std::string> urls;
        std::vector<std::int64_t> types;
        VTError error;  // set by the lookup of a URL that contains "stop"
        boost::json::object expected;
    };
    const std::vector<Case> cases = {
        {"no URLs", {}, {}, {}, {{"forks", boost::json::object()}}},
        {"the types run out for a new host",
         {"https://a.test/x", "https://b.test/y", "https://a.test/z"},
         {1},
         {},
         {{"forks", {{"https://a.test/x", {"fork of https://a.test/x"}}}}}},
        {"a lookup yields nothing without an error",
         {"https://a.test/x", "https://a.test/stop", "https://a.test/z"},
         {1},
         {},
         {{"forks", {{"https://a.test/x", {"fork of https://a.test/x"}}}}}},
        {"a lookup fails",
         {"https://a.test/x", "https://a.test/stop", "https://a.test/z"},
         {1},
         failure,
         {{"error", failure.toValue()}}},
        {"URLs are kept exactly as given",
         {"HTTPS://A.test:443/X/?q#f"},
         {3},
         {},
         {{"forks", {{"HTTPS://A.test:443/X/?q#f", {"fork of HTTPS://A.test:443/X/?q#f"}}}}}},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.name);
        adapters.behaviour.forks = [&test](const VTUrl& url) {
            std::optional<std::vector<std::string>> forks;
            if (url.buffer().find("stop") == std::string::npos) {
                forks = std::vector<std::string>{"fork of " + std::string(url.buffer())};
            }
            return forks;
        };
        adapters.behaviour.failure = VTError();
        adapters.behaviour.onCall = [this, &test](const AdapterCall& call) {
            const std::string url = call.arguments.at(0).as_string().c_str();
            adapters.behaviour.failure =
                url.find("stop") != std::string::npos ? test.error : VTError();
        };
        const Outcome outcome = client.call("GetForksForUrls", test.urls, test.types,
                                            std::vector<boost::json::object>{});
        ASSERT_TRUE(outcome.reply) << outcome.errorMessage;
        EXPECT_EQ(*outcome.reply, test.expected);
    }
}

}  // namespace
