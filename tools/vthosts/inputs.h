#pragma once

// What vthosts reads from its user besides the command line's shape: host types, repository
// addresses, tokens, passwords, texts and records. Every reader returns nullopt on input it cannot
// use and says why in `problem`; the problem text never quotes a token or password.

#include "records/values.h"

#include <boost/json/object.hpp>

#include <cstdint>
#include <functional>
#include <istream>
#include <optional>
#include <string>
#include <string_view>

namespace vt::client {

// The host types the service knows.
inline constexpr std::int64_t kGitHub = 1;
inline constexpr std::int64_t kGitLab = 2;
inline constexpr std::int64_t kBitbucket = 3;

// "github", "gitlab", "bitbucket" (any case) or a decimal number (any, so that a type the service
// does not know can be asked for too).
std::optional<std::int64_t> parseHostType(std::string_view text, std::string* problem);
// The type of the public site a URL is on (github.com, gitlab.com, bitbucket.org), if it is one.
std::optional<std::int64_t> hostTypeOfPublicSite(std::string_view url);
// The public site of a known host type, e.g. "https://github.com".
std::optional<std::string> publicSite(std::int64_t type);

// Rewrites an scp-like remote ("git@host:owner/repo.git", "host:path", "git@[::1]:repo") as the
// equivalent ssh URL ("ssh://git@host/owner/repo.git"); any other text comes back unchanged.
std::string rewriteScpLikeRemote(std::string_view remote);
// The remote rewritten as above, when it then is an absolute URL with a host name.
std::optional<std::string> repositoryUrl(std::string_view remote, std::string* problem);

// The token dictionary in `text`: a JSON object is the dictionary itself; other text (surrounding
// white space removed) is a personal token, sent as {"token_type":"Bearer","access_token":text};
// empty text is no token (the empty dictionary).
std::optional<VTToken> tokenFromText(std::string_view text, std::string* problem);

// Where the client reads from: standard input and the environment. Tests substitute both.
struct Sources {
    std::istream& input;
    bool inputIsTerminal = false;
    std::function<std::optional<std::string>(const std::string&)> variable;
};

// Reads a whole file, "-" being standard input. Refuses files above 64 MiB.
std::optional<std::string> readText(const std::string& path, std::istream& input,
                                    std::string* problem);

// A secret (token or password) from, in order: `file` (when given; "-" is standard input), the
// environment variable, standard input when it is not a terminal and nothing else claimed it.
// nullopt with an empty problem when there is none.
std::optional<std::string> readSecret(const std::optional<std::string>& file,
                                      const std::string& variable, bool inputClaimed,
                                      Sources& sources, std::string* problem);

// A JSON object from `text` (a record file, a namespace); `what` names it in the problem.
std::optional<boost::json::object> objectFromText(std::string_view text, std::string_view what,
                                                  std::string* problem);

// An object id in hexadecimal (40 or 64 digits) as its bytes.
std::optional<VTData> objectIdFromHex(std::string_view hex, std::string* problem);

}  // namespace vt::client
