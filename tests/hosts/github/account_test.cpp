#include "github_test_support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using ::testing::ElementsAre;
using vt::testing::fixtureText;
using vt::testing::GitHubTest;
using vt::testing::urlOf;

TEST(GitHubEndpoints, ComeFromTheSchemeAndHostOfTheAddress) {
    struct Case {
        const char* address;
        const char* graphQl;
        const char* sshKeys;
    };
    const Case cases[] = {
        {"ssh://git@github.com/owner/repo.git", "https://api.github.com/graphql",
         "https://api.github.com/user/keys"},
        {"https://git.example.com:8443/team/tool", "https://api.git.example.com/graphql",
         "https://api.git.example.com/user/keys"},
        {"http://github.test", "http://api.github.test/graphql",
         "http://api.github.test/user/keys"},
    };
    for (const Case& test : cases) {
        VTGitHubHost host(urlOf(test.address));
        EXPECT_EQ(host.graphQlUrl().buffer(), test.graphQl) << test.address;
        EXPECT_EQ(host.sshKeysUrl(), test.sshKeys) << test.address;
    }
}

using GitHubAccount = GitHubTest;

TEST_F(GitHubAccount, AUserWithoutNameHasNoNameEntry) {
    answer(fixtureText("viewer.json"));
    auto user = host.userWithToken(token, &error);
    ASSERT_TRUE(user) << error.description();
    EXPECT_EQ(*user, (boost::json::object{
                         {"username", "octo"},
                         {"profileUrl", "https://github.com/octo"},
                         {"avatar", "https://avatars.githubusercontent.com/u/583231?v=4"},
                     }));
    EXPECT_THAT(sentQueries(), ElementsAre("query{viewer{login,name,avatarUrl,url}}"));
}

TEST_F(GitHubAccount, AnAnswerWithoutViewerIsRefusedAsBadCredentials) {
    answer(R"({"data":{"viewer":null}})");
    EXPECT_FALSE(host.userWithToken(token, &error));
    EXPECT_EQ(error, VTError(VTHTTPErrorDomain, 401, "Unauthorized (HTTP status code 401)",
                             "Bad credentials"));
}

TEST_F(GitHubAccount, TheProfileLeavesOutEmptyFieldsAndListsEveryOrganizationSorted) {
    answer(fixtureText("profile.json"));
    answer(R"({"data":{"viewer":{"organizations":{"nodes":[{"name":"gamma"}],)" +
           vt::testing::pageInfo(false, "Y3Vyc29yOjI=") + "}}}}");
    auto profile = host.profileWithToken(token, &error);
    ASSERT_TRUE(profile) << error.description();
    EXPECT_EQ(*profile, (boost::json::object{
                            {"createdAt", "January 25, 2011 at 6:44\u202fPM"},
                            {"location", "San Francisco"},
                            {"profileUrl", "https://github.com/octo"},
                            {"websiteUrl", "https://octo.example"},
                            {"organizations", "Alpha\nbeta\ngamma"},
                        }));
    EXPECT_THAT(
        sentQueries(),
        ElementsAre("query{viewer{createdAt,email,location,company,bio,url,websiteUrl,"
                    "organizations(first:100){nodes{name}pageInfo{endCursor,hasNextPage}}}}",
                    "query{viewer{organizations(first:100,after:\"Y3Vyc29yOjE=\"){nodes{name}"
                    "pageInfo{endCursor,hasNextPage}}}}"));
}

TEST_F(GitHubAccount, AProfileWithoutOrganizationsHasAnEmptyListAndNoUnparsableDate) {
    answer(R"({"data":{"viewer":{"createdAt":"yesterday","bio":"Hi","organizations":{"nodes":[],)" +
           vt::testing::pageInfo(false) + "}}}}");
    auto profile = host.profileWithToken(token, &error);
    ASSERT_TRUE(profile);
    EXPECT_EQ(*profile, (boost::json::object{{"bio", "Hi"}, {"organizations", ""}}));
}

}  // namespace
