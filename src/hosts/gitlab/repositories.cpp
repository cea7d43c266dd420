// Projects grouped by namespace, project creation, visibility and forks, and SSH keys.

#include "hosts/gitlab/gitlab_host.h"

#include "hosts/gitlab/queries.h"
#include "hosts/gitlab/support.h"
#include "transport/dates.h"
#include "transport/paging.h"
#include "transport/reading.h"
#include "transport/ssh_keys.h"

#include <algorithm>
#include <utility>

using namespace vt;
using namespace vt::gitlab;

namespace {

boost::json::object ownNamespace(const std::string& username) {
    return {{"name", username}, {"identifier", -1}};
}

}  // namespace

boost::json::object VTGitLabHost::fixedKeysRepository(const boost::json::value& project) {
    boost::json::object repository;
    if (auto name = stringAt(project, {"name"})) {
        repository["name"] = *name;
    }
    if (auto visibility = stringAt(project, {"visibility"})) {
        // Only "private" hides a project from the world; "internal" shows it to every user.
        repository["private"] = *visibility == "private";
    }
    if (auto description = stringAt(project, {"description"})) {
        repository["description"] = *description;
    }
    if (auto activity = stringAt(project, {"last_activity_at"})) {
        if (auto date = localizedIsoDate(*activity, kIsoFractionDatePattern)) {
            repository["updatedAt"] = "updated " + *date;
        }
    }
    if (auto parent = stringAt(project, {"forked_from_project", "http_url_to_repo"})) {
        repository["parent"] = "Forked from " + *parent;
    }
    for (const auto& [key, source] :
         {std::pair<std::string_view, std::string_view>{"starsCount", "star_count"},
          {"forksCount", "forks_count"}}) {
        if (const boost::json::value* count = memberAt(project, {source});
            count != nullptr && count->is_number()) {
            repository[key] = *count;
        }
    }
    boost::json::array urls;
    for (std::string_view source : {"ssh_url_to_repo", "http_url_to_repo"}) {
        if (auto url = stringAt(project, {source})) {
            urls.emplace_back(*url);
        }
    }
    repository["urls"] = std::move(urls);
    return repository;
}

std::optional<boost::json::object> VTGitLabHost::repositoriesWithToken(VTToken& token,
                                                                       VTError* error) {
    if (!hasFreshToken(token, error)) {
        return std::nullopt;
    }
    auto user = postQuery(kCurrentUserQuery, token, error);
    if (!user) {
        return std::nullopt;
    }
    const std::string username = stringAt(*user, {"data", "currentUser", "username"}).value_or("");
    const auto userName = stringAt(*user, {"data", "currentUser", "name"});
    std::optional<std::string> userAvatar;
    if (auto avatar = stringAt(*user, {"data", "currentUser", "avatarUrl"})) {
        userAvatar = urlWithString(*avatar);
    }

    // The groups the user belongs to, each once.
    std::vector<boost::json::object> groups;
    auto membershipPage = [&groups](const boost::json::object& connection,
                                    const boost::json::value&, VTError*) {
        if (const boost::json::array* nodes = arrayAt(connection, {"nodes"})) {
            for (const boost::json::value& node : *nodes) {
                boost::json::object entry;
                if (const boost::json::value* path = memberAt(node, {"group", "path"})) {
                    entry["name"] = *path;
                }
                if (const boost::json::value* id = memberAt(node, {"group", "id"})) {
                    entry["identifier"] = *id;
                }
                if (std::find(groups.begin(), groups.end(), entry) == groups.end()) {
                    groups.push_back(std::move(entry));
                }
            }
        }
        return true;
    };
    auto membershipFollowUp = [](const std::string& cursor) {
        return fillText(kGroupMembershipsPageQuery, {cursor});
    };
    if (!pageGraphQl(*this, graphQlUrl_, kGroupMembershipsQuery, membershipFollowUp,
                     connectionAt({"data", "currentUser", "groupMemberships"}), membershipPage,
                     token, error)) {
        return std::nullopt;
    }
    std::stable_sort(groups.begin(), groups.end(), [](const auto& left, const auto& right) {
        auto name = [](const boost::json::object& entry) -> std::string_view {
            const boost::json::value* value = entry.if_contains("name");
            return value != nullptr && value->is_string() ? std::string_view(value->get_string())
                                                          : std::string_view();
        };
        return caseInsensitiveCompare(name(left), name(right)) < 0;
    });
    boost::json::array namespaces{ownNamespace(username)};
    namespaces.insert(namespaces.end(), groups.begin(), groups.end());

    // The projects the user maintains, grouped by the path of their namespace.
    boost::json::object owners;
    auto projectPage = [&](const boost::json::value& answer, VTError*) {
        const boost::json::array* projects = answer.if_array();
        if (projects == nullptr) {
            return true;
        }
        for (const boost::json::value& project : *projects) {
            auto key = stringAt(project, {"namespace", "path"});
            if (!key) {
                continue;
            }
            boost::json::value* entry = owners.if_contains(*key);
            if (entry == nullptr) {
                boost::json::object created;
                if (auto name = stringAt(project, {"namespace", "name"})) {
                    created["name"] = *name;
                }
                if (auto avatar = stringAt(project, {"namespace", "avatar_url"})) {
                    if (auto url = urlWithString(*avatar)) {
                        created["avatar"] = *url;
                    }
                }
                if (*key == username) {
                    created["namespaces"] = namespaces;
                }
                created["repositories"] = boost::json::array();
                entry = &(owners[*key] = std::move(created));
            }
            entry->as_object()["repositories"].as_array().emplace_back(
                fixedKeysRepository(project));
        }
        return true;
    };
    auto projectsUrl = urlWithText(repositoryUrl_ + std::string(kOwnProjectsQuery));
    if (!projectsUrl) {
        VTSetError(error, VTError(VTURLErrorDomain, -1000, "The projects address is not a URL."));
        return std::nullopt;
    }
    if (!pageLinks(*this, *projectsUrl, projectPage, token, error)) {
        return std::nullopt;
    }

    // A user whose projects all lie in groups still needs somewhere to create one: the own
    // namespace, without the groups.
    if (!owners.contains(username)) {
        boost::json::object own;
        own["repositories"] = boost::json::array();
        own["namespaces"] = boost::json::array{ownNamespace(username)};
        if (userName) {
            own["name"] = *userName;
        }
        if (userAvatar) {
            own["avatar"] = *userAvatar;
        }
        owners[username] = std::move(own);
    }
    return owners;
}

std::optional<std::vector<std::string>> VTGitLabHost::createRepositoryWithToken(
    VTToken& token, const boost::json::object& ns, const std::string& slug, const std::string& name,
    const std::string& description, std::int64_t visibility, VTError* error) {
    if (!hasFreshToken(token, error)) {
        return std::nullopt;
    }
    boost::json::object body;
    body["path"] = slug;
    body["name"] = name;
    body["description"] = description;
    body["visibility"] = visibility != 0 ? "public" : "private";
    // The own namespace (-1) and groups named by a global id are left to GitLab, which then
    // creates the project in the user's own namespace.
    const boost::json::value* identifier = ns.if_contains("identifier");
    if (integerValue(identifier) >= 1) {
        body["namespace_id"] = *identifier;
    }
    auto url = urlWithText(repositoryUrl_);
    if (!url) {
        VTSetError(error, VTError(VTURLErrorDomain, -1000, "The projects address is not a URL."));
        return std::nullopt;
    }
    auto answer = jsonPostWithUrl(*url, body, token, error);
    if (!answer) {
        return std::nullopt;
    }
    auto sshUrl = stringAt(*answer, {"ssh_url_to_repo"});
    auto httpUrl = stringAt(*answer, {"http_url_to_repo"});
    if (!sshUrl || !httpUrl) {
        return std::nullopt;
    }
    return std::vector<std::string>{*sshUrl, *httpUrl};
}

bool VTGitLabHost::isPrivateRepositoryAtUrl(const VTUrl& url, VTToken& token, VTError* error) {
    if (!hasFreshToken(token, error)) {
        return true;
    }
    auto answer = postQuery(fillText(kVisibilityQuery, {projectPath(url)}), token, error);
    if (!answer) {
        // A project whose visibility cannot be read counts as private; the error says why.
        return true;
    }
    return stringAt(*answer, {"data", "project", "visibility"}) == "private";
}

std::optional<std::vector<std::string>> VTGitLabHost::forksForUrl(const VTUrl& url, VTToken& token,
                                                                  VTError* error) {
    if (!hasFreshToken(token, error)) {
        return std::nullopt;
    }
    auto projectUrl =
        urlWithText(repositoryUrl_ + "/" + encodedProjectIdentifier(projectPath(url)));
    if (!projectUrl) {
        VTSetError(error, VTError(VTURLErrorDomain, -1000,
                                  "The address " + std::string(url.buffer()) +
                                      " does not name a project."));
        return std::nullopt;
    }
    auto answer = jsonGetWithUrl(*projectUrl, token, nullptr, error);
    if (!answer) {
        return std::nullopt;
    }
    std::vector<std::string> forks;
    if (const boost::json::object* upstream = objectAt(*answer, {"forked_from_project"})) {
        for (std::string_view member : {"ssh_url_to_repo", "http_url_to_repo"}) {
            if (auto address = stringAt(*upstream, {member})) {
                forks.push_back(std::move(*address));
            }
        }
    }
    return forks;
}

// ---- SSH keys

std::optional<boost::json::array> VTGitLabHost::sshKeysWithToken(VTToken& token, VTError* error) {
    if (!hasFreshToken(token, error)) {
        return std::nullopt;
    }
    auto firstUrl = urlWithText(sshKeysUrl_ + std::string(kSshKeysPageQuery));
    if (!firstUrl) {
        VTSetError(error, VTError(VTURLErrorDomain, -1000, "The SSH keys address is not a URL."));
        return std::nullopt;
    }
    boost::json::array keys;
    auto page = [&keys](const boost::json::value& answer, VTError* pageError) {
        const boost::json::array* elements = answer.if_array();
        if (elements == nullptr) {
            return true;
        }
        for (const boost::json::value& element : *elements) {
            auto key = sshKeyWithMembers(element, {"title", "id", "created_at", "key"},
                                         kIsoFractionDatePattern, pageError);
            if (!key) {
                return false;
            }
            keys.emplace_back(std::move(*key));
        }
        return true;
    };
    if (!pageLinks(*this, *firstUrl, page, token, error)) {
        return std::nullopt;
    }
    return keys;
}

bool VTGitLabHost::addSshKey(const std::string& key, const std::string& title, VTToken& token,
                             VTError* error) {
    if (!hasFreshToken(token, error)) {
        return false;
    }
    return addSshKeyAt(*this, sshKeysUrl_, key, title, token, error);
}

bool VTGitLabHost::deleteSshKey(const boost::json::value& keyIdentifier, VTToken& token,
                                VTError* error) {
    if (!hasFreshToken(token, error)) {
        return false;
    }
    return deleteSshKeyAt(*this, sshKeysUrl_, keyIdentifier, token, error);
}
