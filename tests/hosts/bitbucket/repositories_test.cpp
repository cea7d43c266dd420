#include "bitbucket_test_support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using ::testing::ElementsAre;
using vt::test::BitbucketTest;
using vt::test::keyFixture;
using vt::test::nextPage;
using vt::test::urlOf;

constexpr const char* kUserTarget = "/2.0/user?fields=username,display_name,uuid,links.avatar";
constexpr const char* kUser = R"({"username":"alice","display_name":"Alice A.","uuid":"{u-a}",
    "links":{"avatar":{"href":"https://avatars.test/alice.png"}}})";
constexpr const char* kWorkspacesTarget =
    "/2.0/workspaces?role=collaborator&fields=values.slug,values.uuid";
constexpr const char* kRepositoriesTarget =
    "/2.0/repositories?role=contributor&pagelen=100&fields=next,values.scm,values.full_name,"
    "values.owner.nickname,values.owner.username,values.owner.display_name,"
    "values.owner.links.avatar.href,values.name,values.is_private,values.description,"
    "values.updated_on,values.parent.links.html.href,values.links.clone";

boost::json::object namespaceEntry(const char* name, const char* identifier) {
    return {{"name", name}, {"identifier", identifier}};
}

using BitbucketRepositories = BitbucketTest;

TEST_F(BitbucketRepositories, AreGroupedByOwnerOverPagesWithTheWorkspacesOnTheOwnEntry) {
    answerGet(kUserTarget, kUser);
    // Duplicates collapse, the own workspace moves to the front, slugless entries are no
    // namespaces.
    answerGet(kWorkspacesTarget, R"({"values":[{"slug":"zeta","uuid":"{w-z}"},
        {"slug":"alice","uuid":"{u-a}"},{"slug":"Beta","uuid":"{w-b}"},
        {"slug":"zeta","uuid":"{w-z}"},{"uuid":"{w-none}"}]})");
    answerGet(kRepositoriesTarget, R"({"values":[
        {"scm":"git","name":"tool","is_private":false,"description":"A tool",
         "updated_on":"2024-01-05T17:30:00.123456+00:00",
         "owner":{"nickname":"alice","username":"alice-old","display_name":"Alice A.",
                  "links":{"avatar":{"href":"https://avatars.test/alice.png"}}},
         "parent":{"links":{"html":{"href":"https://bitbucket.test/upstream/tool"}}},
         "links":{"clone":[
            {"name":"https","href":"https://alice@bitbucket.test/alice/tool.git"},
            {"name":"ssh","href":"git@bitbucket.test:alice/tool.git"}]}},
        {"scm":"hg","name":"old","owner":{"nickname":"alice"}},
        {"scm":"git","name":"site","owner":{"username":"team","display_name":"The Team"},
         "links":{"clone":[{"name":"https","href":"https://bitbucket.test/team/site.git"}]}}],)" +
                                       nextPage("/2.0/repositories?role=contributor&page=2") + "}");
    answerGet("/2.0/repositories?role=contributor&page=2",
              R"({"values":[{"scm":"git","name":"notes","owner":{"nickname":"alice"}}]})");

    auto owners = host.repositoriesWithToken(token, &error);
    ASSERT_TRUE(owners) << error.description();
    EXPECT_EQ(owners->size(), 2u);
    const boost::json::object& own = owners->at("alice").as_object();
    EXPECT_EQ(own.at("name"), "Alice A.");
    EXPECT_EQ(own.at("avatar"), "https://avatars.test/alice.png");
    EXPECT_EQ(own.at("namespaces"),
              (boost::json::array{namespaceEntry("alice", "{u-a}"), namespaceEntry("Beta", "{w-b}"),
                                  namespaceEntry("zeta", "{w-z}")}));
    const boost::json::array& repositories = own.at("repositories").as_array();
    ASSERT_EQ(repositories.size(), 2u);
    EXPECT_EQ(repositories[0],
              (boost::json::object{
                  {"name", "tool"},
                  {"private", false},
                  {"description", "A tool"},
                  {"updatedAt", "updated January 5, 2024 at 5:30\u202fPM"},
                  {"parent", "Forked from https://bitbucket.test/upstream/tool"},
                  {"urls",
                   {"git@bitbucket.test:alice/tool.git", "https://bitbucket.test/alice/tool.git"}},
              }));
    EXPECT_EQ(repositories[1], (boost::json::object{{"name", "notes"}}));
    EXPECT_EQ(owners->at("team"),
              (boost::json::object{
                  {"name", "The Team"},
                  {"repositories",
                   {{{"name", "site"}, {"urls", {"https://bitbucket.test/team/site.git"}}}}}}));
}

TEST_F(BitbucketRepositories, AUserWithoutOwnRepositoriesGetsAnEntryWithTheOwnNamespaceOnly) {
    answerGet(kUserTarget, kUser);
    answerGet(kWorkspacesTarget, R"({"values":[{"slug":"zeta","uuid":"{w-z}"}]})");
    answerGet(kRepositoriesTarget, R"({"values":[{"scm":"git","name":"site",
        "owner":{"nickname":"zeta"}}]})");
    auto owners = host.repositoriesWithToken(token, &error);
    ASSERT_TRUE(owners) << error.description();
    EXPECT_EQ(owners->at("alice"), (boost::json::object{
                                       {"repositories", boost::json::array()},
                                       {"name", "Alice A."},
                                       {"namespaces", {namespaceEntry("alice", "{u-a}")}},
                                       {"avatar", "https://avatars.test/alice.png"},
                                   }));
    EXPECT_EQ(owners->at("zeta").at("repositories").as_array().size(), 1u);
}

TEST_F(BitbucketRepositories, PagingStopsWithAnErrorOnARepeatedOrBrokenNextAddress) {
    struct Case {
        const char* next;
        const char* description;
    };
    const Case cases[] = {
        {"http://api.bitbucket.test/2.0/repositories?role=contributor&page=2",
         "The host sent the same next-page address twice; paging stopped."},
        {"not a url", "The host sent a next-page address that is not a URL."},
    };
    for (const Case& test : cases) {
        answerGet(kUserTarget, kUser);
        answerGet(kWorkspacesTarget, R"({"values":[]})");
        const std::string page = R"({"values":[],"next":")" + std::string(test.next) + "\"}";
        answerGet(kRepositoriesTarget, page);
        if (test.next[0] == 'h') {
            answerGet("/2.0/repositories?role=contributor&page=2", page);
        }
        EXPECT_FALSE(host.repositoriesWithToken(token, &error));
        EXPECT_EQ(error, VTError(VTHTTPErrorDomain, 200, test.description));
    }
}

TEST_F(BitbucketRepositories, ANextPageOnAnotherHostIsReadWithoutTheToken) {
    answerGet(kUserTarget, kUser);
    answerGet(kWorkspacesTarget, R"({"values":[]})");
    answerGet(kRepositoriesTarget, R"({"values":[],"next":"http://elsewhere.test/page/2"})");
    answerGet("/page/2", R"({"values":[]})");
    ASSERT_TRUE(host.repositoriesWithToken(token, &error)) << error.description();
    const auto requests = fake.requests();
    ASSERT_EQ(requests.size(), 4u);
    EXPECT_EQ(requests[2].header("Authorization"), "Bearer secret");
    EXPECT_EQ(requests[3].header("Host"), "elsewhere.test");
    EXPECT_FALSE(requests[3].header("Authorization"));
}

TEST_F(BitbucketRepositories, CreationSendsThePrivacyAsTextAndAnswersBothCloneAddresses) {
    const char* created = R"({"links":{"clone":[
        {"name":"https","href":"https://alice@bitbucket.test/alice/new.git"},
        {"name":"ssh","href":"git@bitbucket.test:alice/new.git"}]}})";
    answer("POST", "/2.0/repositories/alice/new", created);
    answer(
        "POST", "/2.0/repositories/alice/open",
        R"({"links":{"clone":[{"name":"https","href":"https://bitbucket.test/alice/open.git"}]}})");
    const boost::json::object ns = namespaceEntry("alice", "{u-a}");
    auto urls = host.createRepositoryWithToken(token, ns, "new", "New", "About it", 0, &error);
    EXPECT_THAT(
        urls.value_or(std::vector<std::string>{}),
        ElementsAre("git@bitbucket.test:alice/new.git", "https://bitbucket.test/alice/new.git"));
    // Without an SSH address there is no result, and the request itself did not fail.
    EXPECT_FALSE(host.createRepositoryWithToken(token, ns, "open", "Open", "", 1, &error));
    EXPECT_FALSE(error);
    EXPECT_EQ(
        bodyOf(0),
        (boost::json::object{
            {"scm", "git"}, {"name", "New"}, {"description", "About it"}, {"is_private", "true"}}));
    EXPECT_EQ(bodyOf(1).at("is_private"), "false");
}

TEST_F(BitbucketRepositories, PrivacyIsTheAnswersFlagAndNoWhenUnreadable) {
    struct Case {
        const char* answer;
        int status;
        bool isPrivate;
        std::int64_t errorCode;
    };
    const Case cases[] = {
        {R"({"is_private":true})", 200, true, 0},
        {R"({})", 200, false, 0},
        {R"({"type":"error","error":{"message":"Repository not found"}})", 404, false, 404},
    };
    for (const Case& test : cases) {
        answerGet("/2.0/repositories/team/project?fields=is_private", test.answer, test.status);
        EXPECT_EQ(host.isPrivateRepositoryAtUrl(urlOf("ssh://git@bitbucket.test/team/project.git"),
                                                token, &error),
                  test.isPrivate)
            << test.answer;
        EXPECT_EQ(error.code, test.errorCode) << test.answer;
    }
}

TEST_F(BitbucketRepositories, AForkNamesItsParentsCloneAddressesAsTheHostSendsThem) {
    const VTUrl fork = urlOf("https://bitbucket.test/alice/project.git");
    answerGet("/2.0/repositories/alice/project?fields=parent.links.self.href",
              R"({"parent":{"links":{"self":{
                  "href":"http://api.bitbucket.test/2.0/repositories/team/project"}}}})");
    answerGet("/2.0/repositories/team/project?fields=links.clone", R"({"links":{"clone":[
        {"name":"https","href":"https://alice@bitbucket.test/team/project.git"},
        {"name":"ssh","href":"git@bitbucket.test:team/project.git"}]}})");
    EXPECT_EQ(host.forksForUrl(fork, token, &error),
              (std::vector<std::string>{"git@bitbucket.test:team/project.git",
                                        "https://alice@bitbucket.test/team/project.git"}));
    answerGet("/2.0/repositories/alice/project?fields=parent.links.self.href", "{}");
    EXPECT_EQ(host.forksForUrl(fork, token, &error), std::vector<std::string>());
    EXPECT_FALSE(error);
}

// ---- SSH keys

constexpr const char* kKeysTarget =
    "/2.0/users/alice/ssh-keys?pagelen=50&fields=next,values.comment,values.created_on,"
    "values.key,values.uuid";

TEST_F(BitbucketRepositories, KeysHaveTheirIdOnlyUnderABasicToken) {
    const auto ed25519 = keyFixture("ed25519");
    const auto rsa = keyFixture("rsa");
    const std::string first = R"({"values":[{"comment":"laptop","uuid":"{k-1}","key":")" +
                              ed25519.key + R"(","created_on":"2024-01-05T17:30:00.5+00:00"}],)" +
                              nextPage("/2.0/users/alice/ssh-keys?page=2") + "}";
    const std::string second = R"({"values":[{"uuid":"{k-2}","key":")" + rsa.key + R"("}]})";
    const VTToken basic{{"token_type", "Basic"}, {"access_token", "YWxpY2U6cHc="}};
    for (const bool isBasic : {true, false}) {
        answerGet("/2.0/user?fields=username", R"({"username":"alice"})");
        answerGet(kKeysTarget, first);
        answerGet("/2.0/users/alice/ssh-keys?page=2", second);
        VTToken current = isBasic ? basic : token;
        auto keys = host.sshKeysWithToken(current, &error);
        ASSERT_TRUE(keys) << error.description();
        boost::json::object laptop{{"title", "laptop"},
                                   {"createdAt", "January 5, 2024 at 5:30\u202fPM"},
                                   {"fingerprint", ed25519.fingerprint}};
        boost::json::object other{{"fingerprint", rsa.fingerprint}};
        if (isBasic) {
            laptop["id"] = "k-1";
            other["id"] = "k-2";
        }
        EXPECT_EQ(*keys, (boost::json::array{laptop, other})) << (isBasic ? "Basic" : "Bearer");
    }
}

TEST_F(BitbucketRepositories, AKeyThatCannotBeFingerprintedFailsTheList) {
    answerGet("/2.0/user?fields=username", R"({"username":"alice"})");
    answerGet(kKeysTarget, R"({"values":[{"key":"ssh-rsa !!!notbase64 x"}]})");
    EXPECT_FALSE(host.sshKeysWithToken(token, &error));
    EXPECT_EQ(error.domain, VTSecurityErrorDomain);
}

TEST_F(BitbucketRepositories, KeysAreAddedWithoutTitleAndDeletedByIdUnderTheUsername) {
    for (int round = 0; round < 2; ++round) {
        answerGet("/2.0/user?fields=username", R"({"username":"alice"})");
    }
    answer("POST", "/2.0/users/alice/ssh-keys", R"({"uuid":"{k-3}"})");
    fake.expect("DELETE", "/2.0/users/alice/ssh-keys/k-3", vt::fake::Response{204, {}, ""});
    EXPECT_TRUE(host.addSshKey("ssh-ed25519 AAAA dev@test", "Work laptop", token, &error));
    EXPECT_TRUE(host.deleteSshKey("k-3", token, &error));
    EXPECT_EQ(bodyOf(1), (boost::json::object{{"key", "ssh-ed25519 AAAA dev@test"}}));
}

}  // namespace
