#include "github_test_support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <boost/json/parse.hpp>

#include <string>
#include <vector>

namespace {

using ::testing::ElementsAre;
using vt::fake::Response;
using vt::testing::fixtureText;
using vt::testing::GitHubTest;
using vt::testing::pageInfo;
using vt::testing::urlOf;

using GitHubRepositories = GitHubTest;

boost::json::object namespaceEntry(const char* name, const char* identifier) {
    return {{"name", name}, {"identifier", identifier}};
}

TEST_F(GitHubRepositories, AreGroupedByOwnerWithTheNamespacesOnTheOwnEntry) {
    answer(fixtureText("repositories.json"));
    auto owners = host.repositoriesWithToken(token, &error);
    ASSERT_TRUE(owners) << error.description();
    EXPECT_EQ(fake.requestCount(), 1u);

    ASSERT_TRUE(owners->contains("octo"));
    const boost::json::object& own = owners->at("octo").as_object();
    // The own login first, then the organizations that allow creation, case-insensitively.
    EXPECT_EQ(own.at("namespaces"), (boost::json::array{namespaceEntry("octo", "U_octo"),
                                                        namespaceEntry("alpha-org", "O_alpha"),
                                                        namespaceEntry("Zeta-org", "O_zeta")}));
    EXPECT_EQ(own.at("name"), "Octo Cat");
    EXPECT_EQ(
        own.at("repositories").as_array().at(0),
        (boost::json::object{
            {"name", "hello-world"},
            {"private", false},
            {"description", "My first \"repository\""},
            {"updatedAt", "updated January 5, 2024 at 5:30\u202fPM"},
            {"parent", "Forked from https://github.com/upstream/hello-world"},
            {"starsCount", 80},
            {"watchersCount", 12},
            {"forksCount", 9},
            {"urls",
             {"git@github.com:octo/hello-world.git", "https://github.com/octo/hello-world.git"}},
        }));
    EXPECT_EQ(own.at("repositories").as_array().at(1).at("name"), "dotfiles");

    const boost::json::object& zeta = owners->at("Zeta-org").as_object();
    EXPECT_FALSE(zeta.contains("namespaces"));
    EXPECT_EQ(zeta.at("repositories").as_array().size(), 2u);
    // A null name and an avatar that is no URL are left out.
    EXPECT_EQ(owners->at("alpha-org").as_object().size(), 1u);
    EXPECT_EQ(owners->size(), 4u);
}

TEST_F(GitHubRepositories, AUserWhoOwnsNoneOfThemGetsAnOwnEntryWithTheOwnNamespaceOnly) {
    answer(R"({"data":{"viewer":{"login":"octo","repositories":{"nodes":[{"owner":{"login":"org",)"
           R"("id":"O_org","viewerCanCreateRepositories":true},"name":"site"}],)" +
           pageInfo(false) + "}}}}");
    answer(R"({"data":{"viewer":{"name":null,"avatarUrl":"https://a.test/o.png","id":"U_octo"}}})");
    auto owners = host.repositoriesWithToken(token, &error);
    ASSERT_TRUE(owners) << error.description();
    EXPECT_EQ(owners->at("octo"), (boost::json::object{
                                      {"avatar", "https://a.test/o.png"},
                                      {"repositories", boost::json::array()},
                                      {"namespaces", {namespaceEntry("octo", "U_octo")}},
                                  }));
    EXPECT_EQ(sentQueries().at(1), "query{viewer{name,avatarUrl,id}}");
}

TEST_F(GitHubRepositories, TwoHundredFiftyAreReadInThreeRequests) {
    auto page = [](int first, int count, bool more, const std::string& cursor) {
        std::string nodes;
        for (int index = first; index < first + count; ++index) {
            nodes += std::string(nodes.empty() ? "" : ",") +
                     R"({"owner":{"login":"octo","id":"U_octo"},"name":"r)" +
                     std::to_string(index) + R"("})";
        }
        return R"({"data":{"viewer":{"login":"octo","repositories":{"nodes":[)" + nodes + "]," +
               pageInfo(more, cursor) + "}}}}";
    };
    answer(page(0, 100, true, "c100"));
    answer(page(100, 100, true, "c200"));
    answer(page(200, 50, false, "c250"));
    auto owners = host.repositoriesWithToken(token, &error);
    ASSERT_TRUE(owners) << error.description();
    const auto& repositories = owners->at("octo").at("repositories").as_array();
    ASSERT_EQ(repositories.size(), 250u);
    EXPECT_EQ(repositories.at(249).at("name"), "r249");
    const auto queries = sentQueries();
    ASSERT_EQ(queries.size(), 3u);
    EXPECT_EQ(queries[2],
              "query{viewer{repositories(first:100,after:\"c200\",affiliations:[OWNER,"
              "ORGANIZATION_MEMBER,COLLABORATOR],ownerAffiliations:[OWNER,ORGANIZATION_MEMBER,"
              "COLLABORATOR]){nodes{owner{...on User{login,name,avatarUrl,id}...on "
              "Organization{login,name,avatarUrl,id,viewerCanCreateRepositories}}name,isPrivate,"
              "description,updatedAt,parent{url}watchers{totalCount}stargazers{totalCount}"
              "forkCount,url,sshUrl}pageInfo{endCursor,hasNextPage}}}}");
}

TEST_F(GitHubRepositories, PagingStopsWithAnErrorWhenTheHostRepeatsACursorOrSendsNone) {
    const std::string page = R"({"data":{"viewer":{"login":"octo","repositories":{"nodes":[],)";
    answer(page + pageInfo(true, "c1") + "}}}}");
    answer(page + pageInfo(true, "c2") + "}}}}");
    answer(page + pageInfo(true, "c1") + "}}}}");
    EXPECT_FALSE(host.repositoriesWithToken(token, &error));
    EXPECT_EQ(error, VTError(VTHTTPErrorDomain, 200,
                             "The host sent the same page cursor twice; paging stopped."));
    answer(page + R"("pageInfo":{"hasNextPage":true}}}}})");
    EXPECT_FALSE(host.repositoriesWithToken(token, &error));
    EXPECT_EQ(error.description(), "The host said more pages follow but sent no page cursor.");
}

TEST(GitHubRepositoryNodes, ListCloneAddressesSshFirstAndOnlyTheKeysTheHostFilled) {
    const auto sshOnly = boost::json::parse(R"({"sshUrl":"git@github.com:o/r.git","url":null})");
    EXPECT_EQ(VTGitHubHost::fixedKeysRepository(sshOnly),
              (boost::json::object{{"urls", {"git@github.com:o/r.git"}}}));
    const auto webOnly = boost::json::parse(R"({"url":"https://github.com/o/r","isPrivate":true,
        "updatedAt":"2024-01-05","parent":{"url":null}})");
    EXPECT_EQ(VTGitHubHost::fixedKeysRepository(webOnly),
              (boost::json::object{{"private", true}, {"urls", {"https://github.com/o/r.git"}}}));
}

TEST_F(GitHubRepositories, CreationSendsTheEscapedDescriptionAndTheVisibilityWord) {
    answer(R"({"data":{"createRepository":{"repository":{"sshUrl":"git@github.com:octo/t.git",)"
           R"("url":"https://github.com/octo/t"}}}})");
    answer(R"({"data":{"createRepository":{"repository":null}}})");
    const boost::json::object ns = namespaceEntry("octo", "U_octo");
    auto urls = host.createRepositoryWithToken(token, ns, "t", "T", "Say \"hi\"", 0, &error);
    EXPECT_THAT(urls.value_or(std::vector<std::string>{}),
                ElementsAre("git@github.com:octo/t.git", "https://github.com/octo/t.git"));
    EXPECT_FALSE(host.createRepositoryWithToken(token, ns, "u", "U", "plain", 2, &error));
    EXPECT_FALSE(error);
    EXPECT_THAT(sentQueries(),
                ElementsAre("mutation{createRepository(input:{ownerId:\"U_octo\",name:\"t\","
                            "description:\"Say \\\"hi\\\"\",visibility:PRIVATE}){repository{"
                            "sshUrl,url}}}",
                            "mutation{createRepository(input:{ownerId:\"U_octo\",name:\"u\","
                            "description:\"plain\",visibility:PUBLIC}){repository{sshUrl,url}}}"));
}

TEST_F(GitHubRepositories, PrivacyIsAskedByOwnerAndNameAndAssumedWhenUnreadable) {
    struct Case {
        const char* address;
        const char* answer;
        const char* query;
        bool isPrivate;
        std::int64_t errorCode;
    };
    const Case cases[] = {
        {"http://github.test/owner/my.tool.git", R"({"data":{"repository":{"isPrivate":true}}})",
         R"(query{repository(owner:"owner",name:"my.tool"){isPrivate}})", true, 0},
        {"http://github.test/owner/my.tool", R"({"data":{"repository":null}})",
         R"(query{repository(owner:"owner",name:"my"){isPrivate}})", false, 0},
        {"ssh://git@github.test/owner/hidden/", R"({"data":null,"errors":[{"message":"No"}]})",
         R"(query{repository(owner:"owner",name:"hidden"){isPrivate}})", true, 200},
    };
    for (const Case& test : cases) {
        answer(test.answer);
        error = VTError();
        EXPECT_EQ(host.isPrivateRepositoryAtUrl(urlOf(test.address), token, &error), test.isPrivate)
            << test.address;
        EXPECT_EQ(error.code, test.errorCode) << test.address;
        EXPECT_EQ(sentQueries().back(), test.query);
    }
}

TEST_F(GitHubRepositories, ForksNameTheParentsAddressesOrNothing) {
    answer(R"({"data":{"repository":{"parent":{"sshUrl":"git@github.com:up/r.git",)"
           R"("url":"https://github.com/up/r"}}}})");
    answer(R"({"data":{"repository":{"parent":null}}})");
    EXPECT_THAT(host.forksForUrl(urlOf("http://github.test/owner/r.git"), token, &error).value(),
                ElementsAre("git@github.com:up/r.git", "https://github.com/up/r"));
    EXPECT_TRUE(host.forksForUrl(urlOf("http://github.test/owner/r"), token, &error)->empty());
    EXPECT_EQ(sentQueries().front(),
              R"(query{repository(owner:"owner",name:"r"){parent{sshUrl,url}}})");
}

// ---- SSH keys

using vt::test::KeyFixture;
using vt::test::keyFixture;

TEST_F(GitHubRepositories, SshKeysAreReadOverLinkPagesWithFingerprints) {
    const KeyFixture keys[] = {keyFixture("rsa"), keyFixture("ed25519"), keyFixture("ecdsa")};
    auto page = [&](int first, int count, const char* next) {
        boost::json::array elements;
        for (int id = first; id < first + count; ++id) {
            elements.push_back({{"id", id},
                                {"title", "key " + std::to_string(id)},
                                {"key", keys[id % 3].key},
                                {"created_at", "2014-12-10T15:53:42Z"}});
        }
        Response response = Response::json(boost::json::serialize(elements));
        if (next != nullptr) {
            response.headers.emplace_back(
                "Link",
                std::string("<http://api.github.test/user/keys?per_page=50&page=") + next +
                    R"(>; rel="next", <http://api.github.test/user/keys?page=3>; rel="last")");
        }
        return response;
    };
    fake.expect("GET", "/user/keys?per_page=50", page(0, 50, "2"));
    fake.expect("GET", "/user/keys?per_page=50&page=2", page(50, 50, "3"));
    fake.expect("GET", "/user/keys?per_page=50&page=3", page(100, 20, nullptr));
    auto result = host.sshKeysWithToken(token, &error);
    ASSERT_TRUE(result) << error.description();
    ASSERT_EQ(result->size(), 120u);
    for (std::size_t id : {0u, 1u, 2u, 119u}) {
        EXPECT_EQ(result->at(id),
                  (boost::json::object{{"title", "key " + std::to_string(id)},
                                       {"id", id},
                                       {"createdAt", "December 10, 2014 at 3:53\u202fPM"},
                                       {"fingerprint", keys[id % 3].fingerprint}}));
    }
}

TEST_F(GitHubRepositories, AKeyWithoutFingerprintFailsTheList) {
    fake.expect("GET", "/user/keys?per_page=50",
                Response::json(R"([{"id":1,"key":"ssh-rsa !!not-base64!! x"}])"));
    EXPECT_FALSE(host.sshKeysWithToken(token, &error));
    EXPECT_EQ(error.domain, VTSecurityErrorDomain);
}

TEST_F(GitHubRepositories, KeyPagingStopsWithAnErrorWhenTheHostRepeatsAnAddress) {
    auto linked = [](const char* next) {
        Response response = Response::json("[]");
        response.headers.emplace_back(
            "Link",
            std::string("<http://api.github.test/user/keys?page=") + next + ">; rel=\"next\"");
        return response;
    };
    fake.expect("GET", "/user/keys?per_page=50", linked("2"));
    fake.expect("GET", "/user/keys?page=2", linked("3"));
    fake.expect("GET", "/user/keys?page=3", linked("2"));
    EXPECT_FALSE(host.sshKeysWithToken(token, &error));
    EXPECT_EQ(error.description(),
              "The host sent the same next-page address twice; paging stopped.");
}

TEST_F(GitHubRepositories, KeysAreAddedWithTitleAndKeyAndDeletedByIdentifier) {
    fake.expect("POST", "/user/keys", Response::json(R"({"id":42})", 201));
    fake.expect("DELETE", "/user/keys/42", Response::json("", 204));
    fake.expect("DELETE", "/user/keys/a%2F..%2Fb", Response::json("", 204));
    const std::string key = keyFixture("ed25519").key;
    EXPECT_TRUE(host.addSshKey(key, "laptop", token, &error)) << error.description();
    EXPECT_EQ(boost::json::parse(fake.requests().at(0).body),
              (boost::json::object{{"title", "laptop"}, {"key", key}}));
    EXPECT_TRUE(host.deleteSshKey(42, token, &error)) << error.description();
    // A text identifier stays one path segment.
    EXPECT_TRUE(host.deleteSshKey("a/../b", token, &error)) << error.description();
}

}  // namespace
