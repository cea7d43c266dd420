// The list of open merge requests.

#include "hosts/gitlab/gitlab_host.h"

#include "hosts/gitlab/queries.h"
#include "hosts/gitlab/support.h"
#include "transport/paging.h"
#include "transport/reading.h"

#include <utility>

using namespace vt;
using namespace vt::gitlab;

std::optional<std::vector<VTPullRequest>> VTGitLabHost::pullRequestsWithUrl(const VTUrl& url,
                                                                            VTToken& token,
                                                                            VTError* error) {
    if (!hasFreshToken(token, error)) {
        return std::nullopt;
    }
    const std::string path = projectPath(url);
    std::vector<VTPullRequest> pullRequests;
    KnownUrls avatarUrls;
    auto page = [&](const boost::json::object& connection, const boost::json::value&, VTError*) {
        const boost::json::array* nodes = arrayAt(connection, {"nodes"});
        if (nodes == nullptr) {
            return true;
        }
        for (const boost::json::value& node : *nodes) {
            VTPullRequest pullRequest;
            pullRequest.author = stringAt(node, {"author", "username"});
            if (auto avatar = stringAt(node, {"author", "avatarUrl"})) {
                pullRequest.avatarUrl = urlWithString(*avatar, avatarUrls);
            }
            pullRequest.title = stringAt(node, {"title"});
            pullRequest.number = integerValue(memberAt(node, {"iid"}));
            pullRequest.date = stringAt(node, {"createdAt"});
            const std::string target = placeText(memberAt(node, {"targetBranch"}));
            const std::string source = placeText(memberAt(node, {"sourceBranch"}));
            // A request from another project (a fork) names both branches with their project,
            // the form the client passes back when it creates one.
            const boost::json::object* sourceProject = objectAt(node, {"sourceProject"});
            if (sourceProject != nullptr && stringAt(*sourceProject, {"fullPath"}) != path) {
                pullRequest.baseReference = path + ":" + target;
                pullRequest.headReference =
                    placeText(sourceProject->if_contains("fullPath")) + ":" + source;
            } else {
                pullRequest.baseReference = target;
                pullRequest.headReference = source;
            }
            pullRequests.push_back(std::move(pullRequest));
        }
        return true;
    };
    auto followUp = [&path](const std::string& cursor) {
        return fillText(kMergeRequestsPageQuery, {path, cursor});
    };
    if (!pageGraphQl(*this, graphQlUrl_, fillText(kMergeRequestsQuery, {path}), followUp,
                     connectionAt({"data", "project", "mergeRequests"}), page, token, error)) {
        return std::nullopt;
    }
    return pullRequests;
}
