// The OAuth client credentials file: what a well-formed file gives, and that every fault gives the
// empty texts (and the default redirect host) instead of failing.

#include "transport/oauth_credentials.h"

#include "scratch.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace {

TEST(OAuthCredentials, AreReadFromEveryMemberOfTheFile) {
    vt::test::TemporaryFolder folder;
    const auto credentials = vt::readOAuthCredentials(folder.write(
        "c.oauth", R"({"gitlab": {"client_id": "gl-id", "client_secret": "gl \"secret\""},
                       "bitbucket": {"client_id": "bb-id", "client_secret": "bb-secret"},
                       "redirect_host": "example.test"})"));
    EXPECT_EQ(credentials.gitlab.clientId, "gl-id");
    EXPECT_EQ(credentials.gitlab.clientSecret, "gl \"secret\"");
    EXPECT_EQ(credentials.bitbucket.clientId, "bb-id");
    EXPECT_EQ(credentials.bitbucket.clientSecret, "bb-secret");
    EXPECT_EQ(credentials.redirectHost, "example.test");
}

TEST(OAuthCredentials, GiveEmptyTextsForEveryFault) {
    vt::test::TemporaryFolder folder;
    const std::vector<std::pair<std::string, std::string>> faults = {
        {"empty", ""},
        {"not JSON", "client_id=abc"},
        {"JSON after garbage", "{} {}"},
        {"an array", R"([{"gitlab": {"client_id": "x"}}])"},
        {"hosts not objects", R"({"gitlab": "x", "bitbucket": ["y"], "redirect_host": 7})"},
        {"members not strings", R"({"gitlab": {"client_id": 1, "client_secret": null}})"},
        {"too large", std::string(100 * 1024, ' ') + "{}"},
    };
    for (const auto& [name, text] : faults) {
        const auto credentials = vt::readOAuthCredentials(folder.write("c.oauth", text));
        EXPECT_EQ(credentials.gitlab.clientId, "") << name;
        EXPECT_EQ(credentials.gitlab.clientSecret, "") << name;
        EXPECT_EQ(credentials.bitbucket.clientId, "") << name;
        EXPECT_EQ(credentials.redirectHost, "veldtrack.com") << name;
    }
    EXPECT_EQ(vt::readOAuthCredentials(folder.path() / "missing").redirectHost, "veldtrack.com");
    EXPECT_EQ(vt::readOAuthCredentials(folder.path()).gitlab.clientId, "") << "a folder";

    // A missing member hides only itself.
    const auto partial = vt::readOAuthCredentials(
        folder.write("c.oauth", R"({"bitbucket": {"client_secret": "s"}})"));
    EXPECT_EQ(partial.bitbucket.clientId, "");
    EXPECT_EQ(partial.bitbucket.clientSecret, "s");
    EXPECT_EQ(partial.redirectHost, "veldtrack.com");
}

TEST(OAuthCredentials, OfTheProcessComeFromTheFileBesideTheExecutable) {
    // The build puts the test fixture beside this test program.
    const vt::OAuthCredentials& credentials = vt::oauthCredentials();
    EXPECT_EQ(credentials.gitlab.clientId, "gitlab-client-id");
    EXPECT_EQ(credentials.bitbucket.clientSecret, "bitbucket-client-secret");
    EXPECT_EQ(credentials.redirectHost, "veldtrack.test");
    EXPECT_EQ(&vt::oauthCredentials(), &credentials) << "read once";
}

}  // namespace
