// The pull request list and the conversation of one pull request.

#include "hosts/bitbucket/bitbucket_host.h"
#include "hosts/bitbucket/paths.h"
#include "transport/paging.h"
#include "transport/reading.h"
#include "transport/timeline.h"

#include <map>
#include <string>
#include <utility>
#include <vector>

using namespace vt::bitbucket;

namespace {

// The first line of a commit message.
std::optional<std::string> firstLine(std::optional<std::string> message) {
    if (message) {
        if (const std::size_t lineFeed = message->find('\n'); lineFeed != std::string::npos) {
            message->erase(lineFeed);
        }
    }
    return message;
}

// The comments of a pull request as the host lists them, oldest first, each reply below the
// comment it answers.
class CommentTree {
public:
    // Adds a comment under its host identifier. A reply goes below its parent; a reply to a
    // comment that was not listed before it is dropped (its parent is gone).
    void add(const std::string& identifier, const std::optional<std::string>& parent,
             VTPullRequestComment comment, double moment) {
        const std::size_t index = nodes_.size();
        nodes_.push_back({std::move(comment), moment, {}});
        byIdentifier_[identifier] = index;
        if (!parent) {
            topLevel_.push_back(index);
        } else if (auto found = byIdentifier_.find(*parent);
                   found != byIdentifier_.end() && found->second != index) {
            nodes_[found->second].replies.push_back(index);
        }
    }

    // Puts every top-level comment, with its replies, in the timeline in the order listed.
    void addTo(vt::Timeline& timeline) {
        for (std::size_t index : topLevel_) {
            timeline.add(nodes_[index].moment, take(index));
        }
    }

private:
    struct Node {
        VTPullRequestComment comment;
        double moment;
        std::vector<std::size_t> replies;
    };

    // Replies always come later in the list than what they answer, so the tree has no cycles.
    VTPullRequestComment take(std::size_t index) {
        Node& node = nodes_[index];
        if (!node.replies.empty()) {
            std::vector<VTPullRequestComment> replies;
            replies.reserve(node.replies.size());
            for (std::size_t reply : node.replies) {
                replies.push_back(take(reply));
            }
            node.comment.comments = std::move(replies);
        }
        return std::move(node.comment);
    }

    std::vector<Node> nodes_;
    std::map<std::string, std::size_t, std::less<>> byIdentifier_;
    std::vector<std::size_t> topLevel_;
};

// A deleted top-level comment stays, marked, while it has answers; without them it goes.
bool keepTopLevelComment(VTPullRequestComment& comment) {
    VTBitbucketbHost::removeFromComment(comment);
    if (comment.content) {
        return true;
    }
    if (comment.comments && !comment.comments->empty()) {
        comment.content = VTBitbucketbHost::deletedCommentMarker();
        return true;
    }
    return false;
}

}  // namespace

std::optional<std::vector<VTPullRequest>> VTBitbucketbHost::pullRequestsWithUrl(const VTUrl& url,
                                                                                VTToken& token,
                                                                                VTError* error) {
    auto path = vt::repositoryPath(url, error);
    if (!path) {
        return std::nullopt;
    }
    std::vector<VTPullRequest> pullRequests;
    auto readPullRequest = [&](const boost::json::value& value, VTError*) {
        VTPullRequest pullRequest;
        pullRequest.identifier = vt::placeText(vt::memberAt(value, {"id"}));
        pullRequest.number = vt::integerAt(value, {"id"});
        pullRequest.author = vt::stringAt(value, {"author", "nickname"});
        if (!pullRequest.author) {
            pullRequest.author = vt::stringAt(value, {"author", "username"});
        }
        pullRequest.avatarUrl = vt::urlAt(value, {"author", "links", "avatar", "href"});
        pullRequest.title = vt::stringAt(value, {"title"});
        if (auto created = vt::stringAt(value, {"created_on"})) {
            pullRequest.date = convertedDateString(*created, true);
        }
        auto base = vt::stringAt(value, {"destination", "branch", "name"});
        auto head = vt::stringAt(value, {"source", "branch", "name"});
        // A pull request from a fork names both branches with their repositories, the form
        // the client passes back when it creates one.
        if (vt::objectAt(value, {"source", "repository"}) != nullptr) {
            auto source = vt::stringAt(value, {"source", "repository", "full_name"});
            if (source != path->fullName) {
                base = path->fullName + ":" + vt::placeText(base);
                head = vt::placeText(source) + ":" + vt::placeText(head);
            }
        }
        pullRequest.baseReference = std::move(base);
        pullRequest.headReference = std::move(head);
        pullRequests.push_back(std::move(pullRequest));
        return vt::PageStep::more;
    };
    auto first = vt::urlWithQueryText(
        repositoriesUrl_ + "/" + path->fullName + std::string(kOpenPullRequests), error);
    if (!first || !pageValues(*first, readPullRequest, token, error)) {
        return std::nullopt;
    }
    return pullRequests;
}

std::optional<std::string> VTBitbucketbHost::pullRequestText(const VTPullRequest& pullRequest,
                                                             VTError* error) const {
    auto path = vt::repositoryPath(pullRequest.remoteUrl.value_or(""), error);
    if (!path) {
        return std::nullopt;
    }
    const std::string number =
        pullRequest.number ? std::to_string(*pullRequest.number) : std::string(vt::kMissingText);
    return repositoriesUrl_ + "/" + path->fullName + std::string(kPullRequests) + "/" + number;
}

std::optional<VTConversation> VTBitbucketbHost::commentsForPullRequest(VTPullRequest& pullRequest,
                                                                       VTToken& token,
                                                                       VTError* error) {
    const auto base = pullRequestText(pullRequest, error);
    if (!base) {
        return std::nullopt;
    }
    auto user = jsonGetWithText(userUrl_ + std::string(kUuidFields), token, error);
    if (!user) {
        return std::nullopt;
    }
    const auto ownUuid = vt::stringAt(*user, {"uuid"});
    auto isOwn = [&ownUuid](const std::optional<std::string>& uuid) {
        return ownUuid.has_value() && uuid == ownUuid;
    };

    auto details = jsonGetWithText(*base + std::string(kDetailsFields), token, error);
    if (!details) {
        return std::nullopt;
    }
    const bool own = isOwn(vt::stringAt(*details, {"author", "uuid"}));
    pullRequest.webUrl = vt::stringAt(*details, {"links", "html", "href"});
    pullRequest.commentable = true;
    pullRequest.editable = own;
    pullRequest.closeable = own;
    pullRequest.allowsMerge = own;
    pullRequest.merged = vt::stringAt(*details, {"state"}) == "MERGED";

    // The diffstat already carries a query; one conflicting file is enough to know.
    bool conflict = false;
    if (auto diffstat = vt::stringAt(*details, {"links", "diffstat", "href"})) {
        auto first = vt::urlWithText(*diffstat + std::string(kDiffstatPage));
        if (!first) {
            VTSetError(error, VTError(VTURLErrorDomain, -1000,
                                      "The host sent a diffstat address that is not a URL."));
            return std::nullopt;
        }
        auto readFile = [&conflict](const boost::json::value& file, VTError*) {
            conflict = vt::stringAt(file, {"status"}) == "merge conflict";
            return conflict ? vt::PageStep::last : vt::PageStep::more;
        };
        if (!pageValues(*first, readFile, token, error)) {
            return std::nullopt;
        }
    }
    pullRequest.mergeable = conflict ? 1 : 0;

    VTPullRequestComment description =
        vt::descriptionComment(pullRequest, vt::stringAt(*details, {"description"}));

    CommentTree comments;
    auto readComment = [&](const boost::json::value& value, VTError*) {
        VTPullRequestComment comment;
        const std::string identifier = vt::placeText(vt::memberAt(value, {"id"}));
        comment.identifier = identifier;
        comment.replyTo = identifier;
        comment.author = vt::stringAt(value, {"user", "nickname"});
        comment.avatarUrl = vt::urlAt(value, {"user", "links", "avatar", "href"});
        std::optional<double> moment;
        if (auto created = vt::stringAt(value, {"created_on"})) {
            comment.date = convertedDateString(*created, true, &moment);
        }
        comment.editable = isOwn(vt::stringAt(value, {"user", "uuid"}));
        comment.deletable = comment.editable;
        if (!vt::isTrueAt(value, {"deleted"})) {
            comment.content = vt::stringAt(value, {"content", "raw"});
        }
        std::optional<std::string> parent;
        if (vt::memberAt(value, {"parent"}) != nullptr) {
            parent = vt::placeText(vt::memberAt(value, {"parent", "id"}));
        }
        comments.add(identifier, parent, std::move(comment), moment.value_or(0.0));
        return vt::PageStep::more;
    };
    auto firstComments = vt::urlWithQueryText(*base + std::string(kCommentsFirstPage), error);
    if (!firstComments || !pageValues(*firstComments, readComment, token, error)) {
        return std::nullopt;
    }
    vt::Timeline timeline;
    comments.addTo(timeline);
    timeline.keepComments(keepTopLevelComment);

    auto readCommit = [&timeline](const boost::json::value& value, VTError*) {
        VTPullRequestCommit commit;
        commit.author = vt::stringAt(value, {"author", "user", "nickname"});
        commit.avatarUrl = vt::urlAt(value, {"author", "user", "links", "avatar", "href"});
        commit.oid = vt::stringAt(value, {"hash"});
        std::optional<double> moment;
        if (auto date = vt::stringAt(value, {"date"})) {
            commit.date = convertedDateString(*date, false, &moment);
        }
        commit.message = firstLine(vt::stringAt(value, {"message"}));
        timeline.add(moment.value_or(0.0), std::move(commit));
        return vt::PageStep::more;
    };
    auto firstCommits = vt::urlWithQueryText(*base + std::string(kCommitsFirstPage), error);
    if (!firstCommits || !pageValues(*firstCommits, readCommit, token, error)) {
        return std::nullopt;
    }

    VTConversation conversation;
    conversation.emplace_back(pullRequest);
    conversation.emplace_back(std::move(description));
    timeline.appendTo(conversation);
    conversation.emplace_back(true);
    return conversation;
}
