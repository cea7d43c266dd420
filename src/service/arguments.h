#pragma once

// VTArguments: reads the arguments of one method call in order and checks them. Each read takes
// the next argument, known by the next of the method's argument names. The first argument that
// fails is remembered with a message naming it (and the key at fault); later reads then return
// empty values without touching the message, and the caller answers with InvalidArguments instead
// of calling an adapter.

#include "records/records.h"
#include "records/values.h"

#include <sdbus-c++/Error.h>
#include <sdbus-c++/Message.h>
#include <boost/json/object.hpp>
#include <boost/json/value.hpp>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

class VTArguments {
public:
    VTArguments(sdbus::Message& message, const std::vector<std::string>& names)
        : message_(message), names_(names) {}

    bool ok() const { return fault_.empty(); }
    // "<argument>: <what is wrong>", empty while every argument passed.
    const std::string& fault() const { return fault_; }

    std::string string();
    std::int64_t integer();
    VTData data();
    // An absolute URL; the empty string is "no URL" and gives the empty URL.
    VTUrl url();
    // 'a{sv}'; the empty dictionary is "none".
    boost::json::object dictionary();
    // 'v'.
    boost::json::value variant();
    // 'a{sv}' holding a VTPullRequest record, checked key by key.
    VTPullRequest pullRequest();
    // 'ax'.
    std::vector<std::int64_t> integers();
    // 'aa{sv}'.
    std::vector<boost::json::object> dictionaries();
    // 'as' of absolute URLs with a host name (the URLs of a fork lookup).
    std::vector<VTUrl> hostUrls();

private:
    // The name of the argument the read in progress takes.
    std::string next();
    // Reads a value that needs no checking beyond its D-Bus type, which the bus has checked.
    template <typename Value>
    Value plain() {
        const std::string name = next();
        Value value{};
        if (ok()) {
            guarded(name, [&] { message_ >> value; });
        }
        return value;
    }
    // Runs `read`. A value the bus library refuses to read is a fault of argument `name`: the
    // daemon passes text holding noncharacters, which sd-bus refuses. False after a fault.
    template <typename Read>
    bool guarded(std::string_view name, Read read) {
        try {
            read();
            return true;
        } catch (const sdbus::Error&) {
            // sd-bus says only that it failed; for text that is always the text itself.
            reject(name, "holds text that is not valid UTF-8 or holds a noncharacter");
            return false;
        }
    }
    void reject(std::string_view name, std::string_view what);

    sdbus::Message& message_;
    const std::vector<std::string>& names_;
    std::size_t index_ = 0;
    std::string fault_;
};
