#include "vthosts/client.h"

#include "records/records.h"
#include "service/bus_names.h"
#include "vt_version.h"
#include "vthosts/output.h"

namespace vt::client {

namespace {

// Listed pull requests do not say where they live: the host's list has no such field. A record
// that is passed back later (`--pull-request FILE`) needs its repository and host type to find
// its host, so they are filled in from the request, as the desktop client does.
void addRepository(boost::json::object& reply, const Request& request) {
    auto* list = reply.if_contains("pullRequests");
    const auto* url = std::get_if<std::string>(&request.arguments.at(0));
    const auto* type = std::get_if<std::int64_t>(&request.arguments.at(1));
    if (list == nullptr || !list->is_array() || url == nullptr || type == nullptr) {
        return;
    }
    for (boost::json::value& item : list->get_array()) {
        if (auto* record = item.if_object()) {
            if (!record->contains("remoteUrl")) {
                (*record)["remoteUrl"] = *url;
            }
            const auto* hostType = record->if_contains("hostType");
            if (hostType == nullptr || (hostType->is_int64() && hostType->get_int64() == 0)) {
                (*record)["hostType"] = *type;
            }
        }
    }
}

int usageError(Console& console, const std::string& problem, const Invocation* invocation) {
    console.err << "vthosts: " << problem << "\n";
    if (invocation != nullptr && invocation->command != nullptr) {
        console.err << "Run 'vthosts " << invocation->command->name << " --help' for its usage.\n";
    } else {
        console.err << "Run 'vthosts --help' for the commands.\n";
    }
    return kUsage;
}

// Runs a plan: the lookup first when there is one, then the request, and shows the outcome.
class Execution {
public:
    Execution(const Invocation& invocation, Plan plan, Console& console, const Caller& caller)
        : invocation_(invocation), plan_(std::move(plan)), console_(console), caller_(caller) {}

    int run();

private:
    // Keeps a token the service handed out, saving it when asked; returns false if saving failed.
    bool takeToken(const VTToken& token);
    // Shows a D-Bus failure and returns the exit status.
    int showFailure(const CallOutcome& outcome);
    // Shows the final reply and returns the exit status.
    int showReply(boost::json::object reply);
    bool useLookup(const boost::json::object& reply, std::string* problem);

    const Invocation& invocation_;
    Plan plan_;
    Console& console_;
    const Caller& caller_;
    std::optional<VTToken> newToken_;
    bool saved_ = false;
    bool saveFailed_ = false;
};

int Execution::run() {
    if (plan_.lookup) {
        CallOutcome outcome = caller_(*plan_.lookup);
        if (!outcome.reply) {
            return showFailure(outcome);
        }
        if (errorInReply(*outcome.reply)) {
            // Why the pull request could not be loaded is the answer.
            return showReply(std::move(*outcome.reply));
        }
        if (auto token = tokenInReply(*outcome.reply)) {
            takeToken(*token);
            plan_.request.arguments[plan_.tokenIndex] = *token;
        }
        std::string problem;
        if (!useLookup(*outcome.reply, &problem)) {
            console_.err << "vthosts: " << problem << "\n";
            if (newToken_ && !saved_) {
                console_.err << "vthosts: the host renewed the token; give --save-token FILE to "
                                "keep it\n";
            }
            return kFailed;
        }
    }
    CallOutcome outcome = caller_(plan_.request);
    if (!outcome.reply) {
        return showFailure(outcome);
    }
    return showReply(std::move(*outcome.reply));
}

bool Execution::useLookup(const boost::json::object& reply, std::string* problem) {
    const auto* conversation = reply.if_contains("conversation");
    if (conversation == nullptr || !conversation->is_array() || conversation->get_array().empty()) {
        *problem = "pull request " + invocation_.option("number").value_or("") +
                   " did not load: the service sent no conversation";
        return false;
    }
    std::string fault;
    auto pullRequest = VTPullRequest::fromValue(conversation->get_array().front(), &fault);
    if (!pullRequest) {
        *problem = "the conversation does not start with a pull request record (" + fault + ")";
        return false;
    }
    plan_.request.arguments[plan_.recordIndex] = pullRequest->toValue();
    return true;
}

bool Execution::takeToken(const VTToken& token) {
    newToken_ = token;
    saved_ = false;
    auto path = invocation_.option("save-token");
    if (!path) {
        return true;
    }
    std::string problem;
    if (!saveToken(*path, token, &problem)) {
        console_.err << "vthosts: " << problem << "\n";
        saveFailed_ = true;
        return false;
    }
    saved_ = true;
    return true;
}

int Execution::showFailure(const CallOutcome& outcome) {
    int status = kFailed;
    if (outcome.errorName == vt::bus::kInvalidArgumentsError) {
        console_.err << "vthosts: the service refused the request: " << outcome.errorMessage
                     << "\n";
        status = kUsage;
    } else {
        console_.err << "vthosts: the hosts service did not answer: " << outcome.errorMessage
                     << " (" << outcome.errorName << ")\n";
    }
    if (newToken_ && !saved_) {
        console_.err << "vthosts: the host renewed the token on the way, but it was not saved "
                        "(--save-token FILE)\n";
    }
    return saveFailed_ ? kFailed : status;
}

int Execution::showReply(boost::json::object reply) {
    const bool signIn = plan_.request.member == "SignInWithUrl";
    if (plan_.request.member == "GetPullRequestsWithUrl") {
        addRepository(reply, plan_.request);
    }
    if (auto token = tokenInReply(reply)) {
        takeToken(*token);
    } else if (newToken_ && !reply.contains("refreshedToken")) {
        // The lookup renewed the token and the request itself did not: it is still news.
        reply["refreshedToken"] = boost::json::object(*newToken_);
    }
    if (newToken_) {
        std::string note = signIn ? "(not shown" : "(renewed, not shown";
        note += saved_ ? "; saved to " + *invocation_.option("save-token") + ")"
                       : "; keep it with --save-token FILE)";
        reply = withoutToken(std::move(reply), note);
    }
    console_.out << formatJson(reply, plan_.pretty) << "\n";
    console_.out.flush();

    int status = kSuccess;
    if (auto error = errorInReply(reply)) {
        console_.err << describeError(*error);
        status = kFailed;
    } else if (signIn && !newToken_) {
        const auto* result = reply.if_contains("result");
        console_.err << (result != nullptr ? "vthosts: the sign-in ended without credentials\n"
                                           : "vthosts: no credentials came back\n");
        status = kFailed;
    }
    if (newToken_ && !saved_ && !saveFailed_) {
        console_.err << (signIn ? "vthosts: the token is not shown; give --save-token FILE to "
                                  "keep it\n"
                                : "vthosts: the host renewed the token and the old one may no "
                                  "longer work; give --save-token FILE to keep the new one\n");
    }
    return saveFailed_ ? kFailed : status;
}

}  // namespace

int run(const std::vector<std::string>& arguments, Console& console, const Caller& caller) {
    std::string problem;
    auto invocation = parseArguments(arguments, &problem);
    if (!invocation) {
        Invocation named;
        // Name the command in the hint when the line got that far.
        if (!arguments.empty()) {
            for (const auto& word : arguments) {
                if (auto* command = findCommand(word)) {
                    named.command = command;
                    break;
                }
            }
        }
        return usageError(console, problem, &named);
    }
    if (invocation->help) {
        console.out << (invocation->command != nullptr ? commandHelp(*invocation->command)
                                                       : overallHelp());
        return kSuccess;
    }
    if (invocation->version) {
        console.out << "vthosts " << VT_VERSION_STRING << "\n";
        return kSuccess;
    }
    auto plan = planRequest(*invocation, console.sources, console.outIsTerminal, &problem);
    if (!plan) {
        return usageError(console, problem, &*invocation);
    }
    return Execution(*invocation, std::move(*plan), console, caller).run();
}

}  // namespace vt::client
