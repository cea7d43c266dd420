// The sample Bitbucket against the Bitbucket adapter itself: every request the demonstration makes
// (and the follow-up pages a larger sample needs), the token renewal and the actions must be
// understood and answered, so that a change in the adapter's paths that the sample no longer
// understands fails here rather than in the demo.

#include "samplehosts/sample_bitbucket.h"
#include "hosts/bitbucket/bitbucket_host.h"
#include "sample_support.h"
#include "samplehosts/partial_response.h"
#include "scratch.h"
#include "transport/utilities/utilities.h"

#include <gtest/gtest.h>
#include <boost/json/parse.hpp>

#include <set>
#include <sstream>
#include <string>
#include <variant>

namespace {

using vt::sample::kSampleBitbucketRepository;
using vt::sample::kSampleBitbucketSite;
using vt::test::urlOf;

const std::string kDeletedMarker("\x04\x05\x06");

// The top-level comments of a conversation, and the commits of its commit groups.
struct Parts {
    std::vector<VTPullRequestComment> comments;
    std::vector<VTPullRequestCommit> commits;
};

Parts partsOf(const VTConversation& conversation) {
    Parts parts;
    for (std::size_t index = 2; index < conversation.size(); ++index) {
        if (const auto* comment = std::get_if<VTPullRequestComment>(&conversation[index])) {
            parts.comments.push_back(*comment);
        } else if (const auto* group = std::get_if<VTPullRequestCommits>(&conversation[index])) {
            parts.commits.insert(parts.commits.end(), group->commits->begin(),
                                 group->commits->end());
        }
    }
    return parts;
}

std::size_t countWithReplies(const std::vector<VTPullRequestComment>& comments) {
    std::size_t count = 0;
    for (const auto& comment : comments) {
        count += 1 + (comment.comments ? countWithReplies(*comment.comments) : 0);
    }
    return count;
}

class ASampleBitbucket : public ::testing::Test {
protected:
    explicit ASampleBitbucket(vt::sample::BitbucketScale scale = clientOfTheFixture({}))
        : sample(std::move(scale)) {}

    // The client the test executable's credentials file names.
    static vt::sample::BitbucketScale clientOfTheFixture(vt::sample::BitbucketScale scale) {
        scale.clientId = "bitbucket-client-id";
        scale.clientSecret = "bitbucket-client-secret";
        return scale;
    }

    VTPullRequest listed(std::int64_t number) {
        auto list = host.pullRequestsWithUrl(urlOf(kSampleBitbucketRepository), token, &error);
        EXPECT_TRUE(list) << error.description();
        for (const auto& pullRequest : list.value_or(std::vector<VTPullRequest>{})) {
            if (pullRequest.number == number) {
                VTPullRequest found = pullRequest;
                found.remoteUrl = std::string(kSampleBitbucketRepository);
                found.hostType = 3;
                return found;
            }
        }
        ADD_FAILURE() << "pull request " << number << " is not listed";
        return VTPullRequest{};
    }

    VTConversation load(VTPullRequest& pullRequest) {
        auto conversation = host.commentsForPullRequest(pullRequest, token, &error);
        EXPECT_TRUE(conversation) << error.description();
        return conversation.value_or(VTConversation{});
    }

    vt::sample::SampleBitbucket sample;
    vt::test::ScopedVariable route{"VELDTRACK_CONNECT_TO", sample.connectTo()};
    VTBitbucketbHost host{urlOf(kSampleBitbucketSite)};
    VTToken token{{"token_type", "Bearer"},
                  {"access_token", std::string(vt::sample::kSampleBitbucketToken)}};
    VTError error;
};

// Large enough that every list the adapter follows has more than one page.
class ALargeSampleBitbucket : public ASampleBitbucket {
protected:
    ALargeSampleBitbucket()
        : ASampleBitbucket(clientOfTheFixture({.pullRequests = 120,
                                               .comments = 120,
                                               .commits = 250,
                                               .diffstatFiles = 500,
                                               .extraRepositories = 150,
                                               .sshKeys = 60})) {}
};

TEST_F(ALargeSampleBitbucket, AnswersEveryReadOfTheDemonstrationPageByPage) {
    vt::test::RequestMark requests(sample.host());

    auto user = host.userWithToken(token, &error);
    ASSERT_TRUE(user) << error.description();
    EXPECT_EQ(user->at("username"), "mara-lindqvist");
    EXPECT_EQ(user->at("name"), "Mara Lindqvist");
    EXPECT_TRUE(user->contains("avatar"));
    auto profile = host.profileWithToken(token, &error);
    ASSERT_TRUE(profile) << error.description();
    EXPECT_TRUE(profile->contains("createdAt")) << "the fractional creation time was read";
    EXPECT_TRUE(profile->at("profileUrl").as_string().starts_with("http://bitbucket.test/%7B"));
    requests.since();

    auto repositories = host.repositoriesWithToken(token, &error);
    ASSERT_TRUE(repositories) << error.description();
    // The user, the workspace, and two pages of repositories.
    EXPECT_EQ(requests.since(), 4u);
    std::set<std::string> owners;
    for (const auto& [owner, entry] : *repositories) {
        owners.insert(std::string(owner));
    }
    // Read-only lakeside-labs is no contributor's; the Mercurial repository never shows.
    EXPECT_EQ(owners, (std::set<std::string>{"harbour-ops", "mara-lindqvist", "northwind-tools",
                                             "tidewater"}));
    EXPECT_EQ(repositories->at("harbour-ops").at("repositories").as_array().size(), 151u);
    const auto& own = repositories->at("mara-lindqvist").as_object();
    std::vector<std::string> namespaces;
    for (const auto& entry : own.at("namespaces").as_array()) {
        namespaces.emplace_back(entry.at("name").as_string());
    }
    EXPECT_EQ(namespaces, (std::vector<std::string>{"mara-lindqvist", "harbour-ops",
                                                    "northwind-tools", "tidewater"}));
    const auto& ownRepositories = own.at("repositories").as_array();
    ASSERT_EQ(ownRepositories.size(), 3u);
    EXPECT_EQ(ownRepositories.at(1).at("parent"),
              "Forked from http://bitbucket.test/tidewater/tilestream");
    EXPECT_EQ(ownRepositories.at(0).at("urls"),
              (boost::json::array{"git@bitbucket.test:mara-lindqvist/dotfiles.git",
                                  "http://bitbucket.test/mara-lindqvist/dotfiles.git"}));

    auto keys = host.sshKeysWithToken(token, &error);
    ASSERT_TRUE(keys) << error.description();
    EXPECT_EQ(requests.since(), 3u);  // the user name, then 50 and 10 keys
    ASSERT_EQ(keys->size(), 60u);
    // What ssh-keygen -E md5 -l says of the first, real key.
    EXPECT_EQ(keys->at(0).at("fingerprint"), "a1:a1:be:b0:18:43:b9:3e:8f:93:90:8b:22:78:d8:e8");
    EXPECT_EQ(keys->at(0).at("title"), "mara@osprey");
    EXPECT_FALSE(keys->at(0).as_object().contains("id")) << "no id under an OAuth token";

    EXPECT_TRUE(host.isPrivateRepositoryAtUrl(urlOf("http://bitbucket.test/tidewater/style-kit"),
                                              token, &error));
    EXPECT_FALSE(host.isPrivateRepositoryAtUrl(urlOf(kSampleBitbucketRepository), token, &error));
    auto forks = host.forksForUrl(urlOf("ssh://git@bitbucket.test/mara-lindqvist/tilestream.git"),
                                  token, &error);
    ASSERT_TRUE(forks) << error.description();
    EXPECT_EQ(*forks, (std::vector<std::string>{
                          "git@bitbucket.test:tidewater/tilestream.git",
                          "http://mara-lindqvist@bitbucket.test/tidewater/tilestream.git"}));
    forks = host.forksForUrl(urlOf("http://bitbucket.test/mara-lindqvist/dotfiles"), token, &error);
    ASSERT_TRUE(forks) << error.description();
    EXPECT_TRUE(forks->empty());
    requests.since();

    auto list = host.pullRequestsWithUrl(urlOf(kSampleBitbucketRepository), token, &error);
    ASSERT_TRUE(list) << error.description();
    EXPECT_EQ(requests.since(), 3u);
    ASSERT_EQ(list->size(), 120u);
    EXPECT_EQ(list->front().number, sample.newestPullRequest());
    for (std::size_t index = 1; index < list->size(); ++index) {
        EXPECT_LT(list->at(index).number, list->at(index - 1).number) << index;
    }
    VTPullRequest fromFork = listed(sample.forkPullRequest());
    EXPECT_EQ(fromFork.baseReference, "tidewater/tilestream:main");
    EXPECT_EQ(fromFork.headReference, "mara-lindqvist/tilestream:skip-empty-tiles-at");
    VTPullRequest newest = listed(sample.newestPullRequest());
    requests.since();
    auto conversation = load(newest);
    // The user, the details, three pages each of diffstat, comments and commits.
    EXPECT_EQ(requests.since(), 11u);
    EXPECT_EQ(newest.mergeable, 0u);
    EXPECT_FALSE(newest.editable) << "opened by someone else";
    EXPECT_EQ(newest.webUrl, "http://bitbucket.test/tidewater/tilestream/pull-requests/" +
                                 std::to_string(*newest.number));
    const Parts parts = partsOf(conversation);
    // 120 comments of which 24 deleted: the 12 unanswered ones go.
    EXPECT_EQ(countWithReplies(parts.comments), 108u);
    std::size_t markers = 0;
    for (const auto& comment : parts.comments) {
        markers += comment.content == kDeletedMarker ? 1 : 0;
        EXPECT_TRUE(comment.content != kDeletedMarker || comment.comments)
            << "a deleted comment stays only for its answers";
    }
    EXPECT_EQ(markers, 12u);
    EXPECT_EQ(parts.commits.size(), 250u);
    std::set<std::string> authors;
    for (const auto& commit : parts.commits) {
        authors.insert(commit.author.value_or(""));
    }
    EXPECT_GE(authors.size(), 4u) << "three people and one address without an account";
    EXPECT_EQ(conversation.back(), VTConversationItem(true));

    // The conflict is on the second diffstat page, which ends the diffstat.
    VTPullRequest conflicted = listed(sample.conflictPullRequest());
    requests.since();
    load(conflicted);
    EXPECT_EQ(requests.since(), 10u);
    EXPECT_EQ(conflicted.mergeable, 1u);
}

TEST_F(ASampleBitbucket, RenewsAnExpiredTokenOnceAndRotatesTheRefreshToken) {
    const VTToken expired{{"token_type", "Bearer"},
                          {"access_token", std::string(vt::sample::kSampleBitbucketExpiredToken)},
                          {"refresh_token", std::string(vt::sample::kSampleBitbucketRefreshToken)}};
    token = expired;
    ASSERT_TRUE(host.profileWithToken(token, &error)) << error.description();
    EXPECT_NE(token, expired);
    EXPECT_EQ(token.at("token_type"), "Bearer") << "whatever the host called it";
    EXPECT_NE(token.at("refresh_token"), expired.at("refresh_token"));
    EXPECT_EQ(token.at("expires_in"), 7200) << "the host's other members are kept";
    const auto requests = sample.host().requests();
    ASSERT_EQ(requests.size(), 3u);  // refused, renewed, repeated
    EXPECT_EQ(requests[1].header("Host"), "bitbucket.test");
    EXPECT_EQ(requests[1].target, "/site/oauth2/access_token");
    EXPECT_EQ(requests[1].body, "grant_type=refresh_token&refresh_token=" +
                                    std::string(vt::sample::kSampleBitbucketRefreshToken));

    // The old refresh token is spent.
    VTToken stale = expired;
    EXPECT_FALSE(host.profileWithToken(stale, &error));
    EXPECT_EQ(error.domain, VTGitErrorDomain);
    EXPECT_EQ(error.code, 1);
    EXPECT_EQ(error.recoverySuggestion(), "Invalid refresh_token");
    EXPECT_EQ(stale, expired);

    // Two hours later the renewed token expires in turn and its refresh token renews it.
    sample.expireAccessTokens();
    const VTToken first = token;
    ASSERT_TRUE(host.sshKeysWithToken(token, &error)) << error.description();
    EXPECT_NE(token.at("access_token"), first.at("access_token"));
    EXPECT_NE(token.at("refresh_token"), first.at("refresh_token"));
}

TEST(ASampleBitbucketWithAnotherClient, RefusesToRenewForIt) {
    vt::sample::SampleBitbucket sample;  // expects the demonstration's client, not the fixture's
    vt::test::ScopedVariable route{"VELDTRACK_CONNECT_TO", sample.connectTo()};
    VTBitbucketbHost host{urlOf(kSampleBitbucketSite)};
    VTToken token{{"token_type", "Bearer"},
                  {"access_token", std::string(vt::sample::kSampleBitbucketExpiredToken)},
                  {"refresh_token", std::string(vt::sample::kSampleBitbucketRefreshToken)}};
    VTError error;
    EXPECT_FALSE(host.profileWithToken(token, &error));
    EXPECT_EQ(error.description(), "Authorisation for Bitbucket failed");
    EXPECT_EQ(error.recoverySuggestion(), "Invalid OAuth client credentials");
}

TEST_F(ASampleBitbucket, RefusesWhatBitbucketRefuses) {
    const VTToken wrong{{"token_type", "Bearer"}, {"access_token", "someone-elses-token"}};
    const VTToken password{{"token_type", "Basic"},
                           {"access_token", vt::base64String("mara-lindqvist:hunter2")}};
    const VTToken expiredWithoutRenewal{
        {"token_type", "Bearer"},
        {"access_token", std::string(vt::sample::kSampleBitbucketExpiredToken)}};
    struct Case {
        const char* what;
        std::string address;
        VTToken token;
        std::int64_t code;
        std::string message;
    };
    const Case cases[] = {
        {"another token", "http://api.bitbucket.test/2.0/user", wrong, 401,
         "Token is invalid, expired, or not supported for this endpoint."},
        {"an account password", "http://api.bitbucket.test/2.0/user", password, 401,
         "Token is invalid, expired, or not supported for this endpoint."},
        {"an expired token without a refresh token", "http://api.bitbucket.test/2.0/user",
         expiredWithoutRenewal, 401,
         "Access token expired. Use your refresh token to obtain a new access token."},
        {"an unknown path", "http://api.bitbucket.test/2.0/snippets/mara", token, 404,
         "Resource not found"},
        {"a path outside the API", "http://api.bitbucket.test/1.0/user", token, 404,
         "Resource not found"},
        {"an unknown repository", "http://api.bitbucket.test/2.0/repositories/tidewater/nothing",
         token, 404, "Repository tidewater/nothing not found"},
        {"a page past the end",
         "http://api.bitbucket.test/2.0/repositories/tidewater/tilestream/pullrequests?page=9",
         token, 404, "Invalid page"},
        {"another user's keys", "http://api.bitbucket.test/2.0/users/jonas-berg/ssh-keys", token,
         403, "You may only see and change your own SSH keys."},
    };
    for (const Case& test : cases) {
        VTToken used = test.token;
        EXPECT_FALSE(host.jsonGetWithUrl(urlOf(test.address), used, nullptr, &error)) << test.what;
        EXPECT_EQ(error.code, test.code) << test.what;
        EXPECT_EQ(error.recoverySuggestion(), test.message) << test.what;
    }
}

TEST_F(ASampleBitbucket, KeepsWhatTheAdapterChanges) {
    const VTUrl repository = urlOf(kSampleBitbucketRepository);
    // A pull request from a fork, edited, commented on and answered.
    ASSERT_TRUE(host.createPullRequestWithUrl(
        repository, "main", "jonas-berg/tilestream:tile-cache", "Cache \"hot\" tiles",
        "First line\nsecond line", token, &error))
        << error.description();
    auto list = host.pullRequestsWithUrl(repository, token, &error);
    ASSERT_TRUE(list && !list->empty());
    VTPullRequest created = listed(*list->front().number);
    EXPECT_EQ(created.title, "Cache \"hot\" tiles");
    EXPECT_EQ(created.headReference, "jonas-berg/tilestream:tile-cache");
    ASSERT_TRUE(host.editPullRequest(created, "Only the description changes", token, &error));
    auto conversation = load(created);
    EXPECT_TRUE(created.editable && created.allowsMerge) << "the user opened it";
    EXPECT_EQ(std::get<VTPullRequestComment>(conversation.at(1)).content,
              "Only the description changes");
    EXPECT_EQ(listed(*created.number).title, "Cache \"hot\" tiles");

    ASSERT_TRUE(host.addComment("Looks \"fine\"", created, token, &error)) << error.description();
    Parts parts = partsOf(load(created));
    ASSERT_EQ(parts.comments.size(), 1u);
    const VTPullRequestComment comment = parts.comments.front();
    EXPECT_EQ(comment.content, "Looks \"fine\"");
    EXPECT_TRUE(comment.editable && comment.deletable);
    ASSERT_TRUE(host.replyTo(*comment.identifier, "An answer", created, token, &error))
        << error.description();
    ASSERT_TRUE(host.editComment(*comment.identifier, "Looks good", created, token, &error));
    parts = partsOf(load(created));
    ASSERT_EQ(parts.comments.size(), 1u);
    EXPECT_EQ(parts.comments.front().content, "Looks good");
    ASSERT_TRUE(parts.comments.front().comments && parts.comments.front().comments->size() == 1u);
    const VTPullRequestComment reply = parts.comments.front().comments->front();
    EXPECT_EQ(reply.content, "An answer");

    // Deleted with an answer: the marker stays; the answer deleted too: both go.
    ASSERT_TRUE(host.deleteComment(*comment.identifier, created, token, &error));
    parts = partsOf(load(created));
    ASSERT_EQ(parts.comments.size(), 1u);
    EXPECT_EQ(parts.comments.front().content, kDeletedMarker);
    ASSERT_TRUE(host.deleteComment(*reply.identifier, created, token, &error));
    EXPECT_TRUE(partsOf(load(created)).comments.empty());
    EXPECT_FALSE(host.deleteComment(*reply.identifier, created, token, &error));
    EXPECT_EQ(error.code, 404);

    // Merging: refused while in conflict; merged and declined pull requests leave the list.
    VTPullRequest conflicted = listed(sample.conflictPullRequest());
    EXPECT_FALSE(host.mergePullRequest(conflicted, 0, {}, "", token, &error));
    EXPECT_EQ(error.recoverySuggestion(), "You can't merge until you resolve all merge conflicts.");
    VTPullRequest newest = listed(sample.newestPullRequest());
    ASSERT_TRUE(host.mergePullRequest(newest, 1, {}, "Squash it", token, &error))
        << error.description();
    ASSERT_TRUE(host.closePullRequest(created, token, &error)) << error.description();
    EXPECT_FALSE(host.closePullRequest(created, token, &error));
    EXPECT_EQ(error.code, 400);
    list = host.pullRequestsWithUrl(repository, token, &error);
    ASSERT_TRUE(list);
    for (const auto& open : *list) {
        EXPECT_NE(open.number, newest.number);
        EXPECT_NE(open.number, created.number);
    }
    EXPECT_EQ(list->size(), 5u);
}

TEST_F(ASampleBitbucket, KeepsKeysAndRepositoriesSignedInWithAnApiToken) {
    // Basic with the e-mail address and an API token: keys then carry their ids.
    token = VTToken{
        {"token_type", "Basic"},
        {"access_token", vt::base64String(std::string(vt::sample::kSampleBitbucketEmail) + ":" +
                                          std::string(vt::sample::kSampleBitbucketApiToken))}};
    const std::string key = vt::test::keyFixture("ed25519.pub");
    // "256 MD5:57:d5:... comment (ED25519)"
    std::string bits;
    std::string fingerprint;
    std::istringstream(vt::test::keyFixture("ed25519.md5")) >> bits >> fingerprint;
    ASSERT_TRUE(host.addSshKey(key, "not sent", token, &error)) << error.description();
    EXPECT_FALSE(host.addSshKey(key, "again", token, &error));
    EXPECT_EQ(error.recoverySuggestion(), "key: Someone has already added that SSH key.");
    EXPECT_FALSE(host.addSshKey("ssh-ed25519 bm90IGEga2V5", "broken", token, &error));
    EXPECT_EQ(error.code, 400);
    auto keys = host.sshKeysWithToken(token, &error);
    ASSERT_TRUE(keys && keys->size() == 4u) << error.description();
    const auto& added = keys->back().as_object();
    EXPECT_EQ("MD5:" + std::string(added.at("fingerprint").as_string()), fingerprint);
    EXPECT_EQ(added.at("title").as_string(), key.substr(key.rfind(' ') + 1))
        << "the key's own comment";
    ASSERT_TRUE(added.contains("id"));
    ASSERT_TRUE(host.deleteSshKey(added.at("id"), token, &error)) << error.description();
    EXPECT_FALSE(host.deleteSshKey(added.at("id"), token, &error));
    EXPECT_EQ(error.code, 404);
    keys = host.sshKeysWithToken(token, &error);
    ASSERT_TRUE(keys);
    EXPECT_EQ(keys->size(), 3u);

    // A repository in a workspace, listed at once; a slug taken and a workspace that does not
    // let the user create are refused.
    auto repositories = host.repositoriesWithToken(token, &error);
    ASSERT_TRUE(repositories) << error.description();
    const auto& namespaces = repositories->at("mara-lindqvist").at("namespaces").as_array();
    auto named = [&](std::string_view name) {
        for (const auto& entry : namespaces) {
            if (entry.at("name").as_string() == name) {
                return entry.as_object();
            }
        }
        ADD_FAILURE() << "no namespace " << name;
        return boost::json::object{};
    };
    auto urls = host.createRepositoryWithToken(token, named("harbour-ops"), "tile-server",
                                               "Tile server", "Serves tiles", 0, &error);
    ASSERT_TRUE(urls) << error.description();
    EXPECT_EQ(*urls,
              (std::vector<std::string>{"git@bitbucket.test:harbour-ops/tile-server.git",
                                        "http://bitbucket.test/harbour-ops/tile-server.git"}));
    EXPECT_TRUE(host.isPrivateRepositoryAtUrl(
        urlOf("http://bitbucket.test/harbour-ops/tile-server"), token, &error))
        << "visibility 0 is private";
    EXPECT_FALSE(host.createRepositoryWithToken(token, named("harbour-ops"), "tile-server", "", "",
                                                2, &error));
    EXPECT_EQ(error.recoverySuggestion(), "Repository with this Slug and Owner already exists.");
    EXPECT_FALSE(host.createRepositoryWithToken(token, named("northwind-tools"), "notes", "", "", 2,
                                                &error));
    EXPECT_EQ(error.code, 403);
}

TEST(BitbucketPartialResponses, KeepWhatTheFieldsName) {
    const auto whole = boost::json::parse(
        R"({"next":"n","size":2,"values":[{"id":1,"user":{"uuid":"u","links":{"avatar":"a"}}},)"
        R"({"id":2,"user":{"uuid":"v"}}]})");
    const std::pair<const char*, const char*> cases[] = {
        {"",
         R"({"next":"n","size":2,"values":[{"id":1,"user":{"uuid":"u","links":{"avatar":"a"}}},{"id":2,"user":{"uuid":"v"}}]})"},
        {"values.id", R"({"values":[{"id":1},{"id":2}]})"},
        {"next,values.user.links.avatar",
         R"({"next":"n","values":[{"user":{"links":{"avatar":"a"}}},{"user":{}}]})"},
        {"values.user,values.user.uuid",
         R"({"values":[{"user":{"uuid":"u","links":{"avatar":"a"}}},{"user":{"uuid":"v"}}]})"},
        {"values.*.uuid,nothing.here",
         R"({"values":[{"user":{"uuid":"u"}},{"user":{"uuid":"v"}}]})"},
        {"-values.user,-size", R"({"next":"n","values":[{"id":1},{"id":2}]})"},
        {"+values.id,-next",
         R"({"size":2,"values":[{"id":1,"user":{"uuid":"u","links":{"avatar":"a"}}},{"id":2,"user":{"uuid":"v"}}]})"},
    };
    for (const auto& [fields, expected] : cases) {
        EXPECT_EQ(vt::sample::withFields(whole, fields), boost::json::parse(expected)) << fields;
    }
}

}  // namespace
