#include "service/host_factory.h"

#include "hosts/bitbucket/bitbucket_host.h"
#include "hosts/github/github_host.h"
#include "hosts/gitlab/gitlab_host.h"

std::unique_ptr<VTHost> VTHostForUrl(const VTUrl& url, std::int64_t type) {
    switch (type) {
        case 1:
            return std::make_unique<VTGitHubHost>(url);
        case 2:
            return std::make_unique<VTGitLabHost>(url);
        case 3:
            return std::make_unique<VTBitbucketbHost>(url);
        default:
            return nullptr;
    }
}
