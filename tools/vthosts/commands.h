#pragma once

// The subcommands of vthosts, their options and help texts, and the parser that turns a command
// line into an Invocation. Parsing checks only the shape of the line (known command, known and
// allowed options, values present, no repeats); what the values mean is judged later.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vt::client {

// What a command's request is about, which decides how its URL and host type are found.
enum class Target {
    Host,          // the host itself: --url, defaulting to the public site of --host
    Repository,    // one repository URL, positional
    Repositories,  // one or more repository URLs, positional
    PullRequest,   // --pull-request FILE, or a repository URL and --number N
};

struct CommandSpec {
    std::string_view name;
    std::string_view member;  // the D-Bus method
    Target target;
    std::string_view arguments;              // the synopsis after the options, e.g. "URL"
    std::string_view summary;                // one line for the command list
    std::string_view details;                // the rest of the help text
    std::vector<std::string_view> options;   // allowed besides the common ones
    std::vector<std::string_view> required;  // options that must be given
};

// Every command, in the order of the command list.
const std::vector<CommandSpec>& commands();
const CommandSpec* findCommand(std::string_view name);

struct Invocation {
    const CommandSpec* command = nullptr;  // nullptr: no command (overall help or version)
    bool help = false;
    bool version = false;
    std::map<std::string, std::string, std::less<>> options;  // long name without dashes
    std::vector<std::string> positionals;

    std::optional<std::string> option(std::string_view name) const;
    bool has(std::string_view name) const { return options.find(name) != options.end(); }
};

// Parses `arguments` (without the program name). On a malformed line returns nullopt and says why
// in `problem`.
std::optional<Invocation> parseArguments(const std::vector<std::string>& arguments,
                                         std::string* problem);

// The help texts: the overall one, and one command's.
std::string overallHelp();
std::string commandHelp(const CommandSpec& command);

}  // namespace vt::client
