#include "vthosts/request.h"

#include "records/records.h"

#include <boost/url/parse.hpp>

#include <algorithm>
#include <charconv>
#include <map>
#include <set>

namespace vt::client {

namespace {

std::string signatureOf(const Argument& argument) {
    struct Visitor {
        std::string operator()(const std::string&) const { return "s"; }
        std::string operator()(std::int64_t) const { return "x"; }
        std::string operator()(const boost::json::object&) const { return "a{sv}"; }
        std::string operator()(const AnyValue&) const { return "v"; }
        std::string operator()(const VTData&) const { return "ay"; }
        std::string operator()(const std::vector<std::string>&) const { return "as"; }
        std::string operator()(const std::vector<std::int64_t>&) const { return "ax"; }
        std::string operator()(const std::vector<boost::json::object>&) const { return "aa{sv}"; }
    };
    return std::visit(Visitor{}, argument);
}

std::string unknownHostProblem(std::string_view url) {
    return "cannot tell the host type of '" + std::string(url) +
           "': give --host (github, gitlab, bitbucket or a number)";
}

// Builds one command's plan; each step fails with `problem_` set.
class Planner {
public:
    Planner(const Invocation& invocation, Sources& sources, std::string* problem)
        : invocation_(invocation),
          command_(*invocation.command),
          sources_(sources),
          problem_(problem) {}

    std::optional<Plan> build(bool outputIsTerminal);

private:
    bool fail(std::string problem) {
        *problem_ = std::move(problem);
        return false;
    }
    std::optional<std::string> option(std::string_view name) const {
        return invocation_.option(name);
    }

    bool checkStandardInput();
    bool checkPositionals(std::size_t least, std::size_t most, std::string_view what);
    bool resolveType(std::string_view url);
    bool resolveTarget();
    bool readToken();
    bool readMessage(bool required);
    bool addArguments();

    const Invocation& invocation_;
    const CommandSpec& command_;
    Sources& sources_;
    std::string* problem_;

    bool inputClaimed_ = false;  // an option other than the secret reads standard input
    std::int64_t type_ = 0;
    std::string url_;
    std::vector<std::string> urls_;  // forks
    std::vector<std::int64_t> types_;
    boost::json::object record_;
    bool recordByNumber_ = false;
    VTToken token_;
    std::string message_;
    Plan plan_;
};

std::optional<Plan> Planner::build(bool outputIsTerminal) {
    if (invocation_.has("pretty") && invocation_.has("compact")) {
        fail("'--pretty' and '--compact' exclude each other");
        return std::nullopt;
    }
    plan_.pretty = invocation_.has("pretty") || (outputIsTerminal && !invocation_.has("compact"));
    plan_.request.member = std::string(command_.member);
    if (!checkStandardInput() || !resolveTarget() || !readToken() || !addArguments()) {
        return std::nullopt;
    }
    if (recordByNumber_) {
        Request lookup{"GetCommentsForPullRequest", {record_, token_}};
        if (command_.member == lookup.member) {
            plan_.request = std::move(lookup);
        } else {
            plan_.lookup = std::move(lookup);
        }
    }
    return std::move(plan_);
}

bool Planner::checkStandardInput() {
    int readers = 0;
    for (std::string_view name : {"pull-request", "message-file", "key-file"}) {
        if (option(name) == "-") {
            ++readers;
        }
    }
    inputClaimed_ = readers > 0;
    if (option("token-file") == "-" || option("password-file") == "-") {
        ++readers;
    }
    if (readers > 1) {
        return fail("only one input can come from standard input");
    }
    return true;
}

bool Planner::checkPositionals(std::size_t least, std::size_t most, std::string_view what) {
    const std::size_t count = invocation_.positionals.size();
    if (count < least) {
        return fail("'" + std::string(command_.name) + "' needs " + std::string(what));
    }
    if (count > most) {
        return fail("'" + std::string(command_.name) + "' does not know what to do with '" +
                    invocation_.positionals[most] + "'");
    }
    return true;
}

bool Planner::resolveType(std::string_view url) {
    if (auto host = option("host")) {
        auto type = parseHostType(*host, problem_);
        if (!type) {
            return false;
        }
        type_ = *type;
        return true;
    }
    auto type = hostTypeOfPublicSite(url);
    if (!type) {
        return fail(unknownHostProblem(url));
    }
    type_ = *type;
    return true;
}

bool Planner::resolveTarget() {
    switch (command_.target) {
        case Target::Host: {
            const bool takesId = command_.name == "delete-ssh-key";
            if (!checkPositionals(takesId ? 1 : 0, takesId ? 1 : 0, "the key's ID")) {
                return false;
            }
            if (auto given = option("url")) {
                auto url = repositoryUrl(*given, problem_);
                if (!url || !resolveType(*url)) {
                    return false;
                }
                url_ = std::move(*url);
                return true;
            }
            if (!option("host")) {
                return fail("'" + std::string(command_.name) +
                            "' needs --host (github, gitlab, bitbucket or a number) or --url");
            }
            if (!resolveType("")) {
                return false;
            }
            auto site = publicSite(type_);
            if (!site) {
                return fail("host type " + std::to_string(type_) +
                            " has no public site: give --url");
            }
            url_ = std::move(*site);
            return true;
        }
        case Target::Repository: {
            if (!checkPositionals(1, 1, "the repository's URL")) {
                return false;
            }
            auto url = repositoryUrl(invocation_.positionals.front(), problem_);
            if (!url || !resolveType(*url)) {
                return false;
            }
            url_ = std::move(*url);
            return true;
        }
        case Target::Repositories: {
            if (!checkPositionals(1, SIZE_MAX, "at least one repository URL")) {
                return false;
            }
            // The service takes one type per distinct host name, in order of first appearance.
            std::set<std::string> hosts;
            for (const auto& given : invocation_.positionals) {
                auto url = repositoryUrl(given, problem_);
                if (!url || !resolveType(*url)) {
                    return false;
                }
                if (hosts.insert(std::string(boost::urls::parse_absolute_uri(*url)->host()))
                        .second) {
                    types_.push_back(type_);
                }
                urls_.push_back(std::move(*url));
            }
            return true;
        }
        case Target::PullRequest: {
            if (auto file = option("pull-request")) {
                for (std::string_view excluded : {"number", "host"}) {
                    if (invocation_.has(excluded)) {
                        return fail("'--" + std::string(excluded) +
                                    "' does not go with '--pull-request': the record names its "
                                    "repository and host");
                    }
                }
                if (!checkPositionals(0, 0, "")) {
                    return false;
                }
                auto text = readText(*file, sources_.input, problem_);
                if (!text) {
                    return false;
                }
                auto record = objectFromText(*text, "the pull request record", problem_);
                if (!record) {
                    return false;
                }
                // The service checks the record itself and names any key at fault.
                record_ = std::move(*record);
                return true;
            }
            if (!checkPositionals(1, 1, "--pull-request FILE, or a repository URL and --number") ||
                !invocation_.has("number")) {
                return fail("'" + std::string(command_.name) +
                            "' needs --pull-request FILE, or a repository URL and --number N");
            }
            const std::string number = *option("number");
            std::int64_t value = 0;
            auto [stop, fault] =
                std::from_chars(number.data(), number.data() + number.size(), value);
            if (number.empty() || fault != std::errc() || stop != number.data() + number.size() ||
                value <= 0) {
                return fail("the pull request number '" + number + "' is not a positive number");
            }
            auto url = repositoryUrl(invocation_.positionals.front(), problem_);
            if (!url || !resolveType(*url)) {
                return false;
            }
            url_ = std::move(*url);
            VTPullRequest pullRequest;
            pullRequest.remoteUrl = url_;
            pullRequest.hostType = type_;
            pullRequest.number = value;
            record_ = pullRequest.toValue();
            recordByNumber_ = true;
            return true;
        }
    }
    return fail("unknown command kind");
}

bool Planner::readToken() {
    if (command_.member == "SignInWithUrl") {
        return true;
    }
    auto text =
        readSecret(option("token-file"), "VELDTRACK_TOKEN", inputClaimed_, sources_, problem_);
    if (!text) {
        return false;
    }
    auto token = tokenFromText(*text, problem_);
    if (!token) {
        return false;
    }
    token_ = std::move(*token);
    return true;
}

bool Planner::readMessage(bool required) {
    auto text = option("message");
    auto file = option("message-file");
    if (text && file) {
        return fail("'--message' and '--message-file' exclude each other");
    }
    if (file) {
        text = readText(*file, sources_.input, problem_);
        if (!text) {
            return false;
        }
        // Editors end a file with a line feed that is not part of the text.
        while (!text->empty() && (text->back() == '\n' || text->back() == '\r')) {
            text->pop_back();
        }
    }
    if (!text && required) {
        return fail("'" + std::string(command_.name) + "' needs --message or --message-file");
    }
    message_ = text.value_or("");
    return true;
}

bool Planner::addArguments() {
    auto& arguments = plan_.request.arguments;
    const std::string_view name = command_.name;
    // The record goes where the command's table says; its index is noted for the lookup.
    auto addRecord = [&] {
        plan_.recordIndex = arguments.size();
        arguments.emplace_back(record_);
    };
    auto addToken = [&] {
        plan_.tokenIndex = arguments.size();
        arguments.emplace_back(token_);
    };
    auto hostArguments = [&] {
        addToken();
        arguments.emplace_back(url_);
        arguments.emplace_back(type_);
    };

    if (name == "sign-in") {
        auto password = readSecret(option("password-file"), "VELDTRACK_PASSWORD", inputClaimed_,
                                   sources_, problem_);
        if (!password) {
            return false;
        }
        // A password file ends with a line feed that is not part of the password.
        while (!password->empty() && (password->back() == '\n' || password->back() == '\r')) {
            password->pop_back();
        }
        arguments = {url_, type_, option("user").value_or(""), *password};
    } else if (name == "repositories" || name == "ssh-keys" || name == "profile") {
        hostArguments();
    } else if (name == "create-repository") {
        if (invocation_.has("public") && invocation_.has("private")) {
            return fail("'--public' and '--private' exclude each other");
        }
        boost::json::object space;
        if (auto text = option("namespace")) {
            auto parsed = objectFromText(*text, "the namespace", problem_);
            if (!parsed) {
                return false;
            }
            space = std::move(*parsed);
        }
        const std::string slug = *option("slug");
        hostArguments();
        arguments.emplace_back(std::move(space));
        arguments.emplace_back(slug);
        arguments.emplace_back(option("name").value_or(slug));
        arguments.emplace_back(option("description").value_or(""));
        arguments.emplace_back(std::int64_t{invocation_.has("public") ? 1 : 0});
    } else if (name == "add-ssh-key") {
        auto text = readText(*option("key-file"), sources_.input, problem_);
        if (!text) {
            return false;
        }
        std::string key(text->begin(), text->end());
        while (!key.empty() && std::isspace(static_cast<unsigned char>(key.back()))) {
            key.pop_back();
        }
        if (key.find("PRIVATE KEY") != std::string::npos) {
            return fail("that is a private key: give the public key (the .pub file)");
        }
        if (key.empty() || key.find('\n') != std::string::npos) {
            return fail("the key file does not hold one public key line");
        }
        // "type base64 comment": the comment names the key unless --title does.
        std::string title;
        if (auto given = option("title")) {
            title = *given;
        } else if (auto first = key.find(' '); first != std::string::npos) {
            if (auto second = key.find(' ', first + 1); second != std::string::npos) {
                title = key.substr(second + 1);
            }
        }
        arguments.emplace_back(key);
        arguments.emplace_back(title);
        hostArguments();
    } else if (name == "delete-ssh-key") {
        const std::string& id = invocation_.positionals.front();
        std::int64_t number = 0;
        auto [stop, fault] = std::from_chars(id.data(), id.data() + id.size(), number);
        // Hosts number their keys (GitHub, GitLab) or name them with text (Bitbucket's UUIDs).
        boost::json::value identifier = (fault == std::errc() && stop == id.data() + id.size())
                                            ? boost::json::value(number)
                                            : boost::json::value(id);
        arguments.emplace_back(AnyValue{std::move(identifier)});
        hostArguments();
    } else if (name == "privacy" || name == "pull-requests") {
        arguments.emplace_back(url_);
        arguments.emplace_back(type_);
        addToken();
    } else if (name == "forks") {
        arguments.emplace_back(urls_);
        arguments.emplace_back(types_);
        arguments.emplace_back(std::vector<boost::json::object>(urls_.size(), token_));
    } else if (name == "conversation" || name == "close") {
        addRecord();
        addToken();
    } else if (name == "create-pull-request") {
        if (!readMessage(false)) {
            return false;
        }
        arguments = {url_, type_, *option("base"), *option("head"), *option("title"), message_};
        addToken();
    } else if (name == "edit-pull-request") {
        if (!readMessage(true)) {
            return false;
        }
        addRecord();
        arguments.emplace_back(message_);
        addToken();
    } else if (name == "comment") {
        if (!readMessage(true)) {
            return false;
        }
        arguments.emplace_back(message_);
        addRecord();
        addToken();
    } else if (name == "reply" || name == "edit-comment") {
        if (!readMessage(true)) {
            return false;
        }
        arguments.emplace_back(*option(name == "reply" ? "to" : "id"));
        arguments.emplace_back(message_);
        addRecord();
        addToken();
    } else if (name == "delete-comment") {
        arguments.emplace_back(*option("id"));
        addRecord();
        addToken();
    } else if (name == "merge") {
        // The merge method's fixed codes: 0 merge commit, 1 rebase, 2 squash.
        static const std::map<std::string, std::int64_t, std::less<>> kMethods{
            {"merge", 0}, {"rebase", 1}, {"squash", 2}};
        const std::string method = option("method").value_or("merge");
        auto found = kMethods.find(method);
        if (found == kMethods.end()) {
            return fail("unknown merge method '" + method + "' (merge, rebase or squash)");
        }
        auto oid = objectIdFromHex(*option("oid"), problem_);
        if (!oid || !readMessage(false)) {
            return false;
        }
        addRecord();
        arguments.emplace_back(found->second);
        arguments.emplace_back(std::move(*oid));
        arguments.emplace_back(message_);
        addToken();
    } else {
        return fail("unknown command '" + std::string(name) + "'");
    }
    return true;
}

}  // namespace

std::string signature(const Request& request) {
    std::string text;
    for (const auto& argument : request.arguments) {
        text += signatureOf(argument);
    }
    return text;
}

std::optional<Plan> planRequest(const Invocation& invocation, Sources& sources,
                                bool outputIsTerminal, std::string* problem) {
    return Planner(invocation, sources, problem).build(outputIsTerminal);
}

}  // namespace vt::client
