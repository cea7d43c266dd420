#pragma once

// A method call waiting for its answer. Whoever answers first (the request's reply, a failure,
// the service stopping) answers; every later answer is dropped, so each call is answered exactly
// once. A call that goes away unanswered is answered with kStoppingError, unless it was
// abandoned. Answers are sent from the thread that gives them (sdbus-c++ serialises the bus) and
// the loop is woken after each, so that a large reply that did not fit the socket at once is
// written on. A reply the bus would refuse (nested too deeply, too large) is answered with a
// reply dictionary holding only the refreshed token and an error that names the fault.

#include "service/reply.h"

#include <sdbus-c++/Message.h>

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

class VTPendingCalls;

class VTPendingCall {
public:
    VTPendingCall(sdbus::MethodCall call, VTPendingCalls& calls);
    ~VTPendingCall();
    VTPendingCall(const VTPendingCall&) = delete;
    VTPendingCall& operator=(const VTPendingCall&) = delete;

    // The call, to read its arguments (one reader at a time).
    sdbus::MethodCall& message() { return call_; }
    std::string sender() const { return call_.getSender(); }

    // Answers with a method return holding `reply`.
    void reply(const VTReplyDictionary& reply);
    // Answers with the D-Bus error `name`.
    void fail(const std::string& name, const std::string& text);
    // Gives the call up unanswered: its client has left the bus, and nobody would read an answer.
    void abandon();
    bool answered() const { return answered_.load(); }

private:
    bool claim() { return !answered_.exchange(true); }
    void sendError(const std::string& name, const std::string& text);

    sdbus::MethodCall call_;
    VTPendingCalls& calls_;
    std::atomic<bool> answered_{false};
};

// The calls not yet answered, so that the service can answer all of them when it stops.
class VTPendingCalls {
public:
    // `afterSend` runs after every answer (it wakes the loop that writes the bus).
    explicit VTPendingCalls(std::function<void()> afterSend);
    VTPendingCalls(const VTPendingCalls&) = delete;
    VTPendingCalls& operator=(const VTPendingCalls&) = delete;

    std::shared_ptr<VTPendingCall> add(sdbus::MethodCall call);
    // Answers every call still open with the D-Bus error `name`.
    void failAll(const std::string& name, const std::string& text);
    std::size_t count() const;

private:
    friend class VTPendingCall;
    void remove(VTPendingCall* call);
    void sent() const;

    const std::function<void()> afterSend_;
    mutable std::mutex mutex_;
    std::unordered_map<VTPendingCall*, std::weak_ptr<VTPendingCall>> calls_;
};
