// Renewing expiring tokens, before an operation and when the host says the token expired. The
// client credentials come from the test fixture beside the test executable.

#include "gitlab_test_support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <boost/json/serialize.hpp>

namespace {

using vt::fake::Response;
using vt::gitlab::testing::GitLabTest;
using vt::gitlab::testing::oauthToken;
using vt::gitlab::testing::secondsNow;

class GitLabRefresh : public GitLabTest {
protected:
    // What GitLab's token endpoint answers to a good refresh grant.
    boost::json::object renewed{{"access_token", "new-access"},   {"token_type", "Bearer"},
                                {"refresh_token", "new-refresh"}, {"scope", "api"},
                                {"created_at", secondsNow()},     {"expires_in", 7200}};

    void answerRefresh(const boost::json::value& body, int status = 200) {
        fake.expect("POST", "/oauth/token", Response::json(boost::json::serialize(body), status));
    }
    void answerUser() { answerRest("GET", "/api/v4/user", R"({"bio":"Hi"})"); }

    // The "Authorization" header of every request, in order ("-" for none).
    std::vector<std::string> authorizations() const {
        std::vector<std::string> headers;
        for (const vt::fake::Request& request : fake.requests()) {
            headers.push_back(request.method + " " + request.target + " " +
                              request.header("Authorization").value_or("-"));
        }
        return headers;
    }
};

TEST_F(GitLabRefresh, RenewsOnlyTokensThatExpireWithinTwentySeconds) {
    struct Case {
        const char* name;
        VTToken token;
        bool renewed;
    };
    VTToken withoutIssueTime = oauthToken(7200 * 10);
    withoutIssueTime.erase("created_at");
    VTToken withoutLifetime = oauthToken(7200 * 10);
    withoutLifetime.erase("expires_in");
    const Case cases[] = {
        {"expires in 60 s", oauthToken(7200 - 60), false},
        {"expires in 5 s", oauthToken(7200 - 5), true},
        {"expired long ago", oauthToken(7200 * 30), true},
        {"no created_at", withoutIssueTime, false},
        {"no expires_in", withoutLifetime, false},
    };
    for (const Case& test : cases) {
        const std::size_t before = fake.requestCount();
        if (test.renewed) {
            answerRefresh(renewed);
        }
        answerUser();
        VTToken live = test.token;
        ASSERT_TRUE(host.profileWithToken(live, &error)) << test.name << error.description();
        EXPECT_EQ(live, test.renewed ? renewed : test.token) << test.name;
        const auto sent = fake.requests();
        ASSERT_EQ(sent.size() - before, test.renewed ? 2u : 1u) << test.name;
        EXPECT_EQ(sent.back().header("Authorization"),
                  test.renewed ? "Bearer new-access" : "Bearer old-access")
            << test.name;
    }
}

TEST_F(GitLabRefresh, SendsTheGrantWithTheClientCredentialsAndNoAuthorization) {
    answerRefresh(renewed);
    answerUser();
    VTToken live = oauthToken(7200);
    ASSERT_TRUE(host.profileWithToken(live, &error)) << error.description();
    const vt::fake::Request grant = fake.requests().front();
    EXPECT_EQ(grant.target, "/oauth/token");
    EXPECT_EQ(grant.header("Authorization"), std::nullopt);
    EXPECT_EQ(grant.header("Content-Type"), "application/json");
    EXPECT_EQ(grant.body,
              R"({"client_id":"gitlab-client-id","client_secret":"gitlab-client-secret",)"
              R"("grant_type":"refresh_token","refresh_token":"old-refresh",)"
              R"("redirect_uri":"https://veldtrack.test/OAuth/GitHub"})");
}

TEST_F(GitLabRefresh, ARefusedGrantEmptiesTheTokenWhateverTheStatus) {
    struct Case {
        int status;
        const char* answer;
        const char* suggestion;
    };
    const Case cases[] = {
        {400, R"({"error":"invalid_grant","error_description":"The grant is invalid."})",
         "The grant is invalid."},
        {200, R"({"token_type":"Bearer"})", "No error description."},
        {401, R"({"error":"invalid_client"})", "invalid_client"},
    };
    for (const Case& test : cases) {
        answerRefresh(boost::json::parse(test.answer), test.status);
        VTToken live = oauthToken(7200);
        EXPECT_FALSE(host.repositoriesWithToken(live, &error)) << test.answer;
        EXPECT_TRUE(live.empty()) << test.answer;
        EXPECT_EQ(error,
                  VTError(VTGitErrorDomain, 1, "Authorisation for GitLab failed", test.suggestion));
    }
    // Nothing but the grants was sent.
    EXPECT_EQ(fake.requestCount(), 3u);
}

TEST_F(GitLabRefresh, AnExpiredTokenRefusedByTheHostIsRenewedOnceAndHandedBack) {
    VTToken live = oauthToken(0);
    live.erase("created_at");  // no proactive renewal: the host has to say so
    answerRest("GET", "/api/v4/user", R"({"error":{"message":"Access Token Expired"}})", "", 401);
    answerRefresh(renewed);
    answerUser();
    ASSERT_TRUE(host.profileWithToken(live, &error)) << error.description();
    EXPECT_EQ(live, renewed);
    EXPECT_THAT(authorizations(),
                ::testing::ElementsAre("GET /api/v4/user Bearer old-access", "POST /oauth/token -",
                                       "GET /api/v4/user Bearer new-access"));
}

TEST_F(GitLabRefresh, AHostThatRefusesTheRenewedTokenTooKeepsTheOldOne) {
    VTToken live = oauthToken(0);
    live.erase("created_at");
    const VTToken before = live;
    const std::string expired = R"({"error":{"message":"access token expired"}})";
    answerRest("GET", "/api/v4/user", expired, "", 401);
    answerRefresh(renewed);
    answerRest("GET", "/api/v4/user", expired, "", 401);
    EXPECT_FALSE(host.profileWithToken(live, &error));
    EXPECT_EQ(error.code, 401);
    EXPECT_EQ(live, before);
    EXPECT_EQ(fake.requestCount(), 3u);  // one renewal per request, never a second
}

TEST_F(GitLabRefresh, AnotherHostThatSaysTheTokenExpiredGetsNoGrant) {
    // A key page address that leads to another server: the token never went there, so neither
    // may the grant with the client secret.
    const std::string port = std::to_string(fake.port());
    const std::string routes =
        "gitlab.test:80:127.0.0.1:" + port + ",elsewhere.test:80:127.0.0.1:" + port;
    setenv("VELDTRACK_CONNECT_TO", routes.c_str(), 1);
    VTToken live = oauthToken(0);
    live.erase("created_at");
    const VTToken before = live;
    answerRest("GET", "/api/v4/user/keys?per_page=50", "[]",
               "http://elsewhere.test/api/v4/user/keys?page=2");
    answerRest("GET", "/api/v4/user/keys?page=2", R"({"error":{"message":"access token expired"}})",
               "", 401);
    EXPECT_FALSE(host.sshKeysWithToken(live, &error));
    EXPECT_EQ(error.code, 401);
    EXPECT_EQ(live, before);
    EXPECT_THAT(authorizations(),
                ::testing::ElementsAre("GET /api/v4/user/keys?per_page=50 Bearer old-access",
                                       "GET /api/v4/user/keys?page=2 -"));
}

TEST_F(GitLabRefresh, AnOperationWithoutATokenFailsWithoutAsking) {
    VTToken none;
    EXPECT_FALSE(host.profileWithToken(none, &error));
    EXPECT_EQ(error, VTError(VTHTTPErrorDomain, 401, "HTTP status code 401 (Unauthorized)",
                             "The request carries no GitLab token."));
    EXPECT_EQ(fake.requestCount(), 0u);
}

}  // namespace
