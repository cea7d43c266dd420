// Text arguments the bus library will not read. The bus daemon passes text holding noncharacters
// (U+FFFE, U+FDD0, ...), which sd-bus refuses when the service reads it; text that is not UTF-8
// at all only comes over a connection nobody checks. Either is a fault of the argument that holds
// it, answered InvalidArguments with the argument's name, and no adapter is called.

#include "harness.h"
#include "records/wire.h"
#include "service/arguments.h"
#include "service/bus_names.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <dlfcn.h>

namespace {

using namespace vt::test;

const VTToken kToken{{"token_type", "Bearer"}, {"access_token", "first"}};
const std::string kUrl = "https://github.test/octocat/hello.git";

// The sd_bus_message behind an sdbus-c++ message.
struct RawMessage : sdbus::Message {
    static void* of(sdbus::Message& message) { return message.*(&RawMessage::msg_); }
};

// Appends `bytes` as an 's' without the check sd-bus makes on the way in, as a client built on
// another D-Bus library sends it.
void appendUnchecked(sdbus::Message& message, std::string_view bytes) {
    using AppendSpace = int (*)(void*, std::size_t, char**);
    static const auto appendSpace =
        reinterpret_cast<AppendSpace>(::dlsym(RTLD_DEFAULT, "sd_bus_message_append_string_space"));
    if (appendSpace == nullptr) {
        throw std::runtime_error("sd_bus_message_append_string_space is not loaded");
    }
    char* space = nullptr;
    if (appendSpace(RawMessage::of(message), bytes.size(), &space) < 0) {
        throw std::runtime_error("sd-bus would not make room for the text");
    }
    std::memcpy(space, bytes.data(), bytes.size());
}

// One 'a{sv}' entry whose key, or whose text value, the test chooses byte for byte.
void appendEntry(sdbus::Message& message, std::string_view key, std::string_view text) {
    message.openDictEntry("sv");
    appendUnchecked(message, key);
    message.openVariant("s");
    appendUnchecked(message, text);
    message.closeVariant();
    message.closeDictEntry();
}

// `dictionary` as 'a{sv}' with one more entry of the test's bytes.
void appendDictionaryWith(sdbus::Message& message, const boost::json::object& dictionary,
                          std::string_view key, std::string_view text) {
    message.openContainer("{sv}");
    for (const auto& member : dictionary) {
        message.openDictEntry("sv");
        message << member.key_c_str();
        vt::wire::appendVariant(message, member.value());
        message.closeDictEntry();
    }
    appendEntry(message, key, text);
    message.closeContainer();
}

using Writes = std::function<void(sdbus::Message&, std::string_view refused)>;

struct RefusedText {
    const char* member;
    const char* argument;  // the argument the answer must name
    Writes write;          // the call's arguments, `refused` in the argument at fault
};

std::vector<RefusedText> refusedTexts() {
    const boost::json::object pullRequest = samplePullRequest().toValue();
    return {
        {"SignInWithUrl", "username",
         [](sdbus::Message& m, std::string_view refused) {
             m << kUrl << std::int64_t{1};
             appendUnchecked(m, refused);
             m << "password";
         }},
        {"GetPrivacyWithUrl", "url",
         [](sdbus::Message& m, std::string_view refused) {
             appendUnchecked(m, "https://github.test/" + std::string(refused));
             m << std::int64_t{1};
             vt::wire::appendDictionary(m, kToken);
         }},
        {"GetPullRequestsWithUrl", "token",
         [](sdbus::Message& m, std::string_view refused) {
             m << kUrl << std::int64_t{1};
             appendDictionaryWith(m, kToken, "scope", refused);
         }},
        {"GetRepositoriesWithToken", "token",
         [](sdbus::Message& m, std::string_view refused) {
             appendDictionaryWith(m, kToken, refused, "value");
             m << kUrl << std::int64_t{1};
         }},
        {"GetForksForUrls", "urls",
         [](sdbus::Message& m, std::string_view refused) {
             m.openContainer("s");
             m << kUrl;
             appendUnchecked(m, "https://gitlab.test/" + std::string(refused));
             m.closeContainer();
             m << std::vector<std::int64_t>{1, 2};
             m.openContainer("a{sv}");
             vt::wire::appendDictionary(m, kToken);
             m.closeContainer();
         }},
        {"AddComment", "comment",
         [pullRequest](sdbus::Message& m, std::string_view refused) {
             appendUnchecked(m, refused);
             vt::wire::appendDictionary(m, pullRequest);
             vt::wire::appendDictionary(m, kToken);
         }},
        {"EditPullRequest", "pullRequest",
         [pullRequest](sdbus::Message& m, std::string_view refused) {
             boost::json::object record = pullRequest;
             record.erase("title");
             appendDictionaryWith(m, record, "title", refused);
             m << "new text";
             vt::wire::appendDictionary(m, kToken);
         }},
        {"DeleteSshKey", "keyIdentifier",
         [](sdbus::Message& m, std::string_view refused) {
             m.openVariant("s");
             appendUnchecked(m, refused);
             m.closeVariant();
             vt::wire::appendDictionary(m, kToken);
             m << kUrl << std::int64_t{1};
         }},
    };
}

class RefusedArguments : public ::testing::Test, protected ServiceWithTestAdapters {};

TEST_F(RefusedArguments, NoncharactersAreInvalidArgumentsNamingTheArgument) {
    // U+FFFE, U+FDD0 and U+1FFFF, in the middle of ordinary text.
    for (const char* noncharacter : {"\xEF\xBF\xBE", "\xEF\xB7\x90", "\xF0\x9F\xBF\xBF"}) {
        const std::string refused = std::string("bad") + noncharacter + "text";
        for (const RefusedText& sample : refusedTexts()) {
            SCOPED_TRACE(std::string(sample.member) + " " + sample.argument);
            sdbus::MethodCall call = client.newCall(sample.member);
            sample.write(call, refused);
            const Outcome outcome = client.send(call).get();
            EXPECT_EQ(outcome.errorName, vt::bus::kInvalidArgumentsError);
            EXPECT_EQ(outcome.errorMessage.rfind(std::string(sample.argument) + ":", 0), 0u)
                << outcome.errorMessage;
            EXPECT_NE(outcome.errorMessage.find("noncharacter"), std::string::npos)
                << outcome.errorMessage;
        }
    }
    EXPECT_TRUE(adapters.calls().empty());

    // The client and the service carry on.
    const Outcome after = client.call("GetPrivacyWithUrl", kUrl, std::int64_t{1}, kToken);
    ASSERT_TRUE(after.reply) << after.errorName << ": " << after.errorMessage;
    EXPECT_EQ(adapters.calls().size(), 1u);
}

// No bus daemon lets text that is not UTF-8 through, so the arguments are read here from a
// message of the test's own, as a connection without a daemon would deliver them.
TEST(UnreadableArguments, TextThatIsNotUtf8IsAFaultOfItsArgument) {
    const std::vector<std::string> names{"url", "type", "token"};
    for (const char* broken : {"\xC3\x28", "\xED\xA0\x80", "\xC0\xAF", "\xFF"}) {
        for (int at = 0; at < 2; ++at) {
            SCOPED_TRACE(at);
            sdbus::PlainMessage message = vt::wire::standaloneMessage();
            if (at == 0) {
                appendUnchecked(message, "https://github.test/" + std::string(broken));
                message << std::int64_t{1};
                vt::wire::appendDictionary(message, kToken);
            } else {
                message << kUrl << std::int64_t{1};
                appendDictionaryWith(message, kToken, "scope", broken);
            }
            message.seal();
            message.rewind(true);

            VTArguments arguments(message, names);
            EXPECT_NO_THROW({
                arguments.url();
                arguments.integer();
                arguments.dictionary();
            });
            EXPECT_FALSE(arguments.ok());
            EXPECT_EQ(arguments.fault().rfind(names[at == 0 ? 0 : 2] + ":", 0), 0u)
                << arguments.fault();
        }
    }
}

}  // namespace
