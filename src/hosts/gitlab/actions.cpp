// The actions that change a merge request: all GraphQL mutations but the creation from a fork,
// which goes over REST. User text inside double-quoted GraphQL strings is quote-escaped;
// identifiers, paths, branch names and object ids go in as they are.

#include "hosts/gitlab/gitlab_host.h"

#include "hosts/gitlab/queries.h"
#include "hosts/gitlab/support.h"
#include "transport/reading.h"
#include "transport/utilities/utilities.h"

#include <boost/json/serialize.hpp>

#include <string>

using namespace vt;
using namespace vt::gitlab;

namespace {

std::string numberText(const VTPullRequest& pullRequest) {
    return pullRequest.number ? std::to_string(*pullRequest.number) : std::string(kMissingText);
}

std::string pathOf(const VTPullRequest& pullRequest) {
    return projectPath(pullRequest.remoteUrl.value_or(""));
}

}  // namespace

bool VTGitLabHost::postMutation(std::string_view text, std::string_view payload, VTToken& token,
                                VTError* error) const {
    auto answer = postQuery(text, token, error);
    if (!answer) {
        return false;
    }
    // GitLab reports what it refused inside the payload, as plain messages.
    if (const boost::json::array* errors = arrayAt(*answer, {"data", payload, "errors"});
        errors != nullptr && !errors->empty()) {
        const boost::json::value& first = errors->front();
        const std::string message =
            first.is_string() ? std::string(first.get_string()) : boost::json::serialize(first);
        VTSetError(error, VTError(VTHTTPErrorDomain, 200, message));
        return false;
    }
    return true;
}

bool VTGitLabHost::createPullRequestWithUrl(const VTUrl& url, const std::string& baseRefName,
                                            const std::string& headRefName,
                                            const std::string& title, const std::string& comment,
                                            VTToken& token, VTError* error) {
    if (!hasFreshToken(token, error)) {
        return false;
    }
    const std::string path = projectPath(url);
    const std::size_t colon = headRefName.find(':');
    if (colon == std::string::npos) {
        return postMutation(fillText(kCreateMergeRequestMutation,
                                     {path, headRefName, baseRefName, quotesEscapedString(title),
                                      quotesEscapedString(comment)}),
                            "mergeRequestCreate", token, error);
    }

    // A branch of another project ("group/fork:feature"): GraphQL cannot create across projects,
    // so the merge request is made from the source project over REST, naming the target by id.
    auto answer = postQuery(fillText(kProjectIdQuery, {path}), token, error);
    if (!answer) {
        return false;
    }
    auto globalId = stringAt(*answer, {"data", "project", "id"});
    if (!globalId) {
        VTSetError(error, VTError(VTHTTPErrorDomain, 404,
                                  "The project " + path + " was not found on the server."));
        return false;
    }
    boost::json::object body;
    body["source_branch"] = headRefName.substr(colon + 1);
    body["target_branch"] = baseRefName;
    body["target_project_id"] = lastPathComponent(*globalId);
    body["title"] = title;
    body["description"] = comment;
    const std::string source = encodedProjectIdentifier(headRefName.substr(0, colon));
    auto endpoint = urlWithText(repositoryUrl_ + fillText(kMergeRequestsPath, {source}));
    if (!endpoint) {
        VTSetError(error, VTError(VTURLErrorDomain, -1000,
                                  "The project " + headRefName.substr(0, colon) +
                                      " cannot be named in an address."));
        return false;
    }
    return jsonPostWithUrl(*endpoint, body, token, error).has_value();
}

bool VTGitLabHost::editPullRequest(const VTPullRequest& pullRequest, const std::string& comment,
                                   VTToken& token, VTError* error) {
    if (!hasFreshToken(token, error)) {
        return false;
    }
    return postMutation(
        fillText(kUpdateDescriptionMutation,
                 {pathOf(pullRequest), numberText(pullRequest), quotesEscapedString(comment)}),
        "mergeRequestUpdate", token, error);
}

bool VTGitLabHost::addComment(const std::string& comment, const VTPullRequest& pullRequest,
                              VTToken& token, VTError* error) {
    if (!hasFreshToken(token, error)) {
        return false;
    }
    return postMutation(fillText(kCreateNoteMutation,
                                 {placeText(pullRequest.identifier), quotesEscapedString(comment)}),
                        "createNote", token, error);
}

bool VTGitLabHost::replyTo(const std::string& commentIdentifier, const std::string& comment,
                           const VTPullRequest& pullRequest, VTToken& token, VTError* error) {
    if (!hasFreshToken(token, error)) {
        return false;
    }
    return postMutation(
        fillText(kReplyNoteMutation, {placeText(pullRequest.identifier), commentIdentifier,
                                      quotesEscapedString(comment)}),
        "createNote", token, error);
}

bool VTGitLabHost::editComment(const std::string& commentIdentifier, const std::string& newComment,
                               const VTPullRequest& /*pullRequest*/, VTToken& token,
                               VTError* error) {
    if (!hasFreshToken(token, error)) {
        return false;
    }
    return postMutation(
        fillText(kUpdateNoteMutation, {commentIdentifier, quotesEscapedString(newComment)}),
        "updateNote", token, error);
}

bool VTGitLabHost::deleteComment(const std::string& commentIdentifier,
                                 const VTPullRequest& /*pullRequest*/, VTToken& token,
                                 VTError* error) {
    if (!hasFreshToken(token, error)) {
        return false;
    }
    return postMutation(fillText(kDestroyNoteMutation, {commentIdentifier}), "destroyNote", token,
                        error);
}

bool VTGitLabHost::mergePullRequest(const VTPullRequest& pullRequest, std::int64_t method,
                                    const VTData& oid, const std::string& message, VTToken& token,
                                    VTError* error) {
    if (!hasFreshToken(token, error)) {
        return false;
    }
    const std::string path = pathOf(pullRequest);
    const std::string number = numberText(pullRequest);
    const std::string sha = hexString(oid);
    // GitLab merges with a merge commit or squashes; any nonzero method asks for the squash.
    const bool squash = method != 0;
    const std::string_view squashWord = squash ? "true" : "false";
    std::string text;
    if (message.empty()) {
        // Without a message GitLab writes its own, squashed or not.
        text = fillText(kMergeMutation, {path, number, sha, squashWord});
    } else {
        text = fillText(squash ? kMergeSquashMessageMutation : kMergeMessageMutation,
                        {path, number, sha, squashWord, quotesEscapedString(message)});
    }
    return postMutation(text, "mergeRequestAccept", token, error);
}

bool VTGitLabHost::closePullRequest(const VTPullRequest& pullRequest, VTToken& token,
                                    VTError* error) {
    if (!hasFreshToken(token, error)) {
        return false;
    }
    // The payload is read under mergeRequestAccept, which a closing answer never has: a close
    // that reached GitLab counts as done, and the client reloads the state anyway.
    return postMutation(fillText(kCloseMutation, {pathOf(pullRequest), numberText(pullRequest)}),
                        "mergeRequestAccept", token, error);
}
