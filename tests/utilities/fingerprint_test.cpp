#include "transport/utilities/utilities.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

namespace {

std::string fixture(const std::string& name) {
    std::ifstream file(std::string(VT_KEY_FIXTURES) + "/" + name);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

struct KeyLine {
    std::string type, body, comment;
};

// "type body comment\n" as ssh-keygen writes it.
KeyLine splitKeyLine(const std::string& line) {
    KeyLine key;
    std::istringstream words(line);
    words >> key.type >> key.body;
    std::getline(words >> std::ws, key.comment);
    return key;
}

// The "MD5:aa:bb:..." word of `ssh-keygen -l -E md5` output, without its prefix.
std::string keygenFingerprint(const std::string& output) {
    const auto start = output.find("MD5:") + 4;
    return output.substr(start, output.find(' ', start) - start);
}

class FingerprintOfGeneratedKey : public testing::TestWithParam<std::string> {};

TEST_P(FingerprintOfGeneratedKey, MatchesSshKeygenWhateverTheSeparatorsAndComment) {
    const KeyLine key = splitKeyLine(fixture(GetParam() + ".pub"));
    const std::string expected = keygenFingerprint(fixture(GetParam() + ".md5"));
    ASSERT_EQ(expected.size(), 47u);
    ASSERT_FALSE(key.comment.empty());

    for (const std::string& line : {
             key.type + " " + key.body + " " + key.comment,
             key.type + " " + key.body,
             key.type + "\t" + key.body + "\t" + key.comment,
             key.type + " \t  " + key.body + "\t \t" + key.comment + " and more words",
         }) {
        VTError error(VTHTTPErrorDomain, 500, "left over from an earlier call");
        EXPECT_EQ(vt::fingerprintWithKey(line, &error), expected) << line;
        EXPECT_FALSE(error) << line;
    }
}

INSTANTIATE_TEST_SUITE_P(Keys, FingerprintOfGeneratedKey,
                         testing::Values("ed25519", "rsa", "ecdsa"));

TEST(Fingerprint, HashesOnlyTheDecodedBytesWhateverThePadding) {
    // Bodies of one, two and three bytes ("a", "ab", "abc"); digests as md5sum gives them.
    const struct {
        const char* key;
        const char* fingerprint;
    } cases[] = {
        {"t YQ== c", "0c:c1:75:b9:c0:f1:b6:a8:31:c3:99:e2:69:77:26:61"},
        {"t YWI= c", "18:7e:f4:43:61:22:d1:cc:2f:40:dc:2b:92:f0:eb:a0"},
        {"t YWJj c", "90:01:50:98:3c:d2:4f:b0:d6:96:3f:7d:28:e1:7f:72"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(vt::fingerprintWithKey(c.key, nullptr), c.fingerprint) << c.key;
    }
}

TEST(Fingerprint, RefusesKeyTextsWithoutAUsableBase64Body) {
    for (const std::string_view key : {
             "",
             "ssh-ed25519",
             "ssh-ed25519 ",
             "ssh-ed25519\t \t",
             "ssh-ed25519 AAA*",
             "ssh-ed25519 AAAAB comment",
             "ssh-ed25519 YQ=A",
             "ssh-ed25519 ====",
             "ssh-ed25519 YQ==\n",
         }) {
        VTError error;
        EXPECT_EQ(vt::fingerprintWithKey(key, &error), std::nullopt) << key;
        EXPECT_EQ(error.domain, VTSecurityErrorDomain) << key;
        EXPECT_EQ(error.code, -50) << key;
        EXPECT_FALSE(error.description().empty()) << key;
        EXPECT_EQ(vt::fingerprintWithKey(key, nullptr), std::nullopt) << key;
    }
}

TEST(Fingerprint, StopsAtTheEndOfTheTextItWasGiven) {
    // What follows the view in memory would make a valid key; it must not be looked at.
    const std::string memory = "ssh-rsa YWJj";
    EXPECT_EQ(vt::fingerprintWithKey(std::string_view(memory.data(), 7), nullptr), std::nullopt);
    EXPECT_EQ(vt::fingerprintWithKey(std::string_view(memory.data(), 8), nullptr), std::nullopt);
}

}  // namespace
