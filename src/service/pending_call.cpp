#include "service/pending_call.h"

#include "service/bus_names.h"

#include <sdbus-c++/Error.h>

#include <exception>
#include <optional>
#include <vector>

VTPendingCall::VTPendingCall(sdbus::MethodCall call, VTPendingCalls& calls)
    : call_(std::move(call)), calls_(calls) {}

VTPendingCall::~VTPendingCall() {
    fail(vt::bus::kStoppingError, "The hosts service stopped before the request finished.");
    calls_.remove(this);
}

void VTPendingCall::reply(const VTReplyDictionary& reply) {
    if (!claim()) {
        return;
    }
    try {
        sdbus::MethodReply message = call_.createReply();
        if (std::optional<VTError> fault = reply.appendTo(message)) {
            // The bus would refuse the reply, and drop the service with it: the client learns
            // why from the error, and keeps a refreshed token.
            message = call_.createReply();
            if (reply.standIn(*fault).appendTo(message)) {
                message = call_.createReply();
                VTReplyDictionary().standIn(std::move(*fault)).appendTo(message);
            }
        }
        message.send();
    } catch (const std::exception& failure) {
        sendError(vt::bus::kFailedError,
                  std::string("The hosts service could not send its reply: ") + failure.what());
        return;
    } catch (...) {
        sendError(vt::bus::kFailedError, "The hosts service could not send its reply.");
        return;
    }
    calls_.sent();
}

void VTPendingCall::abandon() {
    claim();
}

void VTPendingCall::fail(const std::string& name, const std::string& text) {
    if (claim()) {
        sendError(name, text);
    }
}

void VTPendingCall::sendError(const std::string& name, const std::string& text) {
    try {
        call_.createErrorReply(sdbus::Error(name, text)).send();
    } catch (...) {
        // The caller is gone or asked for no reply: nobody is left to tell.
    }
    calls_.sent();
}

VTPendingCalls::VTPendingCalls(std::function<void()> afterSend)
    : afterSend_(std::move(afterSend)) {}

std::shared_ptr<VTPendingCall> VTPendingCalls::add(sdbus::MethodCall call) {
    auto pending = std::make_shared<VTPendingCall>(std::move(call), *this);
    std::lock_guard lock(mutex_);
    calls_.emplace(pending.get(), pending);
    return pending;
}

void VTPendingCalls::failAll(const std::string& name, const std::string& text) {
    // The calls are kept alive while they are answered, and answered outside the lock: the bus
    // library takes a lock of its own to send, and it holds that one while it hands a new call
    // to add(). A call already going away answers by itself.
    std::vector<std::shared_ptr<VTPendingCall>> open;
    {
        std::lock_guard lock(mutex_);
        open.reserve(calls_.size());
        for (const auto& [address, call] : calls_) {
            if (auto alive = call.lock()) {
                open.push_back(std::move(alive));
            }
        }
    }
    for (const auto& call : open) {
        call->fail(name, text);
    }
}

std::size_t VTPendingCalls::count() const {
    std::lock_guard lock(mutex_);
    return calls_.size();
}

void VTPendingCalls::remove(VTPendingCall* call) {
    std::lock_guard lock(mutex_);
    calls_.erase(call);
}

void VTPendingCalls::sent() const {
    if (afterSend_) {
        afterSend_();
    }
}
