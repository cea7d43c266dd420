#include "samplehosts/sample_gitlab.h"

#include "samplehosts/graphql.h"
#include "samplehosts/sample_data.h"
#include "samplehosts/text.h"

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <boost/url/parse.hpp>
#include <boost/url/url.hpp>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <ctime>
#include <initializer_list>
#include <map>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

namespace vt::sample {

namespace {

namespace json = boost::json;
using graphql::Failure;
using graphql::Field;

constexpr std::string_view kViewer = "ines-moreau";
constexpr std::string_view kMergeRequestProject = "tidewater/tideline";
// The sample's "now": every generated date lies before or around it.
const std::time_t kNow = utcTime(2024, 9, 12, 14, 10);
constexpr std::time_t kDay = 24 * 60 * 60;

// GitLab's access levels (REST "min_access_level").
constexpr int kNoAccess = 0;
constexpr int kDeveloper = 30;
constexpr int kMaintainer = 40;
constexpr int kOwner = 50;

const graphql::Dialect kGitLabGraphQl{.defaultPage = 100,
                                      .refusesLargePages = false,
                                      .emptyCursorStarts = true,
                                      .countField = "count"};

struct PersonSeed {
    std::string_view username;
    std::string_view name;
    bool uploadedAvatar;  // GitLab then gives a server-relative address
};

// The viewer first, then the people who work on the projects.
constexpr PersonSeed kPeople[] = {
    {"ines-moreau", "Inès Moreau", true},        {"yusuf-demir", "Yusuf Demir", false},
    {"hanna-virtanen", "Hanna Virtanen", false}, {"kofi-mensah", "Kofi Mensah", true},
    {"lea-fischer", "Lea Fischer", false},
};

struct GroupSeed {
    std::int64_t id;
    std::string_view path;
    std::string_view name;
};

constexpr GroupSeed kGroups[] = {
    {71, "tidewater", "Tidewater"},
    {72, "harbor-ops", "Harbor Ops"},
    {73, "Quayside", "Quayside"},
};

struct ProjectSeed {
    std::int64_t id;
    std::string_view space;  // the namespace's path
    std::string_view path;
    std::string_view name;
    std::string_view description;  // empty: none
    std::string_view visibility;
    int access;               // the viewer's access level
    std::string_view forkOf;  // full path of the upstream of a fork
    bool archived;
    int stars;
    int forks;
    int daysAgo;  // of the last activity
};

constexpr std::string_view kTidelineDescription = "Tide tables and harbour forecasts as a service.";
constexpr ProjectSeed kProjects[] = {
    {1001, "ines-moreau", "dotfiles", "dotfiles", "Shell and editor settings.", "public", kOwner,
     "", false, 6, 1, 4},
    {1002, "ines-moreau", "field-journal", "Field Journal", "", "private", kOwner, "", false, 0, 0,
     13},
    {1003, "ines-moreau", "tideline", "tideline", kTidelineDescription, "public", kOwner,
     "tidewater/tideline", false, 0, 0, 2},
    {1004, "ines-moreau", "old-homepage", "Old Homepage", "Archived.", "public", kOwner, "", true,
     1, 0, 400},
    {2001, "tidewater", "tideline", "tideline", kTidelineDescription, "public", kMaintainer, "",
     false, 412, 38, 0},
    {2002, "tidewater", "buoy", "Buoy", "Sensor gateway for the harbour buoys.", "internal",
     kMaintainer, "", false, 17, 3, 6},
    {2003, "tidewater", "website", "Website", "tidewater.example", "public", kDeveloper, "", false,
     9, 2, 20},
    {3001, "harbor-ops", "deploy-scripts", "deploy-scripts", "Deployments of the harbour services.",
     "private", kOwner, "", false, 0, 0, 9},
    {3002, "harbor-ops", "runbooks", "Runbooks", "What to do when the tide gauge goes quiet.",
     "internal", kMaintainer, "", false, 4, 1, 31},
    {4001, "Quayside", "charts", "charts", "Helm charts of the Quayside services.", "public",
     kMaintainer, "", false, 23, 11, 17},
    // Forks of the people who open merge requests from them.
    {5001, "yusuf-demir", "tideline", "tideline", kTidelineDescription, "public", kNoAccess,
     "tidewater/tideline", false, 0, 0, 1},
    {5002, "hanna-virtanen", "tideline", "tideline", kTidelineDescription, "public", kNoAccess,
     "tidewater/tideline", false, 0, 0, 3},
};

constexpr std::string_view kTitles[] = {
    "Cache tide predictions per station",    "Add a --since flag to the export",
    "Fix the leap second in the tide clock", "Stream large gauge archives",
    "Document the station plugin API",       "Read buoy data over MQTT",
    "Bump the minimum CMake to 3.25",        "Retry failed uploads with back-off",
    "Speed up the harmonic analysis",        "Show forecasts in the local time zone",
};
constexpr std::string_view kMergeRequestAuthors[] = {"yusuf-demir", "ines-moreau", "hanna-virtanen",
                                                     "kofi-mensah", "lea-fischer"};
constexpr std::pair<std::string_view, std::string_view> kLabels[] = {
    {"feature", "#1f75cb"},      {"bug", "#dc143c"},           {"performance", "#e9be74"},
    {"needs review", "#428bca"}, {"documentation", "#6699cc"}, {"good first issue", "#009966"},
};
constexpr std::string_view kNoteTexts[] = {
    "Looks good to me. Could you add a test for a station without readings?",
    "I ran this against last year's gauge archive: about 15 % faster here.",
    "Nit: `--since` reads oddly next to `--from`. Maybe `--after`?",
    "Rebased on main and fixed the conflict in the station registry.",
    "The pipeline is green now. Waiting for one more approval.",
    "Does this change the cache format? If so it needs a changelog entry.",
    "Addressed the review comments in the last two commits.",
    "Thanks! I'll merge once the docs review app is up.",
};
constexpr std::string_view kReplyTexts[] = {
    "Good point, done.",
    "I'd rather keep it for now and revisit in a follow-up.",
    "Agreed.",
    "Could you say more? I don't see the failure here.",
    "Fixed in the last push.",
};
constexpr std::string_view kCommitTitles[] = {
    "Add a first version of the change",
    "Handle stations without readings",
    "Write the cache atomically",
    "Cover the leap second in the tests",
    "Rename the flag after review",
    "Fix the build on 32-bit targets",
    "Update the changelog",
    "Simplify the station index",
    "Address review comments",
};

// Real public keys (made once with ssh-keygen; see tests/fixtures/keys); their MD5 fingerprints
// are 0d:0f:04:a5:69:9c:18:48:3e:5c:d8:a5:e7:97:9d:04,
// fe:69:d1:fb:8a:ee:49:fa:7b:12:99:2e:d9:ac:8c:75 and
// 4f:b1:38:c1:3f:bf:c3:7e:f1:f0:c4:36:ea:7e:1a:80.
constexpr std::pair<std::string_view, std::string_view> kRealKeys[] = {
    {"heron (laptop)",
     "ssh-ed25519 AAAAC3NzaC1lZDI1NTE5AAAAIHVZiX1ZSS6eihLe0rIgkk9ZSCNeo4UAqzuvx0Zgr7Jj ines@heron"},
    {"workstation",
     "ssh-rsa "
     "AAAAB3NzaC1yc2EAAAADAQABAAABgQC3xwo2nePMxuP/VpPoaBLReuwAgxCK9Tf3YsbH23/5O5D6ci5p5TbUV/"
     "0mymye9FL5bsxL3Xo6u+joxw9AwaDIJsdGts1zIwGnIfbgQzwSJAOFa3nSMF58phqBjcLMtBV22br9GGJCYPbEM/"
     "l3M9x+mmh881Ny1LQYnG43L13IQG60tDg4bD9mSSWKWleMF5bXnqRY0a1D+RdKkcXjV5hHScv3X8mo/"
     "Htgctb7G554KfLIE1KaOkQlr1snNGxQlmr8AOnYMnn4SXcjJ2KxltTkIG2utbxHzReExFZX+TQA/"
     "vEtmdVTBeTGeIiiCbdpoms65bJ0lPSmKnoTGRhe08+"
     "2cnQ0cXbHzvycTNHIJOggftBAt8zkYmNZ4H2qVK3hUb4LRDqMJY8Zj/"
     "SkdaRD3F37f4ePv9q0lnXB6XcHWtIiVmXSqtgTAujdwvTUKofwCuaj+ijcb+"
     "8QWJ1rBlip26lA3M2mEgs3S40iMv16IYyWoY/"
     "QnbenjcvFs4n3yKFWUg8= ines@workstation"},
    {"harbor CI deploy key",
     "ecdsa-sha2-nistp384 "
     "AAAAE2VjZHNhLXNoYTItbmlzdHAzODQAAAAIbmlzdHAzODQAAABhBJuDRCQNDmmCFi/xm8/"
     "L4Fw8VOUiIwailqm0iU/UIUFm7TaWOtixKzALS3MGs0ZJDqNXuiBUkQmSGrQQv3mvfbUxFHCfV13MoUGlEU+"
     "RedCYdJAIElKVzYIL0AjnDaIUJg== deploy@harbor-ci"},
};

// Commit authors GitLab knows no account for.
constexpr std::pair<std::string_view, std::string_view> kStrangers[] = {
    {"Pat Quinlan", "pat@contractor.example"},
    {"Build Robot", "robot@ci.tidewater.example"},
};

std::string gid(std::string_view type, std::int64_t id) {
    return "gid://gitlab/" + std::string(type) + "/" + std::to_string(id);
}

// GitLab's times: GraphQL without fractions, REST with milliseconds.
std::string restTime(std::time_t seconds) {
    std::string text = isoTime(seconds);
    text.insert(text.size() - 1, ".000");
    return text;
}
std::string restCommitTime(std::time_t seconds) {
    std::string text = isoTime(seconds);
    text.pop_back();
    return text + ".000+00:00";
}

std::optional<std::int64_t> integerOf(std::string_view text) {
    std::int64_t number = 0;
    auto [end, fault] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (fault != std::errc() || end != text.data() + text.size() || text.empty()) {
        return std::nullopt;
    }
    return number;
}

// An "iid" argument: GitLab takes it as a string; a number is read too.
std::optional<std::int64_t> iidArgument(const json::object& arguments) {
    const json::value* iid = arguments.if_contains("iid");
    if (iid == nullptr) {
        return std::nullopt;
    }
    if (iid->is_int64()) {
        return iid->get_int64();
    }
    return iid->is_string() ? integerOf(iid->get_string()) : std::nullopt;
}

fake::Response restError(std::string message, int status) {
    return fake::Response::json(json::serialize(json::object{{"message", std::move(message)}}),
                                status);
}

// GitLab's validation answer: {"message": {"field": ["problem", ...]}}.
fake::Response validationError(std::string_view field, std::string problem) {
    json::object message{{field, json::array{json::value(std::move(problem))}}};
    return fake::Response::json(json::serialize(json::object{{"message", std::move(message)}}),
                                400);
}

// Where the request was sent: the web address the answers name.
struct Site {
    std::string web;      // "http://gitlab.test"
    std::string sshHost;  // "gitlab.test"

    static Site of(const fake::Request& request) {
        const std::string host = request.header("Host").value_or("gitlab.test");
        return Site{"http://" + host, host.substr(0, host.find(':'))};
    }
};

struct Note {
    std::int64_t id = 0;
    std::string author;
    std::time_t created = 0;
    std::string body;
    std::string systemIcon;  // non-empty for a system note ("commit", "label")
};

struct Discussion {
    std::string replyId;
    std::vector<Note> notes;
};

struct Commit {
    std::string sha;
    std::string author;  // username; empty when GitLab knows no account for the address
    std::string authorName;
    std::string authorEmail;
    std::time_t committed = 0;
    std::string title;
    std::vector<std::string> parents;
};

struct MergeRequest {
    std::int64_t iid = 0;
    std::int64_t id = 0;
    std::string title;
    std::string author;
    std::time_t created = 0;
    std::string target;
    std::string source;
    std::string sourceProject;  // full path
    std::string state = "opened";
    bool mergeable = true;
    std::string description;
    int seed = 0;
    bool conversationMade = false;
    std::vector<std::string> assignees;
    std::vector<std::pair<std::string, std::string>> labels;
    std::vector<Discussion> discussions;
    std::vector<Commit> commits;  // oldest first, as the branch grew
};

struct Project {
    std::int64_t id = 0;
    std::string space;
    std::string path;
    std::string name;
    std::string description;
    std::string visibility;
    int access = kNoAccess;
    std::string forkOf;
    bool archived = false;
    int stars = 0;
    int forks = 0;
    std::time_t lastActivity = 0;
    std::vector<MergeRequest> mergeRequests;  // newest first

    std::string fullPath() const { return space + "/" + path; }
};

struct IssuedToken {
    std::time_t created = 0;
    std::int64_t lifetime = 0;
    bool revoked = false;
};

// What the Authorization header's token is to the sample.
enum class Credential { valid, expired, revoked, unknown };

}  // namespace

struct SampleGitLab::State {
    explicit State(const GitLabScale& scale);

    fake::Response answer(const fake::Request& request);
    json::object issue(std::time_t created, std::int64_t lifetime);

    std::int64_t newest = 0;
    std::int64_t fromFork = 0;
    std::size_t granted = 0;
    std::size_t refused = 0;
    std::mutex mutex;

private:
    Credential credential(const fake::Request& request) const;
    fake::Response token(const fake::Request& request);
    fake::Response graphQl(const fake::Request& request, const Site& site);
    fake::Response rest(const fake::Request& request, const Site& site,
                        boost::urls::url_view target);
    fake::Response projects(const Site& site, boost::urls::url_view target);
    fake::Response createProject(const fake::Request& request, const Site& site);
    fake::Response createMergeRequest(const fake::Request& request, const Site& site,
                                      Project& source);
    fake::Response commits(const Site& site, boost::urls::url_view target, MergeRequest& request);
    fake::Response sshKeys(const Site& site, boost::urls::url_view target);
    fake::Response addSshKey(const fake::Request& request);
    fake::Response deleteSshKey(std::string_view id);

    std::optional<graphql::Built> lookup(const Site& site, const json::object& parent,
                                         const Field& field, std::optional<Failure>& failure);
    std::optional<graphql::Built> mutate(const Site& site, const Field& field,
                                         std::optional<Failure>& failure);

    // GraphQL models.
    json::object userModel(const Site& site, std::string_view username) const;
    json::object viewerModel(const Site& site) const;
    json::object projectModel(const Site& site, const Project& project) const;
    json::object mergeRequestModel(const Site& site, const Project& project,
                                   const MergeRequest& request) const;
    json::object discussionModel(const Site& site, const Discussion& discussion) const;
    json::object noteModel(const Site& site, const Note& note) const;
    // REST objects.
    json::object restUser(const Site& site) const;
    json::object restProject(const Site& site, const Project& project) const;
    json::object restNamespace(const Site& site, std::string_view path) const;
    json::object restKey(const SshKey& key) const;

    std::string avatarOf(std::string_view username) const;
    std::string personName(std::string_view username) const;
    void makeConversation(MergeRequest& request) const;
    Project* project(std::string_view fullPathOrId);
    Project* projectWithId(std::int64_t id);
    bool isVisible(const Project& project) const;
    MergeRequest* mergeRequest(Project& project, std::int64_t iid);
    std::pair<Project*, MergeRequest*> mergeRequestWithGid(std::string_view id);
    // The note with that global id, its discussion and merge request.
    struct NotePlace {
        MergeRequest* request = nullptr;
        Discussion* discussion = nullptr;
        Note* note = nullptr;
    };
    NotePlace noteWithGid(std::string_view id);
    std::int64_t nextNoteId(const MergeRequest& request) const;
    // The open merge request on `target` from `branch` of `source` (a full path), if any.
    const MergeRequest* openFrom(const Project& target, std::string_view source,
                                 std::string_view branch) const;
    static std::string alreadyOpen(const MergeRequest& open);
    // A new merge request by the viewer, first in the target's list.
    MergeRequest& openMergeRequest(Project& target, std::string source, std::string branch,
                                   std::string targetBranch, std::string title,
                                   std::string description);

    GitLabScale scale_;
    std::vector<Project> projects_;
    KeyRing keys_;
    std::int64_t nextProjectId_ = 9001;
    std::int64_t nextMergeRequestId_ = 880000;
    std::map<std::string, IssuedToken, std::less<>> accessTokens_;
    struct RefreshToken {
        std::string access;  // the access token issued with it
        bool used = false;
    };
    std::map<std::string, RefreshToken, std::less<>> refreshTokens_;
    std::uint64_t tokenSerial_ = 0;
};

SampleGitLab::State::State(const GitLabScale& scale)
    : scale_(scale),
      keys_(scale.sshKeys, KeyRing::Seed{.realKeys = kRealKeys,
                                         .madeUpTitle = "runner ",
                                         .madeUpComment = "runner@harbor-ci",
                                         .firstId = 5120,
                                         .newest = kNow - 83 * kDay,
                                         .daysApart = 83}) {
    for (std::size_t index = 0; index < std::size(kProjects); ++index) {
        const ProjectSeed& seed = kProjects[index];
        Project project;
        project.id = seed.id;
        project.space = seed.space;
        project.path = seed.path;
        project.name = seed.name;
        project.description = seed.description;
        project.visibility = seed.visibility;
        project.access = seed.access;
        project.forkOf = seed.forkOf;
        project.archived = seed.archived;
        project.stars = seed.stars;
        project.forks = seed.forks;
        project.lastActivity =
            kNow - seed.daysAgo * kDay - static_cast<std::time_t>(index) * 5 * 60 * 60 - 1234;
        projects_.push_back(std::move(project));
    }

    Project& tideline = *project(kMergeRequestProject);
    const int count = std::max(0, scale.mergeRequests);
    for (int index = 0; index < count; ++index) {
        MergeRequest request;
        // Newest first; the gaps are merge requests that were merged or closed.
        request.iid = 200 + 2 * (count - 1 - index) + index % 2;
        request.id = 770000 + request.iid;
        const std::size_t titles = std::size(kTitles);
        request.title = std::string(kTitles[static_cast<std::size_t>(index) % titles]);
        std::string branch = branchOf(request.title);
        if (static_cast<std::size_t>(index) >= titles) {
            request.title += ", part " + std::to_string(index / titles + 1);
            branch += "-" + std::to_string(index / titles + 1);
        }
        request.author =
            kMergeRequestAuthors[static_cast<std::size_t>(index) % std::size(kMergeRequestAuthors)];
        request.created = kNow - (index + 1) * 31 * 60 * 60 - index * 7 * 60 - (index * 37) % 60;
        request.target = "main";
        request.source = branch;
        request.sourceProject = tideline.fullPath();
        // Those who have a fork send every third merge request from it.
        const std::string fork = request.author + "/tideline";
        if (index % 3 == 0 && request.author != kViewer && project(fork) != nullptr) {
            request.sourceProject = fork;
        }
        request.mergeable = index % 5 != 3;
        request.description = request.title +
                              ".\n\nThe station registry keeps its interface; the archives in "
                              "`tests/data` pass unchanged.\n\nCloses #" +
                              std::to_string(request.iid - 57) + ".";
        request.seed = index;
        if (index == 0) {
            newest = request.iid;
        }
        if (fromFork == 0 && request.sourceProject != tideline.fullPath()) {
            fromFork = request.iid;
        }
        tideline.mergeRequests.push_back(std::move(request));
    }
}

// ---- Lookups

Project* SampleGitLab::State::project(std::string_view fullPathOrId) {
    const std::optional<std::int64_t> id = integerOf(fullPathOrId);
    for (Project& project : projects_) {
        if (id ? project.id == *id : project.fullPath() == fullPathOrId) {
            return &project;
        }
    }
    return nullptr;
}

Project* SampleGitLab::State::projectWithId(std::int64_t id) {
    return project(std::to_string(id));
}

bool SampleGitLab::State::isVisible(const Project& project) const {
    return project.access > kNoAccess || project.visibility != "private";
}

MergeRequest* SampleGitLab::State::mergeRequest(Project& project, std::int64_t iid) {
    for (MergeRequest& request : project.mergeRequests) {
        if (request.iid == iid) {
            return &request;
        }
    }
    return nullptr;
}

std::pair<Project*, MergeRequest*> SampleGitLab::State::mergeRequestWithGid(std::string_view id) {
    for (Project& project : projects_) {
        for (MergeRequest& request : project.mergeRequests) {
            if (gid("MergeRequest", request.id) == id) {
                return {&project, &request};
            }
        }
    }
    return {nullptr, nullptr};
}

SampleGitLab::State::NotePlace SampleGitLab::State::noteWithGid(std::string_view id) {
    for (Project& project : projects_) {
        for (MergeRequest& request : project.mergeRequests) {
            for (Discussion& discussion : request.discussions) {
                for (Note& note : discussion.notes) {
                    if (gid("Note", note.id) == id) {
                        return {&request, &discussion, &note};
                    }
                }
            }
        }
    }
    return {};
}

std::int64_t SampleGitLab::State::nextNoteId(const MergeRequest& request) const {
    std::int64_t largest = request.iid * 100000;
    for (const Discussion& discussion : request.discussions) {
        for (const Note& note : discussion.notes) {
            largest = std::max(largest, note.id);
        }
    }
    return largest + 1;
}

const MergeRequest* SampleGitLab::State::openFrom(const Project& target, std::string_view source,
                                                  std::string_view branch) const {
    for (const MergeRequest& open : target.mergeRequests) {
        if (open.state == "opened" && open.source == branch && open.sourceProject == source) {
            return &open;
        }
    }
    return nullptr;
}

std::string SampleGitLab::State::alreadyOpen(const MergeRequest& open) {
    return "Another open merge request already exists for this source branch: !" +
           std::to_string(open.iid);
}

MergeRequest& SampleGitLab::State::openMergeRequest(Project& target, std::string source,
                                                    std::string branch, std::string targetBranch,
                                                    std::string title, std::string description) {
    MergeRequest made;
    for (const MergeRequest& existing : target.mergeRequests) {
        made.iid = std::max(made.iid, existing.iid);
    }
    ++made.iid;
    made.id = nextMergeRequestId_++;
    made.title = std::move(title);
    made.author = kViewer;
    made.created = std::time(nullptr);
    made.target = std::move(targetBranch);
    made.source = std::move(branch);
    made.sourceProject = std::move(source);
    made.description = std::move(description);
    made.conversationMade = true;  // nothing has happened on it yet
    return *target.mergeRequests.insert(target.mergeRequests.begin(), std::move(made));
}

std::string SampleGitLab::State::avatarOf(std::string_view username) const {
    for (std::size_t index = 0; index < std::size(kPeople); ++index) {
        if (kPeople[index].username == username && kPeople[index].uploadedAvatar) {
            return "/uploads/-/system/user/avatar/" + std::to_string(3141 + index) + "/avatar.png";
        }
    }
    return "https://secure.gravatar.com/avatar/" + hexDigits(seedOf(username), 32) +
           "?s=80&d=identicon";
}

std::string SampleGitLab::State::personName(std::string_view username) const {
    for (const PersonSeed& person : kPeople) {
        if (person.username == username) {
            return std::string(person.name);
        }
    }
    return std::string(username);
}

// A merge request's conversation: assignees, labels, and discussions and commits spread over
// four days after it was opened. Discussions are single comments, threads with replies (one
// long one), and system notes; commits come in runs by one author, some by people GitLab knows
// no account for, and one merge commit of the target branch.
void SampleGitLab::State::makeConversation(MergeRequest& request) const {
    if (std::exchange(request.conversationMade, true)) {
        return;
    }
    const int seed = request.seed;
    std::vector<std::string_view> usernames;
    for (const PersonSeed& person : kPeople) {
        usernames.push_back(person.username);
    }
    request.assignees = assigneesOf(scale_.assignees, usernames, seed);
    request.labels = labelsOf(scale_.labels, kLabels, seed, "area::tides-", "#");
    const std::vector<std::string> people =
        participantsOf(request.author, kViewer, usernames, seed);
    const int discussions = std::max(0, scale_.discussions);
    const int commits = std::max(0, scale_.commits);
    const int items = discussions + commits;
    const std::time_t step = items > 0 ? 4 * kDay / (items + 1) : 0;
    std::int64_t noteId = request.iid * 100000;
    int discussion = 0;
    int commit = 0;
    const int mergeCommit = commits >= 3 ? commits - 2 : -1;
    for (int item = 0; item < items; ++item) {
        const std::time_t moment = request.created + (item + 1) * step;
        // Discussions fall evenly among the commits.
        if (isCommentAt(item, discussions, items)) {
            const int kind = discussion % 7;
            Discussion made;
            made.replyId =
                "gid://gitlab/Discussion/" + hexDigits(seedOf(std::to_string(request.id)) +
                                                           static_cast<std::uint64_t>(discussion),
                                                       40);
            const std::string& speaker =
                people[static_cast<std::size_t>(discussion + 1) % people.size()];
            if (kind == 2 || kind == 5) {
                made.notes.push_back(Note{++noteId, people[0], moment,
                                          kind == 2 ? "added 2 commits" : "added ~feature label",
                                          kind == 2 ? "commit" : "label"});
            } else {
                made.notes.push_back(
                    Note{++noteId, speaker, moment,
                         std::string(kNoteTexts[static_cast<std::size_t>(seed + discussion) %
                                                std::size(kNoteTexts)]),
                         ""});
                int replies = kind == 0 ? 1 + (seed + discussion) % 3 : 0;
                if (discussion == 3 && scale_.longThread >= 2) {
                    replies = scale_.longThread - 1;
                }
                for (int reply = 0; reply < replies; ++reply) {
                    made.notes.push_back(Note{
                        ++noteId,
                        people[static_cast<std::size_t>(discussion + reply + 2) % people.size()],
                        moment + (reply + 1) * 4 * 60,
                        std::string(kReplyTexts[static_cast<std::size_t>(reply + seed) %
                                                std::size(kReplyTexts)]),
                        ""});
                }
            }
            request.discussions.push_back(std::move(made));
            ++discussion;
            continue;
        }
        Commit made;
        made.sha = hexDigits(
            static_cast<std::uint64_t>(request.iid) * 100003 + static_cast<std::uint64_t>(commit),
            40);
        made.committed = moment;
        if (!request.commits.empty()) {
            made.parents.push_back(request.commits.back().sha);
        }
        if (commit == mergeCommit) {
            made.author = std::string(kViewer);
            made.title = "Merge branch 'main' into '" + request.source + "'";
            made.parents.push_back(
                hexDigits(seedOf("main") + static_cast<std::uint64_t>(seed), 40));
        } else {
            made.author = commitAuthorOf(commit, people);
            made.title = std::string(
                kCommitTitles[static_cast<std::size_t>(seed + commit) % std::size(kCommitTitles)]);
        }
        if (commit % 11 == 7 && commit != mergeCommit) {
            const auto& [name, email] = kStrangers[static_cast<std::size_t>(commit / 11) % 2];
            made.author.clear();
            made.authorName = name;
            made.authorEmail = email;
        } else {
            made.authorName = personName(made.author);
            made.authorEmail = made.author + "@users.noreply.gitlab.test";
        }
        request.commits.push_back(std::move(made));
        ++commit;
    }
}

// ---- GraphQL models

json::object SampleGitLab::State::userModel(const Site& site, std::string_view username) const {
    std::int64_t id = 4000 + static_cast<std::int64_t>(seedOf(username) % 5000);
    for (std::size_t index = 0; index < std::size(kPeople); ++index) {
        if (kPeople[index].username == username) {
            id = 3141 + static_cast<std::int64_t>(index);
        }
    }
    return json::object{{"__typename", "UserCore"},
                        {"id", gid("User", id)},
                        {"username", username},
                        {"name", personName(username)},
                        {"avatarUrl", avatarOf(username)},
                        {"webUrl", site.web + "/" + std::string(username)},
                        {"state", "active"}};
}

json::object SampleGitLab::State::viewerModel(const Site& site) const {
    json::object viewer = userModel(site, kViewer);
    viewer["__typename"] = "CurrentUser";
    json::array memberships;
    for (const GroupSeed& group : kGroups) {
        memberships.push_back(
            json::object{{"__typename", "GroupMember"},
                         {"id", gid("GroupMember", 900 + group.id)},
                         {"group",
                          {{"__typename", "Group"},
                           {"id", gid("Group", group.id)},
                           {"path", group.path},
                           {"fullPath", group.path},
                           {"name", group.name},
                           {"webUrl", site.web + "/groups/" + std::string(group.path)}}}});
    }
    viewer["groupMemberships"] = std::move(memberships);
    return viewer;
}

json::object SampleGitLab::State::projectModel(const Site& site, const Project& project) const {
    return json::object{
        {"__typename", "Project"},
        {"id", gid("Project", project.id)},
        {"fullPath", project.fullPath()},
        {"path", project.path},
        {"name", project.name},
        {"description",
         project.description.empty() ? json::value(nullptr) : json::value(project.description)},
        {"visibility", project.visibility},
        {"archived", project.archived},
        {"starCount", project.stars},
        {"forksCount", project.forks},
        {"webUrl", site.web + "/" + project.fullPath()},
        {"sshUrlToRepo", "git@" + site.sshHost + ":" + project.fullPath() + ".git"},
        {"httpUrlToRepo", site.web + "/" + project.fullPath() + ".git"},
    };
}

json::object SampleGitLab::State::mergeRequestModel(const Site& site, const Project& project,
                                                    const MergeRequest& request) const {
    json::value source = nullptr;
    for (const Project& candidate : projects_) {
        if (candidate.fullPath() == request.sourceProject) {
            source = projectModel(site, candidate);
        }
    }
    // The viewer maintains the project: she may change and merge any of its merge requests.
    const bool open = request.state == "opened";
    const bool maintainer = project.access >= kMaintainer;
    return json::object{
        {"__typename", "MergeRequest"},
        {"__project", project.fullPath()},
        {"id", gid("MergeRequest", request.id)},
        {"iid", std::to_string(request.iid)},
        {"title", request.title},
        {"description", request.description},
        {"state", request.state},
        {"draft", false},
        {"createdAt", isoTime(request.created)},
        {"webUrl",
         site.web + "/" + project.fullPath() + "/-/merge_requests/" + std::to_string(request.iid)},
        {"author", userModel(site, request.author)},
        {"targetBranch", request.target},
        {"sourceBranch", request.source},
        {"sourceProject", std::move(source)},
        {"targetProject", projectModel(site, project)},
        {"mergeable", open && request.mergeable},
        {"conflicts", !request.mergeable},
        {"userPermissions",
         {{"__typename", "MergeRequestPermissions"},
          {"updateMergeRequest", maintainer || request.author == kViewer},
          {"adminMergeRequest", maintainer},
          {"canMerge", maintainer && open},
          {"createNote", true},
          {"readMergeRequest", true}}},
    };
}

json::object SampleGitLab::State::noteModel(const Site& site, const Note& note) const {
    const bool own = note.author == kViewer;
    return json::object{
        {"__typename", "Note"},
        {"id", gid("Note", note.id)},
        {"author", userModel(site, note.author)},
        {"body", note.body},
        {"createdAt", isoTime(note.created)},
        {"updatedAt", isoTime(note.created)},
        {"system", !note.systemIcon.empty()},
        {"systemNoteIconName",
         note.systemIcon.empty() ? json::value(nullptr) : json::value(note.systemIcon)},
        {"userPermissions",
         {{"__typename", "NotePermissions"},
          {"adminNote", own && note.systemIcon.empty()},
          {"createNote", note.systemIcon.empty()},
          {"readNote", true},
          {"resolveNote", note.systemIcon.empty()}}},
    };
}

json::object SampleGitLab::State::discussionModel(const Site& site,
                                                  const Discussion& discussion) const {
    json::array notes;
    for (const Note& note : discussion.notes) {
        notes.push_back(noteModel(site, note));
    }
    const std::string& replyId = discussion.replyId;
    return json::object{{"__typename", "Discussion"},
                        {"id", replyId},
                        {"replyId", replyId},
                        {"createdAt", discussion.notes.empty()
                                          ? json::value(nullptr)
                                          : json::value(isoTime(discussion.notes.front().created))},
                        {"resolvable", discussion.notes.size() > 1},
                        {"notes", std::move(notes)}};
}

// ---- GraphQL

std::optional<graphql::Built> SampleGitLab::State::lookup(const Site& site,
                                                          const json::object& parent,
                                                          const Field& field,
                                                          std::optional<Failure>& failure) {
    const std::string type = graphql::typeOf(parent);
    const json::object& arguments = field.arguments;
    if (type == "Mutation") {
        return mutate(site, field, failure);
    }
    if (type == "Query") {
        if (field.name == "currentUser") {
            return json::value(viewerModel(site));
        }
        if (field.name == "project") {
            // An unknown project, or one the user may not see, is null without an error.
            Project* found = project(stringArgument(arguments, "fullPath").value_or(""));
            return found != nullptr && isVisible(*found) ? json::value(projectModel(site, *found))
                                                         : json::value(nullptr);
        }
        return std::nullopt;
    }
    if (type == "Project") {
        Project* found = project(std::string(parent.at("fullPath").as_string()));
        if (found == nullptr) {
            return std::nullopt;
        }
        if (field.name == "mergeRequests") {
            // state: opened, closed, merged, all; sort: CREATED_DESC (the default), CREATED_ASC.
            const std::string state = stringArgument(arguments, "state").value_or("all");
            std::vector<const MergeRequest*> listed;
            for (const MergeRequest& request : found->mergeRequests) {
                if (state == "all" || state == request.state) {
                    listed.push_back(&request);
                }
            }
            if (stringArgument(arguments, "sort").value_or("") == "CREATED_ASC") {
                std::reverse(listed.begin(), listed.end());
            }
            // Only the page that is shown is built.
            return graphql::LazyList{
                listed.size(), [this, &site, found, listed = std::move(listed)](std::size_t index) {
                    return json::value(mergeRequestModel(site, *found, *listed[index]));
                }};
        }
        if (field.name == "mergeRequest") {
            const std::optional<std::int64_t> iid = iidArgument(arguments);
            MergeRequest* request = iid ? mergeRequest(*found, *iid) : nullptr;
            return request != nullptr ? json::value(mergeRequestModel(site, *found, *request))
                                      : json::value(nullptr);
        }
        return std::nullopt;
    }
    if (type != "MergeRequest") {
        return std::nullopt;
    }
    Project* holder = project(std::string(parent.at("__project").as_string()));
    const auto iid = integerOf(parent.at("iid").as_string());
    MergeRequest* request = holder != nullptr && iid ? mergeRequest(*holder, *iid) : nullptr;
    if (request == nullptr) {
        return std::nullopt;
    }
    // The conversation's lists are built only when asked for, and only the page shown.
    makeConversation(*request);
    if (field.name == "assignees" || field.name == "reviewers") {
        const std::vector<std::string>* people = &request->assignees;
        static const std::vector<std::string> kNobody;
        if (field.name == "reviewers") {
            people = &kNobody;
        }
        return graphql::LazyList{people->size(), [this, &site, people](std::size_t index) {
                                     return json::value(userModel(site, (*people)[index]));
                                 }};
    }
    if (field.name == "labels") {
        return graphql::LazyList{request->labels.size(), [request](std::size_t index) {
                                     const auto& [title, color] = request->labels[index];
                                     return json::value(json::object{{"__typename", "Label"},
                                                                     {"title", title},
                                                                     {"color", color},
                                                                     {"textColor", "#FFFFFF"}});
                                 }};
    }
    if (field.name == "discussions") {
        return graphql::LazyList{
            request->discussions.size(), [this, &site, request](std::size_t index) {
                return json::value(discussionModel(site, request->discussions[index]));
            }};
    }
    if (field.name == "commitsWithoutMergeCommits" || field.name == "commits") {
        std::vector<const Commit*> listed;
        // Newest first, as GitLab lists a branch's commits.
        for (auto commit = request->commits.rbegin(); commit != request->commits.rend(); ++commit) {
            if (field.name == "commits" || commit->parents.size() < 2) {
                listed.push_back(&*commit);
            }
        }
        return graphql::LazyList{
            listed.size(), [this, &site, listed = std::move(listed)](std::size_t index) {
                const Commit& commit = *listed[index];
                return json::value(json::object{
                    {"__typename", "Commit"},
                    {"id", gid("CommitPresenter", static_cast<std::int64_t>(index))},
                    {"sha", commit.sha},
                    {"shortId", commit.sha.substr(0, 8)},
                    {"title", commit.title},
                    {"authoredDate", isoTime(commit.committed)},
                    {"author", commit.author.empty() ? json::value(nullptr)
                                                     : json::value(userModel(site, commit.author))},
                    {"authorName", commit.authorName},
                    {"authorEmail", commit.authorEmail},
                    {"authorGravatar", "https://secure.gravatar.com/avatar/" +
                                           hexDigits(seedOf(commit.authorEmail), 32) +
                                           "?s=80&d=identicon"},
                    {"webUrl", site.web + "/" + std::string(kMergeRequestProject) + "/-/commit/" +
                                   commit.sha}});
            }};
    }
    return std::nullopt;
}

// The mutations the client sends. Each keeps its change, so that the next query shows it.
// Refusals GitLab reports in the payload ("errors": [...]) are reported there; what it cannot
// find is a GraphQL error.
std::optional<graphql::Built> SampleGitLab::State::mutate(const Site& site, const Field& field,
                                                          std::optional<Failure>& failure) {
    const json::object& input = graphql::inputOf(field);
    auto text = [&input](std::string_view name) {
        return stringArgument(input, name).value_or("");
    };
    auto unavailable = [&failure] {
        failure = Failure{"RESOURCE_NOT_AVAILABLE",
                          "The resource that you are attempting to access does not exist or you "
                          "don't have permission to perform this action"};
        return json::value(nullptr);
    };
    auto payload = [](json::array errors, json::object members = {}) {
        members["__typename"] = "Payload";
        members["clientMutationId"] = nullptr;
        members["errors"] = std::move(errors);
        return json::value(std::move(members));
    };
    const std::string& name = field.name;

    if (name == "createNote") {
        auto [holder, request] = mergeRequestWithGid(text("noteableId"));
        if (request == nullptr) {
            return unavailable();
        }
        makeConversation(*request);
        if (text("body").empty()) {
            return payload({"Note can't be blank"}, {{"note", nullptr}});
        }
        Note note{nextNoteId(*request), std::string(kViewer), std::time(nullptr), text("body"), ""};
        Discussion* into = nullptr;
        if (input.contains("discussionId")) {
            for (Discussion& discussion : request->discussions) {
                into = discussion.replyId == text("discussionId") ? &discussion : into;
            }
            if (into == nullptr) {
                return unavailable();
            }
        } else {
            request->discussions.push_back(
                Discussion{"gid://gitlab/Discussion/" +
                               hexDigits(seedOf("new") + static_cast<std::uint64_t>(note.id), 40),
                           {}});
            into = &request->discussions.back();
        }
        into->notes.push_back(note);
        return payload({}, {{"note", noteModel(site, into->notes.back())}});
    }
    if (name == "updateNote" || name == "destroyNote") {
        NotePlace place = noteWithGid(text("id"));
        if (place.note == nullptr || place.note->author != kViewer) {
            return unavailable();
        }
        if (name == "updateNote") {
            if (text("body").empty()) {
                return payload({"Note can't be blank"}, {{"note", nullptr}});
            }
            place.note->body = text("body");
            return payload({}, {{"note", noteModel(site, *place.note)}});
        }
        place.discussion->notes.erase(place.discussion->notes.begin() +
                                      (place.note - place.discussion->notes.data()));
        if (place.discussion->notes.empty()) {
            auto& discussions = place.request->discussions;
            discussions.erase(discussions.begin() + (place.discussion - discussions.data()));
        }
        return payload({}, {{"note", nullptr}});
    }
    if (name == "mergeRequestCreate") {
        Project* target = project(text("projectPath"));
        if (target == nullptr || target->access < kDeveloper) {
            return unavailable();
        }
        json::array errors;
        if (text("title").empty()) {
            errors.emplace_back("Title can't be blank");
        }
        if (text("sourceBranch").empty() || text("sourceBranch") == text("targetBranch")) {
            errors.emplace_back(
                "Validate branches You can't use same project/branch for source "
                "and target");
        }
        if (const MergeRequest* open =
                openFrom(*target, target->fullPath(), text("sourceBranch"))) {
            errors.emplace_back("Validate branches " + alreadyOpen(*open));
        }
        if (!errors.empty()) {
            return payload(std::move(errors), {{"mergeRequest", nullptr}});
        }
        const MergeRequest& made =
            openMergeRequest(*target, target->fullPath(), text("sourceBranch"),
                             text("targetBranch"), text("title"), text("description"));
        return payload({}, {{"mergeRequest", mergeRequestModel(site, *target, made)}});
    }
    if (name == "mergeRequestUpdate" || name == "mergeRequestAccept") {
        Project* holder = project(text("projectPath"));
        const auto iid = integerOf(text("iid"));
        MergeRequest* request = holder != nullptr && iid ? mergeRequest(*holder, *iid) : nullptr;
        if (request == nullptr || holder->access < kDeveloper) {
            return unavailable();
        }
        makeConversation(*request);
        if (name == "mergeRequestUpdate") {
            if (input.contains("description")) {
                request->description = text("description");
            }
            if (input.contains("title")) {
                request->title = text("title");
            }
            if (text("state") == "CLOSED" && request->state == "opened") {
                request->state = "closed";
            } else if (text("state") == "OPEN" && request->state == "closed") {
                request->state = "opened";
            }
            return payload({}, {{"mergeRequest", mergeRequestModel(site, *holder, *request)}});
        }
        json::array errors;
        const std::string head = request->commits.empty() ? "" : request->commits.back().sha;
        if (request->state != "opened") {
            errors.emplace_back("Only open merge requests can be merged");
        } else if (!request->mergeable) {
            errors.emplace_back("Merge request is not mergeable");
        } else if (text("sha") != head) {
            errors.emplace_back("SHA does not match HEAD of source branch: " + head);
        }
        if (!errors.empty()) {
            return payload(std::move(errors), {{"mergeRequest", nullptr}});
        }
        request->state = "merged";
        return payload({}, {{"mergeRequest", mergeRequestModel(site, *holder, *request)}});
    }
    return std::nullopt;
}

fake::Response SampleGitLab::State::graphQl(const fake::Request& request, const Site& site) {
    const auto answer = graphql::answerRequest(
        request.body,
        [this, &site](const json::object& parent, const Field& field,
                      std::optional<Failure>& failure) {
            return lookup(site, parent, field, failure);
        },
        kGitLabGraphQl);
    return answer ? fake::Response::json(json::serialize(*answer))
                  : fake::Response::json(
                        R"({"errors":[{"message":"No query string was present"}]})", 400);
}

// ---- REST

json::object SampleGitLab::State::restNamespace(const Site& site, std::string_view path) const {
    for (const GroupSeed& group : kGroups) {
        if (group.path == path) {
            return json::object{
                {"id", group.id},
                {"name", group.name},
                {"path", group.path},
                {"kind", "group"},
                {"full_path", group.path},
                {"parent_id", nullptr},
                // Uploaded avatars come as server-relative paths.
                {"avatar_url", "/uploads/-/system/group/avatar/" + std::to_string(group.id) + "/" +
                                   std::string(group.path) + ".png"},
                {"web_url", site.web + "/groups/" + std::string(group.path)}};
        }
    }
    return json::object{{"id", 3000 + static_cast<std::int64_t>(seedOf(path) % 1000)},
                        {"name", personName(path)},
                        {"path", path},
                        {"kind", "user"},
                        {"full_path", path},
                        {"parent_id", nullptr},
                        {"avatar_url", avatarOf(path)},
                        {"web_url", site.web + "/" + std::string(path)}};
}

json::object SampleGitLab::State::restProject(const Site& site, const Project& project) const {
    const std::string web = site.web + "/" + project.fullPath();
    json::object model{
        {"id", project.id},
        {"description",
         project.description.empty() ? json::value(nullptr) : json::value(project.description)},
        {"name", project.name},
        {"name_with_namespace", personName(project.space) + " / " + project.name},
        {"path", project.path},
        {"path_with_namespace", project.fullPath()},
        {"created_at", restTime(project.lastActivity - 300 * kDay)},
        {"default_branch", "main"},
        {"ssh_url_to_repo", "git@" + site.sshHost + ":" + project.fullPath() + ".git"},
        {"http_url_to_repo", web + ".git"},
        {"web_url", web},
        {"visibility", project.visibility},
        {"archived", project.archived},
        {"star_count", project.stars},
        {"forks_count", project.forks},
        {"last_activity_at", restTime(project.lastActivity)},
        {"namespace", restNamespace(site, project.space)},
    };
    if (!project.forkOf.empty()) {
        for (const Project& upstream : projects_) {
            if (upstream.fullPath() == project.forkOf) {
                model["forked_from_project"] = restProject(site, upstream);
            }
        }
    }
    return model;
}

json::object SampleGitLab::State::restUser(const Site& site) const {
    return json::object{{"id", 3141},
                        {"username", kViewer},
                        {"name", personName(kViewer)},
                        {"state", "active"},
                        {"avatar_url", site.web + avatarOf(kViewer)},
                        {"web_url", site.web + "/" + std::string(kViewer)},
                        {"created_at", "2016-02-11T09:14:53.211Z"},
                        {"bio", "Tides, harbours and the software that watches them."},
                        {"location", "Saint-Malo, France"},
                        {"public_email", "ines@tidewater.example"},
                        {"email", "ines@tidewater.example"},
                        {"organization", "Tidewater"},
                        {"job_title", "Maintainer"},
                        {"website_url", "https://ines.example.org"},
                        {"skype", ""},
                        {"linkedin", ""},
                        {"twitter", ""}};
}

json::object SampleGitLab::State::restKey(const SshKey& key) const {
    return json::object{
        {"id", key.id},          {"title", key.title}, {"created_at", restTime(key.created)},
        {"expires_at", nullptr}, {"key", key.key},     {"usage_type", "auth_and_signing"}};
}

fake::Response SampleGitLab::State::projects(const Site& site, boost::urls::url_view target) {
    // GitLab's filters: "min_access_level" lists the projects the user is a member of with at
    // least that level; "archived=false" leaves archived ones out. Newest project first.
    std::optional<int> level;
    std::optional<bool> archived;
    for (const auto& parameter : target.params()) {
        if (parameter.key == "min_access_level") {
            level = static_cast<int>(integerOf(parameter.value).value_or(0));
        } else if (parameter.key == "archived") {
            archived = parameter.value == "true";
        }
    }
    std::vector<const Project*> listed;
    for (const Project& project : projects_) {
        if (isVisible(project) &&
            (!level || (project.access > kNoAccess && project.access >= *level)) &&
            (!archived || project.archived == *archived)) {
            listed.push_back(&project);
        }
    }
    std::sort(listed.begin(), listed.end(),
              [](const Project* left, const Project* right) { return left->id > right->id; });
    const PageRequest page = PageRequest::of(target, 20, 100);
    json::array answer;
    for (std::size_t index = page.first();
         index < listed.size() && index < page.first() + page.perPage; ++index) {
        answer.push_back(restProject(site, *listed[index]));
    }
    fake::Response response = fake::Response::json(json::serialize(answer));
    if (std::string links = linkHeader(site.web, target, page, listed.size(), LinkStyle::gitlab);
        !links.empty()) {
        response.headers.emplace_back("Link", std::move(links));
    }
    response.headers.emplace_back("X-Total", std::to_string(listed.size()));
    return response;
}

fake::Response SampleGitLab::State::createProject(const fake::Request& request, const Site& site) {
    boost::system::error_code fault;
    const json::value content = json::parse(request.body, fault);
    if (fault || !content.is_object()) {
        return restError("400 Bad request - body is not JSON", 400);
    }
    const json::object& body = content.get_object();
    std::string space(kViewer);
    if (const json::value* id = body.if_contains("namespace_id")) {
        std::optional<std::int64_t> number = id->is_int64()
                                                 ? std::optional<std::int64_t>(id->get_int64())
                                             : id->is_string() ? integerOf(id->get_string())
                                                               : std::nullopt;
        space.clear();
        for (const GroupSeed& group : kGroups) {
            space = number && group.id == *number ? std::string(group.path) : space;
        }
        if (space.empty()) {
            return restError("404 Namespace Not Found", 404);
        }
    }
    std::string path = stringArgument(body, "path").value_or("");
    std::string name = stringArgument(body, "name").value_or("");
    if (path.empty()) {
        path = branchOf(name);
    }
    if (name.empty()) {
        name = path;
    }
    if (path.empty()) {
        return validationError("name", "can't be blank");
    }
    if (project(space + "/" + path) != nullptr) {
        return validationError("path", "has already been taken");
    }
    Project made;
    made.id = nextProjectId_++;
    made.space = space;
    made.path = path;
    made.name = name;
    made.description = stringArgument(body, "description").value_or("");
    made.visibility = stringArgument(body, "visibility").value_or("private");
    made.access = space == kViewer ? kOwner : kMaintainer;
    made.lastActivity = std::time(nullptr);
    projects_.push_back(std::move(made));
    return fake::Response::json(json::serialize(restProject(site, projects_.back())), 201);
}

// A merge request opened on the source project (a fork) for a branch of the target project.
fake::Response SampleGitLab::State::createMergeRequest(const fake::Request& request,
                                                       const Site& site, Project& source) {
    boost::system::error_code fault;
    const json::value content = json::parse(request.body, fault);
    if (fault || !content.is_object()) {
        return restError("400 Bad request - body is not JSON", 400);
    }
    const json::object& body = content.get_object();
    const std::string branch = stringArgument(body, "source_branch").value_or("");
    const std::string title = stringArgument(body, "title").value_or("");
    if (branch.empty() || title.empty() || !body.contains("target_branch")) {
        return restError("400 Bad request - source_branch, target_branch, title are missing", 400);
    }
    Project* target = &source;
    if (const json::value* id = body.if_contains("target_project_id")) {
        std::optional<std::int64_t> number = id->is_int64()
                                                 ? std::optional<std::int64_t>(id->get_int64())
                                             : id->is_string() ? integerOf(id->get_string())
                                                               : std::nullopt;
        target = number ? projectWithId(*number) : nullptr;
        if (target == nullptr) {
            return restError("404 Project Not Found", 404);
        }
    }
    if (const MergeRequest* open = openFrom(*target, source.fullPath(), branch)) {
        return fake::Response::json(json::serialize(json::object{
                                        {"message", json::array{json::value(alreadyOpen(*open))}}}),
                                    409);
    }
    const MergeRequest& stored = openMergeRequest(
        *target, source.fullPath(), branch, stringArgument(body, "target_branch").value_or(""),
        title, stringArgument(body, "description").value_or(""));
    return fake::Response::json(
        json::serialize(
            json::object{{"id", stored.id},
                         {"iid", stored.iid},
                         {"project_id", target->id},
                         {"source_project_id", source.id},
                         {"target_project_id", target->id},
                         {"title", stored.title},
                         {"description", stored.description},
                         {"state", stored.state},
                         {"source_branch", stored.source},
                         {"target_branch", stored.target},
                         {"created_at", restTime(stored.created)},
                         {"web_url", site.web + "/" + target->fullPath() + "/-/merge_requests/" +
                                         std::to_string(stored.iid)}}),
        201);
}

fake::Response SampleGitLab::State::commits(const Site& site, boost::urls::url_view target,
                                            MergeRequest& request) {
    makeConversation(request);
    const PageRequest page = PageRequest::of(target, 20, 100);
    json::array answer;
    const std::size_t size = request.commits.size();
    // Newest first, merge commits included.
    for (std::size_t index = page.first(); index < size && index < page.first() + page.perPage;
         ++index) {
        const Commit& commit = request.commits[size - 1 - index];
        json::array parents;
        for (const std::string& parent : commit.parents) {
            parents.emplace_back(parent);
        }
        answer.push_back(json::object{
            {"id", commit.sha},
            {"short_id", commit.sha.substr(0, 8)},
            {"created_at", restCommitTime(commit.committed)},
            {"parent_ids", std::move(parents)},
            {"title", commit.title},
            {"message", commit.title + "\n"},
            {"author_name", commit.authorName},
            {"author_email", commit.authorEmail},
            {"authored_date", restCommitTime(commit.committed - 600)},
            {"committer_name", commit.authorName},
            {"committer_email", commit.authorEmail},
            {"committed_date", restCommitTime(commit.committed)},
            {"trailers", json::object{}},
            {"web_url",
             site.web + "/" + std::string(kMergeRequestProject) + "/-/commit/" + commit.sha}});
    }
    fake::Response response = fake::Response::json(json::serialize(answer));
    if (std::string links = linkHeader(site.web, target, page, size, LinkStyle::gitlab);
        !links.empty()) {
        response.headers.emplace_back("Link", std::move(links));
    }
    return response;
}

fake::Response SampleGitLab::State::sshKeys(const Site& site, boost::urls::url_view target) {
    const PageRequest page = PageRequest::of(target, 20, 100);
    json::array listed;
    const std::vector<SshKey>& keys = keys_.keys();
    for (std::size_t index = page.first();
         index < keys.size() && index < page.first() + page.perPage; ++index) {
        listed.push_back(restKey(keys[index]));
    }
    fake::Response response = fake::Response::json(json::serialize(listed));
    if (std::string links = linkHeader(site.web, target, page, keys.size(), LinkStyle::gitlab);
        !links.empty()) {
        response.headers.emplace_back("Link", std::move(links));
    }
    return response;
}

fake::Response SampleGitLab::State::addSshKey(const fake::Request& request) {
    boost::system::error_code fault;
    const json::value content = json::parse(request.body, fault);
    if (fault || !content.is_object()) {
        return restError("400 Bad request - body is not JSON", 400);
    }
    const std::string key = stringArgument(content.get_object(), "key").value_or("");
    const std::string title = stringArgument(content.get_object(), "title").value_or("");
    if (title.empty()) {
        return validationError("title", "can't be blank");
    }
    switch (keys_.add(title, key)) {
        case KeyRing::Outcome::invalid:
            return validationError("key", "is invalid");
        case KeyRing::Outcome::taken:
            return validationError("key", "has already been taken");
        case KeyRing::Outcome::added:
            break;
    }
    return fake::Response::json(json::serialize(restKey(keys_.keys().back())), 201);
}

fake::Response SampleGitLab::State::deleteSshKey(std::string_view id) {
    if (keys_.remove(id)) {
        fake::Response gone;
        gone.status = 204;
        return gone;
    }
    return restError("404 Key Not Found", 404);
}

fake::Response SampleGitLab::State::rest(const fake::Request& request, const Site& site,
                                         boost::urls::url_view target) {
    // Segments after /api/v4, decoded one by one: a project's path travels as one segment with
    // its slashes as %2F.
    std::vector<std::string> segments;
    for (auto segment : target.encoded_segments()) {
        segments.push_back(segment.decode());
    }
    segments.erase(segments.begin(), segments.begin() + 2);
    const std::string& method = request.method;
    const std::size_t count = segments.size();
    auto is = [&](std::initializer_list<std::string_view> shape) {
        if (shape.size() != count) {
            return false;
        }
        std::size_t index = 0;
        for (std::string_view part : shape) {
            if (part != "*" && part != segments[index]) {
                return false;
            }
            ++index;
        }
        return true;
    };
    if (is({"user"}) && method == "GET") {
        return fake::Response::json(json::serialize(restUser(site)));
    }
    if (is({"user", "keys"}) && method == "GET") {
        return sshKeys(site, target);
    }
    if (is({"user", "keys"}) && method == "POST") {
        return addSshKey(request);
    }
    if (is({"user", "keys", "*"}) && method == "DELETE") {
        return deleteSshKey(segments[2]);
    }
    if (is({"projects"}) && method == "GET") {
        return projects(site, target);
    }
    if (is({"projects"}) && method == "POST") {
        return createProject(request, site);
    }
    if (count >= 2 && segments[0] == "projects") {
        Project* found = project(segments[1]);
        if (found == nullptr || !isVisible(*found)) {
            return restError("404 Project Not Found", 404);
        }
        if (is({"projects", "*"}) && method == "GET") {
            return fake::Response::json(json::serialize(restProject(site, *found)));
        }
        if (is({"projects", "*", "merge_requests"}) && method == "POST") {
            return createMergeRequest(request, site, *found);
        }
        if (is({"projects", "*", "merge_requests", "*", "commits"}) && method == "GET") {
            const auto iid = integerOf(segments[3]);
            MergeRequest* listedRequest = iid ? mergeRequest(*found, *iid) : nullptr;
            if (listedRequest == nullptr) {
                return restError("404 Not found", 404);
            }
            return commits(site, target, *listedRequest);
        }
    }
    return restError("404 Not Found", 404);
}

// ---- OAuth

json::object SampleGitLab::State::issue(std::time_t created, std::int64_t lifetime) {
    const std::uint64_t serial = ++tokenSerial_ + seedOf(isoTime(std::time(nullptr)));
    std::string access = hexDigits(mixed(serial * 2), 64);
    std::string refresh = hexDigits(mixed(serial * 2 + 1), 64);
    accessTokens_[access] = IssuedToken{created, lifetime, false};
    refreshTokens_[refresh] = RefreshToken{access, false};
    return json::object{{"access_token", access}, {"token_type", "Bearer"},
                        {"expires_in", lifetime}, {"refresh_token", refresh},
                        {"scope", "api"},         {"created_at", created}};
}

// The refresh grant, with the client's credentials in the body (JSON or a form). A used refresh
// token is spent: it works once, and the access token it came with is revoked with it.
fake::Response SampleGitLab::State::token(const fake::Request& request) {
    json::object parameters;
    boost::system::error_code fault;
    const json::value content = json::parse(request.body, fault);
    if (!fault && content.is_object()) {
        parameters = content.get_object();
    } else if (auto form = boost::urls::parse_origin_form("/?" + request.body)) {
        for (const auto& parameter : form->params()) {
            parameters[parameter.key] = parameter.value;
        }
    }
    auto refuse = [this](std::string_view error, std::string_view description, int status) {
        ++refused;
        return fake::Response::json(
            json::serialize(json::object{{"error", error}, {"error_description", description}}),
            status);
    };
    if (stringArgument(parameters, "client_id") != scale_.clientId ||
        stringArgument(parameters, "client_secret") != scale_.clientSecret) {
        return refuse("invalid_client",
                      "Client authentication failed due to unknown client, no client "
                      "authentication included, or unsupported authentication method.",
                      401);
    }
    if (stringArgument(parameters, "grant_type") != "refresh_token") {
        return refuse("unsupported_grant_type",
                      "The authorization grant type is not supported by the authorization server.",
                      400);
    }
    const std::string refresh = stringArgument(parameters, "refresh_token").value_or("");
    auto known = refreshTokens_.find(refresh);
    if (known == refreshTokens_.end() || known->second.used) {
        return refuse("invalid_grant",
                      "The provided authorization grant is invalid, expired, revoked, does not "
                      "match the redirection URI used in the authorization request, or was "
                      "issued to another client.",
                      400);
    }
    known->second.used = true;
    if (auto previous = accessTokens_.find(known->second.access); previous != accessTokens_.end()) {
        previous->second.revoked = true;
    }
    ++granted;
    return fake::Response::json(
        json::serialize(issue(std::time(nullptr), scale_.tokenLifetime.count())));
}

Credential SampleGitLab::State::credential(const fake::Request& request) const {
    std::string given = request.header("Authorization").value_or("");
    if (given.starts_with("Bearer ")) {
        given.erase(0, 7);
    } else if (auto privateToken = request.header("PRIVATE-TOKEN")) {
        given = *privateToken;
    } else {
        return Credential::unknown;
    }
    if (given == kSampleGitLabToken) {
        return Credential::valid;
    }
    auto issued = accessTokens_.find(given);
    if (issued == accessTokens_.end()) {
        return Credential::unknown;
    }
    if (issued->second.revoked) {
        return Credential::revoked;
    }
    return std::time(nullptr) >= issued->second.created + issued->second.lifetime
               ? Credential::expired
               : Credential::valid;
}

fake::Response SampleGitLab::State::answer(const fake::Request& request) {
    fake::Response response;
    auto target = boost::urls::parse_origin_form(request.target);
    std::lock_guard lock(mutex);
    if (!target) {
        response = restError("400 Bad request", 400);
    } else if (target->path() == "/oauth/token") {
        response = request.method == "POST" ? token(request) : restError("404 Not Found", 404);
    } else {
        const Site site = Site::of(request);
        const std::string path = target->path();
        const bool graphQlPath = path == "/api/graphql";
        switch (credential(request)) {
            case Credential::expired:
                // The "error" object with a "message" is what tells a client to refresh.
                response = fake::Response::json(
                    R"({"error":{"code":"invalid_token","message":"Access token expired: you can either do re-authorization or token refresh."},"error_description":"Token is expired. You can either do re-authorization or token refresh."})",
                    401);
                break;
            case Credential::revoked:
                response = fake::Response::json(
                    R"({"error":"invalid_token","error_description":"Token was revoked. You have to re-authorize from the user."})",
                    401);
                break;
            case Credential::unknown:
                response = graphQlPath ? fake::Response::json(
                                             R"({"errors":[{"message":"Invalid token"}]})", 401)
                                       : restError("401 Unauthorized", 401);
                break;
            case Credential::valid:
                if (graphQlPath && request.method == "POST") {
                    response = graphQl(request, site);
                } else if (path.starts_with("/api/v4/")) {
                    response = rest(request, site, *target);
                } else {
                    response = restError("404 Not Found", 404);
                }
        }
    }
    response.delay = scale_.delay;
    return response;
}

SampleGitLab::SampleGitLab(GitLabScale scale)
    : state_(std::make_unique<State>(scale)), host_(std::make_unique<fake::FakeHost>()) {
    host_->setHandler([state = state_.get()](const fake::Request& request) {
        return std::optional<fake::Response>(state->answer(request));
    });
}

SampleGitLab::~SampleGitLab() {
    host_.reset();  // no request may be answered from a state that is going away
}

boost::json::object SampleGitLab::issueToken(std::chrono::seconds lifetime,
                                             std::chrono::seconds age) {
    std::lock_guard lock(state_->mutex);
    return state_->issue(std::time(nullptr) - age.count(), lifetime.count());
}

std::size_t SampleGitLab::refreshesGranted() const {
    std::lock_guard lock(state_->mutex);
    return state_->granted;
}

std::size_t SampleGitLab::refreshesRefused() const {
    std::lock_guard lock(state_->mutex);
    return state_->refused;
}

std::int64_t SampleGitLab::newestMergeRequest() const {
    return state_->newest;
}

std::int64_t SampleGitLab::forkMergeRequest() const {
    return state_->fromFork;
}

std::string SampleGitLab::connectTo() const {
    return "gitlab.test:80:127.0.0.1:" + std::to_string(port());
}

}  // namespace vt::sample
