// The command line: host types, usage errors and help.

#include "harness.h"
#include "vthosts/commands.h"
#include "vthosts/inputs.h"

#include <gtest/gtest.h>

namespace vt::client::test {
namespace {

TEST(HostTypes, AreNamesInAnyCaseOrNumbers) {
    const std::pair<std::string, std::optional<std::int64_t>> cases[] = {
        {"github", 1},
        {"GitLab", 2},
        {"BITBUCKET", 3},
        {"7", 7},
        {"0", 0},
        {"-4", -4},
        {"", std::nullopt},
        {"gh", std::nullopt},
        {"1x", std::nullopt},
        {" 1", std::nullopt},
        {"99999999999999999999", std::nullopt}};
    for (const auto& [text, type] : cases) {
        std::string problem;
        EXPECT_EQ(parseHostType(text, &problem), type) << text;
        EXPECT_EQ(problem.empty(), type.has_value()) << text;
    }
}

TEST(HostTypes, AreKnownFromThePublicSitesOnly) {
    const std::pair<std::string, std::optional<std::int64_t>> cases[] = {
        {"https://github.com/o/r", 1},
        {"git@gitlab.com:o/r.git", 2},
        {"https://www.bitbucket.org/o/r", 3},
        {"https://GitHub.com/o/r", 1},
        {"https://github.example.com/o/r", std::nullopt},
        {"https://notgithub.com/o/r", std::nullopt},
        {"not a url", std::nullopt},
    };
    for (const auto& [url, type] : cases) {
        EXPECT_EQ(hostTypeOfPublicSite(url), type) << url;
    }
}

// Every line here is refused before anything is sent, with exit status 2 and a reason.
TEST(UsageErrors, ExitWithTwoAndSendNothing) {
    const std::string oid(40, 'a');
    const std::vector<std::vector<std::string>> lines{
        {},
        {"frobnicate"},
        {"--bogus"},
        {"profile"},
        {"profile", "--host", "gh"},
        {"profile", "--host", "9"},
        {"profile", "--host"},
        {"profile", "--host", "github", "--host", "gitlab"},
        {"profile", "--host", "github", "--pretty", "--compact"},
        {"profile", "--host", "github", "--url", "no host here"},
        {"profile", "--host", "github", "extra"},
        {"profile", "--pretty=yes", "--host", "github"},
        {"sign-in", "--host", "github", "--token-file", "t"},
        {"privacy", "--host", "github"},
        {"privacy", "https://example.test/o/r"},
        {"privacy", "https://github.com/o/r", "https://github.com/o/s"},
        {"delete-ssh-key", "--host", "github"},
        {"create-repository", "--host", "github"},
        {"create-repository", "--host", "github", "--slug", "x", "--public", "--private"},
        {"create-repository", "--host", "github", "--slug", "x", "--namespace", "[1]"},
        {"create-pull-request", "https://github.com/o/r", "--base", "main", "--head", "b"},
        {"close", "https://github.com/o/r"},
        {"close", "https://github.com/o/r", "--number", "0"},
        {"close", "https://github.com/o/r", "--number", "7x"},
        {"close", "--pull-request", "pr.json", "--number", "3"},
        {"close", "--pull-request", "pr.json", "--host", "github"},
        {"comment", "https://github.com/o/r", "--number", "3"},
        {"comment", "https://github.com/o/r", "--number", "3", "--message", "a", "--message-file",
         "f"},
        {"comment", "https://github.com/o/r", "--number", "3", "--message-file", "-",
         "--token-file", "-"},
        {"merge", "https://github.com/o/r", "--number", "3"},
        {"merge", "https://github.com/o/r", "--number", "3", "--oid", "abc123"},
        {"merge", "https://github.com/o/r", "--number", "3", "--oid", oid, "--method", "octopus"},
        {"merge", "https://github.com/o/r", "--number", "3", "--oid", std::string(40, 'g')},
        {"profile", "--host", "github", "--token-file", "/nonexistent/token"},
        {"--version", "profile"},
    };
    for (const auto& line : lines) {
        Harness harness;
        EXPECT_EQ(harness.run(line), kUsage) << testing::PrintToString(line);
        EXPECT_EQ(harness.err.rfind("vthosts: ", 0), 0u) << harness.err;
        EXPECT_TRUE(harness.sent.empty()) << testing::PrintToString(line);
        EXPECT_TRUE(harness.out.empty()) << harness.out;
    }
}

TEST(Help, IsOfferedForEveryCommand) {
    for (const auto& command : commands()) {
        const std::string name(command.name);
        for (const auto& line :
             std::vector<std::vector<std::string>>{{name, "--help"}, {"help", name}}) {
            Harness harness;
            ASSERT_EQ(harness.run(line), kSuccess) << name;
            EXPECT_EQ(harness.out.rfind("Usage: vthosts " + name + " ", 0), 0u) << harness.out;
        }
    }
}

TEST(Options, AreTakenBeforeOrAfterTheCommandAndWithEquals) {
    for (const auto& line :
         std::vector<std::vector<std::string>>{{"--host", "gitlab", "profile"},
                                               {"profile", "--host=gitlab"},
                                               {"--host=gitlab", "--", "profile"}}) {
        Harness harness;
        harness.outcomes.push_back(replying({}));
        ASSERT_EQ(harness.run(line), kSuccess) << harness.err;
        ASSERT_EQ(harness.sent.size(), 1u);
        EXPECT_EQ(harness.sent[0].arguments.at(2), Argument(std::int64_t{2}));
        EXPECT_EQ(harness.sent[0].arguments.at(1), Argument(std::string("https://gitlab.com")));
    }
}

}  // namespace
}  // namespace vt::client::test
