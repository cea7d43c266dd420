// Every GraphQL text the adapter can send, captured by driving each operation against the fake
// host (follow-up pages included), must be valid against GitHub's published schema.

#include "github_test_support.h"

#include <boost/json/value_from.hpp>

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace {

using vt::fake::Response;
using vt::testing::GitHubTest;
using vt::testing::pageInfo;
using vt::testing::urlOf;

// Validates every document in one node process (starting node costs about half a second), with
// the installed validator's own functions. Returns one result per document, in order:
// {"valid": bool, "errors": [...], "deprecations": [...]}.
boost::json::array validateAll(const std::vector<std::string>& documents) {
    const std::filesystem::path folder =
        std::filesystem::temp_directory_path() / ("vt-github-schema-" + std::to_string(::getpid()));
    std::filesystem::create_directories(folder);
    std::ofstream(folder / "documents.json")
        << boost::json::serialize(boost::json::value_from(documents));
    std::ofstream(folder / "check.js")
        << "const fs = require('fs');\n"
           "const tool = require(process.argv[2]);\n"
           "const schema = tool.loadSchema(process.argv[3]);\n"
           "const documents = JSON.parse(fs.readFileSync(process.argv[4], 'utf8'));\n"
           "console.log(JSON.stringify(documents.map((d) => tool.validateDocument(schema, d))));\n";
    const std::string command = "node '" + (folder / "check.js").string() + "' '" +
                                VT_GRAPHQL_VALIDATE_DIR + "/validate.js' '" + VT_GITHUB_SCHEMA +
                                "' '" + (folder / "documents.json").string() + "' 2>&1";
    std::string output;
    if (FILE* pipe = ::popen(command.c_str(), "r")) {
        std::array<char, 4096> buffer{};
        while (std::fgets(buffer.data(), buffer.size(), pipe) != nullptr) {
            output += buffer.data();
        }
        ::pclose(pipe);
    }
    std::filesystem::remove_all(folder);
    boost::system::error_code failure;
    boost::json::value results = boost::json::parse(output, failure);
    if (failure || !results.is_array()) {
        ADD_FAILURE() << "the validator did not answer: " << output;
        return {};
    }
    return results.as_array();
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
    // One answer fits every query: each connection has a next page until a follow-up asks.
    fake.setHandler([](const vt::fake::Request& request) {
        const bool followUp = request.body.find("after:") != std::string::npos;
        const std::string c = R"({"nodes":[],)" + pageInfo(!followUp, "Y3Vyc29yOjE=") + "}";
        return Response::json(R"({"data":{"viewer":{"login":"octo","organizations":)" + c +
                              R"(,"repositories":)" + c + R"(},"repository":{"pullRequests":)" + c +
                              R"(,"pullRequest":{"assignees":)" + c + R"(,"labels":)" + c +
                              R"(,"comments":)" + c + R"(,"commits":)" + c + "}}}}");
    });
    const VTUrl url = urlOf("http://github.test/owner/my.tool.git");
    host.userWithToken(token, &error);
    host.profileWithToken(token, &error);
    host.repositoriesWithToken(token, &error);  // owns nothing: also asks for the viewer
    host.createRepositoryWithToken(token, {{"identifier", "U_1"}}, "tool", "Tool",
                                   "A \"quoted\" description", 1, &error);
    host.isPrivateRepositoryAtUrl(url, token, &error);
    host.forksForUrl(url, token, &error);
    host.pullRequestsWithUrl(url, token, &error);
    VTPullRequest pullRequest = vt::testing::pullRequestSeven("http://github.test/owner/repo");
    host.commentsForPullRequest(pullRequest, token, &error);
    host.createPullRequestWithUrl(url, "main", "alice/repo:feature/x", "A \"title\"", "Body", token,
                                  &error);
    host.editPullRequest(pullRequest, "New \"body\"", token, &error);
    host.addComment("A \"comment\"", pullRequest, token, &error);
    host.editComment("IC_1", "Edited", pullRequest, token, &error);
    host.deleteComment("IC_1", pullRequest, token, &error);
    const VTData oid{0xab, 0xcd, 0xef, 0x01};
    for (const char* message : {"", "Headline only", "Headline\nBody"}) {
        host.mergePullRequest(pullRequest, 2, oid, message, token, &error);
    }
    host.closePullRequest(pullRequest, token, &error);

    const auto queries = sentQueries();
    const std::set<std::string> distinct(queries.begin(), queries.end());
    const std::vector<std::string> texts(distinct.begin(), distinct.end());
    EXPECT_EQ(texts.size(), 26u) << "every distinct text the adapter can send";
    const boost::json::array results = validateAll(texts);
    ASSERT_EQ(results.size(), texts.size());
    for (std::size_t index = 0; index < texts.size(); ++index) {
        EXPECT_TRUE(results[index].at("valid").as_bool())
            << texts[index] << "\n"
            << boost::json::serialize(results[index].at("errors"));
    }
}

}  // namespace
