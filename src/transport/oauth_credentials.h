#pragma once

// The OAuth client credentials of the hosts that renew tokens (GitLab, Bitbucket) and the web host
// of the registered redirect address. They are deployment data: the build writes them into the
// file "veldtrack-hosts-service.oauth" beside the service (see cmake/OAuthCredentials.cmake):
//
//   {"gitlab":    {"client_id": "...", "client_secret": "..."},
//    "bitbucket": {"client_id": "...", "client_secret": "..."},
//    "redirect_host": "..."}
//
// The secrets only ever go to the token endpoint of the host whose token is renewed: never log
// them and never put them into an error.

#include <filesystem>
#include <string>

namespace vt {

struct OAuthClient {
    std::string clientId;
    std::string clientSecret;
};

struct OAuthCredentials {
    OAuthClient gitlab;
    OAuthClient bitbucket;
    std::string redirectHost = "veldtrack.com";
};

// The credentials of the file beside the running executable, read on the first call (once per
// process, safe against concurrent first calls).
const OAuthCredentials& oauthCredentials();

// Reads one credentials file. Every fault gives the default for what it hides: a missing or
// unreadable file, a text that is not a JSON object, a member that is missing or not a string
// give empty texts and the redirect host "veldtrack.com".
OAuthCredentials readOAuthCredentials(const std::filesystem::path& file);

}  // namespace vt
