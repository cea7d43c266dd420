// The actions that change a pull request. User text inside double-quoted GraphQL strings is
// quote-escaped; identifiers, branch names and object ids go in as they are.

#include "hosts/github/github_host.h"
#include "hosts/github/queries.h"
#include "transport/reading.h"
#include "transport/utilities/utilities.h"

#include <string>

using namespace vt;
using namespace vt::github;

namespace {

// GitHub's merge methods by the client's codes: 0 merge commit, 1 rebase, anything else squash.
std::string_view mergeMethod(std::int64_t method) {
    switch (method) {
        case 0:
            return "MERGE";
        case 1:
            return "REBASE";
        default:
            return "SQUASH";
    }
}

// A head in another repository arrives as owner/repository:branch (the list's form for forks);
// GitHub wants owner:branch. A plain branch name stays as it is.
std::string headReferenceForHost(const std::string& head) {
    const std::size_t colon = head.find(':');
    if (colon == std::string::npos) {
        return head;
    }
    return head.substr(0, head.find('/')) + ":" + head.substr(colon + 1);
}

}  // namespace

bool VTGitHubHost::createPullRequestWithUrl(const VTUrl& url, const std::string& baseRefName,
                                            const std::string& headRefName,
                                            const std::string& title, const std::string& comment,
                                            VTToken& token, VTError* error) {
    auto path = repositoryPath(url, error);
    if (!path) {
        return false;
    }
    auto answer =
        jsonPostWithContent(fillText(kRepositoryIdQuery, {path->owner, path->name}), token, error);
    if (!answer) {
        return false;
    }
    // An unknown owner comes back as null without an error; the creation then names no
    // repository and GitHub refuses it with its own message.
    const std::string repositoryId =
        placeText(memberAt(*answer, {"data", "repositoryOwner", "repository", "id"}));
    return postMutation(
        fillText(kCreatePullRequestMutation,
                 {repositoryId, baseRefName, headReferenceForHost(headRefName),
                  vt::quotesEscapedString(title), vt::quotesEscapedString(comment)}),
        token, error);
}

bool VTGitHubHost::editPullRequest(const VTPullRequest& pullRequest, const std::string& comment,
                                   VTToken& token, VTError* error) {
    return postMutation(fillText(kUpdatePullRequestMutation, {placeText(pullRequest.identifier),
                                                              vt::quotesEscapedString(comment)}),
                        token, error);
}

bool VTGitHubHost::addComment(const std::string& comment, const VTPullRequest& pullRequest,
                              VTToken& token, VTError* error) {
    return postMutation(fillText(kAddCommentMutation, {placeText(pullRequest.identifier),
                                                       vt::quotesEscapedString(comment)}),
                        token, error);
}

bool VTGitHubHost::replyTo(const std::string& /*commentIdentifier*/, const std::string& /*comment*/,
                           const VTPullRequest& /*pullRequest*/, VTToken& /*token*/,
                           VTError* error) {
    VTSetError(error, VTError());
    return true;
}

bool VTGitHubHost::editComment(const std::string& commentIdentifier, const std::string& newComment,
                               const VTPullRequest& /*pullRequest*/, VTToken& token,
                               VTError* error) {
    return postMutation(
        fillText(kUpdateCommentMutation, {commentIdentifier, vt::quotesEscapedString(newComment)}),
        token, error);
}

bool VTGitHubHost::deleteComment(const std::string& commentIdentifier,
                                 const VTPullRequest& /*pullRequest*/, VTToken& token,
                                 VTError* error) {
    return postMutation(fillText(kDeleteCommentMutation, {commentIdentifier}), token, error);
}

bool VTGitHubHost::mergePullRequest(const VTPullRequest& pullRequest, std::int64_t method,
                                    const VTData& oid, const std::string& message, VTToken& token,
                                    VTError* error) {
    const std::string identifier = placeText(pullRequest.identifier);
    const std::string expectedHead = vt::hexString(oid);
    const std::string_view word = mergeMethod(method);
    if (message.empty()) {
        // GitHub writes its own commit message.
        return postMutation(fillText(kMergeMutation, {identifier, word, expectedHead}), token,
                            error);
    }
    const std::size_t lineFeed = message.find('\n');
    if (lineFeed == std::string::npos) {
        return postMutation(
            fillText(kMergeWithHeadlineMutation,
                     {identifier, word, expectedHead, vt::quotesEscapedString(message)}),
            token, error);
    }
    return postMutation(
        fillText(kMergeWithBodyMutation, {identifier, word, expectedHead,
                                          vt::quotesEscapedString(message.substr(0, lineFeed)),
                                          vt::quotesEscapedString(message.substr(lineFeed + 1))}),
        token, error);
}

bool VTGitHubHost::closePullRequest(const VTPullRequest& pullRequest, VTToken& token,
                                    VTError* error) {
    return postMutation(fillText(kClosePullRequestMutation, {placeText(pullRequest.identifier)}),
                        token, error);
}
