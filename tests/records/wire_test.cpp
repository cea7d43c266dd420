#include "records/wire.h"
#include "samples.h"

#include <gtest/gtest.h>
#include <sdbus-c++/Error.h>
#include <sdbus-c++/Types.h>
#include <boost/json/parse.hpp>

#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <optional>
#include <vector>

namespace {

namespace json = boost::json;
using vt::wire::standaloneMessage;

// Makes a written message readable from its start.
sdbus::PlainMessage& sealed(sdbus::PlainMessage& message) {
    message.seal();
    message.rewind(true);
    return message;
}

json::value throughVariant(const json::value& value) {
    sdbus::PlainMessage message = standaloneMessage();
    vt::wire::appendVariant(message, value);
    json::value read;
    std::string fault;
    EXPECT_TRUE(vt::wire::readVariant(sealed(message), read, &fault)) << fault;
    return read;
}

// The signature a value gets inside its variant.
std::string signatureOf(const json::value& value) {
    sdbus::PlainMessage message = standaloneMessage();
    vt::wire::appendVariant(message, value);
    std::string type;
    std::string contents;
    sealed(message).peekType(type, contents);
    return contents;
}

TEST(TheBusEncoding, CarriesAPullRequestWithAllNineteenValues) {
    const VTPullRequest original = samplePullRequest();
    EXPECT_EQ(VTPullRequest::fromValue(throughVariant(original.toValue())), original);
}

TEST(TheBusEncoding, WritesAConversationDirectlyAsItsValueFormWouldBe) {
    const VTConversation conversation = sampleConversation();

    sdbus::PlainMessage direct = standaloneMessage();
    direct.openVariant("av");
    vt::wire::appendConversation(direct, conversation);
    direct.closeVariant();
    json::value read;
    std::string fault;
    ASSERT_TRUE(vt::wire::readVariant(sealed(direct), read, &fault)) << fault;

    EXPECT_EQ(read, json::value(VTConversationToValue(conversation)));
    std::optional<VTConversation> decoded = VTConversationFromValue(read, &fault);
    ASSERT_TRUE(decoded) << fault;
    EXPECT_EQ(*decoded, conversation);
}

TEST(TheBusEncoding, GivesEachKindOfValueItsSignature) {
    EXPECT_EQ(signatureOf("text"), "s");
    EXPECT_EQ(signatureOf(-5), "x");
    EXPECT_EQ(signatureOf(std::uint64_t{5}), "x");
    EXPECT_EQ(signatureOf(std::numeric_limits<std::uint64_t>::max()), "t");
    EXPECT_EQ(signatureOf(0.25), "d");
    EXPECT_EQ(signatureOf(false), "b");
    EXPECT_EQ(signatureOf(json::array{1, "a"}), "av");
    EXPECT_EQ(signatureOf(json::object{{"a", 1}}), "a{sv}");
    EXPECT_EQ(signatureOf(nullptr), "a{sv}");
}

TEST(TheBusEncoding, LeavesNullMembersOutAndSendsNullElementsAsEmptyDictionaries) {
    const json::value value = json::parse(R"({
        "name": "hosts", "gone": null, "stars": 12, "ratio": 0.5, "private": false,
        "huge": 18446744073709551615, "list": [1, null, "x", [true]],
        "owner": {"login": "octo", "nothing": null}})");
    const json::value expected = json::parse(R"({
        "name": "hosts", "stars": 12, "ratio": 0.5, "private": false,
        "huge": 18446744073709551615, "list": [1, {}, "x", [true]],
        "owner": {"login": "octo"}})");
    sdbus::PlainMessage message = standaloneMessage();
    vt::wire::appendDictionary(message, value.as_object());
    json::object read;
    std::string fault;
    ASSERT_TRUE(vt::wire::readDictionary(sealed(message), read, &fault)) << fault;
    EXPECT_EQ(read, expected);
    EXPECT_TRUE(read.at("huge").is_uint64());
}

TEST(TheBusEncoding, ReplacesTextTheBusWouldRefuse) {
    const struct {
        std::string what;
        std::string text;
        std::string sent;
    } cases[] = {
        {"plain and multi-byte text", "caf\xC3\xA9 \xF0\x9F\x98\x80",
         "caf\xC3\xA9 \xF0\x9F\x98\x80"},
        {"a stray byte",
         "a\xFF"
         "b",
         "a\xEF\xBF\xBD"
         "b"},
        {"a NUL", std::string("x\0y", 3), "x\xEF\xBF\xBDy"},
        {"a NUL deep in long text", std::string("0123456789\0abcdefghij", 21),
         "0123456789\xEF\xBF\xBD"
         "abcdefghij"},
        {"a stray byte inside long text",
         "0123456789\x80"
         "abcdefghij",
         "0123456789\xEF\xBF\xBD"
         "abcdefghij"},
        {"a noncharacter", "<\xEF\xBF\xBE>", "<\xEF\xBF\xBD>"},
        {"a surrogate", "<\xED\xA0\x80>", "<\xEF\xBF\xBD>"},
        {"a sequence cut short at the end", "end\xE2\x82", "end\xEF\xBF\xBD\xEF\xBF\xBD"},
    };
    for (const auto& row : cases) {
        EXPECT_EQ(throughVariant(json::string(row.text)), json::value(json::string(row.sent)))
            << row.what;
    }
    VTPullRequest pullRequest;
    pullRequest.title = "bad \xC0 title";
    sdbus::PlainMessage message = standaloneMessage();
    EXPECT_NO_THROW(vt::wire::appendConversation(message, {pullRequest}));
}

json::object readBack(const std::map<std::string, sdbus::Variant>& dictionary) {
    sdbus::PlainMessage message = standaloneMessage();
    message << dictionary;
    json::object read;
    std::string fault;
    EXPECT_TRUE(vt::wire::readDictionary(sealed(message), read, &fault)) << fault;
    return read;
}

TEST(ReadingTheBus, WidensEveryIntegerType) {
    const json::object read = readBack({
        {"y", sdbus::Variant(std::uint8_t{255})},
        {"n", sdbus::Variant(std::int16_t{-32768})},
        {"q", sdbus::Variant(std::uint16_t{65535})},
        {"i", sdbus::Variant(std::numeric_limits<std::int32_t>::min())},
        {"u", sdbus::Variant(std::numeric_limits<std::uint32_t>::max())},
        {"x", sdbus::Variant(std::numeric_limits<std::int64_t>::min())},
        {"small t", sdbus::Variant(std::uint64_t{7})},
        {"large t", sdbus::Variant(std::numeric_limits<std::uint64_t>::max())},
    });
    const std::pair<const char*, std::int64_t> widened[] = {
        {"y", 255},
        {"n", -32768},
        {"q", 65535},
        {"i", std::numeric_limits<std::int32_t>::min()},
        {"u", std::numeric_limits<std::uint32_t>::max()},
        {"x", std::numeric_limits<std::int64_t>::min()},
        {"small t", 7},
    };
    for (const auto& [key, number] : widened) {
        ASSERT_TRUE(read.at(key).is_int64()) << key;
        EXPECT_EQ(read.at(key).get_int64(), number) << key;
    }
    EXPECT_EQ(read.at("large t").as_uint64(), std::numeric_limits<std::uint64_t>::max());
}

TEST(ReadingTheBus, ReadsNestedContainersOfAnyType) {
    const json::object read = readBack({
        {"strings", sdbus::Variant(std::vector<std::string>{"a", "b"})},
        {"nested",
         sdbus::Variant(std::map<std::string, std::map<std::string, sdbus::Variant>>{
             {"inner",
              {{"depth", sdbus::Variant(std::int32_t{2})}, {"ok", sdbus::Variant(true)}}}})},
        {"bytes", sdbus::Variant(std::vector<std::uint8_t>{0, 127, 255})},
        {"path", sdbus::Variant(sdbus::ObjectPath("/com/veldtrack/x"))},
        {"pair", sdbus::Variant(sdbus::Struct<std::string, double>("half", 0.5))},
        {"lists", sdbus::Variant(std::vector<std::vector<std::int64_t>>{{1, 2}, {}})},
    });
    EXPECT_EQ(read, json::parse(R"({
        "strings": ["a", "b"],
        "nested": {"inner": {"depth": 2, "ok": true}},
        "bytes": [0, 127, 255],
        "path": "/com/veldtrack/x",
        "pair": ["half", 0.5],
        "lists": [[1, 2], []]})"));
}

TEST(ReadingTheBus, ReportsWhatItFoundInsteadOfThrowing) {
    const struct {
        std::string what;
        std::function<void(sdbus::PlainMessage&)> write;
        bool variant;
        std::string faultMentions;
    } cases[] = {
        {"a string array for a dictionary",
         [](sdbus::PlainMessage& m) { m << std::vector<std::string>{"a"}; }, false, "'as'"},
        {"integer keys",
         [](sdbus::PlainMessage& m) {
             m << std::map<std::int32_t, std::string>{{1, "a"}};
         },
         false, "'a{is}'"},
        {"integer keys deep inside",
         [](sdbus::PlainMessage& m) {
             m << std::map<std::string, sdbus::Variant>{
                 {"k", sdbus::Variant(std::map<std::int32_t, std::string>{{1, "a"}})}};
         },
         false, "'a{is}'"},
        {"nothing left", [](sdbus::PlainMessage&) {}, false, "nothing"},
        {"a string for a variant", [](sdbus::PlainMessage& m) { m << "text"; }, true, "'s'"},
    };
    for (const auto& row : cases) {
        sdbus::PlainMessage message = standaloneMessage();
        row.write(message);
        sealed(message);
        std::string fault;
        bool read = true;
        if (row.variant) {
            json::value value;
            EXPECT_NO_THROW(read = vt::wire::readVariant(message, value, &fault)) << row.what;
        } else {
            json::object object{{"kept", 1}};
            EXPECT_NO_THROW(read = vt::wire::readDictionary(message, object, &fault)) << row.what;
            EXPECT_EQ(object, (json::object{{"kept", 1}})) << row.what;
        }
        EXPECT_FALSE(read) << row.what;
        EXPECT_NE(fault.find(row.faultMentions), std::string::npos) << row.what << ": " << fault;
    }
}

TEST(ReadingTheBus, TurnsAFailingMessageIntoAFault) {
    // An unsealed message cannot be read; the library's exception must not escape.
    sdbus::PlainMessage message = standaloneMessage();
    vt::wire::appendDictionary(message, json::object{{"a", 1}});
    json::object read;
    std::string fault;
    bool done = true;
    EXPECT_NO_THROW(done = vt::wire::readDictionary(message, read, &fault));
    EXPECT_FALSE(done);
    EXPECT_FALSE(fault.empty());
}

// Arrays `depth` deep, the innermost holding `inner` (or nothing).
json::value nestedArrays(int depth, std::optional<json::value> inner) {
    json::value value = json::array();
    if (inner) {
        value.as_array().push_back(*inner);
    }
    for (int level = 1; level < depth; ++level) {
        value = json::array{value};
    }
    return value;
}

TEST(WritingWithinTheBusLimits, StopsAtTheSixtyFifthContainer) {
    // A variant holding arrays: the variant and each array take one container, and each element
    // one more for its variant.
    struct Row {
        int arrays;
        std::optional<json::value> inner;
    };
    for (const Row& row : {Row{31, json::value(1)}, Row{32, std::nullopt}, Row{32, json::value(1)},
                           Row{33, std::nullopt}, Row{200, json::value("x")}}) {
        const int deepest = 2 * row.arrays + (row.inner ? 1 : 0);
        SCOPED_TRACE(deepest);
        sdbus::PlainMessage message = standaloneMessage();
        vt::wire::Writer writer(message);
        writer.variant(nestedArrays(row.arrays, row.inner));
        if (deepest <= static_cast<int>(vt::wire::kMaxContainerDepth)) {
            ASSERT_TRUE(writer.ok());
            json::value read;
            std::string fault;
            ASSERT_TRUE(vt::wire::readVariant(sealed(message), read, &fault)) << fault;
            EXPECT_EQ(read, nestedArrays(row.arrays, row.inner));
        } else {
            EXPECT_EQ(writer.fault(), vt::wire::Writer::Fault::tooDeep);
        }
    }
}

TEST(WritingWithinTheBusLimits, CountsTheBodyToTheByte) {
    // A variant of one text: the signature "s" (3 bytes), padding to 4, the length (4), the text
    // and its NUL.
    const std::size_t fits = vt::wire::kMaxBodyBytes - 9;
    for (const std::size_t size : {fits, fits + 1}) {
        sdbus::PlainMessage message = standaloneMessage();
        vt::wire::Writer writer(message);
        writer.variant(json::string(size, 'x'));
        if (size == fits) {
            EXPECT_TRUE(writer.ok());
            EXPECT_EQ(writer.bytes(), vt::wire::kMaxBodyBytes);
        } else {
            EXPECT_EQ(writer.fault(), vt::wire::Writer::Fault::tooLarge);
        }
    }
}

TEST(WritingWithinTheBusLimits, RefusesAValueTooDeepForAClientsCall) {
    sdbus::PlainMessage message = standaloneMessage();
    try {
        vt::wire::appendDictionary(message, json::object{{"deep", nestedArrays(40, 1)}});
        ADD_FAILURE() << "a value 80 containers deep was written";
    } catch (const sdbus::Error& error) {
        EXPECT_EQ(error.getName(), "org.freedesktop.DBus.Error.LimitsExceeded");
    }
}

}  // namespace
