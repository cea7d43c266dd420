#pragma once

// VTGitHubHost: the adapter for host type 1. GraphQL for everything but SSH keys (REST).

#include "transport/host.h"

#include <string>

class VTGitHubHost : public VTHost {
public:
    // Derives the endpoints from a repository or host URL: "ssh" becomes "https", and the host
    // name gets the "api." prefix.
    explicit VTGitHubHost(const VTUrl& url);

    const VTUrl& graphQlUrl() const { return graphQlUrl_; }
    const std::string& sshKeysUrl() const { return sshKeysUrl_; }

    // (the adapter interface overrides are declared here by the GitHub adapter)

private:
    VTUrl graphQlUrl_;
    std::string sshKeysUrl_;
};
