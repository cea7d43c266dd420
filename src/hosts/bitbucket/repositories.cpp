// Repositories grouped by owner with the workspaces the user may create in, repository creation,
// privacy, the parent of a fork, and SSH keys.

#include "hosts/bitbucket/bitbucket_host.h"
#include "hosts/bitbucket/paths.h"
#include "transport/dates.h"
#include "transport/paging.h"
#include "transport/reading.h"
#include "transport/ssh_keys.h"
#include "transport/utilities/utilities.h"

#include <algorithm>
#include <string>
#include <utility>

using namespace vt::bitbucket;

namespace {

// The clone addresses of a "links" / "clone" list, by their "name".
struct CloneAddresses {
    std::vector<std::string> ssh;
    std::vector<std::string> https;
};

CloneAddresses cloneAddresses(vt::JsonRoot root) {
    CloneAddresses addresses;
    const boost::json::array* clone = vt::arrayAt(root, {"links", "clone"});
    if (clone == nullptr) {
        return addresses;
    }
    for (const boost::json::value& entry : *clone) {
        const auto name = vt::stringAt(entry, {"name"});
        const auto href = vt::stringAt(entry, {"href"});
        if (!name || !href) {
            continue;
        }
        if (*name == "ssh") {
            addresses.ssh.push_back(*href);
        } else if (*name == "https") {
            addresses.https.push_back(*href);
        }
    }
    return addresses;
}

// An HTTPS clone address without the user name Bitbucket puts before the host (and without any
// port or query): what the client offers to clone with the user's own credentials.
std::optional<std::string> withoutUser(const std::string& href) {
    auto url = vt::urlWithText(href);
    if (!url) {
        return std::nullopt;
    }
    return std::string(url->scheme()) + "://" + std::string(url->encoded_host()) +
           std::string(url->encoded_path());
}

boost::json::object namespaceEntry(const std::string& name, const boost::json::value* identifier) {
    boost::json::object entry;
    entry["name"] = name;
    if (identifier != nullptr) {
        entry["identifier"] = *identifier;
    }
    return entry;
}

std::string_view nameOf(const boost::json::object& entry) {
    const boost::json::value* name = entry.if_contains("name");
    return name != nullptr && name->is_string() ? std::string_view(name->get_string())
                                                : std::string_view();
}

// The members of a key object; its "id" is made apart, from the "uuid".
constexpr vt::SshKeyMembers kKeyMembers{"comment", "", "created_on", "key"};

const boost::json::object& emptyObject() {
    static const boost::json::object empty;
    return empty;
}

}  // namespace

// ---- Repositories

boost::json::object VTBitbucketbHost::fixedKeysRepository(const boost::json::value& repository) {
    boost::json::object result(8);
    if (auto name = vt::stringAt(repository, {"name"})) {
        result["name"] = *name;
    }
    if (const boost::json::value* isPrivate = vt::memberAt(repository, {"is_private"});
        isPrivate != nullptr && (isPrivate->is_number() || isPrivate->is_bool())) {
        result["private"] = *isPrivate;
    }
    if (auto description = vt::stringAt(repository, {"description"})) {
        result["description"] = *description;
    }
    if (auto updated = vt::stringAt(repository, {"updated_on"})) {
        if (auto date = vt::localizedIsoDate(*updated, vt::kIsoFractionDatePattern)) {
            result["updatedAt"] = "updated " + *date;
        }
    }
    if (auto parent = vt::stringAt(repository, {"parent", "links", "html", "href"})) {
        result["parent"] = "Forked from " + *parent;
    }
    if (vt::arrayAt(repository, {"links", "clone"}) != nullptr) {
        const CloneAddresses addresses = cloneAddresses(repository);
        boost::json::array urls;
        for (const std::string& ssh : addresses.ssh) {
            urls.emplace_back(ssh);
        }
        for (const std::string& https : addresses.https) {
            if (auto address = withoutUser(https)) {
                urls.emplace_back(*address);
            }
        }
        result["urls"] = std::move(urls);
    }
    return result;
}

std::optional<boost::json::object> VTBitbucketbHost::repositoriesWithToken(VTToken& token,
                                                                           VTError* error) {
    auto user = jsonGetWithText(userUrl_ + std::string(kRepositoriesUserFields), token, error);
    if (!user) {
        return std::nullopt;
    }
    const auto username = vt::stringAt(*user, {"username"});
    const auto displayName = vt::stringAt(*user, {"display_name"});
    const auto avatar = vt::urlAt(*user, {"links", "avatar", "href"});
    const boost::json::object own =
        namespaceEntry(username.value_or(""), vt::memberAt(*user, {"uuid"}));

    // Only the first page of workspaces is read: enough for the namespaces the client offers.
    auto workspaces =
        jsonGetWithText(collaboratorsUrl_ + std::string(kWorkspaceFields), token, error);
    if (!workspaces) {
        return std::nullopt;
    }
    std::vector<boost::json::object> namespaces;
    if (const boost::json::array* values = vt::arrayAt(*workspaces, {"values"})) {
        for (const boost::json::value& workspace : *values) {
            auto slug = vt::stringAt(workspace, {"slug"});
            if (!slug) {
                continue;
            }
            boost::json::object entry = namespaceEntry(*slug, vt::memberAt(workspace, {"uuid"}));
            if (entry != own &&
                std::find(namespaces.begin(), namespaces.end(), entry) == namespaces.end()) {
                namespaces.push_back(std::move(entry));
            }
        }
    }
    std::stable_sort(namespaces.begin(), namespaces.end(),
                     [](const boost::json::object& left, const boost::json::object& right) {
                         return vt::caseInsensitiveCompare(nameOf(left), nameOf(right)) < 0;
                     });
    namespaces.insert(namespaces.begin(), own);

    boost::json::object owners;
    auto readRepository = [&](const boost::json::value& repository, VTError*) {
        if (vt::stringAt(repository, {"scm"}) != "git") {
            return vt::PageStep::more;
        }
        const boost::json::object* found = vt::objectAt(repository, {"owner"});
        const boost::json::object& owner = found != nullptr ? *found : emptyObject();
        auto account = vt::stringAt(owner, {"nickname"});
        if (!account) {
            account = vt::stringAt(owner, {"username"});
        }
        if (!account) {
            return vt::PageStep::more;  // nobody to list it under
        }
        const std::string& key = *account;
        boost::json::value* entry = owners.if_contains(key);
        if (entry == nullptr) {
            boost::json::object created;
            if (auto name = vt::stringAt(owner, {"display_name"})) {
                created["name"] = *name;
            }
            if (auto picture = vt::urlAt(owner, {"links", "avatar", "href"})) {
                created["avatar"] = *picture;
            }
            if (account == username) {
                created["namespaces"] = boost::json::array(namespaces.begin(), namespaces.end());
            }
            created["repositories"] = boost::json::array();
            entry = &(owners[key] = std::move(created));
        }
        entry->as_object()["repositories"].as_array().emplace_back(fixedKeysRepository(repository));
        return vt::PageStep::more;
    };
    auto first =
        vt::urlWithQueryText(repositoriesUrl_ + std::string(kContributorRepositories), error);
    if (!first || !pageValues(*first, readRepository, token, error)) {
        return std::nullopt;
    }

    // A user who owns none of the listed repositories still gets an entry to create one in; it
    // offers the own namespace only, not the workspaces.
    if (username && !owners.contains(*username)) {
        boost::json::object entry;
        entry["repositories"] = boost::json::array();
        if (displayName) {
            entry["name"] = *displayName;
        }
        entry["namespaces"] = boost::json::array{own};
        if (avatar) {
            entry["avatar"] = *avatar;
        }
        owners[*username] = std::move(entry);
    }
    return owners;
}

std::optional<std::vector<std::string>> VTBitbucketbHost::createRepositoryWithToken(
    VTToken& token, const boost::json::object& ns, const std::string& slug, const std::string& name,
    const std::string& description, std::int64_t visibility, VTError* error) {
    auto url = vt::urlWithText(repositoriesUrl_ + "/" + vt::placeText(ns.if_contains("name")) +
                               "/" + slug);
    if (!url) {
        VTSetError(error, VTError(VTURLErrorDomain, -1000,
                                  "The repository name " + slug + " does not make an address."));
        return std::nullopt;
    }
    // Bitbucket reads "is_private" as a text here.
    boost::json::object content;
    content["scm"] = "git";
    content["name"] = name;
    content["description"] = description;
    content["is_private"] = visibility == 0 ? "true" : "false";
    auto answer = jsonPostWithUrl(*url, content, token, error);
    if (!answer) {
        return std::nullopt;
    }
    const CloneAddresses addresses = cloneAddresses(*answer);
    std::optional<std::string> https;
    if (!addresses.https.empty()) {
        https = withoutUser(addresses.https.back());
    }
    if (addresses.ssh.empty() || !https) {
        return std::nullopt;
    }
    return std::vector<std::string>{addresses.ssh.back(), *https};
}

bool VTBitbucketbHost::isPrivateRepositoryAtUrl(const VTUrl& url, VTToken& token, VTError* error) {
    auto path = vt::repositoryPath(url, error);
    if (!path) {
        return false;
    }
    auto answer = jsonGetWithText(
        repositoriesUrl_ + "/" + path->fullName + std::string(kPrivacyFields), token, error);
    if (!answer) {
        return false;
    }
    const boost::json::value* isPrivate = vt::memberAt(*answer, {"is_private"});
    if (isPrivate == nullptr) {
        return false;
    }
    if (isPrivate->is_bool()) {
        return isPrivate->get_bool();
    }
    return isPrivate->is_number() && isPrivate->to_number<double>() != 0.0;
}

std::optional<std::vector<std::string>> VTBitbucketbHost::forksForUrl(const VTUrl& url,
                                                                      VTToken& token,
                                                                      VTError* error) {
    auto path = vt::repositoryPath(url, error);
    if (!path) {
        return std::nullopt;
    }
    auto answer = jsonGetWithText(
        repositoriesUrl_ + "/" + path->fullName + std::string(kParentFields), token, error);
    if (!answer) {
        return std::nullopt;
    }
    std::vector<std::string> forks;
    auto parent = vt::stringAt(*answer, {"parent", "links", "self", "href"});
    if (!parent) {
        return forks;
    }
    // The host's own address is followed as it stands.
    auto parentUrl = vt::urlWithText(*parent + std::string(kCloneFields));
    if (!parentUrl) {
        VTSetError(error, VTError(VTURLErrorDomain, -1000,
                                  "The host sent a parent address that is not a URL."));
        return std::nullopt;
    }
    auto links = jsonGetWithUrl(*parentUrl, token, nullptr, error);
    if (!links) {
        return std::nullopt;
    }
    CloneAddresses addresses = cloneAddresses(*links);
    forks = std::move(addresses.ssh);
    forks.insert(forks.end(), addresses.https.begin(), addresses.https.end());
    return forks;
}

// ---- SSH keys

std::optional<VTUrl> VTBitbucketbHost::userKeysUrl(std::string_view tail, VTToken& token,
                                                   VTError* error) const {
    auto answer = jsonGetWithText(userUrl_ + std::string(kUsernameFields), token, error);
    if (!answer) {
        return std::nullopt;
    }
    return vt::urlWithQueryText(
        sshKeysUrl_ + "/" + vt::placeText(vt::stringAt(*answer, {"username"})) + std::string(tail),
        error);
}

std::optional<boost::json::array> VTBitbucketbHost::sshKeysWithToken(VTToken& token,
                                                                     VTError* error) {
    // Keys listed under a user name and password carry their id; under OAuth tokens they do not.
    const bool basic = vt::stringAt(token, {"token_type"}) == "Basic";
    auto first = userKeysUrl(kSshKeysFirstPage, token, error);
    if (!first) {
        return std::nullopt;
    }
    boost::json::array keys;
    auto readKey = [&keys, basic](const boost::json::value& value, VTError* pageError) {
        auto key =
            vt::sshKeyWithMembers(value, kKeyMembers, vt::kIsoFractionDatePattern, pageError);
        if (!key) {
            return vt::PageStep::failed;
        }
        if (auto uuid = vt::stringAt(value, {"uuid"}); basic && uuid) {
            // The uuid without the braces around it.
            (*key)["id"] = uuid->size() >= 2 ? uuid->substr(1, uuid->size() - 2) : std::string();
        }
        keys.emplace_back(std::move(*key));
        return vt::PageStep::more;
    };
    if (!pageValues(*first, readKey, token, error)) {
        return std::nullopt;
    }
    return keys;
}

bool VTBitbucketbHost::addSshKey(const std::string& key, const std::string& /*title*/,
                                 VTToken& token, VTError* error) {
    auto url = userKeysUrl(kSshKeys, token, error);
    if (!url) {
        return false;
    }
    boost::json::object content;
    content["key"] = key;
    return jsonPostWithUrl(*url, content, token, error).has_value();
}

bool VTBitbucketbHost::deleteSshKey(const boost::json::value& keyIdentifier, VTToken& token,
                                    VTError* error) {
    auto url = userKeysUrl(kSshKeys, token, error);
    if (!url) {
        return false;
    }
    // One escaped segment, so that no identifier can lead to another address on the host.
    url->segments().push_back(vt::placeText(&keyIdentifier));
    return jsonDeleteWithUrl(*url, token, error).has_value();
}
