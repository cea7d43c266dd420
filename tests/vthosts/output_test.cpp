// How replies are shown: JSON layout, errors and exit statuses, tokens kept off the screen.

#include "vthosts/output.h"
#include "harness.h"

#include <gtest/gtest.h>
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include <sys/stat.h>

#include <fstream>

namespace vt::client::test {
namespace {

boost::json::object httpError() {
    return VTError("VTHTTPErrorDomain", 401, "Unauthorized", "Bad credentials").toValue();
}

TEST(Json, IsIndentedOrCompactAndReadsBackTheSame) {
    const boost::json::value value = boost::json::parse(
        R"({"conversation":[{"$class":"VTPullRequest","title":"Fix \"it\"\n","number":7,
            "labels":[],"assignees":[{}],"merged":false},true],"private":true,"x":1.5,"n":null})");
    const std::string pretty = formatJson(value, true);
    EXPECT_EQ(boost::json::parse(pretty), value);
    EXPECT_EQ(boost::json::parse(formatJson(value, false)), value);
    EXPECT_EQ(formatJson(value, false).find('\n'), std::string::npos);
    EXPECT_NE(pretty.find("\n  \"conversation\": [\n    {\n      \"$class\": \"VTPullRequest\","),
              std::string::npos)
        << pretty;
    EXPECT_NE(pretty.find("\"labels\": [],"), std::string::npos) << pretty;
    EXPECT_NE(pretty.find("\"assignees\": [\n        {}\n      ],"), std::string::npos) << pretty;
    EXPECT_EQ(formatJson(boost::json::object{}, true), "{}");
}

TEST(Json, IsIndentedOnATerminalUnlessAskedOtherwise) {
    const std::pair<bool, std::vector<std::string>> cases[] = {
        {true, {}}, {false, {"--pretty"}}, {false, {}}, {true, {"--compact"}}};
    for (const auto& [terminal, extra] : cases) {
        Harness harness;
        harness.outputIsTerminal = terminal;
        harness.outcomes.push_back(replying({{"private", true}}));
        std::vector<std::string> line{"privacy", "https://github.com/o/r"};
        line.insert(line.end(), extra.begin(), extra.end());
        ASSERT_EQ(harness.run(line), kSuccess);
        const bool indented =
            (terminal && extra.empty()) || extra == std::vector<std::string>{"--pretty"};
        EXPECT_EQ(harness.out, indented ? "{\n  \"private\": true\n}\n" : "{\"private\":true}\n");
    }
}

// The exit status follows the reply: an error in it is 1, a refused request 2, no answer 1.
TEST(Replies, DecideTheExitStatusAndWhatGoesToStandardError) {
    struct Case {
        std::string name;
        CallOutcome outcome;
        int status;
        std::vector<std::string> errorLines;  // pieces standard error must hold
        bool printed;                         // whether the reply went to standard output
    };
    const std::vector<Case> cases{
        {"empty reply", replying({}), kSuccess, {}, true},
        {"result", replying({{"keys", boost::json::array{}}}), kSuccess, {}, true},
        {"host error",
         replying({{"error", httpError()}}),
         kFailed,
         {"vthosts: Unauthorized", "VTHTTPErrorDomain, code 401", "Bad credentials"},
         true},
        {"error without suggestion",
         replying({{"error", VTError("VTURLErrorDomain", -1003,
                                     "A server with the specified "
                                     "hostname could not be found.")
                                 .toValue()}}),
         kFailed,
         {"could not be found", "VTURLErrorDomain, code -1003"},
         true},
        {"unreadable error", replying({{"error", "gone wrong"}}), kFailed, {"gone wrong"}, true},
        {"refused arguments",
         failing("com.veldtrack.Veldtrack.Error.InvalidArguments", "pullRequest: number"),
         kUsage,
         {"refused", "pullRequest: number"},
         false},
        {"no service",
         failing("org.freedesktop.DBus.Error.ServiceUnknown", "not provided"),
         kFailed,
         {"did not answer", "ServiceUnknown"},
         false},
    };
    for (const auto& c : cases) {
        Harness harness;
        harness.outcomes.push_back(c.outcome);
        EXPECT_EQ(harness.run({"ssh-keys", "--host", "github"}), c.status) << c.name;
        for (const auto& piece : c.errorLines) {
            EXPECT_NE(harness.err.find(piece), std::string::npos) << c.name << ": " << harness.err;
        }
        if (c.errorLines.empty()) {
            EXPECT_TRUE(harness.err.empty()) << c.name << ": " << harness.err;
        }
        EXPECT_EQ(!harness.out.empty(), c.printed) << c.name;
        if (c.printed) {
            EXPECT_EQ(boost::json::parse(harness.out), boost::json::value(*c.outcome.reply))
                << c.name;
        }
    }
}

TEST(Replies, OfSignInSucceedOnlyWithCredentials) {
    const boost::json::object token{{"token_type", "Basic"}, {"access_token", "dTpw"}};
    const std::pair<boost::json::object, int> cases[] = {
        {{{"result", {{"VTHostToken", token}, {"VTHostUserKey", {{"username", "u"}}}}}}, kSuccess},
        {{{"result", boost::json::object{}}}, kFailed},  // the user ended the sign-in
        {{}, kFailed},                                   // a host type without an adapter
        {{{"error", httpError()}}, kFailed},
    };
    for (const auto& [reply, status] : cases) {
        Harness harness;
        harness.environment["VELDTRACK_PASSWORD"] = "p";
        harness.outcomes.push_back(replying(reply));
        EXPECT_EQ(harness.run({"sign-in", "--host", "github", "--user", "u"}), status)
            << boost::json::serialize(reply);
        EXPECT_EQ(harness.out.find("dTpw"), std::string::npos);
        EXPECT_EQ(harness.err.find("dTpw"), std::string::npos);
    }
}

class RenewedTokens : public testing::Test {
protected:
    std::string readSaved() const {
        std::ifstream file(saved);
        return std::string((std::istreambuf_iterator<char>(file)),
                           std::istreambuf_iterator<char>());
    }
    mode_t savedMode() const {
        struct stat status {};
        EXPECT_EQ(::stat(saved.c_str(), &status), 0);
        return status.st_mode & 07777;
    }

    TemporaryFolder folder;
    std::string saved = (folder.path() / "token.json").string();
    VTToken renewed{{"token_type", "Bearer"}, {"access_token", "s3cr3t"}, {"refresh_token", "r"}};
};

TEST_F(RenewedTokens, AreSavedPrivatelyOverTheOldFileAndNeverShown) {
    std::ofstream(saved) << R"({"token_type":"Bearer","access_token":"old"})";
    ::chmod(saved.c_str(), 0644);
    Harness harness;
    harness.outcomes.push_back(replying({{"profile", {{"bio", ""}}}, {"refreshedToken", renewed}}));
    ASSERT_EQ(
        harness.run({"profile", "--host", "gitlab", "--token-file", saved, "--save-token", saved}),
        kSuccess)
        << harness.err;
    EXPECT_EQ(harness.tokenSent().at("access_token"), "old");
    EXPECT_EQ(boost::json::parse(readSaved()), boost::json::value(renewed));
    EXPECT_EQ(savedMode(), 0600u);
    EXPECT_EQ(harness.out.find("s3cr3t"), std::string::npos) << harness.out;
    EXPECT_EQ(harness.err.find("s3cr3t"), std::string::npos) << harness.err;
    auto shown = boost::json::parse(harness.out).as_object();
    EXPECT_NE(shown.at("refreshedToken").as_string().find(saved), std::string::npos);
    // Nothing is left beside it.
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.path()),
                            std::filesystem::directory_iterator()),
              1);
}

TEST_F(RenewedTokens, ThatCannotBeSavedFailTheCommand) {
    Harness harness;
    harness.outcomes.push_back(replying({{"refreshedToken", renewed}}));
    const std::string nowhere = (folder.path() / "missing" / "token.json").string();
    EXPECT_EQ(harness.run({"ssh-keys", "--host", "gitlab", "--save-token", nowhere}), kFailed);
    EXPECT_NE(harness.err.find("cannot save the token"), std::string::npos) << harness.err;
    EXPECT_EQ(harness.err.find("s3cr3t"), std::string::npos) << harness.err;
}

TEST_F(RenewedTokens, FromSignInAreSavedToo) {
    Harness harness;
    harness.environment["VELDTRACK_PASSWORD"] = "glpat-personal";
    harness.outcomes.push_back(
        replying({{"result", {{"VTHostToken", renewed}, {"VTHostUserKey", {{"username", "u"}}}}}}));
    ASSERT_EQ(harness.run({"sign-in", "--host", "gitlab", "--save-token", saved}), kSuccess);
    EXPECT_EQ(boost::json::parse(readSaved()), boost::json::value(renewed));
    EXPECT_EQ(boost::json::parse(harness.out).at("result").at("VTHostUserKey").at("username"), "u");
}

}  // namespace
}  // namespace vt::client::test
