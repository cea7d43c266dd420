#include "records/wire.h"
#include "samples.h"

#include <gtest/gtest.h>
#include <sdbus-c++/Types.h>
#include <boost/json/parse.hpp>

#include <cstdint>
#include <functional>
#include <limits>
#include <map>
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
    std::string fault;
    std::optional<VTPullRequest> decoded =
        VTPullRequest::fromValue(throughVariant(original.toValue()), &fault);
    ASSERT_TRUE(decoded) << fault;
    EXPECT_EQ(*decoded, original);
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
    EXPECT_EQ(throughVariant(value), expected);
    EXPECT_TRUE(throughVariant(value).at("huge").is_uint64());

    sdbus::PlainMessage message = standaloneMessage();
    vt::wire::appendDictionary(message, value.as_object());
    json::object read;
    std::string fault;
    ASSERT_TRUE(vt::wire::readDictionary(sealed(message), read, &fault)) << fault;
    EXPECT_EQ(read, expected);
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
    vt::wire::appendConversation(message, {pullRequest});
    EXPECT_NO_THROW(message.seal());
}

TEST(ReadingTheBus, WidensEveryIntegerType) {
    sdbus::PlainMessage message = standaloneMessage();
    message.openContainer("{sv}");
    const auto entry = [&message](const char* key, const char* type, auto number) {
        message.openDictEntry("sv");
        message << key;
        message.openVariant(type);
        message << number;
        message.closeVariant();
        message.closeDictEntry();
    };
    entry("y", "y", std::uint8_t{255});
    entry("n", "n", std::int16_t{-32768});
    entry("q", "q", std::uint16_t{65535});
    entry("i", "i", std::numeric_limits<std::int32_t>::min());
    entry("u", "u", std::numeric_limits<std::uint32_t>::max());
    entry("x", "x", std::numeric_limits<std::int64_t>::min());
    entry("small t", "t", std::uint64_t{7});
    entry("large t", "t", std::numeric_limits<std::uint64_t>::max());
    message.closeContainer();

    json::object read;
    std::string fault;
    ASSERT_TRUE(vt::wire::readDictionary(sealed(message), read, &fault)) << fault;
    EXPECT_EQ(read.at("y"), json::value(std::int64_t{255}));
    EXPECT_EQ(read.at("n"), json::value(std::int64_t{-32768}));
    EXPECT_EQ(read.at("q"), json::value(std::int64_t{65535}));
    EXPECT_EQ(read.at("i"), json::value(std::int64_t{std::numeric_limits<std::int32_t>::min()}));
    EXPECT_EQ(read.at("u"), json::value(std::int64_t{std::numeric_limits<std::uint32_t>::max()}));
    EXPECT_EQ(read.at("x"), json::value(std::numeric_limits<std::int64_t>::min()));
    for (const char* key : {"y", "n", "q", "i", "u", "x", "small t"}) {
        EXPECT_TRUE(read.at(key).is_int64()) << key;
    }
    EXPECT_EQ(read.at("small t").as_int64(), 7);
    EXPECT_EQ(read.at("large t").as_uint64(), std::numeric_limits<std::uint64_t>::max());
}

TEST(ReadingTheBus, ReadsNestedContainersOfAnyType) {
    sdbus::PlainMessage message = standaloneMessage();
    message.openContainer("{sv}");
    message.openDictEntry("sv");
    message << "strings";
    message << sdbus::Variant(std::vector<std::string>{"a", "b"});
    message.closeDictEntry();
    message.openDictEntry("sv");
    message << "nested";
    message << sdbus::Variant(std::map<std::string, std::map<std::string, sdbus::Variant>>{
        {"inner", {{"depth", sdbus::Variant(std::int32_t{2})}, {"ok", sdbus::Variant(true)}}}});
    message.closeDictEntry();
    message.openDictEntry("sv");
    message << "bytes";
    message << sdbus::Variant(std::vector<std::uint8_t>{0, 127, 255});
    message.closeDictEntry();
    message.openDictEntry("sv");
    message << "path";
    message << sdbus::Variant(sdbus::ObjectPath("/com/veldtrack/x"));
    message.closeDictEntry();
    message.openDictEntry("sv");
    message << "pair";
    message << sdbus::Variant(sdbus::Struct<std::string, double>("half", 0.5));
    message.closeDictEntry();
    message.openDictEntry("sv");
    message << "lists";
    message << sdbus::Variant(std::vector<std::vector<std::int64_t>>{{1, 2}, {}});
    message.closeDictEntry();
    message.closeContainer();

    json::object read;
    std::string fault;
    ASSERT_TRUE(vt::wire::readDictionary(sealed(message), read, &fault)) << fault;
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

}  // namespace
