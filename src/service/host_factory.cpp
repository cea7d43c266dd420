#include "service/host_factory.h"

#include "hosts/github/github_host.h"
#include "hosts/gitlab/gitlab_host.h"

std::unique_ptr<VTHost> VTHostForUrl(const VTUrl& url, std::int64_t type) {
    switch (type) {
        case 1:
            return std::make_unique<VTGitHubHost>(url);
        case 2:
            return std::make_unique<VTGitLabHost>(url);
        default:
            // Bitbucket (3) has no adapter in this build; like any other type it answers with
            // empty results.
            return nullptr;
    }
}
