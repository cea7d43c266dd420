#pragma once

// VTBusService: the hosts service on a session-bus connection. It exports the request interface
// (vt::bus::kRequestInterface, 19 methods, each answering one 'a{sv}' reply dictionary) at
// vt::bus::kObjectPath, owns vt::bus::kServiceName, runs each client's requests on that client's
// own serial queue, routes the interactive sign-in to the sign-in flow and serves the flow's
// descriptors, the VTHostMessage signal and SIGTERM on the thread that calls run().
//
// Arguments are checked before any adapter is called: an argument or record that fails is
// answered with the D-Bus error vt::bus::kInvalidArgumentsError naming it. In a fork lookup every
// URL must be an absolute URL with a host name ("urls[<index>]" is named otherwise).

#include "service/host_factory.h"
#include "service/signin/sign_in.h"

#include <sdbus-c++/IConnection.h>

#include <chrono>
#include <cstddef>
#include <memory>

struct VTBusServiceOptions {
    // Builds the adapter of each request; tests plug in adapters of their own.
    VTHostFactory factory = VTHostForUrl;
    VTSignInOptions signIn;
    // A client's worker thread ends after this long without requests.
    std::chrono::milliseconds clientIdleLimit = std::chrono::seconds(30);
};

class VTBusService {
public:
    enum class Ending { stopped, terminated, busLost };

    // Exports the interface on `connection` and requests the service's name. Throws sdbus::Error
    // when the bus refuses (the name is owned by another process, for one).
    VTBusService(std::unique_ptr<sdbus::IConnection> connection, VTBusServiceOptions options = {});
    // Waits for the requests still running (see busy()).
    ~VTBusService();
    VTBusService(const VTBusService&) = delete;
    VTBusService& operator=(const VTBusService&) = delete;

    // Serves on the calling thread, the service's main thread, until stop(), SIGTERM read from
    // `signalFd` (a signalfd, or -1) or the loss of the bus. SIGTERM first tells the sign-in
    // application to quit. On the way out every request still open is answered with
    // vt::bus::kStoppingError and what the connection holds is written out.
    Ending run(int signalFd = -1);
    // Ends run(). Any thread.
    void stop();

    // True while a request still runs on a client's queue (after run() has returned, destroying
    // the service then waits for it).
    bool busy() const;
    // Clients that have a worker thread.
    std::size_t clientCount() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};
