// What each command sends, and pull requests named by number.

#include "harness.h"
#include "records/records.h"

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <fstream>

namespace vt::client::test {
namespace {

const std::string kRepository = "https://github.com/octocat/hello";
const std::string kOid = "0123456789abcdef0123456789abcdef01234567";

// The D-Bus method and argument types of every request, as the service exports them.
TEST(Requests, HaveTheServicesMembersAndArgumentTypes) {
    TemporaryFolder folder;
    const std::string record = folder.write("pr.json", R"({"$class":"VTPullRequest","number":7})");
    const std::string key = folder.write("id.pub", "ssh-ed25519 AAAAC3Nz alice@laptop\n");
    struct Case {
        std::vector<std::string> line;
        std::string member;
        std::string signature;
    };
    const std::vector<Case> cases{
        {{"sign-in", "--host", "github", "--user", "alice"}, "SignInWithUrl", "sxss"},
        {{"repositories", "--host", "github"}, "GetRepositoriesWithToken", "a{sv}sx"},
        {{"create-repository", "--host", "github", "--slug", "new"},
         "CreateRepositoryWithToken",
         "a{sv}sxa{sv}sssx"},
        {{"ssh-keys", "--host", "github"}, "GetSshKeysWithToken", "a{sv}sx"},
        {{"add-ssh-key", "--host", "github", "--key-file", key}, "AddSshKey", "ssa{sv}sx"},
        {{"delete-ssh-key", "--host", "github", "42"}, "DeleteSshKey", "va{sv}sx"},
        {{"profile", "--host", "github"}, "GetProfileWithToken", "a{sv}sx"},
        {{"privacy", kRepository}, "GetPrivacyWithUrl", "sxa{sv}"},
        {{"forks", kRepository}, "GetForksForUrls", "asaxaa{sv}"},
        {{"pull-requests", kRepository}, "GetPullRequestsWithUrl", "sxa{sv}"},
        {{"conversation", "--pull-request", record}, "GetCommentsForPullRequest", "a{sv}a{sv}"},
        {{"create-pull-request", kRepository, "--base", "main", "--head", "topic", "--title", "T"},
         "CreatePullRequestWithUrl",
         "sxssssa{sv}"},
        {{"edit-pull-request", "--pull-request", record, "--message", "m"},
         "EditPullRequest",
         "a{sv}sa{sv}"},
        {{"comment", "--pull-request", record, "--message", "m"}, "AddComment", "sa{sv}a{sv}"},
        {{"reply", "--pull-request", record, "--to", "C1", "--message", "m"},
         "ReplyTo",
         "ssa{sv}a{sv}"},
        {{"edit-comment", "--pull-request", record, "--id", "C1", "--message", "m"},
         "EditComment",
         "ssa{sv}a{sv}"},
        {{"delete-comment", "--pull-request", record, "--id", "C1"},
         "DeleteComment",
         "sa{sv}a{sv}"},
        {{"merge", "--pull-request", record, "--oid", kOid}, "MergePullRequest", "a{sv}xaysa{sv}"},
        {{"close", "--pull-request", record}, "ClosePullRequest", "a{sv}a{sv}"},
    };
    for (const auto& c : cases) {
        Harness harness;
        harness.outcomes.push_back(
            replying(c.member == "SignInWithUrl"
                         ? boost::json::object{{"result", {{"VTHostToken", {{"a", "b"}}}}}}
                         : boost::json::object{}));
        harness.environment["VELDTRACK_PASSWORD"] = "pw";
        EXPECT_EQ(harness.run(c.line), kSuccess) << c.member << ": " << harness.err;
        ASSERT_EQ(harness.sent.size(), 1u) << c.member;
        EXPECT_EQ(harness.sent[0].member, c.member);
        EXPECT_EQ(signature(harness.sent[0]), c.signature) << c.member;
    }
}

TEST(Requests, CarryTheValuesGivenOrTheirDefaults) {
    TemporaryFolder folder;
    const std::string key = folder.write("id.pub", "ssh-ed25519 AAAAC3Nz alice@laptop\n");
    const std::string password = folder.write("password", "p\n");
    const std::string record = folder.write("pr.json", R"({"$class":"VTPullRequest"})");
    const std::string message = folder.write("message", "Release 2.0\n\nNotes.\n");
    const std::string github = "https://github.com";
    const boost::json::object none;  // no token: standard input is a terminal here
    struct Case {
        std::vector<std::string> line;
        std::vector<Argument> expected;
    };
    const std::vector<Case> cases{
        {{"sign-in", "--url", "https://gitlab.example/", "--host", "gitlab", "--user", "u",
          "--password-file", password},
         {std::string("https://gitlab.example/"), std::int64_t{2}, std::string("u"),
          std::string("p")}},
        // Without a password the interactive sign-in starts.
        {{"sign-in", "--host", "github"}, {github, std::int64_t{1}, std::string(), std::string()}},
        {{"create-repository", "--host", "bitbucket", "--slug", "new", "--public", "--namespace",
          R"({"name":"acme","identifier":"{1}"})"},
         {none, std::string("https://bitbucket.org"), std::int64_t{3},
          boost::json::object{{"name", "acme"}, {"identifier", "{1}"}}, std::string("new"),
          std::string("new"), std::string(), std::int64_t{1}}},
        {{"create-repository", "--host", "github", "--slug", "new", "--name", "New",
          "--description", "d"},
         {none, github, std::int64_t{1}, none, std::string("new"), std::string("New"),
          std::string("d"), std::int64_t{0}}},
        {{"add-ssh-key", "--host", "github", "--key-file", key},
         {std::string("ssh-ed25519 AAAAC3Nz alice@laptop"), std::string("alice@laptop"), none,
          github, std::int64_t{1}}},
        {{"add-ssh-key", "--host", "github", "--key-file", key, "--title", "work"},
         {std::string("ssh-ed25519 AAAAC3Nz alice@laptop"), std::string("work"), none, github,
          std::int64_t{1}}},
        {{"delete-ssh-key", "--host", "github", "42"},
         {AnyValue{std::int64_t{42}}, none, github, std::int64_t{1}}},
        {{"delete-ssh-key", "--host", "bitbucket", "{b5a1-77}"},
         {AnyValue{"{b5a1-77}"}, none, std::string("https://bitbucket.org"), std::int64_t{3}}},
        {{"create-pull-request", "git@gitlab.com:o/r.git", "--base", "main", "--head", "topic",
          "--title", "T"},
         {std::string("ssh://git@gitlab.com/o/r.git"), std::int64_t{2}, std::string("main"),
          std::string("topic"), std::string("T"), std::string(), none}},
        // Every URL is asked with the token, and the service takes one type per distinct host.
        {{"forks", "https://github.com/a/one", "git@gitlab.com:b/two.git",
          "https://github.com/a/three"},
         {std::vector<std::string>{"https://github.com/a/one", "ssh://git@gitlab.com/b/two.git",
                                   "https://github.com/a/three"},
          std::vector<std::int64_t>{1, 2}, std::vector<boost::json::object>(3, none)}},
        // The merge method's code, the object id's bytes, and the message file without its final
        // line feed.
        {{"merge", "--pull-request", record, "--method", "rebase", "--oid", "00ff" + kOid.substr(4),
          "--message-file", message},
         {boost::json::object{{"$class", "VTPullRequest"}}, std::int64_t{1},
          VTData{0x00, 0xff, 0x45, 0x67, 0x89, 0xab, 0xcd, 0xef, 0x01, 0x23,
                 0x45, 0x67, 0x89, 0xab, 0xcd, 0xef, 0x01, 0x23, 0x45, 0x67},
          std::string("Release 2.0\n\nNotes."), none}},
    };
    for (const auto& c : cases) {
        Harness harness;
        harness.outcomes.push_back(replying({}));
        harness.run(c.line);
        ASSERT_EQ(harness.sent.size(), 1u) << harness.err;
        EXPECT_EQ(harness.sent[0].arguments, c.expected) << testing::PrintToString(c.line);
    }
}

// A pull request named by URL and number is loaded first; the action then goes out with the
// record that came back and with the token the load renewed.
class PullRequestByNumber : public testing::Test {
protected:
    PullRequestByNumber() {
        harness.environment["VELDTRACK_TOKEN"] = R"({"token_type":"Bearer","access_token":"old",
                                                     "refresh_token":"r1"})";
        loaded.remoteUrl = kRepository;
        loaded.hostType = 1;
        loaded.number = 7;
        loaded.identifier = "PR_kw7";
        loaded.title = "Fix the build";
    }

    CallOutcome conversation(bool renewed) {
        boost::json::object reply{{"conversation", boost::json::array{loaded.toValue(), true}}};
        if (renewed) {
            reply["refreshedToken"] = renewedToken;
        }
        return replying(std::move(reply));
    }

    Harness harness;
    VTPullRequest loaded;
    VTToken renewedToken{
        {"token_type", "Bearer"}, {"access_token", "new-secret"}, {"refresh_token", "r2"}};
};

TEST_F(PullRequestByNumber, IsLoadedThenActedOnWithTheLoadedRecordAndRenewedToken) {
    harness.outcomes.push_back(conversation(true));
    harness.outcomes.push_back(replying({}));
    ASSERT_EQ(harness.run({"close", kRepository, "--number", "7"}), kSuccess) << harness.err;
    ASSERT_EQ(harness.sent.size(), 2u);

    EXPECT_EQ(harness.sent[0].member, "GetCommentsForPullRequest");
    auto asked =
        VTPullRequest::fromValue(std::get<boost::json::object>(harness.sent[0].arguments[0]));
    ASSERT_TRUE(asked);
    EXPECT_EQ(asked->remoteUrl, kRepository);
    EXPECT_EQ(asked->hostType, 1);
    EXPECT_EQ(asked->number, 7);
    EXPECT_EQ(harness.tokenSent(0).at("access_token"), "old");

    EXPECT_EQ(harness.sent[1].member, "ClosePullRequest");
    EXPECT_EQ(VTPullRequest::fromValue(std::get<boost::json::object>(harness.sent[1].arguments[0])),
              loaded);
    EXPECT_EQ(harness.tokenSent(1), renewedToken);

    // The renewal is news even though the close itself renewed nothing; the token stays hidden.
    auto shown = boost::json::parse(harness.out).as_object();
    EXPECT_TRUE(shown.at("refreshedToken").is_string());
    EXPECT_EQ(harness.out.find("new-secret"), std::string::npos);
    EXPECT_NE(harness.err.find("--save-token"), std::string::npos);
}

TEST_F(PullRequestByNumber, ConversationIsOneRequest) {
    harness.outcomes.push_back(conversation(false));
    ASSERT_EQ(harness.run({"conversation", kRepository, "--number", "7"}), kSuccess);
    ASSERT_EQ(harness.sent.size(), 1u);
    EXPECT_EQ(boost::json::parse(harness.out).at("conversation").as_array().size(), 2u);
}

// The host's list does not say where its pull requests live; a listed record passed back later
// must still reach its host.
TEST_F(PullRequestByNumber, ListedRecordsCarryTheirRepositoryToLaterCommands) {
    VTPullRequest listed;
    listed.number = 7;
    listed.title = "Fix the build";
    harness.outcomes.push_back(replying({{"pullRequests", boost::json::array{listed.toValue()}}}));
    ASSERT_EQ(harness.run({"pull-requests", kRepository, "--host", "github"}), kSuccess)
        << harness.err;
    const boost::json::value record = boost::json::parse(harness.out).at("pullRequests").at(0);

    TemporaryFolder folder;
    const std::string file = folder.write("pr.json", boost::json::serialize(record));
    harness.outcomes.push_back(replying({}));
    ASSERT_EQ(harness.run({"comment", "--pull-request", file, "--message", "Thanks"}), kSuccess)
        << harness.err;
    auto sent =
        VTPullRequest::fromValue(std::get<boost::json::object>(harness.sent.back().arguments[1]));
    ASSERT_TRUE(sent);
    EXPECT_EQ(sent->remoteUrl, kRepository);
    EXPECT_EQ(sent->hostType, 1);
    EXPECT_EQ(sent->number, 7);
}

TEST_F(PullRequestByNumber, ThatDoesNotLoadIsNotActedOn) {
    const std::vector<std::pair<CallOutcome, int>> outcomes{
        {replying({{"error", VTError("VTHTTPErrorDomain", 404, "Not Found").toValue()}}), kFailed},
        {replying({}), kFailed},  // a host type the service does not know
        {replying({{"conversation", boost::json::array{true}}}), kFailed},
        {failing("org.freedesktop.DBus.Error.ServiceUnknown", "not there"), kFailed},
    };
    for (const auto& [outcome, status] : outcomes) {
        Harness fresh;
        fresh.outcomes.push_back(outcome);
        EXPECT_EQ(fresh.run({"comment", kRepository, "--number", "7", "--message", "hi"}), status);
        EXPECT_EQ(fresh.sent.size(), 1u);
        EXPECT_FALSE(fresh.err.empty());
    }
}

TEST_F(PullRequestByNumber, KeepsATokenRenewedBeforeTheActionFailed) {
    TemporaryFolder folder;
    const std::string saved = (folder.path() / "token.json").string();
    harness.outcomes.push_back(conversation(true));
    harness.outcomes.push_back(failing("org.freedesktop.DBus.Error.NoReply", "timed out"));
    EXPECT_EQ(harness.run({"close", kRepository, "--number", "7", "--save-token", saved}), kFailed);
    std::ifstream file(saved);
    std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    EXPECT_EQ(boost::json::parse(text), boost::json::value(renewedToken));
}

}  // namespace
}  // namespace vt::client::test
