#include "bitbucket_test_support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using ::testing::ElementsAre;
using vt::test::BitbucketTest;
using vt::test::urlOf;

TEST(BitbucketEndpoints, PutApiBeforeTheHostAndTurnSshIntoHttps) {
    struct Case {
        const char* address;
        const char* base;
    };
    const Case cases[] = {
        {"ssh://git@bitbucket.org/team/project.git", "https://api.bitbucket.org/2.0"},
        {"https://alice@bitbucket.org/team/project.git", "https://api.bitbucket.org/2.0"},
        {"http://bitbucket.test", "http://api.bitbucket.test/2.0"},
    };
    for (const Case& test : cases) {
        VTBitbucketbHost host(urlOf(test.address));
        const std::string base = test.base;
        EXPECT_EQ(host.userUrl(), base + "/user") << test.address;
        EXPECT_EQ(host.repositoriesUrl(), base + "/repositories") << test.address;
        EXPECT_EQ(host.collaboratorsUrl(), base + "/workspaces?role=collaborator") << test.address;
        EXPECT_EQ(host.sshKeysUrl(), base + "/users") << test.address;
    }
}

using BitbucketAccount = BitbucketTest;

TEST_F(BitbucketAccount, TheUserIsAskedForItsFieldsAndMissingMembersAreLeftOut) {
    answerGet("/2.0/user?fields=username,display_name,links.avatar,links.html",
              R"({"username":"alice","display_name":"Alice A.","links":{
                  "avatar":{"href":"https://avatars.test/alice.png"},
                  "html":{"href":"https://bitbucket.test/alice/"}}})");
    answerGet("/2.0/user?fields=username,display_name,links.avatar,links.html",
              R"({"username":"bob","links":{"avatar":{"href":"not a url"}}})");
    EXPECT_EQ(host.userWithToken(token, &error),
              (boost::json::object{
                  {"username", "alice"},
                  {"name", "Alice A."},
                  {"profileUrl", "https://bitbucket.test/alice/"},
                  {"avatar", "https://avatars.test/alice.png"},
              }));
    EXPECT_EQ(host.userWithToken(token, &error), (boost::json::object{{"username", "bob"}}));
    EXPECT_EQ(fake.requests().at(0).header("Authorization"), "Bearer secret");
}

TEST_F(BitbucketAccount, TheProfileHasTheLocalizedCreationAndThePageOrNothing) {
    answerGet("/2.0/user", R"({"created_on":"2011-12-20T16:34:07.132459+00:00",
                               "links":{"html":{"href":"https://bitbucket.test/alice/"}}})");
    answerGet("/2.0/user", R"({"created_on":17,"links":{"html":"https://bitbucket.test/"}})");
    answerGet("/2.0/user", R"({"created_on":"2011-12-20T16:34:07+00:00"})");
    EXPECT_EQ(host.profileWithToken(token, &error),
              (boost::json::object{{"createdAt", "December 20, 2011 at 4:34\u202fPM"},
                                   {"profileUrl", "https://bitbucket.test/alice/"}}));
    EXPECT_EQ(host.profileWithToken(token, &error), boost::json::object());
    // Profiles carry fractions of a second; a text without them is not read.
    EXPECT_EQ(host.profileWithToken(token, &error), boost::json::object());
}

// ---- Token refresh

constexpr const char* kExpired =
    R"({"type":"error","error":{"message":"Access token expired. Use your refresh token."}})";
constexpr const char* kClientBasic =
    "Basic Yml0YnVja2V0LWNsaWVudC1pZDpiaXRidWNrZXQtY2xpZW50LXNlY3JldA==";

class BitbucketRefresh : public BitbucketTest {
protected:
    VTToken refreshable{{"token_type", "Bearer"},
                        {"access_token", "old"},
                        {"refresh_token", "r+1/2="},
                        {"scopes", "account"}};
};

TEST_F(BitbucketRefresh, PostsTheRefreshTokenToTheSiteAndRepeatsTheRequestWithTheNewToken) {
    answerGet("/2.0/user", kExpired, 401);
    answer("POST", "/site/oauth2/access_token",
           R"({"access_token":"new","refresh_token":"r2","token_type":"bearer",
               "expires_in":7200,"scopes":"account pullrequest"})");
    answerGet("/2.0/user", R"({"links":{"html":{"href":"https://bitbucket.test/alice/"}}})");
    VTToken token = refreshable;
    auto profile = host.profileWithToken(token, &error);
    ASSERT_TRUE(profile) << error.description();
    EXPECT_EQ(profile->at("profileUrl"), "https://bitbucket.test/alice/");
    // The host's answer is the new token, every member kept, with the scheme word as HTTP has it.
    EXPECT_EQ(token, (VTToken{{"access_token", "new"},
                              {"refresh_token", "r2"},
                              {"token_type", "Bearer"},
                              {"expires_in", 7200},
                              {"scopes", "account pullrequest"}}));

    const auto requests = fake.requests();
    ASSERT_EQ(requests.size(), 3u);
    const vt::fake::Request& refresh = requests[1];
    EXPECT_EQ(refresh.header("Host"), "bitbucket.test");
    EXPECT_EQ(refresh.body, "grant_type=refresh_token&refresh_token=r+1/2=");
    EXPECT_EQ(refresh.header("Authorization"), kClientBasic);
    EXPECT_EQ(refresh.header("Content-Type"), "application/x-www-form-urlencoded");
    int contentTypes = 0;
    for (const auto& [name, value] : refresh.headers) {
        contentTypes += name == "Content-Type" || name == "content-type" ? 1 : 0;
    }
    EXPECT_EQ(contentTypes, 1) << "the form type replaces the JSON type";
    EXPECT_EQ(requests[0].header("Authorization"), "Bearer old");
    EXPECT_EQ(requests[2].header("Authorization"), "Bearer new");
}

TEST_F(BitbucketRefresh, AnAnswerWithoutAccessTokenFailsWithTheHostsMessageAndKeepsTheToken) {
    answerGet("/2.0/user", kExpired, 401);
    answer("POST", "/site/oauth2/access_token",
           R"({"error":"invalid_grant","error_description":"Invalid refresh_token"})", 400);
    VTToken token = refreshable;
    EXPECT_FALSE(host.profileWithToken(token, &error));
    EXPECT_EQ(error, VTError(VTGitErrorDomain, 1, "Authorisation for Bitbucket failed",
                             "Invalid refresh_token"));
    EXPECT_EQ(token, refreshable);
}

TEST_F(BitbucketRefresh, HappensOncePerRequestAndARepeatedRefusalKeepsTheOldToken) {
    answerGet("/2.0/user", kExpired, 401);
    answer("POST", "/site/oauth2/access_token", R"({"access_token":"new","token_type":"bearer"})");
    answerGet("/2.0/user", kExpired, 401);
    VTToken token = refreshable;
    EXPECT_FALSE(host.profileWithToken(token, &error));
    EXPECT_EQ(error.code, 401);
    EXPECT_EQ(error.recoverySuggestion(), "Access token expired. Use your refresh token.");
    EXPECT_EQ(token, refreshable);
    EXPECT_THAT(sent(),
                ElementsAre("GET /2.0/user", "POST /site/oauth2/access_token", "GET /2.0/user"));
}

TEST_F(BitbucketRefresh, GoesToTheSiteOfTheRefusedAddressWithOrWithoutApi) {
    for (const char* refused :
         {"http://api.bitbucket.test/2.0/user", "http://bitbucket.test/2.0/repositories"}) {
        answer("POST", "/site/oauth2/access_token", R"({"access_token":"new"})");
        auto renewed = host.refreshedToken(refreshable, urlOf(refused), &error);
        EXPECT_EQ(renewed, (VTToken{{"access_token", "new"}, {"token_type", "Bearer"}})) << refused;
        EXPECT_FALSE(error);
        EXPECT_EQ(fake.requests().back().header("Host"), "bitbucket.test") << refused;
    }
}

// ---- Dates and deleted comments

TEST(BitbucketDates, AreWrittenAgainWithoutFractionsInGmt) {
    struct Case {
        const char* text;
        bool converted;
        std::optional<std::string> result;
        std::optional<double> moment;
    };
    const Case cases[] = {
        {"2021-03-04T05:06:07.123456+00:00", true, "2021-03-04T05:06:07+0000", 636527167.123},
        {"2021-03-04T07:06:07+02:00", false, "2021-03-04T05:06:07+0000", 636527167.0},
        {"2021-03-04T05:06:07+00:00", true, std::nullopt, std::nullopt},
        {"2021-03-04T05:06:07.5+00:00", false, std::nullopt, std::nullopt},
        {"yesterday", false, std::nullopt, std::nullopt},
    };
    for (const Case& test : cases) {
        std::optional<double> moment = 1.0;
        EXPECT_EQ(VTBitbucketbHost::convertedDateString(test.text, test.converted, &moment),
                  test.result)
            << test.text;
        ASSERT_EQ(moment.has_value(), test.moment.has_value()) << test.text;
        if (moment) {
            EXPECT_NEAR(*moment, *test.moment, 0.0005) << test.text;
        }
    }
}

VTPullRequestComment comment(std::optional<std::string> content,
                             std::vector<VTPullRequestComment> replies = {}) {
    VTPullRequestComment result;
    result.content = std::move(content);
    if (!replies.empty()) {
        result.comments = std::move(replies);
    }
    return result;
}

TEST(BitbucketDeletedComments, GoUnlessAnswersHangBelowThemAndThenCarryTheMarker) {
    // live
    //  +- deleted (only deleted answers below) -> goes with its branch
    //  |   +- deleted
    //  |       +- deleted
    //  +- deleted with one live answer -> stays, marked
    //  |   +- live
    //  +- live
    VTPullRequestComment root =
        comment("root", {comment(std::nullopt, {comment(std::nullopt, {comment(std::nullopt)})}),
                         comment(std::nullopt, {comment("answer")}), comment("last")});
    VTBitbucketbHost::removeFromComment(root);
    ASSERT_TRUE(root.comments);
    ASSERT_EQ(root.comments->size(), 2u);
    EXPECT_EQ(root.comments->at(0).content, std::string("\x04\x05\x06"));
    EXPECT_EQ(root.comments->at(0).comments->at(0).content, "answer");
    EXPECT_EQ(root.comments->at(1).content, "last");
}

}  // namespace
