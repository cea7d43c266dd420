#include "service/signin/sign_in.h"

#include <utility>

struct VTSignInFlow::Impl {
    Impl(VTSignInEnvironment& environment, VTHostFactory factory)
        : environment(environment), factory(std::move(factory)) {}

    VTSignInEnvironment& environment;
    VTHostFactory factory;
};

VTSignInFlow::VTSignInFlow(VTSignInEnvironment& environment, VTHostFactory factory)
    : impl_(std::make_unique<Impl>(environment, std::move(factory))) {}

VTSignInFlow::~VTSignInFlow() = default;

void VTSignInFlow::signIn(const VTUrl&, std::int64_t, const std::string&, Reply reply) {
    reply(std::nullopt, VTError(VTGitErrorDomain, -2,
                                "Hosts service failed to receive message from sign-in application",
                                "The interactive sign-in is not available yet."));
}

void VTSignInFlow::handleNotificationMessage(std::string_view) {}

void VTSignInFlow::quit() {}
