// The actions that change a pull request: one REST request each.

#include "hosts/bitbucket/bitbucket_host.h"
#include "hosts/bitbucket/paths.h"
#include "transport/reading.h"

#include <charconv>
#include <string>

using namespace vt::bitbucket;

namespace {

boost::json::object rawContent(const std::string& text) {
    return {{"raw", text}};
}

// The leading decimal digits of a comment identifier as a number; 0 without any.
std::int64_t leadingInteger(std::string_view text) {
    std::int64_t number = 0;
    const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), number);
    return failure == std::errc() ? number : 0;
}

}  // namespace

bool VTBitbucketbHost::sendToPullRequest(std::string_view method, const VTPullRequest& pullRequest,
                                         std::string_view tail, const boost::json::value* content,
                                         VTToken& token, VTError* error,
                                         std::optional<std::string_view> commentIdentifier) const {
    auto base = pullRequestText(pullRequest, error);
    if (!base) {
        return false;
    }
    auto url = vt::urlWithQueryText(*base + std::string(tail), error);
    if (!url) {
        return false;
    }
    if (commentIdentifier) {
        // One escaped segment, so that no identifier can lead to another address on the host.
        url->segments().push_back(*commentIdentifier);
    }
    return jsonWithContent(content, method, *url, token, nullptr, error).has_value();
}

bool VTBitbucketbHost::createPullRequestWithUrl(const VTUrl& url, const std::string& baseRefName,
                                                const std::string& headRefName,
                                                const std::string& title,
                                                const std::string& comment, VTToken& token,
                                                VTError* error) {
    auto path = vt::repositoryPath(url, error);
    if (!path) {
        return false;
    }
    auto target = vt::urlWithQueryText(
        repositoriesUrl_ + "/" + path->fullName + std::string(kPullRequests), error);
    if (!target) {
        return false;
    }
    // A head in another repository arrives as "owner/repository:branch".
    boost::json::object source;
    if (const std::size_t colon = headRefName.find(':'); colon != std::string::npos) {
        source["repository"] = {{"full_name", headRefName.substr(0, colon)}};
        source["branch"] = {{"name", headRefName.substr(colon + 1)}};
    } else {
        source["branch"] = {{"name", headRefName}};
    }
    boost::json::object content;
    content["title"] = title;
    content["description"] = comment;
    content["source"] = std::move(source);
    content["destination"] = {{"branch", {{"name", baseRefName}}}};
    return jsonPostWithUrl(*target, content, token, error).has_value();
}

bool VTBitbucketbHost::editPullRequest(const VTPullRequest& pullRequest, const std::string& comment,
                                       VTToken& token, VTError* error) {
    // The title is sent again as it is: the host would otherwise clear it.
    const boost::json::value content = {{"title", pullRequest.title.value_or("")},
                                        {"description", comment}};
    return sendToPullRequest("PUT", pullRequest, "", &content, token, error);
}

bool VTBitbucketbHost::addComment(const std::string& comment, const VTPullRequest& pullRequest,
                                  VTToken& token, VTError* error) {
    const boost::json::value content = {{"content", rawContent(comment)}};
    return sendToPullRequest("POST", pullRequest, kComments, &content, token, error);
}

bool VTBitbucketbHost::replyTo(const std::string& commentIdentifier, const std::string& comment,
                               const VTPullRequest& pullRequest, VTToken& token, VTError* error) {
    const boost::json::value content = {{"content", rawContent(comment)},
                                        {"parent", {{"id", leadingInteger(commentIdentifier)}}}};
    return sendToPullRequest("POST", pullRequest, kComments, &content, token, error);
}

bool VTBitbucketbHost::editComment(const std::string& commentIdentifier,
                                   const std::string& newComment, const VTPullRequest& pullRequest,
                                   VTToken& token, VTError* error) {
    const boost::json::value content = {{"content", rawContent(newComment)}};
    return sendToPullRequest("PUT", pullRequest, kComments, &content, token, error,
                             commentIdentifier);
}

bool VTBitbucketbHost::deleteComment(const std::string& commentIdentifier,
                                     const VTPullRequest& pullRequest, VTToken& token,
                                     VTError* error) {
    return sendToPullRequest("DELETE", pullRequest, kComments, nullptr, token, error,
                             commentIdentifier);
}

bool VTBitbucketbHost::mergePullRequest(
    const VTPullRequest& pullRequest, std::int64_t method,
    const VTData& /*oid: Bitbucket merges whatever the head is*/, const std::string& message,
    VTToken& token, VTError* error) {
    boost::json::object content;
    content["merge_strategy"] = method == 0 ? "merge_commit" : "squash";
    content["close_source_branch"] = false;
    if (!message.empty()) {
        content["message"] = message;
    }
    const boost::json::value body = std::move(content);
    return sendToPullRequest("POST", pullRequest, kMerge, &body, token, error);
}

bool VTBitbucketbHost::closePullRequest(const VTPullRequest& pullRequest, VTToken& token,
                                        VTError* error) {
    const boost::json::value content = boost::json::object();
    return sendToPullRequest("POST", pullRequest, kDecline, &content, token, error);
}
