// Every GraphQL text the adapter can send, captured by driving each operation against the fake
// host (follow-up pages included), must be valid against GitHub's published schema.

#include "github_test_support.h"

#include <gtest/gtest.h>

#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <string>

namespace {

using vt::testing::fixtureText;
using vt::testing::GitHubTest;
using vt::testing::pageInfo;
using vt::testing::urlOf;

struct Validation {
    int status = -1;
    std::string output;
};

Validation validate(const std::string& document) {
    const std::filesystem::path file =
        std::filesystem::temp_directory_path() /
        ("vt-github-schema-" + std::to_string(::getpid()) + ".graphql");
    std::ofstream(file) << document;
    const std::string command = "node '" + std::string(VT_GRAPHQL_VALIDATE_DIR) +
                                "/validate.js' '" + VT_GITHUB_SCHEMA + "' '@" + file.string() +
                                "' 2>&1";
    Validation result;
    if (FILE* pipe = ::popen(command.c_str(), "r")) {
        std::array<char, 512> buffer{};
        while (std::fgets(buffer.data(), buffer.size(), pipe) != nullptr) {
            result.output += buffer.data();
        }
        const int status = ::pclose(pipe);
        result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    std::filesystem::remove(file);
    return result;
}

std::string missingValidator() {
    if (std::system("node --version > /dev/null 2>&1") != 0) {
        return "node is not installed";
    }
    const std::filesystem::path tool(VT_GRAPHQL_VALIDATE_DIR);
    if (!std::filesystem::exists(tool / "validate.js") ||
        !std::filesystem::exists(tool / "node_modules" / "graphql")) {
        return "the GraphQL validator is not installed in " + tool.string() +
               " (run scripts/setup.sh)";
    }
    if (!std::filesystem::exists(VT_GITHUB_SCHEMA)) {
        return std::string("the schema ") + VT_GITHUB_SCHEMA + " is missing";
    }
    return {};
}

using GitHubSchema = GitHubTest;

TEST_F(GitHubSchema, EveryTextTheAdapterSendsIsValid) {
    if (const std::string missing = missingValidator(); !missing.empty()) {
        GTEST_SKIP() << missing;
    }
    const std::string more = pageInfo(true, "Y3Vyc29yOjE=");
    const std::string last = pageInfo(false, "Y3Vyc29yOjI=");

    answer(fixtureText("viewer.json"));
    host.userWithToken(token, &error);

    answer(fixtureText("profile.json"));
    answer(R"({"data":{"viewer":{"organizations":{"nodes":[],)" + last + "}}}}");
    host.profileWithToken(token, &error);

    answer(R"({"data":{"viewer":{"login":"octo","repositories":{"nodes":[],)" + more + "}}}}");
    answer(R"({"data":{"viewer":{"repositories":{"nodes":[],)" + last + "}}}}");
    answer(R"({"data":{"viewer":{"name":"Octo","avatarUrl":null,"id":"U_1"}}})");
    host.repositoriesWithToken(token, &error);

    answer(R"({"data":{}})");
    host.createRepositoryWithToken(token, {{"identifier", "U_1"}}, "tool", "Tool",
                                   "A \"quoted\" description", 1, &error);
    answer(R"({"data":{}})");
    host.isPrivateRepositoryAtUrl(urlOf("http://github.test/owner/my.tool.git"), token, &error);
    answer(R"({"data":{}})");
    host.forksForUrl(urlOf("http://github.test/owner/repo"), token, &error);

    answer(R"({"data":{"repository":{"pullRequests":{"nodes":[],)" + more + "}}}}");
    answer(R"({"data":{"repository":{"pullRequests":{"nodes":[],)" + last + "}}}}");
    host.pullRequestsWithUrl(urlOf("http://github.test/owner/repo"), token, &error);

    std::string connections;
    for (const char* connection : {"assignees", "labels", "comments", "commits"}) {
        connections += std::string(connections.empty() ? "" : ",") + "\"" + connection +
                       R"(":{"nodes":[],)" + more + "}";
    }
    answer(R"({"data":{"repository":{"pullRequest":{)" + connections + "}}}}");
    for (const char* connection : {"assignees", "labels", "comments", "commits"}) {
        answer(R"({"data":{"repository":{"pullRequest":{")" + std::string(connection) +
               R"(":{"nodes":[],)" + last + "}}}}}");
    }
    VTPullRequest pullRequest;
    pullRequest.remoteUrl = "http://github.test/owner/repo.git";
    pullRequest.number = 12;
    host.commentsForPullRequest(pullRequest, token, &error);

    answer(R"({"data":{"repositoryOwner":{"repository":{"id":"R_1"}}}})");
    answer(R"({"data":{}})");
    host.createPullRequestWithUrl(urlOf("http://github.test/owner/repo"), "main",
                                  "alice/repo:feature/x", "A \"title\"", "Body", token, &error);
    for (int action = 0; action < 8; ++action) {
        answer(R"({"data":{}})");
    }
    host.editPullRequest(pullRequest, "New \"body\"", token, &error);
    host.addComment("A \"comment\"", pullRequest, token, &error);
    host.editComment("IC_1", "Edited", pullRequest, token, &error);
    host.deleteComment("IC_1", pullRequest, token, &error);
    const VTData oid{0xab, 0xcd, 0xef, 0x01};
    host.mergePullRequest(pullRequest, 0, oid, "", token, &error);
    host.mergePullRequest(pullRequest, 1, oid, "Headline only", token, &error);
    host.mergePullRequest(pullRequest, 2, oid, "Headline\nBody", token, &error);
    host.closePullRequest(pullRequest, token, &error);

    const auto queries = sentQueries();
    const std::set<std::string> texts(queries.begin(), queries.end());
    EXPECT_EQ(texts.size(), 26u) << "every distinct text the adapter can send";
    for (const std::string& text : texts) {
        const Validation result = validate(text);
        EXPECT_EQ(result.status, 0) << text << "\n" << result.output;
    }
}

}  // namespace
