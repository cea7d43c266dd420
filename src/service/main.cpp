// veldtrack-hosts-service: the hosts service process. Started by D-Bus activation (or by hand) on
// the session bus; ends on SIGTERM or when the bus goes away.

#include "service/bus_service.h"
#include "transport/http.h"

#include <sdbus-c++/IConnection.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>

#include <sys/signalfd.h>
#include <unistd.h>

int main() {
    // SIGTERM is read from a signalfd in the main loop; blocked before any thread starts, so that
    // every thread inherits the mask and none of them takes it.
    sigset_t terminate;
    sigemptyset(&terminate);
    sigaddset(&terminate, SIGTERM);
    if (pthread_sigmask(SIG_BLOCK, &terminate, nullptr) != 0) {
        std::perror("veldtrack-hosts-service: blocking SIGTERM");
        return 1;
    }
    const int signalFd = signalfd(-1, &terminate, SFD_CLOEXEC | SFD_NONBLOCK);
    if (signalFd < 0) {
        std::perror("veldtrack-hosts-service: signalfd");
        return 1;
    }
    // A peer that goes away while the service writes to it must not end the process.
    std::signal(SIGPIPE, SIG_IGN);
    vt::http::initialize();

    try {
        VTBusService service(sdbus::createSessionBusConnection());
        const VTBusService::Ending ending = service.run(signalFd);
        const int status = ending == VTBusService::Ending::busLost ? 1 : 0;
        if (service.busy()) {
            // A request still waits for its host (up to the HTTP time-out). Its client has been
            // answered already, so the process ends now rather than waiting for it.
            std::_Exit(status);
        }
        return status;
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "veldtrack-hosts-service: %s\n", failure.what());
        return 1;
    }
}
