// The pull request list and the conversation of one pull request.

#include "hosts/github/github_host.h"
#include "hosts/github/queries.h"
#include "transport/dates.h"
#include "transport/paging.h"
#include "transport/reading.h"
#include "transport/timeline.h"

#include <string>
#include <utility>

using namespace vt;
using namespace vt::github;

namespace {

const boost::json::object& emptyObject() {
    static const boost::json::object empty;
    return empty;
}

// The "mergeable" state GitHub reports; anything else (UNKNOWN while it is being computed) is not
// known.
std::uint64_t mergeableState(const std::optional<std::string>& state) {
    if (state == "MERGEABLE") {
        return 0;
    }
    if (state == "CONFLICTING") {
        return 1;
    }
    return 2;
}

VTPullRequestComment commentWithNode(const boost::json::value& node) {
    VTPullRequestComment comment;
    comment.replyTo = std::string();  // GitHub comments are not threaded
    comment.identifier = stringAt(node, {"id"});
    comment.author = stringAt(node, {"author", "login"});
    comment.avatarUrl = urlAt(node, {"author", "avatarUrl"});
    comment.date = stringAt(node, {"createdAt"});
    comment.editable = isTrueAt(node, {"viewerCanUpdate"});
    comment.deletable = isTrueAt(node, {"viewerCanDelete"});
    comment.content = stringAt(node, {"body"});
    return comment;
}

// The commit's person: the committer when GitHub knows the committer's account, else the author
// when it knows that one, else nobody (with the committer's picture and date).
VTPullRequestCommit commitWithNode(const boost::json::value& node) {
    VTPullRequestCommit commit;
    const boost::json::object* fields = objectAt(node, {"commit"});
    if (fields == nullptr) {
        return commit;
    }
    if (objectAt(*fields, {"committer", "user"}) != nullptr) {
        commit.author = stringAt(*fields, {"committer", "user", "login"});
        commit.avatarUrl = urlAt(*fields, {"committer", "avatarUrl"});
        commit.date = stringAt(*fields, {"committedDate"});
    } else if (objectAt(*fields, {"author", "user"}) != nullptr) {
        commit.author = stringAt(*fields, {"author", "user", "login"});
        commit.avatarUrl = urlAt(*fields, {"author", "avatarUrl"});
        commit.date = stringAt(*fields, {"authoredDate"});
    } else {
        commit.avatarUrl = urlAt(*fields, {"committer", "avatarUrl"});
        commit.date = stringAt(*fields, {"committedDate"});
    }
    commit.oid = stringAt(*fields, {"oid"});
    commit.message = stringAt(*fields, {"messageHeadline"});
    return commit;
}

// Calls `each` for every node of a connection.
template <typename Each>
void forEachNode(const boost::json::object& connection, Each each) {
    if (const boost::json::array* nodes = arrayAt(connection, {"nodes"})) {
        for (const boost::json::value& node : *nodes) {
            each(node);
        }
    }
}

}  // namespace

std::optional<std::vector<VTPullRequest>> VTGitHubHost::pullRequestsWithUrl(const VTUrl& url,
                                                                            VTToken& token,
                                                                            VTError* error) {
    auto path = repositoryPath(url, error);
    if (!path) {
        return std::nullopt;
    }
    std::vector<VTPullRequest> pullRequests;
    auto page = [&](const boost::json::object& connection, const boost::json::value&, VTError*) {
        forEachNode(connection, [&](const boost::json::value& node) {
            VTPullRequest pullRequest;
            pullRequest.author = stringAt(node, {"author", "login"});
            pullRequest.avatarUrl = urlAt(node, {"author", "avatarUrl"});
            pullRequest.title = stringAt(node, {"title"});
            pullRequest.number = integerAt(node, {"number"});
            pullRequest.date = stringAt(node, {"createdAt"});
            const std::string base = placeText(memberAt(node, {"baseRefName"}));
            const std::string head = placeText(memberAt(node, {"headRefName"}));
            // A head in another repository (a fork) is named with its repository, the way the
            // client passes it back when it creates a pull request. Later pages do not ask for
            // "nameWithOwner", so their heads with a repository all read as forks.
            const boost::json::object* headRepository = objectAt(node, {"headRepository"});
            if (headRepository != nullptr &&
                stringAt(*headRepository, {"nameWithOwner"}) != path->fullName) {
                pullRequest.baseReference = path->fullName + ":" + base;
                pullRequest.headReference =
                    placeText(headRepository->if_contains("nameWithOwner")) + ":" + head;
            } else {
                pullRequest.baseReference = base;
                pullRequest.headReference = head;
            }
            pullRequests.push_back(std::move(pullRequest));
        });
        return true;
    };
    auto followUp = [&path](const std::string& cursor) {
        return fillText(kPullRequestsPageQuery, {path->owner, path->name, cursor});
    };
    if (!vt::pageGraphQl(
            *this, graphQlUrl(), fillText(kPullRequestsQuery, {path->owner, path->name}), followUp,
            vt::connectionAt({"data", "repository", "pullRequests"}), page, token, error)) {
        return std::nullopt;
    }
    return pullRequests;
}

std::optional<VTConversation> VTGitHubHost::commentsForPullRequest(VTPullRequest& pullRequest,
                                                                   VTToken& token, VTError* error) {
    auto path = repositoryPath(pullRequest.remoteUrl.value_or(""), error);
    if (!path) {
        return std::nullopt;
    }
    const std::string number =
        pullRequest.number ? std::to_string(*pullRequest.number) : std::string(kMissingText);
    auto answer = jsonPostWithContent(
        fillText(kConversationQuery, {path->owner, path->name, number}), token, error);
    if (!answer) {
        return std::nullopt;
    }
    const boost::json::object* found = objectAt(*answer, {"data", "repository", "pullRequest"});
    const boost::json::object& details = found != nullptr ? *found : emptyObject();

    pullRequest.identifier = stringAt(details, {"id"});
    pullRequest.webUrl = stringAt(details, {"url"});
    pullRequest.commentable = isTrueAt(details, {"viewerCanSubscribe"});
    pullRequest.editable = isTrueAt(details, {"viewerCanUpdate"});
    pullRequest.closeable = pullRequest.editable;
    pullRequest.allowsMerge = pullRequest.editable;
    pullRequest.merged = isTrueAt(details, {"merged"});
    pullRequest.mergeable = mergeableState(stringAt(details, {"mergeable"}));

    VTPullRequestComment description =
        vt::descriptionComment(pullRequest, stringAt(details, {"body"}));

    // Each connection of the first answer is followed on its own, with its own follow-up text.
    auto follow = [&](std::string_view connection, std::string_view pageText,
                      const std::function<void(const boost::json::value&)>& each) {
        auto followUp = [&](const std::string& cursor) {
            return fillText(pageText, {path->owner, path->name, number, cursor});
        };
        const std::string member(connection);
        auto locate = [member](const boost::json::value& pageAnswer) {
            return objectAt(pageAnswer, {"data", "repository", "pullRequest", member});
        };
        auto page = [&each](const boost::json::object& found, const boost::json::value&, VTError*) {
            forEachNode(found, each);
            return true;
        };
        return vt::pageGraphQlFrom(*this, graphQlUrl(), *answer, followUp, locate, page, token,
                                   error);
    };

    boost::json::array assignees;
    if (!follow("assignees", kAssigneesPageQuery, [&assignees](const boost::json::value& node) {
            boost::json::object assignee;
            if (auto login = stringAt(node, {"login"})) {
                assignee["author"] = *login;
            }
            if (auto avatar = urlAt(node, {"avatarUrl"})) {
                assignee["avatar"] = *avatar;
            }
            assignees.emplace_back(std::move(assignee));
        })) {
        return std::nullopt;
    }
    pullRequest.assignees = std::move(assignees);

    boost::json::array labels;
    if (!follow("labels", kLabelsPageQuery,
                [&labels](const boost::json::value& node) { labels.push_back(node); })) {
        return std::nullopt;
    }
    pullRequest.labels = std::move(labels);

    // Comments are stored before commits, so a comment keeps the earlier key of a shared second.
    vt::Timeline timeline;
    if (!follow("comments", kCommentsPageQuery, [&timeline](const boost::json::value& node) {
            timeline.add(vt::timelineMoment(stringAt(node, {"createdAt"})), commentWithNode(node));
        })) {
        return std::nullopt;
    }
    if (!follow("commits", kCommitsPageQuery, [&timeline](const boost::json::value& node) {
            timeline.add(vt::timelineMoment(stringAt(node, {"commit", "committedDate"})),
                         commitWithNode(node));
        })) {
        return std::nullopt;
    }

    VTConversation conversation;
    conversation.emplace_back(pullRequest);
    conversation.emplace_back(std::move(description));
    timeline.appendTo(conversation);
    if (isTrueAt(details, {"viewerCanSubscribe"})) {
        conversation.emplace_back(true);
    }
    return conversation;
}
