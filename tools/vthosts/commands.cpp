#include "vthosts/commands.h"

#include <algorithm>
#include <sstream>

namespace vt::client {

namespace {

struct OptionSpec {
    std::string_view name;
    std::string_view valueName;  // empty for a flag
    std::string_view help;
};

// Every option any command knows; a command allows the common ones and those it lists.
const std::vector<OptionSpec>& optionSpecs() {
    static const std::vector<OptionSpec> specs{
        {"host", "TYPE",
         "host type: github, gitlab, bitbucket or a number (1, 2, 3); may be left out for "
         "github.com, gitlab.com and bitbucket.org"},
        {"url", "URL", "the host's address (default: the public site of --host)"},
        {"token-file", "FILE",
         "read the token from FILE ('-' for standard input); else from $VELDTRACK_TOKEN, else "
         "from standard input when it is not a terminal. A JSON object is the token dictionary "
         "itself; any other text is a personal token"},
        {"save-token", "FILE",
         "when the host hands out a new token, write it to FILE (mode 0600); it may be the "
         "--token-file itself"},
        {"user", "NAME", "user name (leave out to sign in with a personal token)"},
        {"password-file", "FILE",
         "read the password or personal token from FILE ('-' for standard input); else from "
         "$VELDTRACK_PASSWORD, else from standard input when it is not a terminal"},
        {"namespace", "JSON",
         "the namespace dictionary, as listed under \"namespaces\" by `repositories` (default: "
         "none)"},
        {"slug", "SLUG", "the repository's path name"},
        {"name", "NAME", "the repository's display name (default: the slug)"},
        {"description", "TEXT", "the repository's description"},
        {"public", "", "make the repository public"},
        {"private", "", "make the repository private (the default)"},
        {"key-file", "FILE", "the public key file ('-' for standard input)"},
        {"title", "TEXT", "the title (for a key, default: the key's comment)"},
        {"pull-request", "FILE",
         "the pull request record ('-' for standard input): one element of the list "
         "`pull-requests` prints, or the first item of a `conversation`"},
        {"number", "N", "the pull request's number in the repository at URL"},
        {"message", "TEXT", "the text"},
        {"message-file", "FILE", "read the text from FILE ('-' for standard input)"},
        {"base", "BRANCH", "the branch to merge into"},
        {"head", "BRANCH", "the branch to merge from"},
        {"to", "ID", "the identifier of the comment answered"},
        {"id", "ID", "the comment's identifier"},
        {"method", "METHOD", "merge, rebase or squash (default: merge)"},
        {"oid", "HEX", "the object id of the commit the head branch is expected to be at"},
        {"pretty", "", "indent the output (the default when standard output is a terminal)"},
        {"compact", "", "print the output on one line (the default otherwise)"},
        {"help", "", "show this help"},
        {"version", "", "show the version"},
    };
    return specs;
}

const OptionSpec* findOption(std::string_view name) {
    for (const auto& spec : optionSpecs()) {
        if (spec.name == name) {
            return &spec;
        }
    }
    return nullptr;
}

constexpr std::string_view kCommonOptions[] = {"pretty", "compact", "help"};

bool allows(const CommandSpec& command, std::string_view option) {
    return std::find(std::begin(kCommonOptions), std::end(kCommonOptions), option) !=
               std::end(kCommonOptions) ||
           std::find(command.options.begin(), command.options.end(), option) !=
               command.options.end();
}

}  // namespace

const std::vector<CommandSpec>& commands() {
    // Every request takes the token and may hand back a renewed one, except sign-in, which takes
    // a password and hands out the token it made.
    static const std::vector<CommandSpec> table{
        {"sign-in",
         "SignInWithUrl",
         Target::Host,
         "",
         "sign in and get a token",
         "Signs in with a user name and password, or with a personal token (no --user). Where "
         "the host no longer accepts passwords (Bitbucket), a Basic sign-in takes the account's "
         "e-mail address as --user and an API token as the password. Without a password the "
         "interactive sign-in starts. The new token is not printed: give --save-token FILE to "
         "keep it.",
         {"host", "url", "user", "password-file", "save-token"},
         {}},
        {"repositories",
         "GetRepositoriesWithToken",
         Target::Host,
         "",
         "list your repositories by owner, with the namespaces you may create them in",
         "",
         {"host", "url", "token-file", "save-token"},
         {}},
        {"create-repository",
         "CreateRepositoryWithToken",
         Target::Host,
         "",
         "create a repository and print its clone addresses",
         "",
         {"host", "url", "token-file", "save-token", "namespace", "slug", "name", "description",
          "public", "private"},
         {"slug"}},
        {"ssh-keys",
         "GetSshKeysWithToken",
         Target::Host,
         "",
         "list your SSH keys",
         "",
         {"host", "url", "token-file", "save-token"},
         {}},
        {"add-ssh-key",
         "AddSshKey",
         Target::Host,
         "",
         "add an SSH public key to your account",
         "",
         {"host", "url", "token-file", "save-token", "key-file", "title"},
         {"key-file"}},
        {"delete-ssh-key",
         "DeleteSshKey",
         Target::Host,
         "ID",
         "delete an SSH key by the \"id\" that `ssh-keys` lists",
         "An ID made of digits is sent as a number, any other as text.",
         {"host", "url", "token-file", "save-token"},
         {}},
        {"profile",
         "GetProfileWithToken",
         Target::Host,
         "",
         "show your profile",
         "",
         {"host", "url", "token-file", "save-token"},
         {}},
        {"privacy",
         "GetPrivacyWithUrl",
         Target::Repository,
         "URL",
         "tell whether a repository is private",
         "",
         {"host", "token-file", "save-token"},
         {}},
        {"forks",
         "GetForksForUrls",
         Target::Repositories,
         "URL...",
         "list the forks of one or more repositories",
         "Every URL is asked with the same token. Renewed tokens are not reported here.",
         {"host", "token-file"},
         {}},
        {"pull-requests",
         "GetPullRequestsWithUrl",
         Target::Repository,
         "URL",
         "list a repository's open pull requests",
         "",
         {"host", "token-file", "save-token"},
         {}},
        {"conversation",
         "GetCommentsForPullRequest",
         Target::PullRequest,
         "[URL]",
         "show a pull request with its comments and commits in time order",
         "",
         {"host", "token-file", "save-token", "pull-request", "number"},
         {}},
        {"create-pull-request",
         "CreatePullRequestWithUrl",
         Target::Repository,
         "URL",
         "open a pull request; --message is its description",
         "",
         {"host", "token-file", "save-token", "base", "head", "title", "message", "message-file"},
         {"base", "head", "title"}},
        {"edit-pull-request",
         "EditPullRequest",
         Target::PullRequest,
         "[URL]",
         "replace a pull request's description with --message",
         "",
         {"host", "token-file", "save-token", "pull-request", "number", "message", "message-file"},
         {}},
        {"comment",
         "AddComment",
         Target::PullRequest,
         "[URL]",
         "comment on a pull request",
         "",
         {"host", "token-file", "save-token", "pull-request", "number", "message", "message-file"},
         {}},
        {"reply",
         "ReplyTo",
         Target::PullRequest,
         "[URL]",
         "answer the comment --to ID of a pull request",
         "",
         {"host", "token-file", "save-token", "pull-request", "number", "to", "message",
          "message-file"},
         {"to"}},
        {"edit-comment",
         "EditComment",
         Target::PullRequest,
         "[URL]",
         "replace the text of the comment --id ID",
         "",
         {"host", "token-file", "save-token", "pull-request", "number", "id", "message",
          "message-file"},
         {"id"}},
        {"delete-comment",
         "DeleteComment",
         Target::PullRequest,
         "[URL]",
         "delete the comment --id ID",
         "",
         {"host", "token-file", "save-token", "pull-request", "number", "id"},
         {"id"}},
        {"merge",
         "MergePullRequest",
         Target::PullRequest,
         "[URL]",
         "merge a pull request whose head is at --oid",
         "Without --message the host writes the commit message.",
         {"host", "token-file", "save-token", "pull-request", "number", "method", "oid", "message",
          "message-file"},
         {"oid"}},
        {"close",
         "ClosePullRequest",
         Target::PullRequest,
         "[URL]",
         "close a pull request without merging",
         "",
         {"host", "token-file", "save-token", "pull-request", "number"},
         {}},
    };
    return table;
}

const CommandSpec* findCommand(std::string_view name) {
    for (const auto& command : commands()) {
        if (command.name == name) {
            return &command;
        }
    }
    return nullptr;
}

std::optional<std::string> Invocation::option(std::string_view name) const {
    auto found = options.find(name);
    if (found == options.end()) {
        return std::nullopt;
    }
    return found->second;
}

std::optional<Invocation> parseArguments(const std::vector<std::string>& arguments,
                                         std::string* problem) {
    Invocation invocation;
    std::vector<std::string> words;  // positionals, the command name first
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        if (argument == "--") {
            words.insert(words.end(), arguments.begin() + static_cast<std::ptrdiff_t>(i) + 1,
                         arguments.end());
            break;
        }
        if (argument == "-h") {
            invocation.options["help"];
            continue;
        }
        if (argument.size() < 3 || argument.compare(0, 2, "--") != 0) {
            // "-" alone and texts starting with one dash are words (a URL never starts so).
            if (argument.size() > 1 && argument[0] == '-') {
                *problem = "unknown option '" + argument + "'";
                return std::nullopt;
            }
            words.push_back(argument);
            continue;
        }
        std::string name = argument.substr(2);
        std::optional<std::string> value;
        if (auto equals = name.find('='); equals != std::string::npos) {
            value = name.substr(equals + 1);
            name.resize(equals);
        }
        const OptionSpec* spec = findOption(name);
        if (spec == nullptr) {
            *problem = "unknown option '--" + name + "'";
            return std::nullopt;
        }
        if (spec->valueName.empty()) {
            if (value) {
                *problem = "option '--" + name + "' takes no value";
                return std::nullopt;
            }
            value = "";
        } else if (!value) {
            if (i + 1 == arguments.size()) {
                *problem =
                    "option '--" + name + "' needs a value (" + std::string(spec->valueName) + ")";
                return std::nullopt;
            }
            value = arguments[++i];
        }
        if (!invocation.options.emplace(name, *value).second) {
            *problem = "option '--" + name + "' is given twice";
            return std::nullopt;
        }
    }

    invocation.help = invocation.has("help");
    invocation.version = invocation.has("version");
    invocation.options.erase("help");
    invocation.options.erase("version");

    if (!words.empty() && words.front() == "help") {
        // "help COMMAND" is "COMMAND --help".
        words.erase(words.begin());
        invocation.help = true;
    }
    if (words.empty()) {
        if (invocation.help || invocation.version) {
            if (!invocation.options.empty()) {
                *problem = "'--" + invocation.options.begin()->first + "' needs a command";
                return std::nullopt;
            }
            return invocation;
        }
        *problem = "no command given";
        return std::nullopt;
    }
    invocation.command = findCommand(words.front());
    if (invocation.command == nullptr) {
        *problem = "unknown command '" + words.front() + "'";
        return std::nullopt;
    }
    invocation.positionals.assign(words.begin() + 1, words.end());
    if (invocation.help) {
        // Help is asked for: the rest of the line need not be complete.
        return invocation;
    }
    if (invocation.version) {
        *problem = "'--version' goes without a command";
        return std::nullopt;
    }
    const CommandSpec& command = *invocation.command;
    for (const auto& [name, value] : invocation.options) {
        if (!allows(command, name)) {
            *problem = "'" + std::string(command.name) + "' takes no option '--" + name + "'";
            return std::nullopt;
        }
    }
    for (std::string_view name : command.required) {
        if (!invocation.has(name)) {
            *problem = "'" + std::string(command.name) + "' needs '--" + std::string(name) + "'";
            return std::nullopt;
        }
    }
    return invocation;
}

namespace {

void appendOptionHelp(std::ostringstream& text, const OptionSpec& spec) {
    std::string left = "  --" + std::string(spec.name);
    if (!spec.valueName.empty()) {
        left += " " + std::string(spec.valueName);
    }
    constexpr std::size_t kColumn = 24;
    text << left;
    if (left.size() < kColumn) {
        text << std::string(kColumn - left.size(), ' ');
    } else {
        text << "\n" << std::string(kColumn, ' ');
    }
    // Wrap the help at about 100 columns.
    std::istringstream words{std::string(spec.help)};
    std::string word;
    std::size_t column = kColumn;
    bool first = true;
    while (words >> word) {
        if (!first && column + 1 + word.size() > 100) {
            text << "\n" << std::string(kColumn, ' ');
            column = kColumn;
            first = true;
        }
        if (!first) {
            text << ' ';
            ++column;
        }
        text << word;
        column += word.size();
        first = false;
    }
    text << "\n";
}

}  // namespace

std::string overallHelp() {
    std::ostringstream text;
    text << "Usage: vthosts COMMAND [OPTIONS] [ARGUMENTS]\n"
            "Asks the Veldtrack hosts service to talk to a Git host (GitHub, GitLab, Bitbucket)\n"
            "and prints its reply as JSON.\n\nCommands:\n";
    for (const auto& command : commands()) {
        std::string left = "  " + std::string(command.name);
        text << left << std::string(left.size() < 24 ? 24 - left.size() : 1, ' ') << command.summary
             << "\n";
    }
    text << "\nRun 'vthosts COMMAND --help' for a command's options.\n"
            "Exit status: 0 success, 1 the request failed (the error is printed on standard\n"
            "error as well), 2 the command line or an input file was not usable.\n";
    return text.str();
}

std::string commandHelp(const CommandSpec& command) {
    std::ostringstream text;
    text << "Usage: vthosts " << command.name << " [OPTIONS]";
    if (!command.arguments.empty()) {
        text << " " << command.arguments;
    }
    std::string summary(command.summary);
    summary.front() = static_cast<char>(std::toupper(static_cast<unsigned char>(summary.front())));
    text << "\n" << summary << ".\n";
    if (!command.details.empty()) {
        text << command.details << "\n";
    }
    if (command.target == Target::PullRequest) {
        text << "The pull request is the record in --pull-request FILE, or pull request --number N "
                "of the\nrepository at URL (its conversation is loaded first).\n";
    }
    text << "\nOptions:\n";
    for (std::string_view name : command.options) {
        appendOptionHelp(text, *findOption(name));
    }
    for (std::string_view name : kCommonOptions) {
        appendOptionHelp(text, *findOption(name));
    }
    return text.str();
}

}  // namespace vt::client
