#include "samplehosts/sample_bitbucket.h"

#include "samplehosts/partial_response.h"
#include "samplehosts/sample_data.h"
#include "samplehosts/text.h"
#include "transport/utilities/utilities.h"

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <boost/url/parse.hpp>
#include <boost/url/parse_query.hpp>
#include <boost/url/url.hpp>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <ctime>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <utility>
#include <vector>

namespace vt::sample {

namespace {

namespace json = boost::json;

constexpr std::string_view kViewer = "mara-lindqvist";
constexpr std::string_view kPullRequestWorkspace = "tidewater";
constexpr std::string_view kPullRequestSlug = "tilestream";
// The sample's "now": every generated date lies before or around it.
const std::time_t kNow = utcTime(2024, 9, 12, 10, 15);
constexpr std::time_t kDay = 24 * 60 * 60;
// Bitbucket hands out pages of 10 unless asked otherwise.
constexpr std::size_t kDefaultPageLength = 10;

struct PersonSeed {
    std::string_view nickname;
    std::string_view displayName;
};

// The viewer first.
constexpr PersonSeed kPeople[] = {
    {"mara-lindqvist", "Mara Lindqvist"}, {"jonas-berg", "Jonas Berg"},
    {"priya-nair", "Priya Nair"},         {"tomas-silva", "Tomás Silva"},
    {"ines-moreau", "Inès Moreau"},
};

// How far the viewer may go in a workspace; a workspace "role" filter lists those at or above.
enum Role { kNoRole = 0, kMember = 1, kCollaborator = 2, kOwner = 3 };

struct WorkspaceSeed {
    std::string_view slug;
    std::string_view name;
    Role role;
    bool mayCreate;  // whether the viewer may create repositories there
};

constexpr WorkspaceSeed kWorkspaces[] = {
    {"mara-lindqvist", "Mara Lindqvist", kOwner, true},
    {"tidewater", "Tidewater Maps", kCollaborator, true},
    {"northwind-tools", "Northwind Tools", kCollaborator, false},
    {"harbour-ops", "Harbour Ops", kCollaborator, true},
    {"lakeside-labs", "Lakeside Labs", kMember, false},
    // The other people's own workspaces, where their forks live.
    {"jonas-berg", "Jonas Berg", kNoRole, false},
    {"priya-nair", "Priya Nair", kNoRole, false},
    {"tomas-silva", "Tomás Silva", kNoRole, false},
    {"ines-moreau", "Inès Moreau", kNoRole, false},
};

struct RepositorySeed {
    std::string_view workspace;
    std::string_view slug;
    std::string_view name;
    std::string_view description;
    bool isPrivate;
    std::string_view scm;
    std::string_view parent;  // full name of the upstream of a fork
    Role role;                // the viewer's: kCollaborator stands for write access
    int daysAgo;              // of the last update
};

constexpr std::string_view kTilestreamDescription = "Streams vector tiles from PostGIS to S3.";
constexpr RepositorySeed kRepositories[] = {
    {"mara-lindqvist", "dotfiles", "dotfiles", "Shell and editor settings.", false, "git", "",
     kOwner, 2},
    {"mara-lindqvist", "tilestream", "tilestream", kTilestreamDescription, false, "git",
     "tidewater/tilestream", kOwner, 1},
    {"mara-lindqvist", "field-notes", "Field notes", "Notes from survey trips.", true, "git", "",
     kOwner, 15},
    // Mercurial, as Bitbucket still lists it for old accounts: no Git client can use it.
    {"mara-lindqvist", "old-charts", "old-charts", "Chart scans (Mercurial).", true, "hg", "",
     kOwner, 900},
    {"tidewater", "tilestream", "tilestream", kTilestreamDescription, false, "git", "",
     kCollaborator, 0},
    {"tidewater", "style-kit", "Style kit", "Map styles of the Tidewater basemaps.", true, "git",
     "", kCollaborator, 6},
    {"tidewater", "tilestream-docs", "tilestream-docs", "", false, "git", "", kCollaborator, 20},
    {"northwind-tools", "ledger", "ledger", "Release ledger of the tools team.", true, "git", "",
     kCollaborator, 9},
    {"harbour-ops", "deploy-scripts", "deploy-scripts", "Ansible roles for the tile servers.", true,
     "git", "", kCollaborator, 4},
    {"lakeside-labs", "survey-pipeline", "survey-pipeline", "", true, "git", "", kMember, 30},
    // Forks the other people send pull requests from.
    {"jonas-berg", "tilestream", "tilestream", kTilestreamDescription, false, "git",
     "tidewater/tilestream", kNoRole, 3},
    {"priya-nair", "tilestream", "tilestream", kTilestreamDescription, false, "git",
     "tidewater/tilestream", kNoRole, 5},
    {"tomas-silva", "tilestream", "tilestream", kTilestreamDescription, false, "git",
     "tidewater/tilestream", kNoRole, 7},
    {"ines-moreau", "tilestream", "tilestream", kTilestreamDescription, false, "git",
     "tidewater/tilestream", kNoRole, 8},
};

constexpr std::string_view kTitles[] = {
    "Write tiles to S3 in parallel",    "Skip empty tiles at high zoom",
    "Fix the bounding box of z0",       "Read PostGIS with a server cursor",
    "Document the configuration file",  "Retry throttled uploads",
    "Add a --since option to the sync", "Compress tiles with brotli",
    "Drop the Python 3.8 support",      "Log the time of every layer",
};
// Who opens them, in turn; the viewer's own come from her fork.
constexpr std::string_view kPullRequestAuthors[] = {"priya-nair", "mara-lindqvist", "jonas-berg",
                                                    "tomas-silva", "ines-moreau"};
constexpr std::string_view kCommentTexts[] = {
    "Nice. Could the worker count come from the configuration?",
    "I tried it on the Baltic extract: about a third faster here.",
    "This breaks the tiles at the antimeridian, see the attached screenshot.",
    "Good catch, fixed in the last commit.",
    "Do we still need the old code path after this?",
    "Rebased on main; the conflict in the manifest is gone.",
    "Let's keep the flag undocumented until the next release.",
    "Thanks, merging once the pipeline is green.",
};
constexpr std::string_view kReplyTexts[] = {
    "Good point, I'll change it.",
    "Agreed, let's leave that for a follow-up.",
    "Fixed in the last push.",
    "Same here on the North Sea tiles.",
    "Not any more: the old path goes in this change.",
};
constexpr std::string_view kCommitHeadlines[] = {
    "Add a first version of the change",
    "Handle empty layers",
    "Write the manifest atomically",
    "Cover zoom level 0 in the tests",
    "Rename the option after review",
    "Fix the build on Python 3.12",
    "Update the changelog",
    "Simplify the tile index",
    "Address review comments",
    "Merge branch 'main' into the topic",
};
constexpr std::string_view kDiffstatStatuses[] = {"modified", "modified", "added",  "modified",
                                                  "removed",  "modified", "renamed"};

// Real public keys (made once with ssh-keygen), with the labels the user gave them; their MD5
// fingerprints are a1:a1:be:b0:18:43:b9:3e:8f:93:90:8b:22:78:d8:e8,
// 41:37:3c:26:80:a5:93:e4:0a:71:7c:10:fd:89:d8:9f and
// c6:87:f1:57:0b:25:ee:c6:ea:02:69:ac:42:ac:76:02.
constexpr std::pair<std::string_view, std::string_view> kRealKeys[] = {
    {"Osprey (laptop)",
     "ssh-ed25519 AAAAC3NzaC1lZDI1NTE5AAAAIB1g7xumZu0Gzig8jo7P2MxdUmKfYjWJSoqa/TGmL2lk "
     "mara@osprey"},
    {"Tidewater CI",
     "ecdsa-sha2-nistp384 "
     "AAAAE2VjZHNhLXNoYTItbmlzdHAzODQAAAAIbmlzdHAzODQAAABhBHHmIG8AFReZvcNNf+w80kU7OGV70du/"
     "+9wFqo6Cy3jrQU+Cdeh/gTYoGp6lCeR7xFEBwf8Xo6A3uHs7rYY7xb+xv/pdnGxe/QUGlmPzOhqYwBWKH6CtRO/"
     "ABWexw8tqjg== mara@tidewater-ci"},
    {"",
     "ssh-rsa "
     "AAAAB3NzaC1yc2EAAAADAQABAAABAQCtdbHaRsyrHm8BTJDvEQYMNVya/"
     "OyCa9RentsTXS7RJibzi+YpgT9dYjBiikYPKPOm+F0zXoJ6prk9wv0EDIwIFitw3ypjgEV/"
     "o6+PUee3YM9ppLZ3M7CuD5Nr+fAmSGrIkPPfFjLM7k4yGSWckw61ZxZVu+bSWq8Kdln8s+"
     "W5oe7gOk5WXKMoPdiVS5nvGRdnQr/"
     "HJQEkHdGFcy5q74KXuiZMXeaXwUdWyiIjbt1UXFdfZ34WPvCpoalhG1szaWmQfx7meqnsIv1kDB9CSVz0pdSu4FUx4"
     "g+5aXYTPO1S9k3taINXLcRfPAeyI56NaTvT0s8key1lvlyrJsNyhb7V mara@old-thinkpad"},
};

// "2024-06-18T05:22:23.412345+00:00", the way Bitbucket writes creation and update times, or
// without the fraction as it writes commit dates.
std::string bitbucketTime(std::time_t seconds, bool fraction = true) {
    std::string text = isoTime(seconds);
    text.pop_back();  // the "Z"
    if (fraction) {
        char digits[16];
        std::snprintf(digits, sizeof digits, ".%06u",
                      static_cast<unsigned>(mixed(static_cast<std::uint64_t>(seconds)) % 1000000));
        text += digits;
    }
    return text + "+00:00";
}

// A braced UUID text, the same for the same seed.
std::string uuidOf(std::uint64_t seed) {
    const std::string digits = hexDigits(seed, 32);
    return "{" + digits.substr(0, 8) + "-" + digits.substr(8, 4) + "-4" + digits.substr(13, 3) +
           "-a" + digits.substr(17, 3) + "-" + digits.substr(20, 12) + "}";
}

std::string withoutBraces(std::string_view uuid) {
    if (uuid.size() >= 2 && uuid.front() == '{' && uuid.back() == '}') {
        uuid = uuid.substr(1, uuid.size() - 2);
    }
    return std::string(uuid);
}

json::object link(std::string href) {
    return json::object{{"href", std::move(href)}};
}

// Bitbucket's error answer.
fake::Response failure(int status, std::string_view message, std::string_view detail = {}) {
    json::object error{{"message", message}};
    if (!detail.empty()) {
        error["detail"] = detail;
    }
    return fake::Response::json(json::serialize(json::object{{"type", "error"}, {"error", error}}),
                                status);
}

fake::Response answerWith(const json::value& value, int status = 200) {
    return fake::Response::json(json::serialize(value), status);
}

// Where the request was sent: the addresses the answers name.
struct Site {
    std::string web;      // "http://bitbucket.test"
    std::string api;      // "http://api.bitbucket.test"
    std::string sshHost;  // "bitbucket.test"
    bool isApi = false;

    static Site of(const fake::Request& request) {
        std::string host = request.header("Host").value_or("api.bitbucket.test");
        std::transform(host.begin(), host.end(), host.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        Site site;
        site.isApi = host.starts_with("api.");
        const std::string web = site.isApi ? host.substr(4) : host;
        site.web = "http://" + web;
        site.api = "http://api." + web;
        site.sshHost = web.substr(0, web.find(':'));
        return site;
    }
};

struct Person {
    std::string nickname;
    std::string displayName;
    std::string uuid;
    std::string accountId;
};

struct Workspace {
    std::string slug;
    std::string name;
    std::string uuid;
    Role role = kNoRole;
    bool mayCreate = false;
    bool personal = false;
};

struct Comment {
    std::int64_t id = 0;
    std::string author;
    std::time_t created = 0;
    std::time_t updated = 0;
    std::string raw;
    bool deleted = false;
    std::int64_t parent = 0;  // 0: a top-level comment
};

struct Commit {
    std::string hash;
    std::string author;  // nickname; empty when Bitbucket knows no account for the address
    std::string raw;     // "Name <address>"
    std::time_t date = 0;
    std::string message;
};

struct PullRequest {
    std::int64_t id = 0;
    std::string title;
    std::string description;
    std::string author;
    std::time_t created = 0;
    std::time_t updated = 0;
    std::string source;  // full name of the repository the changes come from
    std::string sourceBranch;
    std::string destinationBranch = "main";
    std::string state = "OPEN";
    std::string closedBy;
    std::string mergeCommit;
    bool conflicted = false;
    int files = 0;  // of its diffstat
    int seed = 0;   // what its generated conversation is made from
    // The conversation, made on first use and kept with the changes the actions make.
    bool conversationMade = false;
    std::vector<Comment> comments;  // in the order they were written
    std::vector<Commit> commits;    // oldest first
};

struct Repository {
    std::string workspace;
    std::string slug;
    std::string name;
    std::string uuid;
    std::string description;
    bool isPrivate = false;
    std::string scm = "git";
    std::string parent;
    Role role = kNoRole;
    std::time_t created = 0;
    std::time_t updated = 0;
    std::vector<PullRequest> pullRequests;  // newest first

    std::string fullName() const { return workspace + "/" + slug; }
};

// The page a list request asks for with "pagelen" and "page"; what cannot be read is ignored.
PageRequest pageOf(boost::urls::url_view target, std::size_t maximumLength) {
    PageRequest page{kDefaultPageLength, 1};
    for (const auto& parameter : target.params()) {
        std::size_t value = 0;
        const std::string& text = parameter.value;
        auto [end, fault] = std::from_chars(text.data(), text.data() + text.size(), value);
        if (fault != std::errc() || end != text.data() + text.size() || value == 0) {
            continue;
        }
        if (parameter.key == "pagelen") {
            page.perPage = std::min(value, maximumLength);
        } else if (parameter.key == "page") {
            page.page = value;
        }
    }
    return page;
}

std::optional<std::string> parameter(boost::urls::url_view target, std::string_view name) {
    auto found = target.params().find(name);
    if (found == target.params().end()) {
        return std::nullopt;
    }
    return std::string((*found).value);
}

// An answer's "fields" applied to it, as every Bitbucket answer honours them.
fake::Response shaped(const json::value& whole, boost::urls::url_view target) {
    return answerWith(withFields(whole, parameter(target, "fields").value_or("")));
}

// One page of a list of `size` items, made by `item` only for the page shown: "pagelen", "size",
// "page", "values" and, where there are neighbours, the "next" and "previous" addresses (the
// request's own address with another "page"), cut to the request's "fields". A page past the end
// is not found.
fake::Response listPage(const Site& site, boost::urls::url_view target, std::size_t size,
                        const std::function<json::value(std::size_t)>& item,
                        std::size_t maximumLength) {
    const PageRequest page = pageOf(target, maximumLength);
    const std::size_t first = page.first();
    if (page.page > 1 && first >= size) {
        return failure(404, "Invalid page");
    }
    json::array values;
    for (std::size_t index = first; index < size && index < first + page.perPage; ++index) {
        values.push_back(item(index));
    }
    json::object answer{{"pagelen", page.perPage},
                        {"size", size},
                        {"page", page.page},
                        {"values", std::move(values)}};
    auto neighbour = [&](std::size_t number) {
        boost::urls::url address(target);
        address.params().set("page", std::to_string(number));
        return site.api + std::string(address.encoded_target());
    };
    if (first + page.perPage < size) {
        answer["next"] = neighbour(page.page + 1);
    }
    if (page.page > 1) {
        answer["previous"] = neighbour(page.page - 1);
    }
    return shaped(answer, target);
}

std::optional<json::object> bodyObject(const fake::Request& request) {
    boost::system::error_code fault;
    json::value content = json::parse(request.body, fault);
    if (fault || !content.is_object()) {
        return std::nullopt;
    }
    return std::move(content.get_object());
}

const json::value* member(const json::object& object,
                          std::initializer_list<std::string_view> path) {
    const json::value* value = nullptr;
    const json::object* within = &object;
    for (std::string_view name : path) {
        if (within == nullptr || (value = within->if_contains(name)) == nullptr) {
            return nullptr;
        }
        within = value->if_object();
    }
    return value;
}

std::optional<std::string> stringMember(const json::object& object,
                                        std::initializer_list<std::string_view> path) {
    const json::value* value = member(object, path);
    if (value == nullptr || !value->is_string()) {
        return std::nullopt;
    }
    return std::string(value->get_string());
}

// The values of an "application/x-www-form-urlencoded" body.
std::map<std::string, std::string> formValues(std::string_view body) {
    std::map<std::string, std::string> values;
    auto parsed = boost::urls::parse_query(body);
    if (!parsed) {
        return values;
    }
    for (const auto& parameter : *parsed) {
        values.emplace(parameter.key, parameter.value);
    }
    return values;
}

}  // namespace

struct SampleBitbucket::State {
    explicit State(const BitbucketScale& scale);

    fake::Response answer(const fake::Request& request);
    void expireAccessTokens();

    std::int64_t newest = 0;
    std::int64_t fromFork = 0;
    std::int64_t withConflict = 0;

private:
    // Who a request speaks for: the viewer, or the answer that refuses it.
    std::optional<fake::Response> refusal(const fake::Request& request) const;
    fake::Response tokenEndpoint(const fake::Request& request);
    fake::Response api(const fake::Request& request, const Site& site,
                       boost::urls::url_view target);
    fake::Response repositoryRoutes(const fake::Request& request, const Site& site,
                                    boost::urls::url_view target,
                                    const std::vector<std::string>& segments);
    fake::Response pullRequestRoutes(const fake::Request& request, const Site& site,
                                     boost::urls::url_view target, Repository& repository,
                                     const std::vector<std::string>& segments);
    fake::Response sshKeyRoutes(const fake::Request& request, const Site& site,
                                boost::urls::url_view target,
                                const std::vector<std::string>& segments);

    fake::Response createRepository(const fake::Request& request, const Site& site,
                                    const std::string& workspace, const std::string& slug);
    fake::Response createPullRequest(const fake::Request& request, const Site& site,
                                     Repository& repository);
    fake::Response comment(const fake::Request& request, const Site& site,
                           boost::urls::url_view target, const Repository& repository,
                           PullRequest& pullRequest, const std::vector<std::string>& segments);
    fake::Response mergeOrDecline(const fake::Request& request, const Site& site,
                                  const Repository& repository, PullRequest& pullRequest,
                                  bool merge);

    // Models: the whole JSON objects the answers are cut from.
    json::object accountModel(const Site& site, std::string_view nickname) const;
    json::object viewerModel(const Site& site) const;
    json::object workspaceModel(const Site& site, const Workspace& workspace) const;
    json::object ownerModel(const Site& site, const Workspace& workspace) const;
    json::object repositoryModel(const Site& site, const Repository& repository) const;
    json::object repositorySummary(const Site& site, const Repository& repository) const;
    json::object pullRequestModel(const Site& site, const Repository& repository,
                                  const PullRequest& pullRequest) const;
    json::object commentModel(const Site& site, const Repository& repository,
                              const PullRequest& pullRequest, const Comment& comment) const;
    json::object commitModel(const Site& site, const Repository& repository,
                             const Commit& commit) const;
    json::object diffstatModel(const PullRequest& pullRequest, std::size_t index) const;
    json::object keyModel(const Site& site, const SshKey& key) const;
    static std::string keyUuid(const SshKey& key) {
        return uuidOf(static_cast<std::uint64_t>(key.id));
    }

    void makeConversation(PullRequest& pullRequest) const;
    const Person* person(std::string_view nicknameOrId) const;
    const Workspace* workspace(std::string_view slug) const;
    Repository* repository(std::string_view workspace, std::string_view slug);
    const Repository* repository(std::string_view fullName) const;
    std::time_t now() const { return std::time(nullptr); }

    BitbucketScale scale_;
    mutable std::mutex mutex_;
    std::vector<Person> people_;
    std::vector<Workspace> workspaces_;
    std::vector<Repository> repositories_;
    // The user's keys; Bitbucket names each by a uuid made of its id.
    KeyRing keys_;
    // Access tokens handed out, and whether each has expired; the refresh tokens that still work.
    std::map<std::string, bool, std::less<>> accessTokens_;
    std::set<std::string, std::less<>> refreshTokens_;
    std::uint64_t nextSerial_ = 1;  // for what the actions and the token endpoint make
    std::int64_t nextCommentId_ = 560000000;
};

SampleBitbucket::State::State(const BitbucketScale& scale)
    : scale_(scale),
      keys_(scale.sshKeys, KeyRing::Seed{.realKeys = kRealKeys,
                                         .madeUpTitle = "Deploy key ",
                                         .madeUpComment = "deploy@tiles",
                                         .firstId = 9100,
                                         .newest = kNow - 83 * kDay,
                                         .daysApart = 83}) {
    for (const PersonSeed& seed : kPeople) {
        const std::uint64_t bits = seedOf(seed.nickname);
        people_.push_back(Person{std::string(seed.nickname), std::string(seed.displayName),
                                 uuidOf(bits), "712020:" + uuidOf(bits + 1).substr(1, 36)});
    }
    for (const WorkspaceSeed& seed : kWorkspaces) {
        const Person* owner = person(seed.slug);
        // A personal workspace has the uuid of its person.
        workspaces_.push_back(
            Workspace{std::string(seed.slug), std::string(seed.name),
                      owner != nullptr ? owner->uuid : uuidOf(seedOf(seed.slug) + 7), seed.role,
                      seed.mayCreate, owner != nullptr});
    }
    for (std::size_t index = 0; index < std::size(kRepositories); ++index) {
        const RepositorySeed& seed = kRepositories[index];
        Repository repository;
        repository.workspace = seed.workspace;
        repository.slug = seed.slug;
        repository.name = seed.name;
        repository.uuid = uuidOf(seedOf(repository.fullName()));
        repository.description = seed.description;
        repository.isPrivate = seed.isPrivate;
        repository.scm = seed.scm;
        repository.parent = seed.parent;
        repository.role = seed.role;
        repository.updated =
            kNow - seed.daysAgo * kDay - static_cast<std::time_t>(index) * 5 * 60 * 60;
        repository.created = repository.updated - 400 * kDay;
        repositories_.push_back(std::move(repository));
    }
    for (int index = 0; index < std::max(0, scale.extraRepositories); ++index) {
        char slug[32];
        std::snprintf(slug, sizeof slug, "tile-cache-%03d", index + 1);
        Repository repository;
        repository.workspace = "harbour-ops";
        repository.slug = slug;
        repository.name = slug;
        repository.uuid = uuidOf(seedOf(repository.fullName()));
        repository.description = "Tile cache of one region.";
        repository.isPrivate = index % 2 == 0;
        repository.role = kCollaborator;
        repository.updated = kNow - (index + 40) * kDay;
        repository.created = repository.updated - 100 * kDay;
        repositories_.push_back(std::move(repository));
    }

    Repository& tilestream = *repository(kPullRequestWorkspace, kPullRequestSlug);
    const int count = std::max(0, scale.pullRequests);
    for (int index = 0; index < count; ++index) {
        PullRequest pullRequest;
        // Newest first; the gaps are merged and declined pull requests.
        pullRequest.id = 40 + 2 * (count - 1 - index) + index % 2;
        const std::size_t titles = std::size(kTitles);
        pullRequest.title = std::string(kTitles[static_cast<std::size_t>(index) % titles]);
        pullRequest.sourceBranch = branchOf(pullRequest.title);
        if (static_cast<std::size_t>(index) >= titles) {
            pullRequest.title += ", part " + std::to_string(index / titles + 1);
            pullRequest.sourceBranch += "-" + std::to_string(index / titles + 1);
        }
        pullRequest.author =
            kPullRequestAuthors[static_cast<std::size_t>(index) % std::size(kPullRequestAuthors)];
        pullRequest.created = kNow - (index + 1) * 31 * 60 * 60 - index * 11 * 60 - index % 60;
        pullRequest.updated = pullRequest.created + 3 * 60 * 60;
        // Some come from their author's fork, the others from a branch of the repository.
        pullRequest.source =
            index % 3 == 1 ? pullRequest.author + "/tilestream" : tilestream.fullName();
        pullRequest.conflicted = index % 4 == 1;
        pullRequest.files = std::max(0, scale.diffstatFiles);
        pullRequest.description = pullRequest.title +
                                  ".\n\nThe layers in `tests/fixtures` render as before.\n\n"
                                  "Fixes #" +
                                  std::to_string(pullRequest.id + 17) + ".";
        pullRequest.seed = index;
        if (index == 0) {
            newest = pullRequest.id;
        }
        if (fromFork == 0 && pullRequest.source != tilestream.fullName()) {
            fromFork = pullRequest.id;
        }
        if (withConflict == 0 && pullRequest.conflicted) {
            withConflict = pullRequest.id;
        }
        tilestream.pullRequests.push_back(std::move(pullRequest));
    }

    accessTokens_.emplace(kSampleBitbucketToken, false);
    accessTokens_.emplace(kSampleBitbucketExpiredToken, true);
    refreshTokens_.emplace(kSampleBitbucketRefreshToken);
}

const Person* SampleBitbucket::State::person(std::string_view nicknameOrId) const {
    for (const Person& person : people_) {
        if (person.nickname == nicknameOrId || person.uuid == nicknameOrId ||
            person.accountId == nicknameOrId) {
            return &person;
        }
    }
    return nullptr;
}

const Workspace* SampleBitbucket::State::workspace(std::string_view slug) const {
    for (const Workspace& workspace : workspaces_) {
        if (workspace.slug == slug || workspace.uuid == slug) {
            return &workspace;
        }
    }
    return nullptr;
}

Repository* SampleBitbucket::State::repository(std::string_view workspace, std::string_view slug) {
    for (Repository& repository : repositories_) {
        if (repository.workspace == workspace && repository.slug == slug) {
            return &repository;
        }
    }
    return nullptr;
}

const Repository* SampleBitbucket::State::repository(std::string_view fullName) const {
    for (const Repository& repository : repositories_) {
        if (repository.fullName() == fullName) {
            return &repository;
        }
    }
    return nullptr;
}

// A pull request's conversation: comments in threads (one deleted with answers, one deleted
// without), and commits in runs by one author, spread over four days after it was opened.
void SampleBitbucket::State::makeConversation(PullRequest& pullRequest) const {
    if (std::exchange(pullRequest.conversationMade, true)) {
        return;
    }
    const int seed = pullRequest.seed;
    std::vector<std::string_view> nicknames;
    for (const PersonSeed& known : kPeople) {
        nicknames.push_back(known.nickname);
    }
    const std::vector<std::string> speakers =
        participantsOf(pullRequest.author, kViewer, nicknames, seed);
    const int comments = std::max(0, scale_.comments);
    const int commits = std::max(0, scale_.commits);
    const int items = comments + commits;
    const std::time_t step = items > 0 ? 4 * kDay / (items + 1) : 0;
    int comment = 0;
    int commit = 0;
    for (int item = 0; item < items; ++item) {
        const std::time_t moment = pullRequest.created + (item + 1) * step;
        if (isCommentAt(item, comments, items)) {
            // Threads in a cycle of ten: replies answer a comment of the same cycle, a reply
            // may be answered in turn, and two top-level comments were deleted, the first of
            // them after it was answered.
            const int place = comment % 10;
            const int cycle = comment - place;
            Comment made;
            made.id = 480000000 + pullRequest.id * 10000 + comment;
            made.author = speakers[static_cast<std::size_t>(comment + 1) % speakers.size()];
            made.created = moment;
            made.updated = moment;
            made.raw = std::string(
                kCommentTexts[static_cast<std::size_t>(seed + comment) % std::size(kCommentTexts)]);
            const int parents[10] = {-1, 0, -1, 1, -1, 4, -1, -1, 6, -1};
            if (parents[place] >= 0) {
                made.parent = 480000000 + pullRequest.id * 10000 + cycle + parents[place];
                made.raw = std::string(
                    kReplyTexts[static_cast<std::size_t>(seed + comment) % std::size(kReplyTexts)]);
            }
            if (place == 4 || place == 7) {
                made.deleted = true;
                made.raw.clear();
            }
            pullRequest.comments.push_back(std::move(made));
            ++comment;
            continue;
        }
        // Runs of three commits, mostly by the pull request's author, some by the reviewers,
        // now and then from an address Bitbucket knows no account for.
        Commit made;
        made.hash = hexDigits(static_cast<std::uint64_t>(pullRequest.id) * 100003 +
                                  static_cast<std::uint64_t>(commit),
                              40);
        made.author = commitAuthorOf(commit, speakers);
        if (commit % 13 == 12) {
            made.author.clear();
            made.raw = "Tile Robot <robot@tidewater.test>";
        } else {
            const Person* known = person(made.author);
            made.raw = known->displayName + " <" + known->nickname.substr(0, 4) + "@example.org>";
        }
        made.date = moment - (commit % 5) * 600;
        made.message = std::string(kCommitHeadlines[static_cast<std::size_t>(seed + commit) %
                                                    std::size(kCommitHeadlines)]);
        if (commit % 2 == 0) {
            made.message += "\n\nThe tiles of the test fixtures render unchanged.\n";
        }
        pullRequest.commits.push_back(std::move(made));
        ++commit;
    }
}

// ---- Models

json::object SampleBitbucket::State::accountModel(const Site& site,
                                                  std::string_view nickname) const {
    const Person* known = person(nickname);
    if (known == nullptr) {
        return json::object{{"type", "user"}, {"nickname", nickname}, {"display_name", nickname}};
    }
    const std::string escaped = "%7B" + withoutBraces(known->uuid) + "%7D";
    return json::object{
        {"type", "user"},
        {"display_name", known->displayName},
        {"nickname", known->nickname},
        {"uuid", known->uuid},
        {"account_id", known->accountId},
        {"links",
         json::object{{"self", link(site.api + "/2.0/users/" + escaped)},
                      {"avatar", link("https://avatars.bitbucket.test/" + known->accountId + "/" +
                                      hexDigits(seedOf(known->nickname), 8) + "/128")},
                      {"html", link(site.web + "/" + escaped + "/")}}},
    };
}

json::object SampleBitbucket::State::viewerModel(const Site& site) const {
    json::object viewer = accountModel(site, kViewer);
    // Only the signed-in user is told her own user name.
    viewer["username"] = kViewer;
    viewer["created_on"] = "2014-02-11T08:41:22.512947+00:00";
    viewer["account_status"] = "active";
    viewer["is_staff"] = false;
    viewer["location"] = nullptr;
    viewer["has_2fa_enabled"] = nullptr;
    viewer["links"].as_object()["repositories"] =
        link(site.api + "/2.0/repositories/%7B" + withoutBraces(people_.front().uuid) + "%7D");
    return viewer;
}

json::object SampleBitbucket::State::workspaceModel(const Site& site,
                                                    const Workspace& workspace) const {
    return json::object{
        {"type", "workspace"},
        {"uuid", workspace.uuid},
        {"name", workspace.name},
        {"slug", workspace.slug},
        {"is_private", false},
        {"created_on", bitbucketTime(kNow - 700 * kDay -
                                     static_cast<std::time_t>(seedOf(workspace.slug) % 10000))},
        {"links",
         json::object{{"avatar",
                       link(site.web + "/workspaces/" + workspace.slug + "/avatar/?ts=1718000000")},
                      {"html", link(site.web + "/" + workspace.slug + "/")},
                      {"self", link(site.api + "/2.0/workspaces/" + workspace.slug)},
                      {"repositories", link(site.api + "/2.0/repositories/" + workspace.slug)}}},
    };
}

// The "owner" of a repository: the person of a personal workspace, else the workspace as the
// team it once was.
json::object SampleBitbucket::State::ownerModel(const Site& site,
                                                const Workspace& workspace) const {
    if (workspace.personal) {
        return accountModel(site, workspace.slug);
    }
    return json::object{
        {"type", "team"},
        {"username", workspace.slug},
        {"display_name", workspace.name},
        {"uuid", workspace.uuid},
        {"links", json::object{{"self", link(site.api + "/2.0/workspaces/" + workspace.slug)},
                               {"avatar", link(site.web + "/workspaces/" + workspace.slug +
                                               "/avatar/?ts=1718000000")},
                               {"html", link(site.web + "/" + workspace.slug + "/")}}},
    };
}

// A repository as it appears inside other objects (a fork's parent, a pull request's source).
json::object SampleBitbucket::State::repositorySummary(const Site& site,
                                                       const Repository& repository) const {
    return json::object{
        {"type", "repository"},
        {"full_name", repository.fullName()},
        {"name", repository.name},
        {"uuid", repository.uuid},
        {"links",
         json::object{{"self", link(site.api + "/2.0/repositories/" + repository.fullName())},
                      {"html", link(site.web + "/" + repository.fullName())},
                      {"avatar", link(site.web + "/" + repository.fullName() +
                                      "/avatar/32/?ts=1718000000")}}},
    };
}

json::object SampleBitbucket::State::repositoryModel(const Site& site,
                                                     const Repository& repository) const {
    const Workspace* home = workspace(repository.workspace);
    const std::string api = site.api + "/2.0/repositories/" + repository.fullName();
    json::object model = repositorySummary(site, repository);
    model["slug"] = repository.slug;
    model["is_private"] = repository.isPrivate;
    model["description"] = repository.description;
    model["scm"] = repository.scm;
    model["fork_policy"] = "allow_forks";
    model["language"] = repository.scm == "git" ? "python" : "";
    model["created_on"] = bitbucketTime(repository.created);
    model["updated_on"] = bitbucketTime(repository.updated);
    model["size"] = 180000 + seedOf(repository.fullName()) % 9000000;
    model["has_issues"] = false;
    model["has_wiki"] = false;
    model["mainbranch"] = json::object{{"type", "branch"}, {"name", "main"}};
    model["owner"] = ownerModel(site, *home);
    model["workspace"] = json::object{
        {"type", "workspace"}, {"slug", home->slug}, {"name", home->name}, {"uuid", home->uuid}};
    if (const Repository* parent = this->repository(repository.parent)) {
        model["parent"] = repositorySummary(site, *parent);
    }
    json::object& links = model["links"].as_object();
    links["pullrequests"] = link(api + "/pullrequests");
    links["commits"] = link(api + "/commits");
    links["forks"] = link(api + "/forks");
    // Bitbucket names the signed-in user in the HTTPS address.
    links["clone"] = json::array{
        json::object{{"name", "https"},
                     {"href", "http://" + std::string(kViewer) + "@" + site.sshHost + "/" +
                                  repository.fullName() + ".git"}},
        json::object{{"name", "ssh"},
                     {"href", "git@" + site.sshHost + ":" + repository.fullName() + ".git"}},
    };
    return model;
}

json::object SampleBitbucket::State::pullRequestModel(const Site& site,
                                                      const Repository& repository,
                                                      const PullRequest& pullRequest) const {
    const std::string api = site.api + "/2.0/repositories/" + repository.fullName() +
                            "/pullrequests/" + std::to_string(pullRequest.id);
    const Repository* source = this->repository(pullRequest.source);
    const std::string sourceHash = hexDigits(seedOf(pullRequest.source) + pullRequest.id, 12);
    const std::string destinationHash = hexDigits(seedOf(repository.fullName()), 12);
    auto end = [&](const Repository* where, const std::string& branch, const std::string& hash) {
        return json::object{
            {"branch", json::object{{"name", branch}}},
            {"commit", json::object{{"type", "commit"}, {"hash", hash}}},
            {"repository", where != nullptr ? json::value(repositorySummary(site, *where))
                                            : json::value(nullptr)},
        };
    };
    std::size_t comments = 0;
    for (const Comment& comment : pullRequest.comments) {
        comments += comment.deleted ? 0 : 1;
    }
    return json::object{
        {"type", "pullrequest"},
        {"id", pullRequest.id},
        {"title", pullRequest.title},
        {"description", pullRequest.description},
        {"summary",
         json::object{
             {"type", "rendered"}, {"raw", pullRequest.description}, {"markup", "markdown"}}},
        {"state", pullRequest.state},
        {"author", accountModel(site, pullRequest.author)},
        {"created_on", bitbucketTime(pullRequest.created)},
        {"updated_on", bitbucketTime(pullRequest.updated)},
        {"source", end(source, pullRequest.sourceBranch, sourceHash)},
        {"destination", end(&repository, pullRequest.destinationBranch, destinationHash)},
        {"merge_commit", pullRequest.mergeCommit.empty()
                             ? json::value(nullptr)
                             : json::value(json::object{{"hash", pullRequest.mergeCommit}})},
        {"close_source_branch", false},
        {"closed_by", pullRequest.closedBy.empty()
                          ? json::value(nullptr)
                          : json::value(accountModel(site, pullRequest.closedBy))},
        {"comment_count", comments},
        {"task_count", 0},
        {"reason", ""},
        {"links",
         json::object{
             {"self", link(api)},
             {"html", link(site.web + "/" + repository.fullName() + "/pull-requests/" +
                           std::to_string(pullRequest.id))},
             {"commits", link(api + "/commits")},
             {"comments", link(api + "/comments")},
             {"merge", link(api + "/merge")},
             {"decline", link(api + "/decline")},
             {"diff",
              link(site.api + "/2.0/repositories/" + repository.fullName() + "/diff/" +
                   pullRequest.source + ":" + sourceHash + "%0D" + destinationHash +
                   "?from_pullrequest_id=" + std::to_string(pullRequest.id) + "&topic=true")},
             // An address that already carries a query, as Bitbucket's does.
             {"diffstat",
              link(site.api + "/2.0/repositories/" + repository.fullName() + "/diffstat/" +
                   pullRequest.source + ":" + sourceHash + "%0D" + destinationHash +
                   "?from_pullrequest_id=" + std::to_string(pullRequest.id) + "&topic=true")},
         }},
    };
}

json::object SampleBitbucket::State::commentModel(const Site& site, const Repository& repository,
                                                  const PullRequest& pullRequest,
                                                  const Comment& comment) const {
    const std::string api = site.api + "/2.0/repositories/" + repository.fullName() +
                            "/pullrequests/" + std::to_string(pullRequest.id) + "/comments/";
    const std::string html = site.web + "/" + repository.fullName() + "/pull-requests/" +
                             std::to_string(pullRequest.id) + "/_/diff#comment-";
    json::object model{
        {"type", "pullrequest_comment"},
        {"id", comment.id},
        {"created_on", bitbucketTime(comment.created)},
        {"updated_on", bitbucketTime(comment.updated)},
        {"content",
         json::object{{"type", "rendered"},
                      {"raw", comment.raw},
                      {"markup", "markdown"},
                      {"html", comment.raw.empty() ? "" : "<p>" + comment.raw + "</p>"}}},
        {"user", accountModel(site, comment.author)},
        {"deleted", comment.deleted},
        {"pending", false},
        {"pullrequest",
         json::object{
             {"type", "pullrequest"}, {"id", pullRequest.id}, {"title", pullRequest.title}}},
        {"links", json::object{{"self", link(api + std::to_string(comment.id))},
                               {"html", link(html + std::to_string(comment.id))}}},
    };
    if (comment.parent != 0) {
        model["parent"] = json::object{
            {"id", comment.parent},
            {"links", json::object{{"self", link(api + std::to_string(comment.parent))}}}};
    }
    return model;
}

json::object SampleBitbucket::State::commitModel(const Site& site, const Repository& repository,
                                                 const Commit& commit) const {
    json::object author{{"type", "author"}, {"raw", commit.raw}};
    if (!commit.author.empty()) {
        author["user"] = accountModel(site, commit.author);
    }
    return json::object{
        {"type", "commit"},
        {"hash", commit.hash},
        {"date", bitbucketTime(commit.date, false)},
        {"message", commit.message},
        {"author", std::move(author)},
        {"summary", json::object{{"type", "rendered"}, {"raw", commit.message}}},
        {"links", json::object{{"self", link(site.api + "/2.0/repositories/" +
                                             repository.fullName() + "/commit/" + commit.hash)},
                               {"html", link(site.web + "/" + repository.fullName() + "/commits/" +
                                             commit.hash)}}},
    };
}

json::object SampleBitbucket::State::diffstatModel(const PullRequest& pullRequest,
                                                   std::size_t index) const {
    // The conflict lies after the first 200 files where there are that many.
    const std::size_t files = static_cast<std::size_t>(pullRequest.files);
    const std::size_t conflictAt = files > 205 ? 205 : files - 1;
    std::string status(kDiffstatStatuses[(index + static_cast<std::size_t>(pullRequest.seed)) %
                                         std::size(kDiffstatStatuses)]);
    if (pullRequest.conflicted && index == conflictAt) {
        status = "merge conflict";
    }
    char path[64];
    std::snprintf(path, sizeof path, "tilestream/layers/layer_%04zu.py", index);
    const json::object file{{"path", path}, {"type", "commit_file"}, {"escaped_path", path}};
    const std::uint64_t bits = mixed(static_cast<std::uint64_t>(pullRequest.id) * 7919 + index);
    return json::object{
        {"type", "diffstat"},
        {"status", status},
        {"lines_added", status == "removed" ? 0 : bits % 120},
        {"lines_removed", status == "added" ? 0 : (bits >> 8) % 60},
        {"old", status == "added" ? json::value(nullptr) : json::value(file)},
        {"new", status == "removed" ? json::value(nullptr) : json::value(file)},
    };
}

json::object SampleBitbucket::State::keyModel(const Site& site, const SshKey& key) const {
    const std::string escaped = "%7B" + withoutBraces(people_.front().uuid) + "%7D";
    const std::string uuid = keyUuid(key);
    // Bitbucket keeps the key's comment apart from the key and the label the user gave it.
    const std::size_t comment = key.key.find(' ', key.key.find(' ') + 1);
    return json::object{
        {"type", "ssh_key"},
        {"uuid", uuid},
        {"key", key.key.substr(0, comment)},
        {"comment", comment == std::string::npos ? "" : key.key.substr(comment + 1)},
        {"label", key.title},
        {"created_on", bitbucketTime(key.created)},
        {"last_used", bitbucketTime(key.created + 20 * kDay)},
        {"owner", accountModel(site, kViewer)},
        {"links", json::object{{"self", link(site.api + "/2.0/users/" + escaped + "/ssh-keys/%7B" +
                                             withoutBraces(uuid) + "%7D")}}},
    };
}

// ---- Credentials

std::optional<fake::Response> SampleBitbucket::State::refusal(const fake::Request& request) const {
    const std::string credential = request.header("Authorization").value_or("");
    constexpr std::string_view kBearer = "Bearer ";
    constexpr std::string_view kBasic = "Basic ";
    if (credential.starts_with(kBearer)) {
        const auto token = accessTokens_.find(std::string_view(credential).substr(kBearer.size()));
        if (token != accessTokens_.end() && token->second) {
            return failure(401,
                           "Access token expired. Use your refresh token to obtain a new access "
                           "token.");
        }
        if (token != accessTokens_.end()) {
            return std::nullopt;
        }
    } else if (credential.starts_with(kBasic)) {
        // Passwords are no longer taken: the e-mail address and an API token are.
        const std::string expected =
            std::string(kSampleBitbucketEmail) + ":" + std::string(kSampleBitbucketApiToken);
        if (std::string_view(credential).substr(kBasic.size()) == vt::base64String(expected)) {
            return std::nullopt;
        }
    }
    return failure(401, "Token is invalid, expired, or not supported for this endpoint.");
}

void SampleBitbucket::State::expireAccessTokens() {
    std::lock_guard lock(mutex_);
    for (auto& [token, expired] : accessTokens_) {
        expired = true;
    }
}

// POST /site/oauth2/access_token on the web host: a new access token and a new refresh token
// for a refresh token, to the client whose Basic credentials come with it.
fake::Response SampleBitbucket::State::tokenEndpoint(const fake::Request& request) {
    auto refuse = [](std::string_view error, std::string_view description) {
        return answerWith(json::object{{"error", error}, {"error_description", description}}, 400);
    };
    if (request.method != "POST") {
        return failure(405, "Method not allowed");
    }
    const std::string client = scale_.clientId + ":" + scale_.clientSecret;
    if (request.header("Authorization") != "Basic " + vt::base64String(client)) {
        return refuse("invalid_client", "Invalid OAuth client credentials");
    }
    const std::string type = request.header("Content-Type").value_or("");
    if (!type.starts_with("application/x-www-form-urlencoded")) {
        return refuse("invalid_request", "The request is missing a required parameter");
    }
    const auto form = formValues(request.body);
    const auto grant = form.find("grant_type");
    if (grant == form.end() || grant->second != "refresh_token") {
        return refuse("unsupported_grant_type",
                      "Unsupported grant type: " + (grant == form.end() ? "" : grant->second));
    }
    const auto refresh = form.find("refresh_token");
    if (refresh == form.end() || refreshTokens_.erase(refresh->second) == 0) {
        return refuse("invalid_grant", "Invalid refresh_token");
    }
    const std::uint64_t serial = nextSerial_++;
    const std::string access = "bb-access-" + hexDigits(serial * 31 + 7, 24);
    const std::string renewal = "bb-refresh-" + hexDigits(serial * 37 + 11, 24);
    accessTokens_[access] = false;
    refreshTokens_.insert(renewal);
    return answerWith(json::object{
        {"access_token", access},
        {"scopes", "account pullrequest:write repository:admin"},
        {"token_type", "bearer"},
        {"expires_in", 7200},
        {"state", "refresh_token"},
        {"refresh_token", renewal},
    });
}

// ---- REST 2.0

fake::Response SampleBitbucket::State::api(const fake::Request& request, const Site& site,
                                           boost::urls::url_view target) {
    std::vector<std::string> segments;
    for (auto segment : target.segments()) {
        segments.push_back(segment);
    }
    if (segments.empty() || segments.front() != "2.0") {
        return failure(404, "Resource not found",
                       "There is no API hosted at this URL.\n\nFor information about our API's, "
                       "please refer to the documentation at: "
                       "https://developer.atlassian.com/bitbucket/api/2/reference/");
    }
    segments.erase(segments.begin());
    const std::string& method = request.method;
    const std::size_t count = segments.size();
    const std::string resource = count > 0 ? segments.front() : std::string();

    if (resource == "user" && count == 1 && method == "GET") {
        return shaped(viewerModel(site), target);
    }
    if (resource == "workspaces" && count == 1 && method == "GET") {
        const std::string role = parameter(target, "role").value_or("");
        const Role least = role == "owner"          ? kOwner
                           : role == "collaborator" ? kCollaborator
                                                    : kMember;
        if (!role.empty() && role != "owner" && role != "collaborator" && role != "member") {
            return failure(400, "Invalid role: " + role);
        }
        std::vector<const Workspace*> listed;
        for (const Workspace& workspace : workspaces_) {
            if (workspace.role >= least) {
                listed.push_back(&workspace);
            }
        }
        return listPage(
            site, target, listed.size(),
            [&](std::size_t index) { return json::value(workspaceModel(site, *listed[index])); },
            100);
    }
    if (resource == "repositories") {
        return repositoryRoutes(request, site, target, segments);
    }
    if (resource == "users" && count >= 3 && segments[2] == "ssh-keys") {
        return sshKeyRoutes(request, site, target, segments);
    }
    return failure(404, "Resource not found",
                   "There is no API hosted at this URL.\n\nFor information about our API's, "
                   "please refer to the documentation at: "
                   "https://developer.atlassian.com/bitbucket/api/2/reference/");
}

fake::Response SampleBitbucket::State::repositoryRoutes(const fake::Request& request,
                                                        const Site& site,
                                                        boost::urls::url_view target,
                                                        const std::vector<std::string>& segments) {
    const std::string& method = request.method;
    const std::size_t count = segments.size();
    if (count == 1 && method == "GET") {
        // Every repository the viewer has the role for, in the order Bitbucket keeps; without a
        // role, every public one.
        const std::optional<std::string> role = parameter(target, "role");
        const Role least = !role                                ? kNoRole
                           : role == "owner" || role == "admin" ? kOwner
                           : role == "contributor"              ? kCollaborator
                           : role == "member"                   ? kMember
                                                                : kNoRole;
        if (role && least == kNoRole) {
            return failure(400, "Invalid role: " + *role);
        }
        std::vector<const Repository*> listed;
        for (const Repository& repository : repositories_) {
            if (role ? repository.role >= least : !repository.isPrivate) {
                listed.push_back(&repository);
            }
        }
        return listPage(
            site, target, listed.size(),
            [&](std::size_t index) { return json::value(repositoryModel(site, *listed[index])); },
            100);
    }
    if (count < 3) {
        return failure(404, "Resource not found");
    }
    const std::string& workspaceSlug = segments[1];
    const std::string& slug = segments[2];
    if (count == 3 && method == "POST") {
        return createRepository(request, site, workspaceSlug, slug);
    }
    Repository* found = repository(workspaceSlug, slug);
    // Private repositories of workspaces the viewer has no part in are not there for her.
    if (found == nullptr || (found->isPrivate && found->role == kNoRole)) {
        return failure(404, "Repository " + workspaceSlug + "/" + slug + " not found");
    }
    if (count == 3 && method == "GET") {
        return shaped(repositoryModel(site, *found), target);
    }
    return pullRequestRoutes(request, site, target, *found, segments);
}

fake::Response SampleBitbucket::State::pullRequestRoutes(const fake::Request& request,
                                                         const Site& site,
                                                         boost::urls::url_view target,
                                                         Repository& repository,
                                                         const std::vector<std::string>& segments) {
    const std::string& method = request.method;
    const std::size_t count = segments.size();
    const std::string& part = segments[3];
    if (part == "diffstat" && count >= 5 && method == "GET") {
        // ".../diffstat/{source}:{hash}%0D{hash}?from_pullrequest_id=N": the pull request's
        // files, paged.
        const std::string id = parameter(target, "from_pullrequest_id").value_or("");
        for (PullRequest& pullRequest : repository.pullRequests) {
            if (std::to_string(pullRequest.id) == id) {
                return listPage(
                    site, target, static_cast<std::size_t>(pullRequest.files),
                    [&](std::size_t index) {
                        return json::value(diffstatModel(pullRequest, index));
                    },
                    500);
            }
        }
        return failure(404, "Commit not found");
    }
    if (part != "pullrequests") {
        return failure(404, "Resource not found");
    }
    if (count == 4 && method == "GET") {
        // "state" may be given more than once; OPEN when it is not given. Newest first by
        // "-created_on", oldest first by "created_on".
        std::set<std::string> states;
        for (const auto& parameter : target.params()) {
            if (parameter.key == "state") {
                states.insert(parameter.value);
            }
        }
        if (states.empty()) {
            states.insert("OPEN");
        }
        std::vector<const PullRequest*> listed;
        for (const PullRequest& pullRequest : repository.pullRequests) {
            if (states.contains(pullRequest.state)) {
                listed.push_back(&pullRequest);
            }
        }
        if (parameter(target, "sort") == "created_on") {
            std::reverse(listed.begin(), listed.end());
        }
        return listPage(
            site, target, listed.size(),
            [&](std::size_t index) {
                return json::value(pullRequestModel(site, repository, *listed[index]));
            },
            50);
    }
    if (count == 4 && method == "POST") {
        return createPullRequest(request, site, repository);
    }
    if (count < 5) {
        return failure(404, "Resource not found");
    }
    PullRequest* pullRequest = nullptr;
    for (PullRequest& candidate : repository.pullRequests) {
        if (std::to_string(candidate.id) == segments[4]) {
            pullRequest = &candidate;
        }
    }
    if (pullRequest == nullptr) {
        return failure(404, "Pull request " + segments[4] + " not found");
    }
    makeConversation(*pullRequest);
    if (count == 5 && method == "GET") {
        return shaped(pullRequestModel(site, repository, *pullRequest), target);
    }
    if (count == 5 && method == "PUT") {
        const auto content = bodyObject(request);
        if (!content) {
            return failure(400, "Bad request", "The body is not a JSON object.");
        }
        if (auto title = stringMember(*content, {"title"})) {
            if (title->empty()) {
                return failure(400, "title: This field may not be blank.");
            }
            pullRequest->title = *title;
        }
        if (auto description = stringMember(*content, {"description"})) {
            pullRequest->description = *description;
        }
        pullRequest->updated = now();
        return answerWith(pullRequestModel(site, repository, *pullRequest));
    }
    const std::string& action = segments[5];
    if (action == "comments") {
        return comment(request, site, target, repository, *pullRequest, segments);
    }
    if (count == 6 && action == "commits" && method == "GET") {
        // Newest first, as Bitbucket lists them.
        const std::vector<Commit>& commits = pullRequest->commits;
        return listPage(
            site, target, commits.size(),
            [&](std::size_t index) {
                return json::value(
                    commitModel(site, repository, commits[commits.size() - 1 - index]));
            },
            100);
    }
    if (count == 6 && (action == "merge" || action == "decline") && method == "POST") {
        return mergeOrDecline(request, site, repository, *pullRequest, action == "merge");
    }
    return failure(404, "Resource not found");
}

fake::Response SampleBitbucket::State::comment(const fake::Request& request, const Site& site,
                                               boost::urls::url_view target,
                                               const Repository& repository,
                                               PullRequest& pullRequest,
                                               const std::vector<std::string>& segments) {
    const std::string& method = request.method;
    std::vector<Comment>& comments = pullRequest.comments;
    if (segments.size() == 6 && method == "GET") {
        // The order they were written in is that of "created_on"; "-created_on" turns it round.
        const bool newestFirst = parameter(target, "sort") == "-created_on";
        return listPage(
            site, target, comments.size(),
            [&](std::size_t index) {
                const Comment& shown = comments[newestFirst ? comments.size() - 1 - index : index];
                return json::value(commentModel(site, repository, pullRequest, shown));
            },
            100);
    }
    auto find = [&](std::string_view id) -> Comment* {
        for (Comment& candidate : comments) {
            if (std::to_string(candidate.id) == id && !candidate.deleted) {
                return &candidate;
            }
        }
        return nullptr;
    };
    if (segments.size() == 6 && method == "POST") {
        const auto content = bodyObject(request);
        const auto raw = content ? stringMember(*content, {"content", "raw"}) : std::nullopt;
        if (!raw || raw->empty()) {
            return failure(400, "content: This field is required.");
        }
        Comment made;
        if (const json::value* parent = content ? member(*content, {"parent", "id"}) : nullptr) {
            // Replies name their parent by number, not by text.
            if (!parent->is_int64() || find(std::to_string(parent->get_int64())) == nullptr) {
                return failure(400, "parent: Comment " + json::serialize(*parent) + " not found");
            }
            made.parent = parent->get_int64();
        }
        made.id = nextCommentId_++;
        made.author = kViewer;
        made.created = now();
        made.updated = made.created;
        made.raw = *raw;
        comments.push_back(std::move(made));
        return answerWith(commentModel(site, repository, pullRequest, comments.back()), 201);
    }
    if (segments.size() != 7) {
        return failure(404, "Resource not found");
    }
    Comment* found = find(segments[6]);
    if (found == nullptr) {
        return failure(404, "Comment " + segments[6] + " not found");
    }
    if (method == "GET") {
        return shaped(commentModel(site, repository, pullRequest, *found), target);
    }
    if (found->author != kViewer) {
        return failure(403, "You can only change your own comments.");
    }
    if (method == "PUT") {
        const auto content = bodyObject(request);
        const auto raw = content ? stringMember(*content, {"content", "raw"}) : std::nullopt;
        if (!raw || raw->empty()) {
            return failure(400, "content: This field is required.");
        }
        found->raw = *raw;
        found->updated = now();
        return answerWith(commentModel(site, repository, pullRequest, *found));
    }
    if (method == "DELETE") {
        // Bitbucket keeps a deleted comment in the list, without its text, so that its answers
        // keep their place.
        found->deleted = true;
        found->raw.clear();
        fake::Response gone;
        gone.status = 204;
        return gone;
    }
    return failure(404, "Resource not found");
}

fake::Response SampleBitbucket::State::mergeOrDecline(const fake::Request& request,
                                                      const Site& site,
                                                      const Repository& repository,
                                                      PullRequest& pullRequest, bool merge) {
    const auto content = bodyObject(request);
    if (!content) {
        return failure(400, "Bad request", "The body is not a JSON object.");
    }
    if (pullRequest.state != "OPEN") {
        return failure(400, "You can't " + std::string(merge ? "merge" : "decline") +
                                " a pull request that is " +
                                (pullRequest.state == "MERGED" ? "merged." : "declined."));
    }
    if (merge) {
        const std::string strategy =
            stringMember(*content, {"merge_strategy"}).value_or("merge_commit");
        if (strategy != "merge_commit" && strategy != "squash" && strategy != "fast_forward") {
            return failure(400, "merge_strategy: '" + strategy + "' is not a merge strategy.");
        }
        if (pullRequest.conflicted) {
            return failure(400, "You can't merge until you resolve all merge conflicts.");
        }
        pullRequest.state = "MERGED";
        pullRequest.mergeCommit = hexDigits(seedOf(pullRequest.title) + nextSerial_++, 12);
    } else {
        pullRequest.state = "DECLINED";
    }
    pullRequest.closedBy = kViewer;
    pullRequest.updated = now();
    return answerWith(pullRequestModel(site, repository, pullRequest));
}

fake::Response SampleBitbucket::State::createRepository(const fake::Request& request,
                                                        const Site& site,
                                                        const std::string& workspaceSlug,
                                                        const std::string& slug) {
    const Workspace* home = workspace(workspaceSlug);
    if (home == nullptr || home->role == kNoRole) {
        return failure(404, "No workspace with identifier '" + workspaceSlug + "'.");
    }
    if (!home->mayCreate) {
        return failure(403,
                       "You do not have permission to create repositories in " + home->name + ".");
    }
    const auto content = bodyObject(request);
    if (!content) {
        return failure(400, "Bad request", "The body is not a JSON object.");
    }
    if (repository(home->slug, slug) != nullptr) {
        return failure(400, "Repository with this Slug and Owner already exists.");
    }
    const bool valid = !slug.empty() && std::all_of(slug.begin(), slug.end(), [](char c) {
        return std::islower(static_cast<unsigned char>(c)) ||
               std::isdigit(static_cast<unsigned char>(c)) || c == '-' || c == '_' || c == '.';
    });
    if (!valid) {
        return failure(400, "slug: Only lower-case letters, digits, '-', '_' and '.' are allowed.");
    }
    const std::string scm = stringMember(*content, {"scm"}).value_or("git");
    if (scm != "git") {
        return failure(400, "scm: Mercurial repositories can no longer be created.");
    }
    // Bitbucket takes the privacy flag as a boolean or as its text.
    const json::value* privacy = content->if_contains("is_private");
    const bool isPrivate = privacy == nullptr || (privacy->is_bool() && privacy->get_bool()) ||
                           (privacy->is_string() && privacy->get_string() == "true");
    Repository made;
    made.workspace = home->slug;
    made.slug = slug;
    made.name = stringMember(*content, {"name"}).value_or(slug);
    if (made.name.empty()) {
        made.name = slug;
    }
    made.uuid = uuidOf(seedOf(made.fullName()) + nextSerial_++);
    made.description = stringMember(*content, {"description"}).value_or("");
    made.isPrivate = isPrivate;
    made.role = home->role == kOwner ? kOwner : kCollaborator;
    made.created = now();
    made.updated = made.created;
    repositories_.push_back(std::move(made));
    return answerWith(repositoryModel(site, repositories_.back()));
}

fake::Response SampleBitbucket::State::createPullRequest(const fake::Request& request,
                                                         const Site& site, Repository& repository) {
    const auto content = bodyObject(request);
    if (!content) {
        return failure(400, "Bad request", "The body is not a JSON object.");
    }
    const std::string title = stringMember(*content, {"title"}).value_or("");
    if (title.empty()) {
        return failure(400, "title: This field is required.");
    }
    const std::string branch = stringMember(*content, {"source", "branch", "name"}).value_or("");
    if (branch.empty()) {
        return failure(400, "source: This field is required.");
    }
    std::string source = repository.fullName();
    if (auto named = stringMember(*content, {"source", "repository", "full_name"})) {
        if (this->repository(*named) == nullptr) {
            return failure(400, "source: Repository " + *named + " not found");
        }
        source = *named;
    }
    const std::string destination =
        stringMember(*content, {"destination", "branch", "name"}).value_or("main");
    if (source == repository.fullName() && branch == destination) {
        return failure(400, "There are no changes to be pulled");
    }
    PullRequest made;
    std::int64_t highest = 0;
    for (const PullRequest& existing : repository.pullRequests) {
        highest = std::max(highest, existing.id);
    }
    made.id = highest + 1;
    made.title = title;
    made.description = stringMember(*content, {"description"}).value_or("");
    made.author = kViewer;
    made.created = now();
    made.updated = made.created;
    made.source = source;
    made.sourceBranch = branch;
    made.destinationBranch = destination;
    made.files = 3;
    made.conversationMade = true;  // nothing has happened on it yet
    repository.pullRequests.insert(repository.pullRequests.begin(), std::move(made));
    return answerWith(pullRequestModel(site, repository, repository.pullRequests.front()), 201);
}

// ---- SSH keys: /2.0/users/{user}/ssh-keys[/{key}], where the user is named by her user name,
// her braced uuid or her account id.

fake::Response SampleBitbucket::State::sshKeyRoutes(const fake::Request& request, const Site& site,
                                                    boost::urls::url_view target,
                                                    const std::vector<std::string>& segments) {
    const Person* owner = person(segments[1]);
    if (owner == nullptr) {
        return failure(404, "User " + segments[1] + " not found");
    }
    if (owner->nickname != kViewer) {
        return failure(403, "You may only see and change your own SSH keys.");
    }
    const std::string& method = request.method;
    if (segments.size() == 3 && method == "GET") {
        const std::vector<SshKey>& keys = keys_.keys();
        return listPage(
            site, target, keys.size(),
            [&](std::size_t index) { return json::value(keyModel(site, keys[index])); }, 100);
    }
    if (segments.size() == 3 && method == "POST") {
        const auto content = bodyObject(request);
        const std::string text =
            content ? stringMember(*content, {"key"}).value_or("") : std::string();
        switch (keys_.add(content ? stringMember(*content, {"label"}).value_or("") : "", text)) {
            case KeyRing::Outcome::invalid:
                return failure(400, "key: That is not a valid public SSH key.");
            case KeyRing::Outcome::taken:
                return failure(400, "key: Someone has already added that SSH key.");
            case KeyRing::Outcome::added:
                break;
        }
        return answerWith(keyModel(site, keys_.keys().back()), 201);
    }
    if (segments.size() == 4 && (method == "DELETE" || method == "GET")) {
        // The key by its uuid, with or without the braces.
        const std::string wanted = withoutBraces(segments[3]);
        for (const SshKey& key : keys_.keys()) {
            if (withoutBraces(keyUuid(key)) == wanted) {
                if (method == "GET") {
                    return shaped(keyModel(site, key), target);
                }
                keys_.remove(std::to_string(key.id));
                fake::Response gone;
                gone.status = 204;
                return gone;
            }
        }
        return failure(404, "SSH key " + segments[3] + " not found");
    }
    return failure(404, "Resource not found");
}

fake::Response SampleBitbucket::State::answer(const fake::Request& request) {
    fake::Response response;
    const Site site = Site::of(request);
    auto target = boost::urls::parse_origin_form(request.target);
    std::lock_guard lock(mutex_);
    if (!target) {
        response = failure(400, "Bad request");
    } else if (!site.isApi) {
        // The web host serves the token endpoint only.
        response = target->path() == "/site/oauth2/access_token"
                       ? tokenEndpoint(request)
                       : failure(404, "Resource not found");
    } else if (auto refused = refusal(request)) {
        response = std::move(*refused);
    } else {
        response = api(request, site, *target);
    }
    response.delay = scale_.delay;
    return response;
}

SampleBitbucket::SampleBitbucket(BitbucketScale scale)
    : state_(std::make_unique<State>(scale)), host_(std::make_unique<fake::FakeHost>()) {
    host_->setHandler([state = state_.get()](const fake::Request& request) {
        return std::optional<fake::Response>(state->answer(request));
    });
}

SampleBitbucket::~SampleBitbucket() {
    host_.reset();  // no request may be answered from a state that is going away
}

std::int64_t SampleBitbucket::newestPullRequest() const {
    return state_->newest;
}

std::int64_t SampleBitbucket::forkPullRequest() const {
    return state_->fromFork;
}

std::int64_t SampleBitbucket::conflictPullRequest() const {
    return state_->withConflict;
}

void SampleBitbucket::expireAccessTokens() {
    state_->expireAccessTokens();
}

std::string SampleBitbucket::connectTo() const {
    const std::string route = ":80:127.0.0.1:" + std::to_string(port());
    return "api.bitbucket.test" + route + ",bitbucket.test" + route;
}

}  // namespace vt::sample
