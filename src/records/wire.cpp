#include "records/wire.h"

#include "records/fields.h"

#include <sdbus-c++/Error.h>
#include <sdbus-c++/Types.h>

#include <cstdint>
#include <cstring>
#include <exception>
#include <limits>
#include <type_traits>

// sdbus-c++ 1.2 exports its factory of bus-less messages (its own variants are built on it) but
// does not declare it in a public header.
namespace sdbus {
PlainMessage createPlainMessage();
}

namespace vt::wire {
namespace {

using vt::records::Fields;
using vt::records::kClassKey;

// The signatures are passed by reference on every call; building them once saves a string each.
const std::string kString = "s";
const std::string kInt64 = "x";
const std::string kUInt64 = "t";
const std::string kDouble = "d";
const std::string kBool = "b";
const std::string kVariantArray = "av";
const std::string kDictionary = "a{sv}";
const std::string kVariantElement = "v";
const std::string kDictionaryElement = "{sv}";
const std::string kDictionaryEntry = "sv";

// Why a text could not be read.
constexpr char kRefusedText[] = "text that is not valid UTF-8 or holds a noncharacter";

constexpr std::uint64_t kInt64Max =
    static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());

// --- Text -------------------------------------------------------------------------------------

// The length of the UTF-8 sequence at `at` that the bus accepts in a string, or 0. The bus takes
// no NUL, no surrogate, no code point above U+10FFFF and no noncharacter (U+FDD0..U+FDEF, and
// U+xFFFE and U+xFFFF in every plane).
std::size_t acceptedSequence(const unsigned char* at, const unsigned char* end) {
    const unsigned char lead = *at;
    if (lead != 0 && lead < 0x80) {
        return 1;
    }
    std::size_t length = 0;
    char32_t point = 0;
    unsigned char low = 0x80;
    unsigned char high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
        point = lead & 0x1F;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        point = lead & 0x0F;
        low = lead == 0xE0 ? 0xA0 : 0x80;
        high = lead == 0xED ? 0x9F : 0xBF;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        point = lead & 0x07;
        low = lead == 0xF0 ? 0x90 : 0x80;
        high = lead == 0xF4 ? 0x8F : 0xBF;
    } else {
        return 0;
    }
    if (static_cast<std::size_t>(end - at) < length || at[1] < low || at[1] > high) {
        return 0;
    }
    for (std::size_t index = 1; index < length; ++index) {
        if (index > 1 && (at[index] & 0xC0) != 0x80) {
            return 0;
        }
        point = (point << 6) | (at[index] & 0x3F);
    }
    if ((point >= 0xFDD0 && point <= 0xFDEF) || (point & 0xFFFE) == 0xFFFE) {
        return 0;
    }
    return length;
}

// The first byte of `[at, end)` the bus would refuse in a string, or `end`. Texts are mostly
// ASCII, so eight bytes at a time are checked for a high bit or a NUL first.
const unsigned char* firstRefused(const unsigned char* at, const unsigned char* end) {
    constexpr std::uint64_t kHigh = 0x8080808080808080u;
    constexpr std::uint64_t kLow = 0x0101010101010101u;
    while (at != end) {
        if (end - at >= 8) {
            std::uint64_t word = 0;
            std::memcpy(&word, at, sizeof word);
            if (((word | ((word - kLow) & ~word)) & kHigh) == 0) {
                at += 8;
                continue;
            }
        }
        const std::size_t length = acceptedSequence(at, end);
        if (length == 0) {
            return at;
        }
        at += length;
    }
    return end;
}

// The text the bus takes for `[text, text + size)`: the text itself when the bus accepts all of
// it, else a copy in `repaired` with U+FFFD in place of the refused bytes, so that one odd byte
// in a host's answer does not cost the whole reply.
std::string_view acceptedText(const char* text, std::size_t size, std::string& repaired) {
    const auto* begin = reinterpret_cast<const unsigned char*>(text);
    const auto* end = begin + size;
    const auto* at = firstRefused(begin, end);
    if (at == end) {
        return std::string_view(text, size);
    }
    repaired.assign(text, static_cast<std::size_t>(at - begin));
    while (at != end) {
        const std::size_t length = acceptedSequence(at, end);
        if (length == 0) {
            repaired.append("\xEF\xBF\xBD");
            // A well-formed sequence the bus refuses goes as one replacement, a broken one byte
            // by byte.
            const unsigned char lead = *at;
            std::size_t skip = 1;
            if (lead >= 0xE0 && lead <= 0xF4) {
                const std::size_t want = lead >= 0xF0 ? 4 : 3;
                if (static_cast<std::size_t>(end - at) >= want) {
                    skip = want;
                    for (std::size_t index = 1; index < want; ++index) {
                        if ((at[index] & 0xC0) != 0x80) {
                            skip = 1;
                        }
                    }
                }
            }
            at += skip;
        } else {
            repaired.append(reinterpret_cast<const char*>(at), length);
            at += length;
        }
    }
    return repaired;
}

// --- Values -----------------------------------------------------------------------------------

// The alignment of the elements of an array whose element signature is `element`.
std::size_t elementAlignment(const std::string& element) {
    switch (element.empty() ? 'v' : element[0]) {
        case 'x':
        case 't':
        case 'd':
        case '{':
        case '(':
            return 8;
        case 's':
        case 'b':
        case 'a':
        case 'i':
        case 'u':
            return 4;
        default:
            return 1;
    }
}

}  // namespace

const std::string& signatureOf(const boost::json::value& value) {
    switch (value.kind()) {
        case boost::json::kind::string:
            return kString;
        case boost::json::kind::int64:
            return kInt64;
        case boost::json::kind::uint64:
            return value.get_uint64() <= kInt64Max ? kInt64 : kUInt64;
        case boost::json::kind::double_:
            return kDouble;
        case boost::json::kind::bool_:
            return kBool;
        case boost::json::kind::array:
            return kVariantArray;
        case boost::json::kind::object:
        case boost::json::kind::null:
            break;
    }
    return kDictionary;
}

// --- Writer -----------------------------------------------------------------------------------

Writer::Writer(sdbus::Message& message) : message_(message) {}

bool Writer::room(std::size_t alignment, std::size_t size) {
    if (fault_ != Fault::none) {
        return false;
    }
    const std::size_t start = (bytes_ + alignment - 1) / alignment * alignment;
    if (start + size > kMaxBodyBytes) {
        fault_ = Fault::tooLarge;
        return false;
    }
    bytes_ = start + size;
    return true;
}

bool Writer::enter() {
    if (fault_ != Fault::none) {
        return false;
    }
    if (depth_ == kMaxContainerDepth) {
        fault_ = Fault::tooDeep;
        return false;
    }
    ++depth_;
    return true;
}

bool Writer::openArray(const std::string& element) {
    if (!room(4, 4) || !room(elementAlignment(element), 0) || !enter()) {
        return false;
    }
    message_.openContainer(element);
    return true;
}

void Writer::closeArray() {
    message_.closeContainer();
    --depth_;
}

bool Writer::openVariant(const std::string& signature) {
    // The signature goes first: its length, its text and a NUL.
    if (!room(1, signature.size() + 2) || !enter()) {
        return false;
    }
    message_.openVariant(signature);
    return true;
}

void Writer::closeVariant() {
    message_.closeVariant();
    --depth_;
}

bool Writer::openEntry(const char* key, const std::string& signature) {
    if (!room(8, 0) || !enter()) {
        return false;
    }
    message_.openDictEntry(kDictionaryEntry);
    text(key, std::strlen(key));
    return openVariant(signature);
}

void Writer::closeEntry() {
    closeVariant();
    message_.closeDictEntry();
    --depth_;
}

bool Writer::openDictionary() {
    return openArray(kDictionaryElement);
}

void Writer::closeDictionary() {
    closeArray();
}

void Writer::text(const char* text, std::size_t size) {
    std::string repaired;
    const std::string_view accepted = acceptedText(text, size, repaired);
    // The length, the bytes and a NUL.
    if (!room(4, 4 + accepted.size() + 1)) {
        return;
    }
    if (accepted.data() == text) {
        message_ << text;
    } else {
        message_ << repaired;
    }
}

void Writer::integer(std::int64_t number) {
    if (room(8, 8)) {
        message_ << number;
    }
}

void Writer::boolean(bool flag) {
    if (room(4, 4)) {
        message_ << flag;
    }
}

void Writer::payload(const boost::json::value& value) {
    switch (value.kind()) {
        case boost::json::kind::string: {
            const boost::json::string& text = value.get_string();
            this->text(text.c_str(), text.size());
            break;
        }
        case boost::json::kind::int64:
            integer(value.get_int64());
            break;
        case boost::json::kind::uint64:
            if (value.get_uint64() <= kInt64Max) {
                integer(static_cast<std::int64_t>(value.get_uint64()));
            } else if (room(8, 8)) {
                message_ << value.get_uint64();
            }
            break;
        case boost::json::kind::double_:
            if (room(8, 8)) {
                message_ << value.get_double();
            }
            break;
        case boost::json::kind::bool_:
            boolean(value.get_bool());
            break;
        case boost::json::kind::array:
            array(value.get_array());
            break;
        case boost::json::kind::object:
            dictionary(value.get_object());
            break;
        case boost::json::kind::null:
            // A null element becomes an empty dictionary, as signatureOf() says.
            if (openDictionary()) {
                closeDictionary();
            }
            break;
    }
}

void Writer::variant(const boost::json::value& value) {
    if (openVariant(signatureOf(value))) {
        payload(value);
        if (ok()) {
            closeVariant();
        }
    }
}

void Writer::array(const boost::json::array& array) {
    if (!openArray(kVariantElement)) {
        return;
    }
    for (const boost::json::value& element : array) {
        variant(element);
        if (!ok()) {
            return;
        }
    }
    closeArray();
}

void Writer::dictionary(const boost::json::object& object) {
    if (!openDictionary()) {
        return;
    }
    for (const auto& member : object) {
        if (member.value().is_null()) {
            continue;
        }
        if (!openEntry(member.key_c_str(), signatureOf(member.value()))) {
            return;
        }
        payload(member.value());
        if (!ok()) {
            return;
        }
        closeEntry();
    }
    closeDictionary();
}

// --- Records ----------------------------------------------------------------------------------

namespace {

// Writes the properties of one record as entries of the open 'a{sv}', the way the value form
// of records.cpp does, without building that value.
class RecordWriter {
public:
    explicit RecordWriter(Writer& writer) : writer_(writer) {}

    void text(const char* key, const std::optional<std::string>& value) {
        if (value && writer_.openEntry(key, kString)) {
            writer_.text(value->c_str(), value->size());
            close();
        }
    }
    void url(const char* key, const std::optional<std::string>& value) { text(key, value); }
    void integer(const char* key, std::int64_t value) {
        if (writer_.openEntry(key, kInt64)) {
            writer_.integer(value);
            close();
        }
    }
    // Unsigned properties go out as signed integers; the values in use are small.
    void integer(const char* key, std::uint64_t value) {
        integer(key, static_cast<std::int64_t>(value));
    }
    void integer(const char* key, const std::optional<std::int64_t>& value) {
        if (value) {
            integer(key, *value);
        }
    }
    void boolean(const char* key, bool value) {
        if (writer_.openEntry(key, kBool)) {
            writer_.boolean(value);
            close();
        }
    }
    void plainArray(const char* key, const std::optional<boost::json::array>& value) {
        if (value && writer_.openEntry(key, kVariantArray)) {
            writer_.array(*value);
            close();
        }
    }
    template <typename Record>
    void records(const char* key, const std::optional<std::vector<Record>>& value) {
        if (!value || !writer_.openEntry(key, kVariantArray) ||
            !writer_.openArray(kVariantElement)) {
            return;
        }
        for (const Record& record : *value) {
            if (!writer_.openVariant(kDictionary)) {
                return;
            }
            writeRecord(writer_, record);
            if (!writer_.ok()) {
                return;
            }
            writer_.closeVariant();
        }
        writer_.closeArray();
        close();
    }

    template <typename Record>
    static void writeRecord(Writer& writer, const Record& record) {
        if (!writer.openDictionary() || !writer.openEntry(kClassKey, kString)) {
            return;
        }
        writer.text(Fields<Record>::className, std::strlen(Fields<Record>::className));
        if (!writer.ok()) {
            return;
        }
        writer.closeEntry();
        RecordWriter properties(writer);
        Fields<Record>::visit(record, properties);
        if (writer.ok()) {
            writer.closeDictionary();
        }
    }

private:
    void close() {
        if (writer_.ok()) {
            writer_.closeEntry();
        }
    }

    Writer& writer_;
};

}  // namespace

void Writer::conversation(const VTConversation& conversation) {
    if (!openArray(kVariantElement)) {
        return;
    }
    for (const VTConversationItem& item : conversation) {
        std::visit(
            [this](const auto& entry) {
                if constexpr (std::is_same_v<std::decay_t<decltype(entry)>, bool>) {
                    if (openVariant(kBool)) {
                        boolean(entry);
                    }
                } else if (openVariant(kDictionary)) {
                    RecordWriter::writeRecord(*this, entry);
                }
                if (ok()) {
                    closeVariant();
                }
            },
            item);
        if (!ok()) {
            return;
        }
    }
    closeArray();
}

std::string Writer::describe(Fault fault) {
    switch (fault) {
        case Fault::tooDeep:
            return "values nested more than " + std::to_string(kMaxContainerDepth) +
                   " containers deep";
        case Fault::tooLarge:
            return "a message body above " + std::to_string(kMaxBodyBytes) + " bytes";
        case Fault::none:
            break;
    }
    return "nothing out of bounds";
}

namespace {

// --- Reading ----------------------------------------------------------------------------------

// Reads whatever the message holds next into a value; `fault` says what went wrong.
class Reader {
public:
    explicit Reader(sdbus::Message& message) : message_(message) {}

    std::string& fault() { return fault_; }

    // The next complete type: its code ('\0' at the end of a container) and contents.
    char peek(std::string& contents) {
        std::string type;
        message_.peekType(type, contents);
        return type.empty() ? '\0' : type[0];
    }

    static std::string spelled(char type, const std::string& contents) {
        switch (type) {
            case '\0':
                return "nothing";
            case 'a':
                return "'a" + contents + "'";
            case 'r':
                return "'(" + contents + ")'";
            default:
                return std::string("'") + type + "'";
        }
    }

    bool value(boost::json::value& out) {
        std::string contents;
        const char type = peek(contents);
        switch (type) {
            case 'y':
                return integer<std::uint8_t>(out);
            case 'n':
                return integer<std::int16_t>(out);
            case 'q':
                return integer<std::uint16_t>(out);
            case 'i':
                return integer<std::int32_t>(out);
            case 'u':
                return integer<std::uint32_t>(out);
            case 'x':
                return integer<std::int64_t>(out);
            case 't': {
                std::uint64_t number = 0;
                message_ >> number;
                if (number <= kInt64Max) {
                    out = static_cast<std::int64_t>(number);
                } else {
                    out = number;
                }
                return true;
            }
            case 'd': {
                double number = 0;
                message_ >> number;
                out = number;
                return true;
            }
            case 'b': {
                bool flag = false;
                message_ >> flag;
                out = flag;
                return true;
            }
            case 's':
            case 'o':
            case 'g': {
                std::string text;
                if (!string(type, text)) {
                    return false;
                }
                out = boost::json::string(text);
                return true;
            }
            case 'v': {
                message_.enterVariant(contents);
                if (!value(out)) {
                    return false;
                }
                message_.exitVariant();
                return true;
            }
            case 'a':
                if (!contents.empty() && contents[0] == '{') {
                    return dictionary(contents, out.emplace_object());
                }
                return array(contents, out.emplace_array());
            case 'r':
                return structure(contents, out.emplace_array());
            default:
                fault_ = spelled(type, contents) + " is not a value the service reads";
                return false;
        }
    }

    // An array's element type `contents` is "{kv}"; the key must be a string.
    bool dictionary(const std::string& contents, boost::json::object& out) {
        if (contents.size() < 4 ||
            (contents[1] != 's' && contents[1] != 'o' && contents[1] != 'g')) {
            fault_ = "a dictionary 'a" + contents + "' without string keys is not a value";
            return false;
        }
        message_.enterContainer(contents);
        std::string entry;
        while (peek(entry) == 'e') {
            message_.enterDictEntry(entry);
            std::string key;
            boost::json::value member;
            if (!string(entry[0], key)) {
                fault_ = "a key holds " + fault_;
                return false;
            }
            if (!value(member)) {
                fault_ = "the value of key \"" + key + "\": " + fault_;
                return false;
            }
            out.insert_or_assign(key, std::move(member));
            message_.exitDictEntry();
        }
        message_.exitContainer();
        return true;
    }

    bool array(const std::string& contents, boost::json::array& out) {
        message_.enterContainer(contents);
        if (!elements(out)) {
            return false;
        }
        message_.exitContainer();
        return true;
    }

    // A structure becomes the array of its members.
    bool structure(const std::string& contents, boost::json::array& out) {
        message_.enterStruct(contents);
        if (!elements(out)) {
            return false;
        }
        message_.exitStruct();
        return true;
    }

private:
    // Every value up to the end of the container the reader is in.
    bool elements(boost::json::array& out) {
        std::string next;
        while (peek(next) != '\0') {
            if (!value(out.emplace_back(nullptr))) {
                return false;
            }
        }
        return true;
    }

    template <typename Integer>
    bool integer(boost::json::value& out) {
        Integer number = 0;
        message_ >> number;
        out = static_cast<std::int64_t>(number);
        return true;
    }

    bool string(char type, std::string& out) {
        try {
            if (type == 's') {
                message_ >> out;
            } else if (type == 'o') {
                sdbus::ObjectPath path;
                message_ >> path;
                out = std::move(path);
            } else if (type == 'g') {
                sdbus::Signature signature;
                message_ >> signature;
                out = std::move(signature);
            } else {
                fault_ = std::string("'") + type + "' is not a string";
                return false;
            }
        } catch (const sdbus::Error&) {
            // The bus daemon passes noncharacters that sd-bus refuses to read.
            fault_ = kRefusedText;
            return false;
        }
        return true;
    }

    sdbus::Message& message_;
    std::string fault_;
};

// Runs one read; any failure of the message itself becomes a fault, never an exception.
template <typename Read>
bool guarded(sdbus::Message& message, std::string* fault, Read read) {
    Reader reader(message);
    bool done = false;
    try {
        done = read(reader);
        if (done && !message) {
            reader.fault() = "the message ended inside the value";
            done = false;
        }
    } catch (const sdbus::Error& error) {
        reader.fault() = "the message could not be read: " + error.getMessage();
        done = false;
    } catch (const std::exception& error) {
        reader.fault() = std::string("the message could not be read: ") + error.what();
        done = false;
    }
    if (fault != nullptr) {
        *fault = done ? std::string() : std::move(reader.fault());
    }
    return done;
}

}  // namespace

namespace {

// The functions below write one value for a client or a test; a value the bus would refuse fails
// like a message the bus library refuses.
void checked(const Writer& writer) {
    if (!writer.ok()) {
        throw sdbus::Error("org.freedesktop.DBus.Error.LimitsExceeded",
                           "The value would take " + Writer::describe(writer.fault()) +
                               ", beyond what the bus carries.");
    }
}

}  // namespace

void appendVariant(sdbus::Message& message, const boost::json::value& value) {
    Writer writer(message);
    writer.variant(value);
    checked(writer);
}

void appendDictionary(sdbus::Message& message, const boost::json::object& object) {
    Writer writer(message);
    writer.dictionary(object);
    checked(writer);
}

void appendConversation(sdbus::Message& message, const VTConversation& conversation) {
    Writer writer(message);
    writer.conversation(conversation);
    checked(writer);
}

bool readDictionary(sdbus::Message& message, boost::json::object& out, std::string* fault) {
    return guarded(message, fault, [&out](Reader& reader) {
        std::string contents;
        const char type = reader.peek(contents);
        if (type != 'a' || contents.empty() || contents[0] != '{') {
            reader.fault() =
                "expected a dictionary 'a{sv}', found " + Reader::spelled(type, contents);
            return false;
        }
        boost::json::object read;
        if (!reader.dictionary(contents, read)) {
            return false;
        }
        out = std::move(read);
        return true;
    });
}

bool readVariant(sdbus::Message& message, boost::json::value& out, std::string* fault) {
    return guarded(message, fault, [&out](Reader& reader) {
        std::string contents;
        const char type = reader.peek(contents);
        if (type != 'v') {
            reader.fault() = "expected a variant 'v', found " + Reader::spelled(type, contents);
            return false;
        }
        boost::json::value read;
        if (!reader.value(read)) {
            return false;
        }
        out = std::move(read);
        return true;
    });
}

sdbus::PlainMessage standaloneMessage() {
    return sdbus::createPlainMessage();
}

}  // namespace vt::wire
