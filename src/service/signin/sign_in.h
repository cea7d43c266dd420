#pragma once

// The interactive sign-in: the service asks the separate sign-in application to sign the user in,
// over two Unix datagram sockets ("<group>.Host", which the service reads, and "<group>.SignIn"),
// and waits for credentials or an error.

#include "records/error.h"
#include "records/values.h"
#include "service/host_factory.h"

#include <boost/json/object.hpp>

#include <cstdint>
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

class VTSignInFlow {
public:
    // result: nullopt = failed (error says why, and may be empty), empty object = ended without
    // credentials, else {"VTHostToken": token, "VTHostUserKey": user}.
    using Reply = std::function<void(std::optional<boost::json::object> result, VTError error)>;

    VTSignInFlow(VTSignInEnvironment& environment, VTHostFactory factory);
    ~VTSignInFlow();  // ends the sign-in queue; a waiting job is answered before it returns
    VTSignInFlow(const VTSignInFlow&) = delete;
    VTSignInFlow& operator=(const VTSignInFlow&) = delete;

    // Called on the client's queue with an empty password: cancels a waiting sign-in, queues the
    // job and returns at once. `reply` is called exactly once, from the sign-in queue.
    void signIn(const VTUrl& url, std::int64_t type, const std::string& username, Reply reply);

    // The text of a VTHostMessage signal (main thread).
    void handleNotificationMessage(std::string_view text);
    // SIGTERM: tells the sign-in application to quit (main thread).
    void quit();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};
