#include "service/host_factory.h"

#include "hosts/github/github_host.h"

std::unique_ptr<VTHost> VTHostForUrl(const VTUrl& url, std::int64_t type) {
    switch (type) {
        case 1:
            return std::make_unique<VTGitHubHost>(url);
        default:
            // GitLab (2) and Bitbucket (3) have no adapter in this build; like any other type
            // they answer with empty results.
            return nullptr;
    }
}
