#pragma once

// The value encoding on the bus, written once for the service and its clients:
//   string/URL 's', integer 'x', floating-point 'd', boolean 'b', array 'av', dictionary 'a{sv}'
//   (a null member is left out), null inside an array an empty 'a{sv}', record 'a{sv}' with "$class".
// Values are written straight into the message (no sdbus::Variant trees), so large replies stay cheap.

#include "records/error.h"
#include "records/records.h"

#include <boost/json/object.hpp>
#include <boost/json/value.hpp>
#include <sdbus-c++/Message.h>

#include <string>

namespace vt::wire {

// Appends `value` as one variant ('v').
void appendVariant(sdbus::Message& message, const boost::json::value& value);
// Appends `object` as 'a{sv}'.
void appendDictionary(sdbus::Message& message, const boost::json::object& object);
// Appends a conversation as 'av' without building an intermediate value tree.
void appendConversation(sdbus::Message& message, const VTConversation& conversation);

// Reads the next 'a{sv}' of `message`. Integers of any width become int64 (a 't' above INT64_MAX
// stays unsigned), 'd' a double, 's'/'o'/'g' a string, 'ay' an array of numbers, any array an
// array, any dictionary with string keys an object. Returns false, with a readable `fault`, when
// the message holds something else there.
bool readDictionary(sdbus::Message& message, boost::json::object& out, std::string* fault);
// Reads the next 'v' of `message` the same way.
bool readVariant(sdbus::Message& message, boost::json::value& out, std::string* fault);

}  // namespace vt::wire
