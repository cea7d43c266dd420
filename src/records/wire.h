#pragma once

// The value encoding on the bus, written once for the service and its clients:
//   string/URL 's', integer 'x', floating-point 'd', boolean 'b', array 'av', dictionary 'a{sv}'
//   (a null member is left out), null inside an array an empty 'a{sv}', record 'a{sv}' with
//   "$class".
// Values are written straight into the message (no sdbus::Variant trees), so large replies stay
// cheap.

#include "records/error.h"
#include "records/records.h"

#include <sdbus-c++/Message.h>
#include <boost/json/object.hpp>
#include <boost/json/value.hpp>

#include <string>

namespace vt::wire {

// Appends `value` as one variant ('v').
void appendVariant(sdbus::Message& message, const boost::json::value& value);
// Appends `object` as 'a{sv}'.
void appendDictionary(sdbus::Message& message, const boost::json::object& object);
// Appends a conversation as 'av' without building an intermediate value tree.
void appendConversation(sdbus::Message& message, const VTConversation& conversation);
// The append functions write text the bus refuses (invalid UTF-8, NUL, noncharacters) with U+FFFD
// in place of the refused bytes; they throw sdbus::Error only when the message itself fails.

// Reads the next 'a{sv}' of `message`. Integers of any width become int64 (a 't' above INT64_MAX
// stays unsigned), 'd' a double, 's'/'o'/'g' a string, 'ay' an array of numbers, any array an
// array, any dictionary with string keys an object, a structure the array of its members. An empty
// 'a{sv}' reads as an empty object (the encoding of a null inside an array is not told apart).
// Returns false, with a readable `fault`, when the message holds something else there (a file
// descriptor, a dictionary with other keys) or cannot be read; never throws.
bool readDictionary(sdbus::Message& message, boost::json::object& out, std::string* fault);
// Reads the next 'v' of `message` the same way.
bool readVariant(sdbus::Message& message, boost::json::value& out, std::string* fault);

// A message bound to no bus, to write values into and read them back (tests, benchmarks). Seal
// it and rewind it before reading. All such messages (and every sdbus::Variant) hang on one
// process-wide pseudo bus, and sd-bus objects are not thread-safe: make them on one thread at a
// time.
sdbus::PlainMessage standaloneMessage();

}  // namespace vt::wire
