#include "harness.h"

#include <cstdlib>
#include <fstream>

namespace vt::client::test {

int Harness::run(const std::vector<std::string>& arguments) {
    std::istringstream in(input);
    std::ostringstream outStream;
    std::ostringstream errStream;
    Console console{Sources{in, inputIsTerminal,
                            [this](const std::string& name) -> std::optional<std::string> {
                                auto found = environment.find(name);
                                if (found == environment.end()) {
                                    return std::nullopt;
                                }
                                return found->second;
                            }},
                    outStream, outputIsTerminal, errStream};
    const int status = vt::client::run(arguments, console, [this](const Request& request) {
        sent.push_back(request);
        if (outcomes.empty()) {
            ADD_FAILURE() << "unscripted request " << request.member;
            return failing("org.freedesktop.DBus.Error.NoReply", "nobody answered");
        }
        CallOutcome outcome = std::move(outcomes.front());
        outcomes.pop_front();
        return outcome;
    });
    out = outStream.str();
    err = errStream.str();
    return status;
}

boost::json::object Harness::tokenSent(std::size_t index) const {
    for (const auto& argument : sent.at(index).arguments) {
        if (const auto* object = std::get_if<boost::json::object>(&argument);
            object != nullptr && !object->contains("$class") && !object->contains("identifier")) {
            return *object;
        }
    }
    ADD_FAILURE() << "request " << index << " carries no token";
    return {};
}

CallOutcome replying(boost::json::object reply) {
    CallOutcome outcome;
    outcome.reply = std::move(reply);
    return outcome;
}

CallOutcome failing(std::string name, std::string message) {
    CallOutcome outcome;
    outcome.errorName = std::move(name);
    outcome.errorMessage = std::move(message);
    return outcome;
}

}  // namespace vt::client::test
