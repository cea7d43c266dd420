#include "gitlab_test_support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <boost/json/serialize.hpp>

#include <string>

namespace {

using ::testing::ElementsAre;
using vt::fake::Response;
using vt::gitlab::testing::GitLabTest;
using vt::gitlab::testing::pageInfo;
using vt::gitlab::testing::urlOf;
using vt::test::keyFixture;

constexpr const char* kProjectsTarget =
    "/api/v4/projects?min_access_level=40&archived=false&per_page=100";

class GitLabRepositories : public GitLabTest {
protected:
    void answerUser() {
        answer(R"({"data":{"currentUser":{"username":"erin","name":"Erin","avatarUrl":)"
               R"("/uploads/erin.png"}}})");
    }

    static std::string memberships(const std::string& nodes, bool more, const char* cursor) {
        return R"({"data":{"currentUser":{"groupMemberships":{"nodes":[)" + nodes + "]," +
               pageInfo(more, cursor) + "}}}}";
    }

    static std::string group(const char* path, int id) {
        return std::string(R"({"group":{"path":")") + path + R"(","id":"gid://gitlab/Group/)" +
               std::to_string(id) + R"("}})";
    }

    // A project in the namespace `path`.
    static boost::json::object project(const char* name, const char* path) {
        return {{"name", name},
                {"namespace",
                 {{"path", path}, {"name", std::string(path) + " name"}, {"avatar_url", nullptr}}},
                {"ssh_url_to_repo", std::string("git@gitlab.test:") + path + "/" + name + ".git"}};
    }
};

boost::json::object namespaceEntry(const char* name, int group) {
    return {{"name", name}, {"identifier", "gid://gitlab/Group/" + std::to_string(group)}};
}

TEST_F(GitLabRepositories, AreGroupedByNamespaceWithTheUsersGroupsSortedOnTheOwnEntry) {
    answerUser();
    answer(memberships(group("beta", 2) + "," + group("Alpha", 1), true, "m1"));
    answer(memberships(group("gamma", 3) + "," + group("beta", 2), false, "m2"));
    boost::json::object full = project("tool", "erin");
    full["namespace"].as_object()["avatar_url"] = "https://gitlab.test/uploads/erin.png";
    full["visibility"] = "internal";
    full["description"] = "A \"tool\"";
    full["last_activity_at"] = "2024-01-05T17:30:00.123Z";
    full["forked_from_project"] = {{"http_url_to_repo", "https://gitlab.test/up/tool.git"}};
    full["star_count"] = 3;
    full["forks_count"] = 1;
    full["http_url_to_repo"] = "https://gitlab.test/erin/tool.git";
    answerRest("GET", kProjectsTarget,
               boost::json::serialize(boost::json::array{full, project("site", "beta")}),
               "http://gitlab.test/api/v4/projects?page=2&per_page=100");
    boost::json::object bare{{"namespace", {{"path", "erin"}}}, {"visibility", "private"}};
    answerRest("GET", "/api/v4/projects?page=2&per_page=100",
               boost::json::serialize(boost::json::array{bare}));

    auto owners = host.repositoriesWithToken(token, &error);
    ASSERT_TRUE(owners) << error.description();
    EXPECT_EQ(owners->size(), 2u);
    const boost::json::object& own = owners->at("erin").as_object();
    EXPECT_EQ(own.at("namespaces"), (boost::json::array{{{"name", "erin"}, {"identifier", -1}},
                                                        namespaceEntry("Alpha", 1),
                                                        namespaceEntry("beta", 2),
                                                        namespaceEntry("gamma", 3)}));
    EXPECT_EQ(own.at("name"), "erin name");
    EXPECT_EQ(own.at("avatar"), "https://gitlab.test/uploads/erin.png");
    EXPECT_EQ(
        own.at("repositories"),
        (boost::json::array{
            {{"name", "tool"},
             {"private", false},  // internal is not private
             {"description", "A \"tool\""},
             {"updatedAt", "updated January 5, 2024 at 5:30\u202fPM"},
             {"parent", "Forked from https://gitlab.test/up/tool.git"},
             {"starsCount", 3},
             {"forksCount", 1},
             {"urls", {"git@gitlab.test:erin/tool.git", "https://gitlab.test/erin/tool.git"}}},
            {{"private", true}, {"urls", boost::json::array()}}}));
    // A group's entry has no namespaces; a null avatar is left out.
    EXPECT_EQ(
        owners->at("beta").as_object(),
        (boost::json::object{
            {"name", "beta name"},
            {"repositories", {{{"name", "site"}, {"urls", {"git@gitlab.test:beta/site.git"}}}}}}));
    EXPECT_THAT(
        sentQueries(),
        ElementsAre("query{currentUser{username,name,avatarUrl}}",
                    "query{currentUser{groupMemberships(first:100){nodes{group{path,id}}pageInfo{"
                    "hasNextPage,endCursor}}}}",
                    "query{currentUser{groupMemberships(first:100,after:\"m1\"){nodes{group{path,"
                    "id}}pageInfo{hasNextPage,endCursor}}}}"));
}

TEST_F(GitLabRepositories, AUserWithoutOwnProjectsGetsAnEntryWithTheOwnNamespaceOnly) {
    answerUser();
    answer(memberships(group("beta", 2), false, "m1"));
    answerRest("GET", kProjectsTarget,
               boost::json::serialize(boost::json::array{project("site", "beta")}));
    auto owners = host.repositoriesWithToken(token, &error);
    ASSERT_TRUE(owners) << error.description();
    EXPECT_EQ(owners->at("erin"),
              (boost::json::object{{"repositories", boost::json::array()},
                                   {"namespaces", {{{"name", "erin"}, {"identifier", -1}}}},
                                   {"name", "Erin"},
                                   {"avatar", "http://gitlab.test//uploads/erin.png"}}));
}

TEST_F(GitLabRepositories, AFailedProjectPageFailsTheList) {
    answerUser();
    answer(memberships("", false, "m1"));
    answerRest("GET", kProjectsTarget, "[]", "http://gitlab.test/api/v4/projects?page=2");
    answerRest("GET", "/api/v4/projects?page=2", R"({"message":"500 Internal Server Error"})", "",
               500);
    EXPECT_FALSE(host.repositoriesWithToken(token, &error));
    EXPECT_EQ(error, VTError(VTHTTPErrorDomain, 500, "HTTP status code 500 (Internal Server Error)",
                             "500 Internal Server Error"));
}

TEST_F(GitLabRepositories, CreationNamesANamespaceOnlyByANumericIdentifier) {
    struct Case {
        boost::json::value identifier;
        std::optional<boost::json::value> sent;
    };
    const Case cases[] = {
        {-1, std::nullopt},
        {42, 42},
        {"17", "17"},
        {"gid://gitlab/Group/9", std::nullopt},
    };
    for (const Case& test : cases) {
        answerRest("POST", "/api/v4/projects",
                   R"({"ssh_url_to_repo":"git@gitlab.test:g/tool.git",)"
                   R"("http_url_to_repo":"https://gitlab.test/g/tool.git"})",
                   "", 201);
        auto urls = host.createRepositoryWithToken(
            token, {{"name", "g"}, {"identifier", test.identifier}}, "tool", "Tool",
            "A \"new\" tool", test.sent ? 0 : 1, &error);
        ASSERT_TRUE(urls) << error.description();
        EXPECT_THAT(*urls,
                    ElementsAre("git@gitlab.test:g/tool.git", "https://gitlab.test/g/tool.git"));
        boost::json::object expected{{"path", "tool"},
                                     {"name", "Tool"},
                                     {"description", "A \"new\" tool"},
                                     {"visibility", test.sent ? "private" : "public"}};
        if (test.sent) {
            expected["namespace_id"] = *test.sent;
        }
        EXPECT_EQ(sentBody(fake.requestCount() - 1), expected)
            << boost::json::serialize(test.identifier);
    }
}

TEST_F(GitLabRepositories, ACreationAnswerWithoutAddressesGivesNothingAndNoError) {
    answerRest("POST", "/api/v4/projects", R"({"ssh_url_to_repo":"git@gitlab.test:g/t.git"})", "",
               201);
    EXPECT_FALSE(
        host.createRepositoryWithToken(token, {{"identifier", -1}}, "t", "T", "", 0, &error));
    EXPECT_FALSE(error);
}

TEST_F(GitLabRepositories, PrivacyIsReadFromTheVisibilityAndAFailureCountsAsPrivate) {
    struct Case {
        const char* answer;
        int status;
        bool isPrivate;
    };
    const Case cases[] = {
        {R"({"data":{"project":{"visibility":"private"}}})", 200, true},
        {R"({"data":{"project":{"visibility":"internal"}}})", 200, false},
        {R"({"data":{"project":null}})", 200, false},
        {R"({"message":"boom"})", 500, true},
    };
    for (const Case& test : cases) {
        answer(test.answer, test.status);
        EXPECT_EQ(host.isPrivateRepositoryAtUrl(urlOf("ssh://git@gitlab.test/group/sub/tool.git"),
                                                token, &error),
                  test.isPrivate)
            << test.answer;
        EXPECT_EQ(error.code, test.status == 200 ? 0 : test.status);
    }
    EXPECT_EQ(sentQueries().front(), R"(query{project(fullPath:"group/sub/tool"){visibility}})");
}

TEST_F(GitLabRepositories, TheUpstreamOfAForkIsAskedForByTheEncodedProjectPath) {
    answerRest("GET", "/api/v4/projects/a%2Fb%2Fc",
               R"({"forked_from_project":{"ssh_url_to_repo":"git@gitlab.test:up/c.git",)"
               R"("http_url_to_repo":"https://gitlab.test/up/c.git"}})");
    answerRest("GET", "/api/v4/projects/group%2Fproject", R"({"forked_from_project":null})");
    auto forks = host.forksForUrl(urlOf("http://gitlab.test/a/b/c.git"), token, &error);
    ASSERT_TRUE(forks) << error.description();
    EXPECT_THAT(*forks, ElementsAre("git@gitlab.test:up/c.git", "https://gitlab.test/up/c.git"));
    forks = host.forksForUrl(urlOf("http://gitlab.test/group/project"), token, &error);
    ASSERT_TRUE(forks) << error.description();
    EXPECT_TRUE(forks->empty());
}

TEST_F(GitLabRepositories, SshKeysAreReadOverLinkPagesWithFingerprints) {
    const vt::test::KeyFixture keys[] = {keyFixture("rsa"), keyFixture("ed25519")};
    auto page = [&](int first, int count) {
        boost::json::array elements;
        for (int id = first; id < first + count; ++id) {
            elements.push_back({{"id", id},
                                {"title", "key " + std::to_string(id)},
                                {"key", keys[id % 2].key},
                                {"created_at", "2014-12-10T15:53:42.000Z"}});
        }
        return boost::json::serialize(elements);
    };
    answerRest("GET", "/api/v4/user/keys?per_page=50", page(0, 50),
               "http://gitlab.test/api/v4/user/keys?page=2&per_page=50");
    answerRest("GET", "/api/v4/user/keys?page=2&per_page=50", page(50, 3));
    auto result = host.sshKeysWithToken(token, &error);
    ASSERT_TRUE(result) << error.description();
    ASSERT_EQ(result->size(), 53u);
    for (std::size_t id : {0u, 1u, 52u}) {
        EXPECT_EQ(result->at(id),
                  (boost::json::object{{"title", "key " + std::to_string(id)},
                                       {"id", id},
                                       {"createdAt", "December 10, 2014 at 3:53\u202fPM"},
                                       {"fingerprint", keys[id % 2].fingerprint}}));
    }
}

TEST_F(GitLabRepositories, AKeyWithoutFingerprintFailsTheList) {
    answerRest("GET", "/api/v4/user/keys?per_page=50", R"([{"id":1,"key":"ssh-rsa !!! x"}])");
    EXPECT_FALSE(host.sshKeysWithToken(token, &error));
    EXPECT_EQ(error.domain, VTSecurityErrorDomain);
}

TEST_F(GitLabRepositories, KeysAreAddedWithTitleAndKeyAndDeletedByIdentifier) {
    answerRest("POST", "/api/v4/user/keys", R"({"id":42})", "", 201);
    fake.expect("DELETE", "/api/v4/user/keys/42", Response::json("", 204));
    const std::string key = keyFixture("ed25519").key;
    EXPECT_TRUE(host.addSshKey(key, "laptop", token, &error)) << error.description();
    EXPECT_EQ(sentBody(0), (boost::json::object{{"title", "laptop"}, {"key", key}}));
    EXPECT_TRUE(host.deleteSshKey(42, token, &error)) << error.description();
}

}  // namespace
