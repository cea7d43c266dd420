// The sample GitLab against the GitLab adapter itself: every request the demonstration makes (and
// the follow-up pages a larger sample needs), the token renewals and the actions must be
// understood and answered, so that a change in the adapter's texts that the sample no longer
// understands fails here rather than in the demo. The credentials beside this test program are
// those of tests/fixtures/oauth, which the sample is told to expect.

#include "samplehosts/sample_gitlab.h"
#include "hosts/gitlab/gitlab_host.h"
#include "sample_support.h"
#include "scratch.h"
#include "transport/utilities/utilities.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <variant>

namespace {

using vt::test::urlOf;
using namespace std::chrono_literals;
using vt::sample::kSampleGitLabProject;
using vt::sample::kSampleGitLabSite;

vt::sample::GitLabScale withFixtureClient(vt::sample::GitLabScale scale) {
    scale.clientId = "gitlab-client-id";
    scale.clientSecret = "gitlab-client-secret";
    return scale;
}

std::vector<VTPullRequestComment> commentsOf(const VTConversation& conversation) {
    std::vector<VTPullRequestComment> comments;
    for (std::size_t index = 2; index < conversation.size(); ++index) {
        if (const auto* comment = std::get_if<VTPullRequestComment>(&conversation[index])) {
            comments.push_back(*comment);
        }
    }
    return comments;
}

std::vector<VTPullRequestCommit> commitsOf(const VTConversation& conversation) {
    std::vector<VTPullRequestCommit> commits;
    for (const auto& item : conversation) {
        if (const auto* run = std::get_if<VTPullRequestCommits>(&item)) {
            commits.insert(commits.end(), run->commits->begin(), run->commits->end());
        }
    }
    return commits;
}

class ASampleGitLab : public ::testing::Test {
protected:
    explicit ASampleGitLab(vt::sample::GitLabScale scale = {})
        : sample(withFixtureClient(std::move(scale))) {}

    VTPullRequest mergeRequest(std::int64_t number) const {
        VTPullRequest record;
        record.remoteUrl = std::string(kSampleGitLabProject);
        record.hostType = 2;
        record.number = number;
        return record;
    }

    vt::sample::SampleGitLab sample;
    vt::test::ScopedVariable route{"VELDTRACK_CONNECT_TO", sample.connectTo()};
    VTGitLabHost host{urlOf(kSampleGitLabSite)};
    VTToken token{{"token_type", "Bearer"},
                  {"access_token", std::string(vt::sample::kSampleGitLabToken)}};
    VTError error;
};

// Large enough that every list the adapter reads has more than one page.
class ALargeSampleGitLab : public ASampleGitLab {
protected:
    ALargeSampleGitLab()
        : ASampleGitLab({.mergeRequests = 120,
                         .assignees = 120,
                         .labels = 105,
                         .discussions = 60,
                         .longThread = 60,
                         .commits = 130,
                         .sshKeys = 60}) {}
};

TEST_F(ALargeSampleGitLab, AnswersEveryReadOfTheDemonstrationPageByPage) {
    vt::test::RequestMark requests(sample.host());

    auto user = host.userWithToken(token, &error);
    ASSERT_TRUE(user) << error.description();
    EXPECT_EQ(user->at("username"), "ines-moreau");
    EXPECT_EQ(user->at("profileUrl"), "http://gitlab.test/ines-moreau");
    EXPECT_TRUE(user->at("avatar").as_string().starts_with("http://gitlab.test/"));

    auto profile = host.profileWithToken(token, &error);
    ASSERT_TRUE(profile) << error.description();
    EXPECT_EQ(profile->at("email"), "ines@tidewater.example");
    EXPECT_EQ(profile->at("company"), "Tidewater");
    EXPECT_TRUE(profile->contains("createdAt"));
    requests.since();

    auto repositories = host.repositoriesWithToken(token, &error);
    ASSERT_TRUE(repositories) << error.description();
    EXPECT_EQ(requests.since(), 3u);  // the user, the groups, one page of projects
    auto namesIn = [&](std::string_view space) {
        std::vector<std::string> names;
        for (const auto& repository : repositories->at(space).at("repositories").as_array()) {
            names.emplace_back(repository.at("name").as_string());
        }
        std::sort(names.begin(), names.end());
        return names;
    };
    // Archived projects and those the user only develops on are not listed.
    EXPECT_EQ(namesIn("ines-moreau"),
              (std::vector<std::string>{"Field Journal", "dotfiles", "tideline"}));
    EXPECT_EQ(namesIn("tidewater"), (std::vector<std::string>{"Buoy", "tideline"}));
    EXPECT_EQ(namesIn("Quayside"), (std::vector<std::string>{"charts"}));
    std::vector<std::string> namespaces;
    for (const auto& entry : repositories->at("ines-moreau").at("namespaces").as_array()) {
        namespaces.emplace_back(entry.at("name").as_string());
    }
    EXPECT_EQ(namespaces,
              (std::vector<std::string>{"ines-moreau", "harbor-ops", "Quayside", "tidewater"}));
    for (const auto& repository : repositories->at("ines-moreau").at("repositories").as_array()) {
        const auto& fields = repository.as_object();
        if (fields.at("name") == "tideline") {
            EXPECT_EQ(fields.at("parent"), "Forked from http://gitlab.test/tidewater/tideline.git");
        }
        EXPECT_EQ(fields.at("private").as_bool(), fields.at("name") == "Field Journal");
    }

    auto keys = host.sshKeysWithToken(token, &error);
    ASSERT_TRUE(keys) << error.description();
    ASSERT_EQ(keys->size(), 60u);
    EXPECT_EQ(requests.since(), 2u);  // 50 and 10, through the "next" link
    // What ssh-keygen -E md5 -l says of the sample's real keys.
    const char* fixtures[] = {"sample-gitlab-heron", "sample-gitlab-workstation",
                              "sample-gitlab-harbor-ci"};
    for (std::size_t index = 0; index < std::size(fixtures); ++index) {
        const std::string md5 = vt::test::keyFixture(std::string(fixtures[index]) + ".md5");
        const std::size_t start = md5.find("MD5:") + 4;
        EXPECT_EQ(keys->at(index).at("fingerprint").as_string(),
                  md5.substr(start, md5.find(' ', start) - start))
            << fixtures[index];
    }

    EXPECT_TRUE(host.isPrivateRepositoryAtUrl(
        urlOf("http://gitlab.test/harbor-ops/deploy-scripts.git"), token, &error));
    EXPECT_FALSE(
        host.isPrivateRepositoryAtUrl(urlOf("http://gitlab.test/tidewater/buoy"), token, &error))
        << "internal is not private";
    auto forks =
        host.forksForUrl(urlOf("ssh://git@gitlab.test/ines-moreau/tideline.git"), token, &error);
    ASSERT_TRUE(forks) << error.description();
    EXPECT_EQ(*forks, (std::vector<std::string>{"git@gitlab.test:tidewater/tideline.git",
                                                "http://gitlab.test/tidewater/tideline.git"}));
    forks = host.forksForUrl(urlOf("http://gitlab.test/ines-moreau/dotfiles"), token, &error);
    ASSERT_TRUE(forks) << error.description();
    EXPECT_TRUE(forks->empty());
    requests.since();

    auto list = host.pullRequestsWithUrl(urlOf(kSampleGitLabProject), token, &error);
    ASSERT_TRUE(list) << error.description();
    ASSERT_EQ(list->size(), 120u);
    EXPECT_EQ(requests.since(), 2u);
    EXPECT_EQ(list->front().number, sample.newestMergeRequest());
    for (std::size_t index = 1; index < list->size(); ++index) {
        EXPECT_LT(list->at(index).number, list->at(index - 1).number) << index;
    }
    for (const auto& listed : *list) {
        if (listed.number == sample.forkMergeRequest()) {
            EXPECT_EQ(listed.baseReference, "tidewater/tideline:main");
            EXPECT_TRUE(listed.headReference->starts_with("yusuf-demir/tideline:"))
                << *listed.headReference;
        } else if (listed.number == sample.forkMergeRequest() - 1) {
            EXPECT_EQ(listed.baseReference, "main");
        }
    }

    VTPullRequest record = list->front();
    record.remoteUrl = std::string(kSampleGitLabProject);
    record.hostType = 2;
    auto conversation = host.commentsForPullRequest(record, token, &error);
    ASSERT_TRUE(conversation) << error.description();
    // The detail query, then one more page each of assignees, labels, the long thread's notes,
    // discussions and GraphQL commits, and two REST pages of commits.
    EXPECT_EQ(requests.since(), 8u);
    EXPECT_EQ(record.assignees->size(), 120u);
    EXPECT_EQ(record.labels->size(), 105u);
    EXPECT_EQ(conversation->back(), VTConversationItem(true));

    const auto comments = commentsOf(*conversation);
    std::size_t longest = 0;
    std::size_t answerable = 0;
    for (const auto& comment : comments) {
        EXPECT_EQ(comment.content->find("added 2 commits"), std::string::npos)
            << "system notes stay out";
        longest = std::max(longest, comment.comments ? comment.comments->size() : 0);
        answerable += comment.replyTo && !comment.replyTo->empty() ? 1 : 0;
    }
    EXPECT_EQ(longest, 59u) << "the long thread comes whole, over two pages of notes";
    EXPECT_GT(answerable, 10u);
    EXPECT_GT(comments.size(), 40u);

    const auto commits = commitsOf(*conversation);
    EXPECT_EQ(commits.size(), 130u) << "the merge commit included";
    std::set<std::string> authors;
    for (const auto& commit : commits) {
        ASSERT_TRUE(commit.author) << *commit.oid;
        authors.insert(*commit.author);
        if (commit.message->starts_with("Merge branch")) {
            EXPECT_FALSE(commit.author->empty());
        }
    }
    EXPECT_GE(authors.size(), 3u) << "the commits are by several people";
    EXPECT_TRUE(authors.contains("Pat Quinlan")) << "an author without an account keeps a name";
}

// Token renewal: ahead of a request when the token is about to expire, and when the host
// answers that it has expired; a refresh token works once.
TEST_F(ASampleGitLab, RenewsATokenAboutToExpireBeforeTheRequest) {
    VTToken expiring = sample.issueToken(60s, 50s);
    VTToken before = expiring;
    ASSERT_TRUE(host.profileWithToken(expiring, &error)) << error.description();
    EXPECT_EQ(sample.refreshesGranted(), 1u);
    EXPECT_NE(expiring.at("access_token"), before.at("access_token"));
    EXPECT_NE(expiring.at("refresh_token"), before.at("refresh_token"));
    EXPECT_EQ(expiring.at("expires_in"), 7200);

    // The token kept is good for further requests without another renewal.
    ASSERT_TRUE(host.sshKeysWithToken(expiring, &error)) << error.description();
    EXPECT_EQ(sample.refreshesGranted(), 1u);

    // The refresh token spent on the way is refused the second time.
    EXPECT_FALSE(host.refreshedToken(before, urlOf(kSampleGitLabSite), &error));
    EXPECT_EQ(error.domain, "VTGitErrorDomain");
    EXPECT_EQ(error.code, 1);
    EXPECT_EQ(error.description(), "Authorisation for GitLab failed");
    EXPECT_EQ(sample.refreshesRefused(), 1u);
}

TEST_F(ASampleGitLab, RenewsATokenTheHostSaysHasExpiredAndRepeatsTheRequest) {
    // Without its issue time the adapter cannot see the expiry coming: the host tells it.
    VTToken expired = sample.issueToken(60s, 1h);
    expired.erase("created_at");
    expired.erase("expires_in");
    const VTToken before = expired;
    vt::test::RequestMark requests(sample.host());

    auto keys = host.sshKeysWithToken(expired, &error);
    ASSERT_TRUE(keys) << error.description();
    EXPECT_EQ(keys->size(), 3u);
    EXPECT_EQ(sample.refreshesGranted(), 1u);
    EXPECT_EQ(requests.since(), 3u);  // refused, renewed, repeated
    EXPECT_NE(expired.at("access_token"), before.at("access_token"));

    // The access token the renewal replaced is revoked: no second renewal with a spent token.
    VTToken stale = before;
    EXPECT_FALSE(host.sshKeysWithToken(stale, &error));
    EXPECT_EQ(error.code, 401);
}

struct RefusedRenewal {
    const char* name;
    std::string clientSecret;
    bool spendFirst;  // the refresh token was used before
};

class ARefusedRenewal : public ::testing::TestWithParam<RefusedRenewal> {};

TEST_P(ARefusedRenewal, EmptiesTheTokenAndSaysAuthorisationFailed) {
    vt::sample::GitLabScale scale = withFixtureClient({});
    if (!GetParam().clientSecret.empty()) {
        scale.clientSecret = GetParam().clientSecret;
    }
    vt::sample::SampleGitLab sample(scale);
    vt::test::ScopedVariable route{"VELDTRACK_CONNECT_TO", sample.connectTo()};
    VTGitLabHost host{urlOf(kSampleGitLabSite)};
    VTToken token = sample.issueToken(60s, 55s);
    VTError error;
    if (GetParam().spendFirst) {
        ASSERT_TRUE(host.refreshedToken(token, urlOf(kSampleGitLabSite), &error));
    }
    EXPECT_FALSE(host.sshKeysWithToken(token, &error));
    EXPECT_TRUE(token.empty());
    EXPECT_EQ(error.domain, "VTGitErrorDomain");
    EXPECT_EQ(error.description(), "Authorisation for GitLab failed");
    EXPECT_FALSE(error.recoverySuggestion().value_or("").empty());
    EXPECT_EQ(sample.refreshesRefused(), 1u);
}

INSTANTIATE_TEST_SUITE_P(, ARefusedRenewal,
                         ::testing::Values(RefusedRenewal{"WrongClientSecret", "another", false},
                                           RefusedRenewal{"SpentRefreshToken", "", true}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(ASampleGitLab, KeepsWhatTheAdapterChangesAndRefusesWhatGitLabWould) {
    auto listed = [&] {
        auto list = host.pullRequestsWithUrl(urlOf(kSampleGitLabProject), token, &error);
        EXPECT_TRUE(list) << error.description();
        return list.value_or(std::vector<VTPullRequest>{});
    };
    auto load = [&](VTPullRequest& record) {
        record.remoteUrl = std::string(kSampleGitLabProject);
        record.hostType = 2;
        auto conversation = host.commentsForPullRequest(record, token, &error);
        EXPECT_TRUE(conversation) << error.description();
        return conversation.value_or(VTConversation{});
    };

    // Merge requests from a branch of the project and from a fork.
    ASSERT_TRUE(host.createPullRequestWithUrl(urlOf(kSampleGitLabProject), "main", "tide-cache",
                                              "Say \"hello\"", "First line\nsecond line", token,
                                              &error))
        << error.description();
    ASSERT_TRUE(host.createPullRequestWithUrl(urlOf(kSampleGitLabProject), "main",
                                              "hanna-virtanen/tideline:gauge-fix", "Fix a gauge",
                                              "From my fork", token, &error))
        << error.description();
    EXPECT_FALSE(host.createPullRequestWithUrl(urlOf(kSampleGitLabProject), "main", "tide-cache",
                                               "Again", "", token, &error));
    EXPECT_NE(error.description().find("Another open merge request already exists"),
              std::string::npos)
        << error.description();
    auto open = listed();
    ASSERT_GE(open.size(), 2u);
    EXPECT_EQ(open.at(0).title, "Fix a gauge");
    EXPECT_EQ(open.at(0).headReference, "hanna-virtanen/tideline:gauge-fix");
    VTPullRequest created = open.at(1);
    EXPECT_EQ(created.title, "Say \"hello\"");
    EXPECT_EQ(created.headReference, "tide-cache");

    // Commented on, the comment edited and deleted, the description edited.
    auto conversation = load(created);
    EXPECT_EQ(std::get<VTPullRequestComment>(conversation.at(1)).content,
              "First line\nsecond line");
    ASSERT_TRUE(host.addComment("Looks \"fine\"", created, token, &error)) << error.description();
    VTPullRequestComment comment = commentsOf(load(created)).back();
    EXPECT_EQ(comment.content, "Looks \"fine\"");
    EXPECT_EQ(comment.author, "ines-moreau");
    ASSERT_TRUE(host.editComment(*comment.identifier, "Looks good", created, token, &error))
        << error.description();
    EXPECT_EQ(commentsOf(load(created)).back().content, "Looks good");
    ASSERT_TRUE(host.deleteComment(*comment.identifier, created, token, &error))
        << error.description();
    EXPECT_TRUE(commentsOf(load(created)).empty());
    ASSERT_TRUE(host.editPullRequest(created, "Second thoughts", token, &error));
    EXPECT_EQ(std::get<VTPullRequestComment>(load(created).at(1)).content, "Second thoughts");

    // A reply lands in its thread.
    VTPullRequest newest = mergeRequest(sample.newestMergeRequest());
    conversation = load(newest);
    VTPullRequestComment thread;
    for (const auto& candidate : commentsOf(conversation)) {
        if (candidate.replyTo && !candidate.replyTo->empty() &&
            thread.replyTo.value_or("").empty()) {
            thread = candidate;
        }
    }
    ASSERT_FALSE(thread.replyTo.value_or("").empty());
    const std::size_t replies = thread.comments ? thread.comments->size() : 0;
    ASSERT_TRUE(host.replyTo(*thread.replyTo, "Agreed, \"done\".", newest, token, &error))
        << error.description();
    for (const auto& after : commentsOf(load(newest))) {
        if (after.identifier == thread.identifier) {
            ASSERT_EQ(after.comments->size(), replies + 1);
            EXPECT_EQ(after.comments->back().content, "Agreed, \"done\".");
        }
    }

    // Merging needs the head the client saw; merged and closed ones leave the list.
    EXPECT_FALSE(host.mergePullRequest(newest, 1, VTData(20, 0), "Squashed", token, &error));
    EXPECT_EQ(error.code, 200);
    EXPECT_NE(error.description().find("SHA does not match"), std::string::npos)
        << error.description();
    const std::string head = *commitsOf(load(newest)).back().oid;
    const VTData oid = vt::dataWithString(head).value();
    ASSERT_TRUE(host.mergePullRequest(newest, 1, oid, "Squashed", token, &error))
        << error.description();
    ASSERT_TRUE(host.closePullRequest(created, token, &error)) << error.description();
    for (const auto& still : listed()) {
        EXPECT_NE(still.number, newest.number);
        EXPECT_NE(still.number, created.number);
    }

    // SSH keys: added, refused twice, deleted.
    const std::string key = vt::test::keyFixture("ed25519.pub");
    ASSERT_TRUE(host.addSshKey(key, "test key", token, &error)) << error.description();
    EXPECT_FALSE(host.addSshKey(key, "again", token, &error));
    EXPECT_EQ(error.code, 400);
    EXPECT_FALSE(host.addSshKey("ssh-ed25519 bm90IGEga2V5", "broken", token, &error));
    EXPECT_EQ(error.code, 400);
    auto keys = host.sshKeysWithToken(token, &error);
    ASSERT_TRUE(keys && keys->size() == 4u);
    EXPECT_EQ(keys->back().at("fingerprint"), "57:d5:94:cf:02:ba:1e:9d:ac:14:34:6a:27:ce:98:e8");
    ASSERT_TRUE(host.deleteSshKey(keys->back().at("id"), token, &error)) << error.description();
    EXPECT_FALSE(host.deleteSshKey(keys->back().at("id"), token, &error));
    EXPECT_EQ(error.code, 404);

    // A project: a group's namespace entry carries a global id, which sends no namespace id, so
    // the project lands in the user's own namespace; a path taken there is refused.
    const boost::json::object tidewater{{"name", "tidewater"},
                                        {"identifier", "gid://gitlab/Group/71"}};
    auto urls = host.createRepositoryWithToken(token, tidewater, "tide-server", "Tide Server",
                                               "Serves tides", 1, &error);
    ASSERT_TRUE(urls) << error.description();
    EXPECT_EQ(*urls, (std::vector<std::string>{"git@gitlab.test:ines-moreau/tide-server.git",
                                               "http://gitlab.test/ines-moreau/tide-server.git"}));
    EXPECT_FALSE(
        host.createRepositoryWithToken(token, tidewater, "tide-server", "", "", 0, &error));
    EXPECT_EQ(error.code, 400);
    EXPECT_FALSE(host.isPrivateRepositoryAtUrl(urlOf("http://gitlab.test/ines-moreau/tide-server"),
                                               token, &error))
        << error.description();

    // Another token is not the user's.
    VTToken other{{"token_type", "Bearer"}, {"access_token", "glpat-someone-else"}};
    EXPECT_FALSE(host.sshKeysWithToken(other, &error));
    EXPECT_EQ(error.code, 401);
}

}  // namespace
