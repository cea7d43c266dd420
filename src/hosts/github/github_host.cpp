#include "hosts/github/github_host.h"

#include <boost/url/parse.hpp>

#include <string>

VTGitHubHost::VTGitHubHost(const VTUrl& url) {
    // Clones over SSH talk to the same site's API over HTTPS; any other scheme is kept, so that a
    // server reached over plain HTTP is asked over plain HTTP.
    std::string scheme = url.scheme();
    if (scheme == "ssh") {
        scheme = "https";
    }
    const std::string host(url.encoded_host());
    const std::string base = scheme + "://api." + host;
    if (auto parsed = boost::urls::parse_uri(base + "/graphql")) {
        graphQlUrl_ = *parsed;
    }
    sshKeysUrl_ = base + "/user/keys";
}
