#pragma once

// The interactive sign-in: the service asks the separate sign-in application to sign the user in,
// over two Unix datagram sockets ("<group>.Host", which the service reads, and "<group>.SignIn"),
// and waits for credentials or an error.

#include "records/error.h"
#include "records/values.h"
#include "service/host_factory.h"

#include <boost/json/object.hpp>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

// What the sign-in flow needs from the process that hosts it (the service's main loop).
class VTSignInEnvironment {
public:
    virtual ~VTSignInEnvironment() = default;
    // Runs `work` on the main loop's thread and waits until it has run.
    virtual void runOnMainThread(const std::function<void()>& work) = 0;
    // From now on the main loop calls `onReadable`, on the main thread, whenever `fd` is readable.
    virtual void watchDescriptor(int fd, std::function<void()> onReadable) = 0;
    // True when the sign-in application's bus name has an owner.
    virtual bool isSignInApplicationRunning() = 0;
};

// Where the flow finds its files, and how long it waits. The defaults are the service's own.
struct VTSignInOptions {
    // The service's executable: its folder holds "veldtrack-hosts-service.entitlements" (the
    // application group that names the message ports) and the sign-in application
    // "VeldtrackSignIn" ($VELDTRACK_SIGNIN_APP names another).
    std::filesystem::path executable = "/proc/self/exe";
    // How long one wait for the sign-in application may last; a sign-in that waits longer is
    // answered with nil and a VTGitErrorDomain -2 error, so that no request waits forever.
    std::chrono::milliseconds waitLimit = std::chrono::minutes(10);
};

class VTSignInFlow {
public:
    // result: nullopt = failed (error says why, and may be empty), empty object = ended without
    // credentials, else {"VTHostToken": token, "VTHostUserKey": user}.
    using Reply = std::function<void(std::optional<boost::json::object> result, VTError error)>;

    VTSignInFlow(VTSignInEnvironment& environment, VTHostFactory factory,
                 VTSignInOptions options = {});
    // Ends the sign-in queue: a waiting job and the jobs not yet started are answered (nil and a
    // VTGitErrorDomain -2 error) before it returns. The environment's runOnMainThread must not
    // wait forever once the main loop has stopped.
    ~VTSignInFlow();
    VTSignInFlow(const VTSignInFlow&) = delete;
    VTSignInFlow& operator=(const VTSignInFlow&) = delete;

    // Called on the client's queue with an empty password: cancels a waiting sign-in, queues the
    // job and returns at once. `reply` is called exactly once, from the sign-in queue.
    void signIn(const VTUrl& url, std::int64_t type, const std::string& username, Reply reply);

    // The text of a VTHostMessage signal (main thread). Unreadable JSON ends a waiting sign-in with
    // the parser's error; {"VTMessageSelector": "showError:", "VTMessageArgument": {...}} with a
    // VTGitErrorDomain -2 error whose user info is the argument; anything else is ignored.
    void handleNotificationMessage(std::string_view text);
    // SIGTERM: tells the sign-in application to quit (main thread). False, with the reason in
    // `error`, when the message could not be sent; the service goes on stopping all the same.
    bool quit(VTError* error = nullptr);

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};
