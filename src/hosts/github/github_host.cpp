#include "hosts/github/github_host.h"

#include "hosts/github/queries.h"
#include "transport/dates.h"
#include "transport/paging.h"
#include "transport/reading.h"
#include "transport/ssh_keys.h"
#include "transport/utilities/utilities.h"

#include <algorithm>
#include <string>
#include <utility>

using namespace vt;
using namespace vt::github;

namespace {

// Sorts names the way the client lists them: case-insensitively, keeping the host's order among
// names that differ only in case.
template <typename Range, typename Key>
void sortCaseInsensitively(Range& range, Key key) {
    std::stable_sort(range.begin(), range.end(), [&key](const auto& left, const auto& right) {
        return vt::caseInsensitiveCompare(key(left), key(right)) < 0;
    });
}

boost::json::object namespaceEntry(const std::string& login, JsonRoot owner) {
    boost::json::object entry;
    entry["name"] = login;
    if (auto identifier = stringAt(owner, {"id"})) {
        entry["identifier"] = *identifier;
    }
    return entry;
}

// "name" and "avatar" of a user or organization, each only when the host gives a usable value.
void addNameAndAvatar(boost::json::object& entry, JsonRoot owner) {
    if (auto name = stringAt(owner, {"name"})) {
        entry["name"] = *name;
    }
    if (auto avatar = urlAt(owner, {"avatarUrl"})) {
        entry["avatar"] = *avatar;
    }
}

}  // namespace

VTGitHubHost::VTGitHubHost(const VTUrl& url) {
    // Clones over SSH talk to the same site's API over HTTPS; any other scheme is kept, so that a
    // server reached over plain HTTP is asked over plain HTTP.
    std::string scheme = url.scheme();
    if (scheme == "ssh") {
        scheme = "https";
    }
    const std::string host(url.encoded_host());
    const std::string base = scheme + "://api." + host;
    if (auto parsed = urlWithText(base + "/graphql")) {
        graphQlUrl_ = std::move(*parsed);
    }
    sshKeysUrl_ = base + "/user/keys";
}

std::optional<boost::json::value> VTGitHubHost::jsonPostWithContent(std::string_view text,
                                                                    VTToken& token,
                                                                    VTError* error) const {
    return jsonPostWithUrl(graphQlUrl_, vt::graphQlContent(text), token, error);
}

bool VTGitHubHost::postMutation(std::string_view text, VTToken& token, VTError* error) const {
    return jsonPostWithContent(text, token, error).has_value();
}

// ---- Account and profile

std::optional<boost::json::object> VTGitHubHost::userWithToken(const VTToken& token,
                                                               VTError* error) {
    VTToken local = token;
    auto answer = jsonPostWithContent(kUserQuery, local, error);
    if (!answer) {
        return std::nullopt;
    }
    const boost::json::object* viewer = objectAt(*answer, {"data", "viewer"});
    if (viewer == nullptr) {
        // Phrase first, code in parentheses: the sign-in flow shows this text as it stands.
        VTSetError(error,
                   VTError(VTHTTPErrorDomain, 401, reasonPhrase(401) + " (HTTP status code 401)",
                           "Bad credentials"));
        return std::nullopt;
    }
    boost::json::object user;
    user["username"] = stringAt(*viewer, {"login"}).value_or("");
    user["profileUrl"] = stringAt(*viewer, {"url"}).value_or("");
    addNameAndAvatar(user, *viewer);
    return user;
}

std::optional<boost::json::object> VTGitHubHost::profileWithToken(VTToken& token, VTError* error) {
    boost::json::object profile;
    std::vector<std::string> organizations;
    bool first = true;
    auto page = [&](const boost::json::object& connection, const boost::json::value& answer,
                    VTError*) {
        if (std::exchange(first, false)) {
            if (const boost::json::object* viewer = objectAt(answer, {"data", "viewer"})) {
                for (const auto& [member, value] : *viewer) {
                    if (!value.is_string() || value.get_string().empty()) {
                        continue;
                    }
                    const std::string_view text = value.get_string();
                    if (member == "createdAt") {
                        if (auto date = vt::localizedIsoDate(text)) {
                            profile["createdAt"] = *date;
                        }
                    } else if (member == "url") {
                        profile["profileUrl"] = text;
                    } else {
                        profile[member] = text;
                    }
                }
            }
        }
        if (const boost::json::array* nodes = arrayAt(connection, {"nodes"})) {
            for (const boost::json::value& node : *nodes) {
                if (auto name = stringAt(node, {"name"})) {
                    organizations.push_back(std::move(*name));
                }
            }
        }
        return true;
    };
    auto followUp = [](const std::string& cursor) {
        return fillText(kOrganizationsPageQuery, {cursor});
    };
    if (!vt::pageGraphQl(*this, graphQlUrl_, kProfileQuery, followUp,
                         vt::connectionAt({"data", "viewer", "organizations"}), page, token,
                         error)) {
        return std::nullopt;
    }
    sortCaseInsensitively(organizations,
                          [](const std::string& name) -> std::string_view { return name; });
    std::string joined;
    for (const std::string& name : organizations) {
        if (!joined.empty()) {
            joined += '\n';
        }
        joined += name;
    }
    profile["organizations"] = joined;
    return profile;
}

// ---- Repositories

boost::json::object VTGitHubHost::fixedKeysRepository(const boost::json::value& node) {
    boost::json::object repository;
    if (auto name = stringAt(node, {"name"})) {
        repository["name"] = *name;
    }
    if (const boost::json::value* isPrivate = memberAt(node, {"isPrivate"});
        isPrivate != nullptr && (isPrivate->is_bool() || isPrivate->is_number())) {
        repository["private"] = *isPrivate;
    }
    if (auto description = stringAt(node, {"description"})) {
        repository["description"] = *description;
    }
    if (auto updatedAt = stringAt(node, {"updatedAt"})) {
        if (auto date = vt::localizedIsoDate(*updatedAt)) {
            repository["updatedAt"] = "updated " + *date;
        }
    }
    if (auto parent = stringAt(node, {"parent", "url"})) {
        repository["parent"] = "Forked from " + *parent;
    }
    auto copyNumber = [&](std::string_view key, std::initializer_list<std::string_view> path) {
        if (const boost::json::value* value = memberAt(node, path);
            value != nullptr && value->is_number()) {
            repository[key] = *value;
        }
    };
    copyNumber("starsCount", {"stargazers", "totalCount"});
    copyNumber("watchersCount", {"watchers", "totalCount"});
    copyNumber("forksCount", {"forkCount"});
    boost::json::array urls;
    if (auto sshUrl = stringAt(node, {"sshUrl"})) {
        urls.emplace_back(*sshUrl);
    }
    if (auto url = stringAt(node, {"url"})) {
        urls.emplace_back(*url + ".git");
    }
    repository["urls"] = std::move(urls);
    return repository;
}

std::optional<boost::json::object> VTGitHubHost::repositoriesWithToken(VTToken& token,
                                                                       VTError* error) {
    std::optional<std::string> viewerLogin;
    bool first = true;
    boost::json::object owners;
    std::vector<boost::json::object> namespaces;  // equal entries count once
    std::optional<boost::json::object> ownNamespace;
    auto addNamespace = [&namespaces](boost::json::object entry) {
        if (std::find(namespaces.begin(), namespaces.end(), entry) == namespaces.end()) {
            namespaces.push_back(std::move(entry));
        }
    };
    auto page = [&](const boost::json::object& connection, const boost::json::value& answer,
                    VTError*) {
        if (std::exchange(first, false)) {
            viewerLogin = stringAt(answer, {"data", "viewer", "login"});
        }
        const boost::json::array* nodes = arrayAt(connection, {"nodes"});
        if (nodes == nullptr) {
            return true;
        }
        for (const boost::json::value& node : *nodes) {
            const boost::json::value* owner = memberAt(node, {"owner"});
            auto login = owner != nullptr ? stringAt(*owner, {"login"}) : std::nullopt;
            if (!login) {
                continue;
            }
            boost::json::value* entry = owners.if_contains(*login);
            if (entry == nullptr) {
                boost::json::object created;
                addNameAndAvatar(created, *owner);
                if (*login == viewerLogin) {
                    ownNamespace = namespaceEntry(*login, *owner);
                    addNamespace(*ownNamespace);
                }
                entry = &(owners[*login] = std::move(created));
            }
            if (isTrueAt(*owner, {"viewerCanCreateRepositories"})) {
                addNamespace(namespaceEntry(*login, *owner));
            }
            boost::json::object& fields = entry->as_object();
            if (!fields.contains("repositories")) {
                fields["repositories"] = boost::json::array();
            }
            fields["repositories"].as_array().emplace_back(fixedKeysRepository(node));
        }
        return true;
    };
    auto followUp = [](const std::string& cursor) {
        return fillText(kRepositoriesPageQuery, {cursor});
    };
    if (!vt::pageGraphQl(*this, graphQlUrl_, kRepositoriesQuery, followUp,
                         vt::connectionAt({"data", "viewer", "repositories"}), page, token,
                         error)) {
        return std::nullopt;
    }

    sortCaseInsensitively(namespaces, [](const boost::json::object& entry) -> std::string_view {
        const boost::json::value* name = entry.if_contains("name");
        return name != nullptr && name->is_string() ? std::string_view(name->get_string())
                                                    : std::string_view();
    });
    if (ownNamespace) {
        auto own = std::find(namespaces.begin(), namespaces.end(), *ownNamespace);
        if (own != namespaces.end()) {
            std::rotate(namespaces.begin(), own, own + 1);
        }
    }

    if (viewerLogin) {
        if (boost::json::value* own = owners.if_contains(*viewerLogin)) {
            own->as_object()["namespaces"] =
                boost::json::array(namespaces.begin(), namespaces.end());
            return owners;
        }
    }

    // The user owns none of the listed repositories: offer the own namespace only, so that the
    // client still has somewhere to create a repository.
    if (!viewerLogin) {
        VTSetError(error, VTError(VTHTTPErrorDomain, 200, "The host's answer names no viewer."));
        return std::nullopt;
    }
    auto viewerAnswer = jsonPostWithContent(kViewerQuery, token, error);
    if (!viewerAnswer) {
        return std::nullopt;
    }
    const boost::json::object* found = objectAt(*viewerAnswer, {"data", "viewer"});
    static const boost::json::object kNoViewer;
    const boost::json::object& viewer = found != nullptr ? *found : kNoViewer;
    boost::json::object own;
    addNameAndAvatar(own, viewer);
    own["repositories"] = boost::json::array();
    own["namespaces"] = boost::json::array{namespaceEntry(*viewerLogin, viewer)};
    owners[*viewerLogin] = std::move(own);
    return owners;
}

std::optional<std::vector<std::string>> VTGitHubHost::createRepositoryWithToken(
    VTToken& token, const boost::json::object& ns, const std::string& slug,
    const std::string& /*name: GitHub names the repository by its slug*/,
    const std::string& description, std::int64_t visibility, VTError* error) {
    const std::string text =
        fillText(kCreateRepositoryMutation,
                 {placeText(ns.if_contains("identifier")), slug,
                  vt::quotesEscapedString(description), visibility == 0 ? "PRIVATE" : "PUBLIC"});
    auto answer = jsonPostWithContent(text, token, error);
    if (!answer) {
        return std::nullopt;
    }
    auto sshUrl = stringAt(*answer, {"data", "createRepository", "repository", "sshUrl"});
    auto url = stringAt(*answer, {"data", "createRepository", "repository", "url"});
    if (!sshUrl || !url) {
        return std::nullopt;
    }
    return std::vector<std::string>{*sshUrl, *url + ".git"};
}

// ---- SSH keys (REST)

std::optional<boost::json::array> VTGitHubHost::sshKeysWithToken(VTToken& token, VTError* error) {
    auto firstUrl = urlWithText(sshKeysUrl_ + "?per_page=50");
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
            auto key = vt::sshKeyWithMembers(element, {"title", "id", "created_at", "key"},
                                             vt::kIsoDatePattern, pageError);
            if (!key) {
                return false;
            }
            keys.emplace_back(std::move(*key));
        }
        return true;
    };
    if (!vt::pageLinks(*this, *firstUrl, page, token, error)) {
        return std::nullopt;
    }
    return keys;
}

bool VTGitHubHost::addSshKey(const std::string& key, const std::string& title, VTToken& token,
                             VTError* error) {
    return vt::addSshKeyAt(*this, sshKeysUrl_, key, title, token, error);
}

bool VTGitHubHost::deleteSshKey(const boost::json::value& keyIdentifier, VTToken& token,
                                VTError* error) {
    return vt::deleteSshKeyAt(*this, sshKeysUrl_, keyIdentifier, token, error);
}

// ---- Privacy and forks

bool VTGitHubHost::isPrivateRepositoryAtUrl(const VTUrl& url, VTToken& token, VTError* error) {
    auto path = repositoryPath(url, error);
    if (!path) {
        return true;
    }
    auto answer =
        jsonPostWithContent(fillText(kPrivacyQuery, {path->owner, path->name}), token, error);
    if (!answer) {
        // A repository that cannot be read counts as private; the error says why.
        return true;
    }
    return isTrueAt(*answer, {"data", "repository", "isPrivate"});
}

std::optional<std::vector<std::string>> VTGitHubHost::forksForUrl(const VTUrl& url, VTToken& token,
                                                                  VTError* error) {
    auto path = repositoryPath(url, error);
    if (!path) {
        return std::nullopt;
    }
    auto answer =
        jsonPostWithContent(fillText(kParentQuery, {path->owner, path->name}), token, error);
    if (!answer) {
        return std::nullopt;
    }
    std::vector<std::string> forks;
    if (const boost::json::object* parent = objectAt(*answer, {"data", "repository", "parent"})) {
        for (std::string_view member : {"sshUrl", "url"}) {
            if (auto address = stringAt(*parent, {member})) {
                forks.push_back(std::move(*address));
            }
        }
    }
    return forks;
}
