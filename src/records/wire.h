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

#include <cstddef>
#include <cstdint>
#include <string>

namespace vt::wire {

// The bus's limits on one message, which every message the service sends keeps.
// Containers (arrays, dictionary entries, variants) nested in one message body: the D-Bus daemon
// drops a connection that sends a body nested deeper than twice its 32 levels of a signature.
inline constexpr std::size_t kMaxContainerDepth = 64;
// Bytes of one message body. A client's sd-bus reads no message above 64 MiB, and the protocol
// caps one array, such as the dictionary a reply is, at 64 MiB; 64 KiB stay free for the header.
inline constexpr std::size_t kMaxBodyBytes = 64 * 1024 * 1024 - 64 * 1024;

// Writes values into a message body and keeps count, as it goes, of the containers open and of
// the bytes the body takes (alignment padding included, counted from the body's start). A write
// that would break kMaxContainerDepth or kMaxBodyBytes is not made; the writer remembers the
// fault and from then on writes nothing, so the message holds part of a value and must not be
// sent. Text the bus refuses (invalid UTF-8, NUL, noncharacters) is written with U+FFFD in place
// of the refused bytes. Throws sdbus::Error only when the message itself fails.
class Writer {
public:
    enum class Fault { none, tooDeep, tooLarge };

    // Writes at the start of `message`'s body.
    explicit Writer(sdbus::Message& message);

    bool ok() const { return fault_ == Fault::none; }
    Fault fault() const { return fault_; }
    // Bytes of the body written so far.
    std::size_t bytes() const { return bytes_; }
    // "values nested more than 64 containers deep", ...
    static std::string describe(Fault fault);

    // A value as one variant ('v'), as 'a{sv}', as 'av'.
    void variant(const boost::json::value& value);
    // The contents of a variant of signatureOf(value) that the caller has opened.
    void payload(const boost::json::value& value);
    void dictionary(const boost::json::object& object);
    void array(const boost::json::array& array);
    // A conversation as 'av' of records, without building an intermediate value tree.
    void conversation(const VTConversation& conversation);

    // The pieces, for a caller's own containers. Each open returns false (and opens nothing
    // more) once the writer has stopped; close only what was opened while ok().
    bool openDictionary();
    void closeDictionary();
    // One '{sv}' entry of an open 'a{sv}': the key and an open variant of `signature`.
    bool openEntry(const char* key, const std::string& signature);
    void closeEntry();
    // An array of `element`.
    bool openArray(const std::string& element);
    void closeArray();
    bool openVariant(const std::string& signature);
    void closeVariant();
    // `text` must be NUL-terminated at `size`.
    void text(const char* text, std::size_t size);
    void integer(std::int64_t number);
    void boolean(bool flag);

private:
    // Counts `size` bytes at the next multiple of `alignment`; false when the body would grow
    // past its bound.
    bool room(std::size_t alignment, std::size_t size);
    // Counts one more container open; false when that is one too many.
    bool enter();

    sdbus::Message& message_;
    std::size_t depth_ = 0;
    std::size_t bytes_ = 0;
    Fault fault_ = Fault::none;
};

// The signature of the variant that holds `value`.
const std::string& signatureOf(const boost::json::value& value);

// Appends `value` as one variant ('v'), the same value checked on its own against the bus's
// limits.
void appendVariant(sdbus::Message& message, const boost::json::value& value);
// Appends `object` as 'a{sv}'.
void appendDictionary(sdbus::Message& message, const boost::json::object& object);
// Appends a conversation as 'av' without building an intermediate value tree.
void appendConversation(sdbus::Message& message, const VTConversation& conversation);
// The append functions write text the bus refuses (invalid UTF-8, NUL, noncharacters) with U+FFFD
// in place of the refused bytes; they throw sdbus::Error when the message itself fails or the
// value would break the bus's limits (org.freedesktop.DBus.Error.LimitsExceeded).

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
