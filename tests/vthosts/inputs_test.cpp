// What the client reads: repository addresses, tokens and their sources, object ids.

#include "vthosts/inputs.h"
#include "harness.h"

#include <gtest/gtest.h>

namespace vt::client::test {
namespace {

TEST(ScpLikeRemotes, AreRewrittenAsSshUrls) {
    const std::pair<std::string, std::string> cases[] = {
        {"git@github.com:owner/repo.git", "ssh://git@github.com/owner/repo.git"},
        {"github.com:owner/repo", "ssh://github.com/owner/repo"},
        {"git@host.example:/srv/git/repo.git", "ssh://git@host.example/srv/git/repo.git"},
        {"git@host.example:~alice/repo.git", "ssh://git@host.example/~alice/repo.git"},
        {"git@[::1]:owner/repo.git", "ssh://git@[::1]/owner/repo.git"},
        {"[fe80::1]:repo", "ssh://[fe80::1]/repo"},
        // Already URLs, or paths: left alone.
        {"https://github.com/owner/repo.git", "https://github.com/owner/repo.git"},
        {"ssh://git@host.example:2222/owner/repo.git",
         "ssh://git@host.example:2222/owner/repo.git"},
        {"file:///srv/git/repo.git", "file:///srv/git/repo.git"},
        {"/srv/git/repo:odd", "/srv/git/repo:odd"},
        {"./repo:odd", "./repo:odd"},
        {":repo", ":repo"},
        {"repo", "repo"},
    };
    for (const auto& [remote, url] : cases) {
        EXPECT_EQ(rewriteScpLikeRemote(remote), url) << remote;
    }
}

TEST(TokenTexts, AreTokenDictionariesOrPersonalTokens) {
    const std::pair<std::string, VTToken> cases[] = {
        {"ghp_abc123\n", {{"token_type", "Bearer"}, {"access_token", "ghp_abc123"}}},
        {"  glpat-x_Y.z \r\n", {{"token_type", "Bearer"}, {"access_token", "glpat-x_Y.z"}}},
        {R"( {"token_type":"Basic","access_token":"dTpw"})",
         {{"token_type", "Basic"}, {"access_token", "dTpw"}}},
        {R"({"token_type":"bearer","access_token":"a","refresh_token":"r","expires_in":7200})",
         {{"token_type", "bearer"},
          {"access_token", "a"},
          {"refresh_token", "r"},
          {"expires_in", 7200}}},
        {"", {}},
        {" \n\t", {}},
    };
    for (const auto& [text, token] : cases) {
        std::string problem;
        EXPECT_EQ(tokenFromText(text, &problem), token) << text << ": " << problem;
    }
}

TEST(TokenTexts, ThatCouldNotBeHeadersAreRefusedWithoutBeingQuoted) {
    for (const char* text : {"secret words", "secret\r\nX-Injected: 1", "secr\x01t", "sécret",
                             "{\"access_token\":\"secret\"", "{secret}"}) {
        std::string problem;
        EXPECT_FALSE(tokenFromText(text, &problem)) << text;
        EXPECT_FALSE(problem.empty());
        EXPECT_EQ(problem.find("secret"), std::string::npos) << problem;
    }
}

// Where the token comes from, in order: --token-file, $VELDTRACK_TOKEN, standard input when it
// is not a terminal and no other input claimed it; else there is none.
TEST(TokenSources, AreTriedInOrder) {
    TemporaryFolder folder;
    const std::string file = folder.write("token", "from-file\n");
    struct Case {
        std::string name;
        std::vector<std::string> extra;
        std::optional<std::string> variable;
        bool inputIsTerminal;
        std::optional<std::string> expected;  // access token; nullopt: the empty dictionary
    };
    const Case cases[] = {
        {"file beats all", {"--token-file", file}, "from-env", false, "from-file"},
        {"variable beats input", {}, "from-env", false, "from-env"},
        {"empty variable is unset", {}, "", false, "from-input"},
        {"input when piped", {}, std::nullopt, false, "from-input"},
        {"nothing from a terminal", {}, std::nullopt, true, std::nullopt},
        {"dash reads the input", {"--token-file", "-"}, "from-env", true, "from-input"},
    };
    for (const auto& c : cases) {
        Harness harness;
        harness.input = "from-input\n";
        harness.inputIsTerminal = c.inputIsTerminal;
        if (c.variable) {
            harness.environment["VELDTRACK_TOKEN"] = *c.variable;
        }
        harness.outcomes.push_back(replying({}));
        std::vector<std::string> line{"ssh-keys", "--host", "github"};
        line.insert(line.end(), c.extra.begin(), c.extra.end());
        ASSERT_EQ(harness.run(line), kSuccess) << c.name << ": " << harness.err;
        const VTToken expected =
            c.expected ? VTToken{{"token_type", "Bearer"}, {"access_token", *c.expected}}
                       : VTToken{};
        EXPECT_EQ(harness.tokenSent(), expected) << c.name;
    }
}

TEST(TokenSources, LeaveStandardInputToTheOptionThatClaimsIt) {
    Harness harness;
    harness.input = "Looks good to me.\n";
    harness.inputIsTerminal = false;
    harness.outcomes.push_back(replying({}));
    TemporaryFolder folder;
    const std::string record = folder.write("pr.json", R"({"$class":"VTPullRequest"})");
    ASSERT_EQ(harness.run({"comment", "--pull-request", record, "--message-file", "-"}), kSuccess)
        << harness.err;
    EXPECT_EQ(harness.tokenSent(), VTToken{});
    EXPECT_EQ(harness.sent.at(0).arguments.at(0), Argument(std::string("Looks good to me.")));
}

}  // namespace
}  // namespace vt::client::test
