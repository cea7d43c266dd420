// The conversation of one merge request: its details, the description, the discussion threads
// with their replies, and the commits in runs, in time order.

#include "hosts/gitlab/gitlab_host.h"

#include "hosts/gitlab/queries.h"
#include "hosts/gitlab/support.h"
#include "transport/dates.h"
#include "transport/paging.h"
#include "transport/reading.h"
#include "transport/timeline.h"

#include <syslog.h>

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

using namespace vt;
using namespace vt::gitlab;

namespace {

const boost::json::object& emptyObject() {
    static const boost::json::object empty;
    return empty;
}

// The one line the service writes while it works: where a long thread is read again from, for
// the diagnosis of hosts that page discussions oddly. The cursor is the host's paging text.
void logThreadCursor(const std::string& cursor) {
    static std::once_flag opened;
    std::call_once(opened, [] { openlog("veldtrack-hosts-service", LOG_PID, LOG_USER); });
    syslog(LOG_NOTICE, "cursor: \"%s\"", cursor.c_str());
}

// Who wrote a commit, as GitLab's account knows them when it does.
struct CommitAuthor {
    std::optional<std::string> username;
    std::optional<std::string> avatar;
};

}  // namespace

std::optional<VTConversation> VTGitLabHost::commentsForPullRequest(VTPullRequest& pullRequest,
                                                                   VTToken& token, VTError* error) {
    if (!hasFreshToken(token, error)) {
        return std::nullopt;
    }
    const std::string path = projectPath(pullRequest.remoteUrl.value_or(""));
    const std::string number =
        pullRequest.number ? std::to_string(*pullRequest.number) : std::string(kMissingText);
    auto answer = postQuery(fillText(kConversationQuery, {path, number}), token, error);
    if (!answer) {
        return std::nullopt;
    }
    // REST names the project by the number at the end of its global id; without a project there
    // are no commits to ask REST for.
    const auto globalId = stringAt(*answer, {"data", "project", "id"});
    if (!globalId) {
        VTSetError(error, VTError(VTHTTPErrorDomain, 404,
                                  "The project " + path + " was not found on the server."));
        return std::nullopt;
    }
    const std::string projectId = lastPathComponent(*globalId);
    const boost::json::object* found = objectAt(*answer, {"data", "project", "mergeRequest"});
    const boost::json::object& details = found != nullptr ? *found : emptyObject();

    pullRequest.identifier = stringAt(details, {"id"});
    pullRequest.webUrl = stringAt(details, {"webUrl"});
    pullRequest.commentable = isTrueAt(details, {"userPermissions", "createNote"});
    pullRequest.editable = isTrueAt(details, {"userPermissions", "updateMergeRequest"});
    pullRequest.closeable = isTrueAt(details, {"userPermissions", "adminMergeRequest"});
    pullRequest.allowsMerge = isTrueAt(details, {"userPermissions", "canMerge"});
    pullRequest.merged = stringAt(details, {"state"}) == "merged";
    pullRequest.mergeable = isTrueAt(details, {"mergeable"}) ? 0 : 1;

    VTPullRequestComment description =
        vt::descriptionComment(pullRequest, stringAt(details, {"description"}));

    // Each connection of the first answer is followed on its own, with its own follow-up text.
    auto follow = [&](std::string_view connection, std::string_view pageText,
                      const CursorPage& page) {
        auto followUp = [&](const std::string& cursor) {
            return fillText(pageText, {path, number, cursor});
        };
        const std::string member(connection);
        auto locate = [member](const boost::json::value& pageAnswer) {
            return objectAt(pageAnswer, {"data", "project", "mergeRequest", member});
        };
        return pageGraphQlFrom(*this, graphQlUrl_, *answer, followUp, locate, page, token, error);
    };
    KnownUrls avatarUrls;
    auto avatarUrl = [&](std::string_view text) -> const std::optional<std::string>& {
        return urlWithString(text, avatarUrls);
    };
    // A page handler that calls `each` for every node of the connection.
    auto eachNode = [](const std::function<void(const boost::json::value&)>& each) {
        return [each](const boost::json::object& connection, const boost::json::value&, VTError*) {
            if (const boost::json::array* nodes = arrayAt(connection, {"nodes"})) {
                for (const boost::json::value& node : *nodes) {
                    each(node);
                }
            }
            return true;
        };
    };
    auto withAvatar = [&avatarUrl](boost::json::object& entry, std::string_view key,
                                   const std::optional<std::string>& address) {
        if (address) {
            if (const auto& url = avatarUrl(*address)) {
                entry[key] = *url;
            }
        }
    };

    boost::json::array assignees;
    if (!follow("assignees", kAssigneesPageQuery, eachNode([&](const boost::json::value& node) {
                    boost::json::object assignee;
                    if (auto username = stringAt(node, {"username"})) {
                        assignee["author"] = *username;
                    }
                    withAvatar(assignee, "avatar", stringAt(node, {"avatarUrl"}));
                    assignees.emplace_back(std::move(assignee));
                }))) {
        return std::nullopt;
    }
    pullRequest.assignees = std::move(assignees);

    boost::json::array labels;
    if (!follow("labels", kLabelsPageQuery, eachNode([&](const boost::json::value& node) {
                    boost::json::object label;
                    if (const boost::json::value* title = memberAt(node, {"title"})) {
                        label["name"] = *title;
                    }
                    if (const boost::json::value* color = memberAt(node, {"color"})) {
                        label["color"] = *color;
                    }
                    labels.emplace_back(std::move(label));
                }))) {
        return std::nullopt;
    }
    pullRequest.labels = std::move(labels);

    // ---- Threads: the first note of a discussion heads it, the others are its replies.
    Timeline timeline;
    auto commentWithNote = [&](const boost::json::value& note) {
        VTPullRequestComment comment;
        comment.identifier = stringAt(note, {"id"});
        comment.author = stringAt(note, {"author", "username"});
        if (auto avatar = stringAt(note, {"author", "avatarUrl"})) {
            comment.avatarUrl = avatarUrl(*avatar);
        }
        comment.date = stringAt(note, {"createdAt"});
        comment.editable = isTrueAt(note, {"userPermissions", "adminNote"});
        comment.deletable = comment.editable;
        comment.content = stringAt(note, {"body"});
        return comment;
    };
    // The cursor of the discussion before the one being read: asking for the one discussion after
    // it brings back exactly the current one, to read more of its notes.
    std::string previousCursor;
    auto discussionsPage = [&](const boost::json::object& connection, const boost::json::value&,
                               VTError* pageError) {
        const boost::json::array* edges = arrayAt(connection, {"edges"});
        if (edges == nullptr) {
            return true;
        }
        for (const boost::json::value& edge : *edges) {
            const boost::json::value* node = memberAt(edge, {"node"});
            const boost::json::array* notes =
                node != nullptr ? arrayAt(*node, {"notes", "nodes"}) : nullptr;
            // System notes (status changes, pushes) are not part of the conversation.
            if (notes != nullptr && !notes->empty() &&
                !stringAt(notes->front(), {"systemNoteIconName"})) {
                VTPullRequestComment head = commentWithNote(notes->front());
                head.replyTo = isTrueAt(notes->front(), {"userPermissions", "createNote"})
                                   ? stringAt(*node, {"replyId"}).value_or("")
                                   : std::string();
                std::vector<VTPullRequestComment> replies;
                bool first = true;
                auto notesPage = [&](const boost::json::object& notesConnection,
                                     const boost::json::value&, VTError*) {
                    if (const boost::json::array* page = arrayAt(notesConnection, {"nodes"})) {
                        for (std::size_t index = std::exchange(first, false) ? 1 : 0;
                             index < page->size(); ++index) {
                            replies.push_back(commentWithNote((*page)[index]));
                        }
                    }
                    return true;
                };
                auto notesFollowUp = [&](const std::string& notesCursor) {
                    logThreadCursor(previousCursor);
                    return fillText(kDiscussionNotesPageQuery,
                                    {path, number, previousCursor, notesCursor});
                };
                // The first page of notes is the discussion node's own; later pages come back as
                // the only discussion of an answer.
                auto locateNotes = [](const boost::json::value& notesAnswer) {
                    if (const boost::json::object* own = objectAt(notesAnswer, {"notes"})) {
                        return own;
                    }
                    const boost::json::array* nodes = arrayAt(
                        notesAnswer, {"data", "project", "mergeRequest", "discussions", "nodes"});
                    return nodes != nullptr && !nodes->empty() ? objectAt(nodes->front(), {"notes"})
                                                               : nullptr;
                };
                if (!pageGraphQlFrom(*this, graphQlUrl_, *node, notesFollowUp, locateNotes,
                                     notesPage, token, pageError)) {
                    return false;
                }
                head.comments = std::move(replies);
                const double moment = timelineMoment(head.date);
                timeline.add(moment, std::move(head));
            }
            previousCursor = stringAt(edge, {"cursor"}).value_or("");
        }
        return true;
    };
    if (!follow("discussions", kDiscussionsPageQuery, discussionsPage)) {
        return std::nullopt;
    }

    // ---- Commits: GraphQL knows the authors' accounts, REST lists every commit with its date.
    std::map<std::string, CommitAuthor, std::less<>> authors;
    if (!follow("commitsWithoutMergeCommits", kCommitsPageQuery,
                eachNode([&](const boost::json::value& node) {
                    auto sha = stringAt(node, {"sha"});
                    if (!sha) {
                        return;
                    }
                    CommitAuthor author;
                    if (const boost::json::object* account = objectAt(node, {"author"})) {
                        author.username = stringAt(*account, {"username"});
                        if (auto avatar = stringAt(*account, {"avatarUrl"})) {
                            author.avatar = avatarUrl(*avatar);
                        }
                    } else {
                        // Later pages ask for the account only: a commit without one is then
                        // known by nothing here, and its own name and address are used.
                        author.username = stringAt(node, {"authorName"});
                        if (auto gravatar = stringAt(node, {"authorGravatar"})) {
                            author.avatar = avatarUrl(*gravatar);
                        }
                    }
                    authors[*sha] = std::move(author);
                }))) {
        return std::nullopt;
    }

    const CommitAuthor* previousAuthor = nullptr;
    auto commitsPage = [&](const boost::json::value& page, VTError*) {
        const boost::json::array* commits = page.if_array();
        if (commits == nullptr) {
            return true;
        }
        for (const boost::json::value& entry : *commits) {
            VTPullRequestCommit commit;
            commit.oid = stringAt(entry, {"id"});
            // Merge commits are not in the GraphQL list: they show the author of the commit
            // before them.
            if (commit.oid) {
                if (auto known = authors.find(*commit.oid); known != authors.end()) {
                    previousAuthor = &known->second;
                }
            }
            commit.author = previousAuthor != nullptr && previousAuthor->username
                                ? previousAuthor->username
                                : stringAt(entry, {"author_name"});
            if (previousAuthor != nullptr && previousAuthor->avatar) {
                commit.avatarUrl = previousAuthor->avatar;
            } else if (auto email = stringAt(entry, {"author_email"})) {
                commit.avatarUrl = avatarUrl("mailto:" + *email);
            }
            commit.message = stringAt(entry, {"title"});
            const auto committed = stringAt(entry, {"committed_date"});
            std::optional<double> moment;
            if (committed) {
                moment = momentWithIsoText(*committed, kIsoFractionDatePattern);
            }
            if (moment) {
                commit.date = isoTextWithMoment(*moment);
            }
            timeline.add(moment.value_or(0.0), std::move(commit));
        }
        return true;
    };
    auto commitsUrl =
        urlWithText(repositoryUrl_ + fillText(kMergeRequestCommitsPath, {projectId, number}));
    if (!commitsUrl) {
        VTSetError(error, VTError(VTURLErrorDomain, -1000,
                                  "The project " + projectId + " cannot be named in an address."));
        return std::nullopt;
    }
    if (!pageLinks(*this, *commitsUrl, commitsPage, token, error)) {
        return std::nullopt;
    }

    VTConversation conversation;
    conversation.emplace_back(pullRequest);
    conversation.emplace_back(std::move(description));
    timeline.appendTo(conversation);
    if (pullRequest.commentable) {
        conversation.emplace_back(true);
    }
    return conversation;
}
