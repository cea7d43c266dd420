#include "gitlab_test_support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using ::testing::ElementsAre;
using vt::gitlab::testing::GitLabTest;
using vt::gitlab::testing::urlOf;

TEST(GitLabEndpoints, ComeFromTheSchemeAndHostOfTheAddress) {
    struct Case {
        const char* address;
        const char* base;
    };
    const Case cases[] = {
        {"ssh://git@gitlab.com/group/project.git", "https://gitlab.com"},
        {"https://git.example.com:8443/team/sub/tool", "https://git.example.com"},
        {"http://gitlab.test", "http://gitlab.test"},
    };
    for (const Case& test : cases) {
        VTGitLabHost host(urlOf(test.address));
        const std::string base = test.base;
        EXPECT_EQ(host.graphQlUrl().buffer(), base + "/api/graphql") << test.address;
        EXPECT_EQ(host.repositoryUrl(), base + "/api/v4/projects") << test.address;
        EXPECT_EQ(host.userUrl(), base + "/api/v4/user") << test.address;
        EXPECT_EQ(host.sshKeysUrl(), base + "/api/v4/user/keys") << test.address;
    }
}

TEST(GitLabEndpoints, ServerPathsBecomeAddressesOnTheServerAndAbsoluteOnesStay) {
    VTGitLabHost host(urlOf("ssh://git@gitlab.example.com:2222/group/project.git"));
    EXPECT_EQ(host.urlWithString("/uploads/-/system/user/avatar/1/a.png"),
              "https://gitlab.example.com//uploads/-/system/user/avatar/1/a.png");
    EXPECT_EQ(host.urlWithString("uploads/a.png"), "https://gitlab.example.com/uploads/a.png");
    EXPECT_EQ(host.urlWithString("https://secure.gravatar.com/avatar/1?s=80"),
              "https://secure.gravatar.com/avatar/1?s=80");
    EXPECT_EQ(host.urlWithString("mailto:erin@example.com"), "mailto:erin@example.com");
    EXPECT_EQ(host.urlWithString("not a path"), std::nullopt);
}

using GitLabAccount = GitLabTest;

TEST_F(GitLabAccount, TheUserHasServerRelativeAvatarsMadeAbsolute) {
    answer(R"({"data":{"currentUser":{"username":"erin","name":"Erin","webUrl":)"
           R"("https://gitlab.test/erin","avatarUrl":"/uploads/erin.png"}}})");
    auto user = host.userWithToken(token, &error);
    ASSERT_TRUE(user) << error.description();
    EXPECT_EQ(*user, (boost::json::object{{"username", "erin"},
                                          {"profileUrl", "https://gitlab.test/erin"},
                                          {"name", "Erin"},
                                          {"avatar", "http://gitlab.test//uploads/erin.png"}}));
    EXPECT_THAT(sentQueries(), ElementsAre("query{currentUser{username,name,avatarUrl,webUrl}}"));
}

TEST_F(GitLabAccount, AnAnswerWithoutCurrentUserIsRefusedAsBadCredentials) {
    answer(R"({"data":{"currentUser":null}})");
    EXPECT_FALSE(host.userWithToken(token, &error));
    EXPECT_EQ(error, VTError(VTHTTPErrorDomain, 401, "Unauthorized (HTTP status code 401)",
                             "Bad credentials"));
}

TEST_F(GitLabAccount, TheProfileShowsTheAccountAddressOnlyForUsersWithAPublicOne) {
    struct Case {
        const char* publicEmail;
        std::optional<const char*> shown;
    };
    const Case cases[] = {
        {R"("public@example.com")", "private@example.com"},
        {R"("")", std::nullopt},
        {"null", std::nullopt},
    };
    for (const Case& test : cases) {
        answerRest("GET", "/api/v4/user",
                   std::string(R"({"public_email":)") + test.publicEmail +
                       R"(,"email":"private@example.com","created_at":"2012-05-23T08:00:58.000Z",)"
                       R"("location":"","organization":"Veldt","bio":null,"web_url":)"
                       R"("https://gitlab.test/erin","website_url":"https://erin.example"})");
        auto profile = host.profileWithToken(token, &error);
        ASSERT_TRUE(profile) << error.description();
        boost::json::object expected{{"createdAt", "May 23, 2012 at 8:00\u202fAM"},
                                     {"company", "Veldt"},
                                     {"profileUrl", "https://gitlab.test/erin"},
                                     {"websiteUrl", "https://erin.example"}};
        if (test.shown) {
            expected["email"] = *test.shown;
        }
        EXPECT_EQ(*profile, expected) << test.publicEmail;
    }
}

TEST_F(GitLabAccount, AProfileDateWithoutFractionsIsLeftOut) {
    answerRest("GET", "/api/v4/user", R"({"created_at":"2012-05-23T08:00:58Z","bio":"Hi"})");
    auto profile = host.profileWithToken(token, &error);
    ASSERT_TRUE(profile) << error.description();
    EXPECT_EQ(*profile, (boost::json::object{{"bio", "Hi"}}));
}

}  // namespace
