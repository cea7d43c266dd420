// The sample GitHub against the GitHub adapter itself: every request the demonstration makes (and
// the follow-up pages a larger sample needs) must be understood and answered, so that a change in
// the adapter's texts that the sample no longer understands fails here rather than in the demo.

#include "samplehosts/sample_github.h"
#include "hosts/github/github_host.h"
#include "sample_support.h"
#include "scratch.h"
#include "transport/utilities/utilities.h"

#include <gtest/gtest.h>
#include <boost/json/parse.hpp>

#include <set>
#include <string>
#include <variant>

namespace {

using vt::sample::kSampleGitHubRepository;
using vt::sample::kSampleGitHubSite;
using vt::test::urlOf;

template <typename Item>
Item lastOf(const VTConversation& conversation) {
    for (auto item = conversation.rbegin(); item != conversation.rend(); ++item) {
        if (const auto* found = std::get_if<Item>(&*item)) {
            return *found;
        }
    }
    return Item{};
}

class ASampleGitHub : public ::testing::Test {
protected:
    explicit ASampleGitHub(vt::sample::GitHubScale scale = {}) : sample(scale) {}

    vt::sample::SampleGitHub sample;
    vt::test::ScopedVariable route{"VELDTRACK_CONNECT_TO", sample.connectTo()};
    VTGitHubHost host{urlOf(kSampleGitHubSite)};
    VTToken token{{"token_type", "Bearer"},
                  {"access_token", std::string(vt::sample::kSampleGitHubToken)}};
    VTError error;
};

// Large enough that every connection the adapter follows has more than one page.
class ALargeSampleGitHub : public ASampleGitHub {
protected:
    ALargeSampleGitHub()
        : ASampleGitHub({.pullRequests = 120,
                         .assignees = 120,
                         .labels = 3,
                         .comments = 60,
                         .commits = 250,
                         .sshKeys = 60}) {}
};

TEST_F(ALargeSampleGitHub, AnswersEveryReadOfTheDemonstrationPageByPage) {
    vt::test::RequestMark requests(sample.host());

    auto user = host.userWithToken(token, &error);
    ASSERT_TRUE(user) << error.description();
    EXPECT_EQ(user->at("username"), "mara-lindqvist");
    EXPECT_EQ(user->at("name"), "Mara Lindqvist");

    auto profile = host.profileWithToken(token, &error);
    ASSERT_TRUE(profile) << error.description();
    EXPECT_EQ(profile->at("organizations"), "Lakeside Labs\nNorthwind Tools\nOpenKiln");
    EXPECT_EQ(profile->at("profileUrl"), "http://github.test/mara-lindqvist");
    EXPECT_TRUE(profile->contains("createdAt"));

    auto repositories = host.repositoriesWithToken(token, &error);
    ASSERT_TRUE(repositories) << error.description();
    std::set<std::string> owners;
    for (const auto& [login, entry] : *repositories) {
        owners.insert(std::string(login));
    }
    EXPECT_EQ(owners, (std::set<std::string>{"lakeside-labs", "mara-lindqvist", "northwind-tools",
                                             "openkiln"}));
    const auto& own = repositories->at("mara-lindqvist").as_object();
    std::vector<std::string> namespaces;
    for (const auto& entry : own.at("namespaces").as_array()) {
        namespaces.emplace_back(entry.at("name").as_string());
    }
    EXPECT_EQ(namespaces,
              (std::vector<std::string>{"mara-lindqvist", "northwind-tools", "openkiln"}));
    EXPECT_EQ(own.at("repositories").at(1).at("parent"),
              "Forked from http://github.test/openkiln/kiln");
    EXPECT_EQ(requests.since(), 3u);

    auto keys = host.sshKeysWithToken(token, &error);
    ASSERT_TRUE(keys) << error.description();
    ASSERT_EQ(keys->size(), 60u);
    // What ssh-keygen -E md5 -l says of the first, real key.
    EXPECT_EQ(keys->at(0).at("fingerprint"), "1a:ea:4f:c5:1c:df:7b:f4:24:eb:d8:c1:2b:ea:b6:ae");
    for (const auto& key : *keys) {
        EXPECT_TRUE(key.as_object().contains("fingerprint")) << key.at("title").as_string();
    }
    EXPECT_EQ(requests.since(), 2u);  // 50 and 10, through the "next" link

    EXPECT_TRUE(host.isPrivateRepositoryAtUrl(urlOf("http://github.test/northwind-tools/ledger"),
                                              token, &error));
    auto forks =
        host.forksForUrl(urlOf("ssh://git@github.test/mara-lindqvist/kiln.git"), token, &error);
    ASSERT_TRUE(forks) << error.description();
    EXPECT_EQ(*forks, (std::vector<std::string>{"git@github.test:openkiln/kiln.git",
                                                "http://github.test/openkiln/kiln"}));
    requests.since();

    auto list = host.pullRequestsWithUrl(urlOf(kSampleGitHubRepository), token, &error);
    ASSERT_TRUE(list) << error.description();
    ASSERT_EQ(list->size(), 120u);
    EXPECT_EQ(requests.since(), 2u);
    EXPECT_EQ(list->front().number, sample.newestPullRequest());
    for (std::size_t index = 1; index < list->size(); ++index) {
        EXPECT_LT(list->at(index).number, list->at(index - 1).number) << index;
    }
    const VTPullRequest* fromFork = nullptr;
    for (const auto& pullRequest : *list) {
        fromFork = pullRequest.number == sample.forkPullRequest() ? &pullRequest : fromFork;
    }
    ASSERT_NE(fromFork, nullptr);
    EXPECT_EQ(fromFork->baseReference, "openkiln/kiln:main");
    EXPECT_TRUE(fromFork->headReference->starts_with("mara-lindqvist/kiln:"))
        << *fromFork->headReference;

    VTPullRequest pullRequest = list->front();
    pullRequest.remoteUrl = std::string(kSampleGitHubRepository);
    pullRequest.hostType = 1;
    auto conversation = host.commentsForPullRequest(pullRequest, token, &error);
    ASSERT_TRUE(conversation) << error.description();
    // One request and the follow-ups: assignees one, labels none, comments one, commits two.
    EXPECT_EQ(requests.since(), 5u);
    EXPECT_EQ(pullRequest.assignees->size(), 120u);
    EXPECT_EQ(pullRequest.labels->size(), 3u);
    std::size_t comments = 0;
    std::size_t commits = 0;
    std::set<std::string> authors;
    for (const auto& item : *conversation) {
        if (const auto* comment = std::get_if<VTPullRequestComment>(&item)) {
            comments += comment->identifier != pullRequest.identifier ? 1 : 0;
        } else if (const auto* group = std::get_if<VTPullRequestCommits>(&item)) {
            for (const auto& commit : *group->commits) {
                ++commits;
                if (commit.author) {
                    authors.insert(*commit.author);
                }
            }
        }
    }
    EXPECT_EQ(comments, 60u);
    EXPECT_EQ(commits, 250u);
    EXPECT_GE(authors.size(), 3u) << "the commits are by several people";
    EXPECT_EQ(conversation->back(), VTConversationItem(true));
}

TEST_F(ASampleGitHub, KeepsWhatTheAdapterChangesAndRefusesWhatGitHubWould) {
    auto listed = [&] {
        auto list = host.pullRequestsWithUrl(urlOf(kSampleGitHubRepository), token, &error);
        EXPECT_TRUE(list) << error.description();
        return list.value_or(std::vector<VTPullRequest>{});
    };
    auto load = [&](VTPullRequest& pullRequest) {
        pullRequest.remoteUrl = std::string(kSampleGitHubRepository);
        pullRequest.hostType = 1;
        auto conversation = host.commentsForPullRequest(pullRequest, token, &error);
        EXPECT_TRUE(conversation) << error.description();
        return conversation.value_or(VTConversation{});
    };
    auto lastComment = [](const VTConversation& conversation) {
        return lastOf<VTPullRequestComment>(conversation);
    };

    // A pull request from a fork, opened, commented on, the comment edited and deleted.
    ASSERT_TRUE(host.createPullRequestWithUrl(urlOf(kSampleGitHubRepository), "main",
                                              "tomasz-wrobel/kiln:tile-cache", "Say \"hello\"",
                                              "First line\nsecond line", token, &error))
        << error.description();
    VTPullRequest created = listed().front();
    EXPECT_EQ(created.title, "Say \"hello\"");
    EXPECT_EQ(created.headReference, "tomasz-wrobel/kiln:tile-cache");
    auto conversation = load(created);
    EXPECT_EQ(std::get<VTPullRequestComment>(conversation.at(1)).content,
              "First line\nsecond line");
    ASSERT_TRUE(host.addComment("Looks \"fine\"", created, token, &error)) << error.description();
    VTPullRequestComment comment = lastComment(load(created));
    EXPECT_EQ(comment.content, "Looks \"fine\"");
    EXPECT_EQ(comment.author, "mara-lindqvist");
    ASSERT_TRUE(host.editComment(*comment.identifier, "Looks good", created, token, &error));
    EXPECT_EQ(lastComment(load(created)).content, "Looks good");
    ASSERT_TRUE(host.deleteComment(*comment.identifier, created, token, &error));
    EXPECT_NE(lastComment(load(created)).identifier, comment.identifier);

    // Merging needs the head the client saw; a merged or closed pull request leaves the list.
    VTPullRequest newest = listed().at(1);
    conversation = load(newest);
    const std::string head = *lastOf<VTPullRequestCommits>(conversation).commits->back().oid;
    EXPECT_FALSE(host.mergePullRequest(newest, 0, VTData(20, 0), "", token, &error));
    EXPECT_NE(error.description().find("Head branch was modified"), std::string::npos)
        << error.description();
    const VTData oid = vt::dataWithString(head).value();
    ASSERT_TRUE(host.mergePullRequest(newest, 2, oid, "Merge it\n", token, &error))
        << error.description();
    ASSERT_TRUE(host.closePullRequest(created, token, &error)) << error.description();
    for (const auto& open : listed()) {
        EXPECT_NE(open.number, newest.number);
        EXPECT_NE(open.number, created.number);
    }

    // SSH keys: added, refused twice, deleted.
    const std::string key = vt::test::keyFixture("ed25519.pub");
    ASSERT_TRUE(host.addSshKey(key, "test key", token, &error)) << error.description();
    EXPECT_FALSE(host.addSshKey(key, "again", token, &error));
    EXPECT_EQ(error.code, 422);
    EXPECT_FALSE(host.addSshKey("ssh-ed25519 bm90IGEga2V5", "broken", token, &error));
    EXPECT_EQ(error.code, 422);
    auto keys = host.sshKeysWithToken(token, &error);
    ASSERT_TRUE(keys && keys->size() == 4u);
    EXPECT_EQ(keys->back().at("fingerprint"), "57:d5:94:cf:02:ba:1e:9d:ac:14:34:6a:27:ce:98:e8");
    ASSERT_TRUE(host.deleteSshKey(keys->back().at("id"), token, &error)) << error.description();
    EXPECT_FALSE(host.deleteSshKey(keys->back().at("id"), token, &error));
    EXPECT_EQ(error.code, 404);

    // A repository in an organization, listed at once; a name taken is refused.
    const boost::json::object openkiln{{"name", "openkiln"},
                                       {"identifier", host.repositoriesWithToken(token, &error)
                                                          ->at("mara-lindqvist")
                                                          .at("namespaces")
                                                          .at(2)
                                                          .at("identifier")}};
    auto urls = host.createRepositoryWithToken(token, openkiln, "tile-server", "", "Serves tiles",
                                               2, &error);
    ASSERT_TRUE(urls) << error.description();
    EXPECT_EQ(urls->back(), "http://github.test/openkiln/tile-server.git");
    EXPECT_FALSE(host.createRepositoryWithToken(token, openkiln, "kiln", "", "", 0, &error));
    EXPECT_NE(error.description().find("Name already exists"), std::string::npos);
    EXPECT_FALSE(host.isPrivateRepositoryAtUrl(urlOf("http://github.test/openkiln/tile-server"),
                                               token, &error))
        << error.description();

    // Another token is not the user's.
    VTToken other{{"token_type", "Bearer"}, {"access_token", "ghp_someone_else"}};
    EXPECT_FALSE(host.sshKeysWithToken(other, &error));
    EXPECT_EQ(error.code, 401);
    EXPECT_EQ(error.recoverySuggestion(), "Bad credentials");
}

}  // namespace
