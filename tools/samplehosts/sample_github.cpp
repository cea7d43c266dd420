#include "samplehosts/sample_github.h"

#include "samplehosts/graphql.h"
#include "samplehosts/sample_data.h"
#include "samplehosts/text.h"
#include "transport/utilities/utilities.h"

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <boost/url/parse.hpp>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

namespace vt::sample {

namespace {

namespace json = boost::json;
using graphql::Failure;
using graphql::Field;

constexpr std::string_view kViewer = "mara-lindqvist";
constexpr std::string_view kPullRequestOwner = "openkiln";
constexpr std::string_view kPullRequestName = "kiln";
// The sample's "now": every generated date lies before or around it.
const std::time_t kNow = utcTime(2024, 6, 20, 9, 30);
constexpr std::time_t kDay = 24 * 60 * 60;

struct AccountSeed {
    std::string_view login;
    std::string_view name;  // empty: the account shows no name
    bool organization;
    bool viewerCanCreateRepositories;
};

// The viewer first, then the people who work on the repositories, then the viewer's
// organizations.
constexpr AccountSeed kAccounts[] = {
    {"mara-lindqvist", "Mara Lindqvist", false, false},
    {"tomasz-wrobel", "Tomasz Wróbel", false, false},
    {"aiko-tanaka", "Aiko Tanaka", false, false},
    {"dev-okafor", "Devon Okafor", false, false},
    {"lucia-ferrer", "Lucía Ferrer", false, false},
    {"kiln-bot", "", false, false},
    {"openkiln", "OpenKiln", true, true},
    {"northwind-tools", "Northwind Tools", true, true},
    {"lakeside-labs", "Lakeside Labs", true, false},
};
constexpr std::size_t kPeople = 5;  // the first five accounts are the people

struct RepositorySeed {
    std::string_view owner;
    std::string_view name;
    std::string_view description;  // empty: none
    bool isPrivate;
    int stars;
    int watchers;
    int forks;
    std::string_view parent;  // "owner/name" of the upstream of a fork
    int daysAgo;              // of the last update
};

constexpr std::string_view kKilnDescription = "A fast, incremental build tool for map tiles.";
constexpr RepositorySeed kRepositories[] = {
    {"mara-lindqvist", "dotfiles", "Shell, editor and terminal settings.", false, 14, 2, 3, "", 3},
    {"mara-lindqvist", "kiln", kKilnDescription, false, 0, 1, 0, "openkiln/kiln", 1},
    {"mara-lindqvist", "field-notes", "Notes from trips and talks.", true, 0, 1, 0, "", 12},
    {"mara-lindqvist", "tilegrid", "Slippy-map tile arithmetic in one header.", false, 231, 9, 17,
     "", 40},
    {"openkiln", "kiln", kKilnDescription, false, 1840, 57, 96, "", 0},
    {"openkiln", "kiln-docs", "The documentation site of kiln.", false, 45, 6, 21, "", 5},
    {"openkiln", "setup-kiln", "Runs kiln in continuous integration.", false, 88, 4, 12, "", 21},
    {"northwind-tools", "ledger", "Release ledger of the tools team.", true, 3, 5, 0, "", 9},
    {"lakeside-labs", "survey-pipeline", "", true, 0, 2, 0, "", 30},
    // Forks of the people who send pull requests from them.
    {"tomasz-wrobel", "kiln", kKilnDescription, false, 0, 0, 0, "openkiln/kiln", 2},
    {"aiko-tanaka", "kiln", kKilnDescription, false, 0, 0, 0, "openkiln/kiln", 6},
    {"dev-okafor", "kiln", kKilnDescription, false, 0, 0, 0, "openkiln/kiln", 8},
    {"lucia-ferrer", "kiln", kKilnDescription, false, 0, 0, 0, "openkiln/kiln", 4},
};

constexpr std::string_view kTitles[] = {
    "Cache tile hashes between runs",    "Add --dry-run to kiln build",
    "Fix an off-by-one at zoom level 0", "Stream large GeoJSON inputs",
    "Document the plugin interface",     "Parallelise the PNG encoder",
    "Bump the minimum CMake to 3.25",    "Retry failed uploads with back-off",
    "Speed up the dependency scan",      "Read certificates from the system store",
};
constexpr std::string_view kPullRequestAuthors[] = {
    "aiko-tanaka", "mara-lindqvist", "tomasz-wrobel", "dev-okafor", "lucia-ferrer", "kiln-bot"};
constexpr std::pair<std::string_view, std::string_view> kLabels[] = {
    {"enhancement", "a2eeef"},  {"bug", "d73a4a"},           {"performance", "fbca04"},
    {"needs review", "0e8a16"}, {"documentation", "0075ca"}, {"good first issue", "7057ff"},
};
constexpr std::string_view kCommentTexts[] = {
    "Looks good to me. Could you add a test for the empty tile case?",
    "I ran this against the full planet extract: about 12 % faster here.",
    "Nit: the flag name reads oddly next to `--force`. Maybe `--plan`?",
    "Rebased on main and fixed the conflict in the manifest reader.",
    "CI is green now. Waiting for one more review.",
    "Does this change the cache format? If so it needs a line in the changelog.",
    "Addressed the review comments in the last two commits.",
    "Thanks! I'll merge once the docs preview is up.",
};
constexpr std::string_view kCommitHeadlines[] = {
    "Add a first version of the change",
    "Handle the empty tile",
    "Write the manifest atomically",
    "Cover zoom level 0 in the tests",
    "Rename the flag after review",
    "Fix the build on 32-bit targets",
    "Update the changelog",
    "Simplify the tile index",
    "Address review comments",
    "Merge branch 'main' into the topic",
};

// Real public keys (made once with ssh-keygen); their MD5 fingerprints are
// 1a:ea:4f:c5:1c:df:7b:f4:24:eb:d8:c1:2b:ea:b6:ae, 48:0d:bf:5a:0b:3d:4f:a3:ec:84:43:d4:08:d4:0d:8c
// and 20:53:75:d3:3d:87:8f:f9:dd:b4:68:8b:30:bb:8e:b0.
constexpr std::pair<std::string_view, std::string_view> kRealKeys[] = {
    {"kestrel (laptop)",
     "ssh-ed25519 AAAAC3NzaC1lZDI1NTE5AAAAIM1AnJjtDZf+FA2oGxprmSavXGPTAzEe8uuYBwS3cbn3 "
     "mara@kestrel"},
    {"build box",
     "ecdsa-sha2-nistp256 "
     "AAAAE2VjZHNhLXNoYTItbmlzdHAyNTYAAAAIbmlzdHAyNTYAAABBBPk2FLkNrOD4qYtU8gjCTYbRwdmgrAP+NINZaMy6a"
     "THktCFfz0mJnOoto0KbWRFPIZP3J7Un2K0gdHuhl0XqVPc= mara@build-box"},
    {"old desktop",
     "ssh-rsa "
     "AAAAB3NzaC1yc2EAAAADAQABAAABgQCn5ueaB6NVxm0SZN8hbedJyR5dEB+9NMz9s6p4zrjZcyrEfFz/2U3m7yBZjNko/"
     "GqsIhVdM2ZVPOC9EYQgYNnUZshvJym0P29sxl6rbtRkn/JHX+f7hwoxZwjo+m3CqCi3eWFsBtHkKcAAavQWmE9ly2WAG"
     "SjLkQL54Rhr2C2+EKA18906UWq6IuCDsgM4ctw/f/X3x9DBXxVDuWREhUxCTFPKhfDhkp6XfYNXzdpmJcgBXJQeQf6bIP"
     "jFbhquIY8A/+yfHvTkFvpK+bPd656qzEeWekROcgrd6/I03aFGnZ3BHdH0s/6cBICkB1mstnTULruWfVPHk2aJIhsb4a"
     "YIv9id5iMkdumMkmQSCOVKnK3HMF9I3x6DRNswUCUZ/jIfHk9PKIHu2kP+cPrchjWrCOJcYDDOvO9AFO5uCQ0EsCR3UO"
     "lYvAl+iX7zLgzmUXxzPFSYoeFw9z1IQSvQSzfyrSuxEApwBxW7IaXrRzHxOhP10RMBpelGuAsiQTi24ps= "
     "mara@old-desktop"},
};

// A GraphQL node id of the given kind, the same for the same seed.
std::string nodeId(std::string_view prefix, std::uint64_t seed) {
    std::string bytes(6, '\0');
    const std::uint64_t bits = mixed(seed);
    for (std::size_t index = 0; index < bytes.size(); ++index) {
        bytes[index] = static_cast<char>(bits >> (8 * index));
    }
    std::string text = std::string(prefix) + vt::base64String(bytes);
    std::replace(text.begin(), text.end(), '+', '-');
    std::replace(text.begin(), text.end(), '/', '_');
    return text;
}

// Where the request was sent: the web and API addresses the answers name.
struct Site {
    std::string web;      // "http://github.test"
    std::string api;      // "http://api.github.test"
    std::string sshHost;  // "github.test"

    static Site of(const fake::Request& request) {
        std::string host = request.header("Host").value_or("github.test");
        Site site;
        site.api = "http://" + host;
        if (host.starts_with("api.")) {
            host.erase(0, 4);
        }
        site.web = "http://" + host;
        site.sshHost = host.substr(0, host.find(':'));
        return site;
    }
};

struct Account {
    std::string login;
    std::string name;
    std::string id;
    bool organization = false;
    bool viewerCanCreateRepositories = false;
};

struct Comment {
    std::string id;
    std::string author;
    std::string createdAt;
    std::string body;
};

struct Commit {
    std::string oid;
    std::string committer;  // logins; empty when GitHub knows no account for the address
    std::string author;
    std::string committedDate;
    std::string authoredDate;
    std::string headline;
};

struct PullRequest {
    std::int64_t number = 0;
    std::string id;
    std::string title;
    std::string author;
    std::string createdAt;
    std::string base;
    std::string head;
    std::string headRepository;  // "owner/name"; empty when it was deleted
    std::string state = "OPEN";
    std::string mergeable;
    std::string body;
    int seed = 0;  // what its generated conversation is made from
    // The conversation, made on first use and kept with the changes mutations make.
    bool conversationMade = false;
    std::vector<std::string> assignees;
    std::vector<std::pair<std::string, std::string>> labels;
    std::vector<Comment> comments;
    std::vector<Commit> commits;
};

struct Repository {
    std::string owner;
    std::string name;
    std::string id;
    std::string description;
    bool isPrivate = false;
    int stars = 0;
    int watchers = 0;
    int forks = 0;
    std::string parent;
    std::time_t updated = 0;
    std::vector<PullRequest> pullRequests;  // newest first

    std::string fullName() const { return owner + "/" + name; }
};

}  // namespace

struct SampleGitHub::State {
    explicit State(const GitHubScale& scale);

    fake::Response answer(const fake::Request& request);

    std::int64_t newest = 0;
    std::int64_t fromFork = 0;

private:
    fake::Response graphQl(const fake::Request& request, const Site& site);
    fake::Response sshKeys(const fake::Request& request, const Site& site,
                           boost::urls::url_view target);
    fake::Response addSshKey(const fake::Request& request, const Site& site);
    fake::Response deleteSshKey(std::string_view id);

    std::optional<graphql::Built> lookup(const Site& site, const json::object& parent,
                                         const Field& field, std::optional<Failure>& failure);
    std::optional<graphql::Built> mutate(const Site& site, const Field& field,
                                         std::optional<Failure>& failure);

    // Models: the JSON objects a query is answered from.
    json::object accountModel(const Site& site, std::string_view login) const;
    json::object viewerModel(const Site& site) const;
    json::object repositoryModel(const Site& site, const Repository& repository) const;
    json::object pullRequestModel(const Site& site, const Repository& repository,
                                  PullRequest& pullRequest, bool whole);
    json::object commentModel(const Site& site, const Comment& comment) const;
    json::object keyModel(const Site& site, const SshKey& key) const;

    void makeConversation(PullRequest& pullRequest) const;
    const Account* account(std::string_view loginOrId) const;
    Repository* repository(std::string_view owner, std::string_view name);
    Repository* repositoryWithId(std::string_view id);
    std::pair<Repository*, PullRequest*> pullRequestWithId(std::string_view id);
    Comment* commentWithId(std::string_view id, PullRequest** within = nullptr);
    bool isVisibleToViewer(const Repository& repository) const;

    GitHubScale scale_;
    std::mutex mutex_;
    std::vector<Account> accounts_;
    std::vector<Repository> repositories_;
    KeyRing keys_;
    std::uint64_t nextSerial_ = 1;  // for the ids of what mutations make
};

SampleGitHub::State::State(const GitHubScale& scale)
    : scale_(scale),
      keys_(scale.sshKeys, KeyRing::Seed{.realKeys = kRealKeys,
                                         .madeUpTitle = "build agent ",
                                         .madeUpComment = "agent@ci",
                                         .firstId = 84120000,
                                         .newest = kNow - 97 * kDay,
                                         .daysApart = 97}) {
    for (const AccountSeed& seed : kAccounts) {
        accounts_.push_back(
            Account{std::string(seed.login), std::string(seed.name),
                    nodeId(seed.organization ? "O_kgDO" : "U_kgDO", seedOf(seed.login)),
                    seed.organization, seed.viewerCanCreateRepositories});
    }
    for (std::size_t index = 0; index < std::size(kRepositories); ++index) {
        const RepositorySeed& seed = kRepositories[index];
        Repository repository;
        repository.owner = seed.owner;
        repository.name = seed.name;
        repository.id = nodeId("R_kgDO", seedOf(repository.fullName()));
        repository.description = seed.description;
        repository.isPrivate = seed.isPrivate;
        repository.stars = seed.stars;
        repository.watchers = seed.watchers;
        repository.forks = seed.forks;
        repository.parent = seed.parent;
        repository.updated =
            kNow - seed.daysAgo * kDay - static_cast<std::time_t>(index) * 3 * 60 * 60;
        repositories_.push_back(std::move(repository));
    }

    Repository& kiln = *repository(kPullRequestOwner, kPullRequestName);
    const int count = std::max(0, scale.pullRequests);
    for (int index = 0; index < count; ++index) {
        PullRequest pullRequest;
        // Newest first; the gaps are issues and closed pull requests.
        pullRequest.number = 100 + 3 * (count - 1 - index) + index % 2;
        pullRequest.id = nodeId("PR_kwDO", static_cast<std::uint64_t>(pullRequest.number));
        const std::size_t titles = std::size(kTitles);
        pullRequest.title = std::string(kTitles[static_cast<std::size_t>(index) % titles]);
        std::string branch = branchOf(pullRequest.title);
        if (static_cast<std::size_t>(index) >= titles) {
            pullRequest.title += ", part " + std::to_string(index / titles + 1);
            branch += "-" + std::to_string(index / titles + 1);
        }
        pullRequest.author =
            kPullRequestAuthors[static_cast<std::size_t>(index) % std::size(kPullRequestAuthors)];
        pullRequest.createdAt =
            isoTime(kNow - (index + 1) * 29 * 60 * 60 - index * 7 * 60 - (index * 37) % 60);
        pullRequest.base = "main";
        pullRequest.head = branch;
        // Some come from the author's fork, one from a fork that was deleted since.
        if (index % 3 == 1 && pullRequest.author != "kiln-bot") {
            pullRequest.headRepository = pullRequest.author + "/kiln";
        } else if (index % 7 != 3) {
            pullRequest.headRepository = kiln.fullName();
        }
        pullRequest.mergeable = index % 4 == 3   ? "CONFLICTING"
                                : index % 6 == 2 ? "UNKNOWN"
                                                 : "MERGEABLE";
        pullRequest.body = pullRequest.title +
                           ".\n\nThis keeps the public interface as it is; the tile sets in "
                           "`tests/data` pass unchanged.\n\nCloses #" +
                           std::to_string(pullRequest.number - 41) + ".";
        pullRequest.seed = index;
        if (index == 0) {
            newest = pullRequest.number;
        }
        if (fromFork == 0 && pullRequest.headRepository.find('/') != std::string::npos &&
            pullRequest.headRepository != kiln.fullName()) {
            fromFork = pullRequest.number;
        }
        kiln.pullRequests.push_back(std::move(pullRequest));
    }
}

const Account* SampleGitHub::State::account(std::string_view loginOrId) const {
    for (const Account& account : accounts_) {
        if (account.login == loginOrId || account.id == loginOrId) {
            return &account;
        }
    }
    return nullptr;
}

Repository* SampleGitHub::State::repository(std::string_view owner, std::string_view name) {
    for (Repository& repository : repositories_) {
        if (repository.owner == owner && repository.name == name) {
            return &repository;
        }
    }
    return nullptr;
}

Repository* SampleGitHub::State::repositoryWithId(std::string_view id) {
    for (Repository& repository : repositories_) {
        if (repository.id == id) {
            return &repository;
        }
    }
    return nullptr;
}

std::pair<Repository*, PullRequest*> SampleGitHub::State::pullRequestWithId(std::string_view id) {
    for (Repository& repository : repositories_) {
        for (PullRequest& pullRequest : repository.pullRequests) {
            if (pullRequest.id == id) {
                return {&repository, &pullRequest};
            }
        }
    }
    return {nullptr, nullptr};
}

Comment* SampleGitHub::State::commentWithId(std::string_view id, PullRequest** within) {
    for (Repository& repository : repositories_) {
        for (PullRequest& pullRequest : repository.pullRequests) {
            for (Comment& comment : pullRequest.comments) {
                if (comment.id == id) {
                    if (within != nullptr) {
                        *within = &pullRequest;
                    }
                    return &comment;
                }
            }
        }
    }
    return nullptr;
}

bool SampleGitHub::State::isVisibleToViewer(const Repository& repository) const {
    if (repository.owner == kViewer) {
        return true;
    }
    const Account* owner = account(repository.owner);
    return owner != nullptr && owner->organization;
}

// A pull request's conversation: assignees, labels, and comments and commits spread over four
// days after it was opened, commits in runs by one author, some by people GitHub knows no account
// for.
void SampleGitHub::State::makeConversation(PullRequest& pullRequest) const {
    if (std::exchange(pullRequest.conversationMade, true)) {
        return;
    }
    const int seed = pullRequest.seed;
    std::vector<std::string_view> logins;
    for (std::size_t index = 0; index < kPeople; ++index) {
        logins.push_back(kAccounts[index].login);
    }
    pullRequest.assignees = assigneesOf(scale_.assignees, logins, seed);
    pullRequest.labels = labelsOf(scale_.labels, kLabels, seed, "area: tiles-", "");
    const std::vector<std::string> people =
        participantsOf(pullRequest.author, kViewer, logins, seed);
    const int comments = std::max(0, scale_.comments);
    const int commits = std::max(0, scale_.commits);
    const int items = comments + commits;
    std::tm parts{};
    const std::string& created = pullRequest.createdAt;
    parts.tm_year = std::stoi(created.substr(0, 4)) - 1900;
    parts.tm_mon = std::stoi(created.substr(5, 2)) - 1;
    parts.tm_mday = std::stoi(created.substr(8, 2));
    parts.tm_hour = std::stoi(created.substr(11, 2));
    parts.tm_min = std::stoi(created.substr(14, 2));
    parts.tm_sec = std::stoi(created.substr(17, 2));
    const std::time_t opened = ::timegm(&parts);
    const std::time_t step = items > 0 ? 4 * kDay / (items + 1) : 0;
    int comment = 0;
    int commit = 0;
    for (int item = 0; item < items; ++item) {
        const std::time_t moment = opened + (item + 1) * step;
        // Comments fall evenly among the commits.
        if (isCommentAt(item, comments, items)) {
            pullRequest.comments.push_back(Comment{
                nodeId("IC_kwDO", static_cast<std::uint64_t>(pullRequest.number) * 100000 +
                                      static_cast<std::uint64_t>(comment)),
                people[static_cast<std::size_t>(comment + 1) % people.size()], isoTime(moment),
                std::string(kCommentTexts[static_cast<std::size_t>(seed + comment) %
                                          std::size(kCommentTexts)])});
            ++comment;
            continue;
        }
        // Runs of three commits, mostly by the pull request's author, some by the reviewers.
        Commit made;
        made.oid = hexDigits(static_cast<std::uint64_t>(pullRequest.number) * 100003 +
                                 static_cast<std::uint64_t>(commit),
                             40);
        made.author = commitAuthorOf(commit, people);
        made.committer = made.author;
        made.committedDate = isoTime(moment);
        made.authoredDate = isoTime(moment - (commit % 5) * 3600);
        if (commit % 11 == 7) {
            made.committer.clear();  // committed from an address with no account
        }
        if (commit % 13 == 12) {
            made.committer.clear();
            made.author.clear();
        }
        made.headline = std::string(kCommitHeadlines[static_cast<std::size_t>(seed + commit) %
                                                     std::size(kCommitHeadlines)]);
        pullRequest.commits.push_back(std::move(made));
        ++commit;
    }
}

// ---- Models

json::object SampleGitHub::State::accountModel(const Site& site, std::string_view login) const {
    const Account* known = account(login);
    const bool organization = known != nullptr && known->organization;
    json::object model{
        {"__typename", organization ? "Organization" : "User"},
        {"login", login},
        {"name", known != nullptr && !known->name.empty() ? json::value(known->name) : nullptr},
        {"id", known != nullptr ? known->id : nodeId("U_kgDO", seedOf(login))},
        {"avatarUrl", "https://avatars.github.test/u/" +
                          std::to_string(mixed(seedOf(login)) % 9000000 + 1000) + "?v=4"},
        {"url", site.web + "/" + std::string(login)},
    };
    if (organization) {
        model["viewerCanCreateRepositories"] = known->viewerCanCreateRepositories;
    }
    return model;
}

json::object SampleGitHub::State::viewerModel(const Site& site) const {
    json::object viewer = accountModel(site, kViewer);
    viewer["createdAt"] = "2013-04-09T07:41:22Z";
    viewer["email"] = "mara@example.org";
    viewer["location"] = "Malmö, Sweden";
    viewer["company"] = "Northwind Tools";
    viewer["bio"] = "Maps, tiles and build tools. Maintainer of kiln.";
    viewer["websiteUrl"] = "https://mara.example.org";
    json::array organizations;
    for (const Account& account : accounts_) {
        if (account.organization) {
            organizations.push_back(accountModel(site, account.login));
        }
    }
    viewer["organizations"] = std::move(organizations);
    json::array repositories;
    for (const Repository& repository : repositories_) {
        if (isVisibleToViewer(repository)) {
            repositories.push_back(repositoryModel(site, repository));
        }
    }
    viewer["repositories"] = std::move(repositories);
    return viewer;
}

json::object SampleGitHub::State::repositoryModel(const Site& site,
                                                  const Repository& repository) const {
    const std::string web = site.web + "/" + repository.fullName();
    json::object model{
        {"__typename", "Repository"},
        {"id", repository.id},
        {"name", repository.name},
        {"nameWithOwner", repository.fullName()},
        {"owner", accountModel(site, repository.owner)},
        {"isPrivate", repository.isPrivate},
        {"isFork", !repository.parent.empty()},
        {"description", repository.description.empty() ? json::value(nullptr)
                                                       : json::value(repository.description)},
        {"updatedAt", isoTime(repository.updated)},
        {"url", web},
        {"sshUrl", "git@" + site.sshHost + ":" + repository.fullName() + ".git"},
        {"forkCount", repository.forks},
        {"stargazers", {{"totalCount", repository.stars}}},
        {"watchers", {{"totalCount", repository.watchers}}},
        {"parent", nullptr},
    };
    for (const Repository& parent : repositories_) {
        if (!repository.parent.empty() && parent.fullName() == repository.parent) {
            model["parent"] = repositoryModel(site, parent);
        }
    }
    return model;
}

json::object SampleGitHub::State::commentModel(const Site& site, const Comment& comment) const {
    const bool own = comment.author == kViewer;
    return json::object{{"__typename", "IssueComment"},
                        {"id", comment.id},
                        {"author", accountModel(site, comment.author)},
                        {"createdAt", comment.createdAt},
                        {"viewerCanUpdate", own},
                        {"viewerCanDelete", own},
                        {"body", comment.body}};
}

json::object SampleGitHub::State::pullRequestModel(const Site& site, const Repository& repository,
                                                   PullRequest& pullRequest, bool whole) {
    const Repository* head = nullptr;
    if (const std::size_t slash = pullRequest.headRepository.find('/');
        slash != std::string::npos) {
        head = this->repository(pullRequest.headRepository.substr(0, slash),
                                pullRequest.headRepository.substr(slash + 1));
    }
    json::object model{
        {"__typename", "PullRequest"},
        {"id", pullRequest.id},
        {"number", pullRequest.number},
        {"title", pullRequest.title},
        {"state", pullRequest.state},
        {"merged", pullRequest.state == "MERGED"},
        {"closed", pullRequest.state != "OPEN"},
        {"createdAt", pullRequest.createdAt},
        {"url",
         site.web + "/" + repository.fullName() + "/pull/" + std::to_string(pullRequest.number)},
        {"author", accountModel(site, pullRequest.author)},
        {"baseRefName", pullRequest.base},
        {"headRefName", pullRequest.head},
        {"headRepository", head != nullptr ? json::value(repositoryModel(site, *head)) : nullptr},
        {"isCrossRepository", head != nullptr && head != &repository},
    };
    if (!whole) {
        return model;
    }
    makeConversation(pullRequest);
    // The viewer maintains openkiln: she may change any of its pull requests.
    const bool maintainer = repository.owner == kPullRequestOwner || repository.owner == kViewer;
    model["viewerCanUpdate"] = maintainer;
    model["viewerCanSubscribe"] = true;
    model["mergeable"] = pullRequest.mergeable;
    model["body"] = pullRequest.body;
    json::array assignees;
    for (const std::string& login : pullRequest.assignees) {
        assignees.push_back(accountModel(site, login));
    }
    model["assignees"] = std::move(assignees);
    json::array labels;
    for (const auto& [name, color] : pullRequest.labels) {
        labels.push_back(json::object{{"__typename", "Label"}, {"name", name}, {"color", color}});
    }
    model["labels"] = std::move(labels);
    json::array comments;
    for (const Comment& comment : pullRequest.comments) {
        comments.push_back(commentModel(site, comment));
    }
    model["comments"] = std::move(comments);
    json::array commits;
    for (const Commit& commit : pullRequest.commits) {
        auto actor = [&](const std::string& login) {
            // Without an account GitHub still has a picture: the address's Gravatar.
            json::object person{
                {"__typename", "GitActor"},
                {"user",
                 login.empty() ? json::value(nullptr) : json::value(accountModel(site, login))},
                {"avatarUrl", login.empty() ? json::value("https://avatars.github.test/u/e?email=" +
                                                          hexDigits(seedOf(commit.oid), 12))
                                            : accountModel(site, login).at("avatarUrl")},
            };
            return person;
        };
        json::object fields{{"__typename", "Commit"},
                            {"oid", commit.oid},
                            {"committedDate", commit.committedDate},
                            {"authoredDate", commit.authoredDate},
                            {"messageHeadline", commit.headline},
                            {"committer", actor(commit.committer)},
                            {"author", actor(commit.author)}};
        commits.push_back(
            json::object{{"__typename", "PullRequestCommit"}, {"commit", std::move(fields)}});
    }
    model["commits"] = std::move(commits);
    return model;
}

json::object SampleGitHub::State::keyModel(const Site& site, const SshKey& key) const {
    return json::object{{"id", key.id},
                        {"key", key.key},
                        {"url", site.api + "/user/keys/" + std::to_string(key.id)},
                        {"title", key.title},
                        {"verified", true},
                        {"created_at", isoTime(key.created)},
                        {"read_only", false}};
}

// ---- GraphQL

std::optional<graphql::Built> SampleGitHub::State::lookup(const Site& site,
                                                          const json::object& parent,
                                                          const Field& field,
                                                          std::optional<Failure>& failure) {
    const std::string type = graphql::typeOf(parent);
    const json::object& arguments = field.arguments;
    // repository(name:) of an owner: the repository, or null with GitHub's NOT_FOUND error.
    auto repositoryOrFailure = [&](const std::string& owner) {
        const std::string name = stringArgument(arguments, "name").value_or("");
        if (const Repository* found = repository(owner, name)) {
            return json::value(repositoryModel(site, *found));
        }
        failure = Failure{"NOT_FOUND", "Could not resolve to a Repository with the name '" + owner +
                                           "/" + name + "'."};
        return json::value(nullptr);
    };
    if (type == "Mutation") {
        return mutate(site, field, failure);
    }
    if (type == "Query") {
        if (field.name == "viewer") {
            return json::value(viewerModel(site));
        }
        if (field.name == "repository") {
            return repositoryOrFailure(stringArgument(arguments, "owner").value_or(""));
        }
        if (field.name == "repositoryOwner") {
            // An unknown owner is null without an error.
            const std::string login = stringArgument(arguments, "login").value_or("");
            const bool known = account(login) != nullptr;
            return known ? json::value(accountModel(site, login)) : json::value(nullptr);
        }
        return std::nullopt;
    }
    if ((type == "User" || type == "Organization") && field.name == "repository") {
        return repositoryOrFailure(std::string(parent.at("login").as_string()));
    }
    if (type != "Repository") {
        return std::nullopt;
    }
    const std::string fullName(parent.at("nameWithOwner").as_string());
    const std::size_t slash = fullName.find('/');
    Repository* found = repository(fullName.substr(0, slash), fullName.substr(slash + 1));
    if (found == nullptr) {
        return std::nullopt;
    }
    if (field.name == "pullRequests") {
        std::vector<PullRequest*> listed;
        const json::value* states = arguments.if_contains("states");
        for (PullRequest& pullRequest : found->pullRequests) {
            bool wanted = states == nullptr || !states->is_array();
            if (!wanted) {
                for (const json::value& state : states->get_array()) {
                    wanted =
                        wanted || (state.is_string() && state.get_string() == pullRequest.state);
                }
            }
            if (wanted) {
                listed.push_back(&pullRequest);
            }
        }
        // Only the page that is shown is built.
        return graphql::LazyList{
            listed.size(), [this, &site, found, listed = std::move(listed)](std::size_t index) {
                return json::value(pullRequestModel(site, *found, *listed[index], false));
            }};
    }
    if (field.name == "pullRequest") {
        const json::value* number = arguments.if_contains("number");
        for (PullRequest& pullRequest : found->pullRequests) {
            if (number != nullptr && number->is_int64() &&
                number->get_int64() == pullRequest.number) {
                return json::value(pullRequestModel(site, *found, pullRequest, true));
            }
        }
        failure =
            Failure{"NOT_FOUND", "Could not resolve to a PullRequest with the number of " +
                                     (number != nullptr ? json::serialize(*number) : "null") + "."};
        return json::value(nullptr);
    }
    return std::nullopt;
}

// The mutations the client sends. Each keeps its change, so that the next query shows it.
std::optional<graphql::Built> SampleGitHub::State::mutate(const Site& site, const Field& field,
                                                          std::optional<Failure>& failure) {
    const json::object& input = graphql::inputOf(field);
    auto text = [&input](std::string_view name) {
        return stringArgument(input, name).value_or("");
    };
    auto notFound = [&failure](const std::string& id) {
        failure =
            Failure{"NOT_FOUND", "Could not resolve to a node with the global id of '" + id + "'."};
        return json::value(nullptr);
    };
    auto payload = [](json::object members = {}) {
        members["__typename"] = "Payload";
        members["clientMutationId"] = nullptr;
        return json::value(std::move(members));
    };
    const std::string& name = field.name;

    if (name == "addComment" || name == "updatePullRequest" || name == "closePullRequest" ||
        name == "mergePullRequest") {
        const std::string id = text(name == "addComment" ? "subjectId" : "pullRequestId");
        auto [holder, pullRequest] = pullRequestWithId(id);
        if (pullRequest == nullptr) {
            return notFound(id);
        }
        makeConversation(*pullRequest);
        if (name == "addComment") {
            pullRequest->comments.push_back(Comment{nodeId("IC_kwDO", ~nextSerial_++),
                                                    std::string(kViewer),
                                                    isoTime(std::time(nullptr)), text("body")});
        } else if (name == "updatePullRequest") {
            if (input.contains("body")) {
                pullRequest->body = text("body");
            }
            if (input.contains("title")) {
                pullRequest->title = text("title");
            }
        } else if (pullRequest->state != "OPEN") {
            failure = Failure{
                "UNPROCESSABLE",
                "Pull request is already " +
                    std::string(pullRequest->state == "MERGED" ? "merged" : "closed") + "."};
            return json::value(nullptr);
        } else if (name == "closePullRequest") {
            pullRequest->state = "CLOSED";
        } else {
            const std::string expected = text("expectedHeadOid");
            if (pullRequest->mergeable == "CONFLICTING") {
                failure = Failure{"UNPROCESSABLE", "Pull Request is not mergeable"};
                return json::value(nullptr);
            }
            if (!expected.empty() && !pullRequest->commits.empty() &&
                expected != pullRequest->commits.back().oid) {
                failure = Failure{"UNPROCESSABLE",
                                  "Head branch was modified. Review and try the merge again."};
                return json::value(nullptr);
            }
            pullRequest->state = "MERGED";
        }
        return payload({{"pullRequest", pullRequestModel(site, *holder, *pullRequest, false)}});
    }
    if (name == "updateIssueComment" || name == "deleteIssueComment") {
        PullRequest* within = nullptr;
        Comment* comment = commentWithId(text("id"), &within);
        if (comment == nullptr) {
            return notFound(text("id"));
        }
        if (name == "updateIssueComment") {
            comment->body = text("body");
            return payload({{"issueComment", commentModel(site, *comment)}});
        }
        within->comments.erase(within->comments.begin() + (comment - within->comments.data()));
        return payload();
    }
    if (name == "createPullRequest") {
        Repository* target = repositoryWithId(text("repositoryId"));
        if (target == nullptr) {
            return notFound(text("repositoryId"));
        }
        // The head is "branch" in the repository itself or "owner:branch" in that owner's fork.
        std::string head = text("headRefName");
        std::string headRepository = target->fullName();
        if (const std::size_t colon = head.find(':'); colon != std::string::npos) {
            headRepository = head.substr(0, colon) + "/" + target->name;
            head.erase(0, colon + 1);
        }
        const std::size_t slash = headRepository.find('/');
        if (repository(headRepository.substr(0, slash), headRepository.substr(slash + 1)) ==
                nullptr ||
            head.empty() || text("title").empty()) {
            failure = Failure{"UNPROCESSABLE",
                              "Head sha can't be blank, Base sha can't be blank, Head ref must "
                              "be a branch"};
            return json::value(nullptr);
        }
        PullRequest made;
        made.number = target->pullRequests.empty() ? 1 : target->pullRequests.front().number + 1;
        made.id = nodeId("PR_kwDO", ~nextSerial_++);
        made.title = text("title");
        made.author = kViewer;
        made.createdAt = isoTime(std::time(nullptr));
        made.base = text("baseRefName");
        made.head = head;
        made.headRepository = headRepository;
        made.mergeable = "UNKNOWN";
        made.body = text("body");
        made.conversationMade = true;  // nothing has happened on it yet
        target->pullRequests.insert(target->pullRequests.begin(), std::move(made));
        return payload({{"pullRequest",
                         pullRequestModel(site, *target, target->pullRequests.front(), false)}});
    }
    if (name == "createRepository") {
        const Account* owner = account(text("ownerId"));
        if (owner == nullptr) {
            return notFound(text("ownerId"));
        }
        if (owner->login != kViewer && !owner->viewerCanCreateRepositories) {
            failure = Failure{"FORBIDDEN",
                              "mara-lindqvist does not have the correct permissions to execute "
                              "`CreateRepository`"};
            return json::value(nullptr);
        }
        const std::string slug = text("name");
        if (slug.empty() || repository(owner->login, slug) != nullptr) {
            failure = Failure{"UNPROCESSABLE", "Name already exists on this account"};
            return json::value(nullptr);
        }
        Repository made;
        made.owner = owner->login;
        made.name = slug;
        made.id = nodeId("R_kgDO", ~nextSerial_++);
        made.description = text("description");
        made.isPrivate = text("visibility") != "PUBLIC";
        made.watchers = 1;
        made.updated = std::time(nullptr);
        repositories_.push_back(std::move(made));
        return payload({{"repository", repositoryModel(site, repositories_.back())}});
    }
    return std::nullopt;
}

fake::Response SampleGitHub::State::graphQl(const fake::Request& request, const Site& site) {
    const auto answer = graphql::answerRequest(
        request.body, [this, &site](const json::object& parent, const Field& field,
                                    std::optional<Failure>& failure) {
            return lookup(site, parent, field, failure);
        });
    return answer ? fake::Response::json(json::serialize(*answer))
                  : fake::Response::json(R"({"message":"Problems parsing JSON"})", 400);
}

// ---- SSH keys over REST

fake::Response SampleGitHub::State::sshKeys(const fake::Request&, const Site& site,
                                            boost::urls::url_view target) {
    const PageRequest page = PageRequest::of(target, 30, 100);
    json::array listed;
    const std::vector<SshKey>& keys = keys_.keys();
    for (std::size_t index = page.first();
         index < keys.size() && index < page.first() + page.perPage; ++index) {
        listed.push_back(keyModel(site, keys[index]));
    }
    fake::Response response = fake::Response::json(json::serialize(listed));
    if (std::string links = linkHeader(site.api, target, page, keys.size(), LinkStyle::github);
        !links.empty()) {
        response.headers.emplace_back("Link", std::move(links));
    }
    return response;
}

fake::Response SampleGitHub::State::addSshKey(const fake::Request& request, const Site& site) {
    boost::system::error_code fault;
    const json::value content = json::parse(request.body, fault);
    if (fault || !content.is_object()) {
        return fake::Response::json(R"({"message":"Problems parsing JSON"})", 400);
    }
    const std::string key = stringArgument(content.get_object(), "key").value_or("");
    auto refuse = [](std::string_view why) {
        json::object answer{{"message", "Validation Failed"},
                            {"errors", json::array{json::object{{"resource", "PublicKey"},
                                                                {"code", "custom"},
                                                                {"field", "key"},
                                                                {"message", why}}}}};
        return fake::Response::json(json::serialize(answer), 422);
    };
    switch (keys_.add(stringArgument(content.get_object(), "title").value_or(""), key)) {
        case KeyRing::Outcome::invalid:
            return refuse("key is invalid. You must supply a key in OpenSSH public key format");
        case KeyRing::Outcome::taken:
            return refuse("key is already in use");
        case KeyRing::Outcome::added:
            break;
    }
    return fake::Response::json(json::serialize(keyModel(site, keys_.keys().back())), 201);
}

fake::Response SampleGitHub::State::deleteSshKey(std::string_view id) {
    if (keys_.remove(id)) {
        fake::Response gone;
        gone.status = 204;
        return gone;
    }
    return fake::Response::json(
        R"({"message":"Not Found","documentation_url":"https://docs.github.com/rest"})", 404);
}

fake::Response SampleGitHub::State::answer(const fake::Request& request) {
    fake::Response response;
    const std::string credential = request.header("Authorization").value_or("");
    const std::string token(kSampleGitHubToken);
    auto target = boost::urls::parse_origin_form(request.target);
    if (credential != "Bearer " + token && credential != "token " + token) {
        response = fake::Response::json(
            R"({"message":"Bad credentials","documentation_url":"https://docs.github.com/rest"})",
            401);
    } else if (!target) {
        response = fake::Response::json(R"({"message":"Bad request"})", 400);
    } else {
        const Site site = Site::of(request);
        const std::string path = target->path();
        constexpr std::string_view kKeys = "/user/keys";
        std::lock_guard lock(mutex_);
        if (path == "/graphql" && request.method == "POST") {
            response = graphQl(request, site);
        } else if (path == kKeys && request.method == "GET") {
            response = sshKeys(request, site, *target);
        } else if (path == kKeys && request.method == "POST") {
            response = addSshKey(request, site);
        } else if (path.starts_with(std::string(kKeys) + "/") && request.method == "DELETE") {
            response = deleteSshKey(std::string_view(path).substr(kKeys.size() + 1));
        } else {
            response = fake::Response::json(
                R"({"message":"Not Found","documentation_url":"https://docs.github.com/rest"})",
                404);
        }
    }
    response.delay = scale_.delay;
    return response;
}

SampleGitHub::SampleGitHub(GitHubScale scale)
    : state_(std::make_unique<State>(scale)), host_(std::make_unique<fake::FakeHost>()) {
    host_->setHandler([state = state_.get()](const fake::Request& request) {
        return std::optional<fake::Response>(state->answer(request));
    });
}

SampleGitHub::~SampleGitHub() {
    host_.reset();  // no request may be answered from a state that is going away
}

std::int64_t SampleGitHub::newestPullRequest() const {
    return state_->newest;
}

std::int64_t SampleGitHub::forkPullRequest() const {
    return state_->fromFork;
}

std::string SampleGitHub::connectTo() const {
    return "api.github.test:80:127.0.0.1:" + std::to_string(port());
}

}  // namespace vt::sample
