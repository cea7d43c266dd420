// vthosts end to end: the built program, the service binary that a private bus activates, and
// for GitHub requests a fake host standing in for the GitHub API.

#include "fakehost/fake_host.h"
#include "harness.h"
#include "private_bus.h"

#include <gtest/gtest.h>
#include <boost/json/parse.hpp>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <thread>

extern char** environ;

namespace vt::client::test {
namespace {

struct Finished {
    int status = -1;
    std::string out;
    std::string err;
};

std::string contents(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
}

// Runs vthosts with `arguments`, standard input from `input` (never a terminal), and the test's
// environment without any token or password plus `variables`.
Finished runVthosts(const std::vector<std::string>& arguments, const std::string& input = "",
                    const std::map<std::string, std::string>& variables = {}) {
    TemporaryFolder folder;
    const std::string in = folder.write("in", input);
    const std::string out = (folder.path() / "out").string();
    const std::string err = (folder.path() / "err").string();

    std::vector<std::string> environment;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text(*entry);
        if (text.rfind("VELDTRACK_TOKEN=", 0) != 0 && text.rfind("VELDTRACK_PASSWORD=", 0) != 0) {
            environment.push_back(text);
        }
    }
    for (const auto& [name, value] : variables) {
        environment.push_back(name + "=" + value);
    }
    std::vector<std::string> line{VT_VTHOSTS_PATH};
    line.insert(line.end(), arguments.begin(), arguments.end());
    auto pointers = [](std::vector<std::string>& texts) {
        std::vector<char*> result;
        for (auto& text : texts) {
            result.push_back(text.data());
        }
        result.push_back(nullptr);
        return result;
    };
    auto argv = pointers(line);
    auto envp = pointers(environment);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, in.c_str(), O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, out.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, err.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0600);
    pid_t pid = -1;
    const int spawned = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    Finished finished;
    if (spawned != 0) {
        ADD_FAILURE() << "cannot start " << argv[0];
        return finished;
    }
    // A client that outlives this has hung; it is ended so that the test reports it.
    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::minutes(2);
    int status = 0;
    while (::waitpid(pid, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > giveUp) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, &status, 0);
            ADD_FAILURE() << "vthosts did not finish";
            return finished;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    finished.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    finished.out = contents(out);
    finished.err = contents(err);
    return finished;
}

// Requests for a host type without an adapter never leave the service: no network is needed.
class WithTheService : public testing::Test {
protected:
    vt::test::PrivateBus bus;
    TemporaryFolder folder;
};

TEST_F(WithTheService, AnswersHostTypesWithoutAnAdapterWithEmptyResults) {
    const std::string record = folder.write(
        "pr.json",
        R"({"$class":"VTPullRequest","remoteUrl":"https://example.test/o/r","hostType":5})");
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{"pull-requests", "https://example.test/o/r", "--host", "9"}, "{}\n"},
        {{"privacy", "git@example.test:o/r.git", "--host", "0"}, "{\"private\":false}\n"},
        {{"close", "--pull-request", record}, "{}\n"},
        {{"delete-ssh-key", "--url", "https://example.test", "--host", "4", "k-1"}, "{}\n"},
    };
    for (const auto& [line, shown] : cases) {
        Finished finished = runVthosts(line);
        EXPECT_EQ(finished.status, kSuccess) << line.front() << ": " << finished.err;
        EXPECT_EQ(finished.out, shown) << line.front();
        // Standard error is a file here: no spinner, no notes.
        EXPECT_EQ(finished.err, "") << line.front();
    }
    Finished signIn = runVthosts({"sign-in", "--url", "https://example.test", "--host", "7"},
                                 "a personal token\n");
    EXPECT_EQ(signIn.status, kFailed);
    EXPECT_NE(signIn.err.find("no credentials"), std::string::npos) << signIn.err;
}

TEST_F(WithTheService, RefusesRecordFilesItCannotDecodeAndNamesTheKey) {
    const std::pair<std::string, std::string> cases[] = {
        {R"({"$class":"VTPullRequest","remoteUrl":"https://example.test/o/r","number":"seven"})",
         "number"},
        {R"({"$class":"VTPullRequest","remoteUrl":"not a url"})", "remoteUrl"},
        {R"({"$class":"VTPullRequestComment","identifier":"C1"})", "$class"},
    };
    for (const auto& [text, key] : cases) {
        const std::string record = folder.write("pr.json", text);
        Finished finished = runVthosts({"comment", "--pull-request", record, "--message", "hi"});
        EXPECT_EQ(finished.status, kUsage) << text << ": " << finished.err;
        EXPECT_NE(finished.err.find("refused"), std::string::npos) << finished.err;
        EXPECT_NE(finished.err.find(key), std::string::npos) << finished.err;
        EXPECT_EQ(finished.out, "");
    }
}

// GitHub requests against a fake GitHub API on loopback.
class WithAFakeGitHub : public WithTheService {
protected:
    WithAFakeGitHub() {
        bus.setActivationEnvironment({{"VELDTRACK_CONNECT_TO", "api.github.test:80:127.0.0.1:" +
                                                                   std::to_string(host.port())}});
    }
    ~WithAFakeGitHub() override {
        for (const auto& problem : host.problems()) {
            ADD_FAILURE() << problem;
        }
    }

    static std::function<bool(const vt::fake::Request&)> graphQl(std::string piece) {
        return [piece](const vt::fake::Request& request) {
            return request.method == "POST" && request.target == "/graphql" &&
                   request.body.find(piece) != std::string::npos;
        };
    }

    vt::fake::FakeHost host;
    const std::string repository = "http://github.test/octocat/hello";
};

TEST_F(WithAFakeGitHub, SendsAPersonalTokenFileAsABearerToken) {
    host.expect(graphQl("repository(owner:\\\"octocat\\\",name:\\\"hello\\\"){isPrivate}"),
                vt::fake::Response::json(R"({"data":{"repository":{"isPrivate":true}}})"));
    const std::string token = folder.write("token", "ghp_secret\n");
    Finished finished =
        runVthosts({"privacy", repository, "--host", "github", "--token-file", token});
    EXPECT_EQ(finished.status, kSuccess) << finished.err;
    EXPECT_EQ(finished.out, "{\"private\":true}\n");
    ASSERT_EQ(host.requestCount(), 1u);
    EXPECT_EQ(host.requests()[0].header("Authorization"), "Bearer ghp_secret");
}

TEST_F(WithAFakeGitHub, ReportsTheHostsRefusalWithExitStatusOne) {
    host.expect(graphQl("isPrivate"),
                vt::fake::Response::json(R"({"message":"Bad credentials"})", 401));
    Finished finished = runVthosts({"privacy", repository, "--host", "github"}, "",
                                   {{"VELDTRACK_TOKEN", R"({"token_type":"token",
                                                          "access_token":"expired"})"}});
    EXPECT_EQ(finished.status, kFailed);
    EXPECT_EQ(host.requests().at(0).header("Authorization"), "token expired");
    auto shown = boost::json::parse(finished.out);
    EXPECT_EQ(shown.at("error").at("domain"), "VTHTTPErrorDomain");
    EXPECT_EQ(shown.at("error").at("code"), 401);
    EXPECT_NE(finished.err.find("VTHTTPErrorDomain, code 401"), std::string::npos) << finished.err;
    EXPECT_NE(finished.err.find("Bad credentials"), std::string::npos) << finished.err;
}

TEST_F(WithAFakeGitHub, MergesAPullRequestNamedByNumberWithTheLoadedIdentifier) {
    host.expect(graphQl("pullRequest(number:7){id,"), vt::fake::Response::json(R"({"data":{
        "repository":{"pullRequest":{"id":"PR_kw7","url":"http://github.test/octocat/hello/pull/7",
        "viewerCanUpdate":true,"viewerCanSubscribe":true,"merged":false,"mergeable":"MERGEABLE",
        "body":"Fixes the build.",
        "assignees":{"nodes":[],"pageInfo":{"endCursor":null,"hasNextPage":false}},
        "labels":{"nodes":[],"pageInfo":{"endCursor":null,"hasNextPage":false}},
        "comments":{"nodes":[],"pageInfo":{"endCursor":null,"hasNextPage":false}},
        "commits":{"nodes":[],"pageInfo":{"endCursor":null,"hasNextPage":false}}}}}})"));
    const std::string oid = "0123456789abcdef0123456789abcdef01234567";
    host.expect(
        graphQl("mergePullRequest(input:{pullRequestId:\\\"PR_kw7\\\",mergeMethod:SQUASH,"
                "expectedHeadOid:\\\"" +
                oid + "\\\"})"),
        vt::fake::Response::json(R"({"data":{"mergePullRequest":{"clientMutationId":null}}})"));
    Finished finished = runVthosts({"merge", repository, "--host", "github", "--number", "7",
                                    "--method", "squash", "--oid", oid},
                                   "ghp_secret");
    EXPECT_EQ(finished.status, kSuccess) << finished.err;
    EXPECT_EQ(finished.out, "{}\n");
    EXPECT_EQ(host.requestCount(), 2u);
}

}  // namespace
}  // namespace vt::client::test
