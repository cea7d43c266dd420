#include "transport/utilities/utilities.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <string>

namespace {

TEST(DataWithString, ReadsDigitsOfEitherCaseHighHalfFirst) {
    const struct {
        std::string_view text;
        VTData bytes;
    } cases[] = {
        {"", {}},
        {"0A0b", {0x0a, 0x0b}},
        {"00ff", {0x00, 0xff}},
        {"DEADbeef", {0xde, 0xad, 0xbe, 0xef}},
        {"0123456789abcdefABCDEF",
         {0x01, 0x23, 0x45, 0x67, 0x89, 0xab, 0xcd, 0xef, 0xab, 0xcd, 0xef}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(vt::dataWithString(c.text), c.bytes) << c.text;
    }
}

TEST(DataWithString, RefusesOddLengthsAndEveryNonDigit) {
    // The characters right beside each digit range, non-ASCII text and a NUL byte.
    for (const std::string_view text : {
             std::string_view("0A0"),
             std::string_view("0"),
             std::string_view("zz"),
             std::string_view("0/"),
             std::string_view(":0"),
             std::string_view("0@"),
             std::string_view("G0"),
             std::string_view("0`"),
             std::string_view("g0"),
             std::string_view("0 "),
             std::string_view("\xc3\xa9"),
             std::string_view("0\x80"),
             std::string_view("0\0", 2),
         }) {
        EXPECT_EQ(vt::dataWithString(text), std::nullopt) << testing::PrintToString(text);
    }
}

TEST(Base64, PadsWithoutLineBreaksReadsBackAndRefusesLooseText) {
    EXPECT_EQ(vt::base64String("u:p"), "dTpw");
    EXPECT_EQ(vt::base64String("ab"), "YWI=");
    // Long enough that a line-breaking encoder would break it.
    const std::string long_(100, 'x');
    const std::string text = vt::base64String(long_);
    EXPECT_EQ(text.find('\n'), std::string::npos);
    EXPECT_EQ(vt::dataWithBase64(text), VTData(long_.begin(), long_.end()));
    EXPECT_EQ(vt::dataWithBase64("YWI="), (VTData{'a', 'b'}));
    for (const std::string_view loose : {"YWI", " YWI=", "YWI=\n", "Y=I=", "YW*="}) {
        EXPECT_EQ(vt::dataWithBase64(loose), std::nullopt) << loose;
    }
}

TEST(HexString, WritesEveryByteAsTwoLowercaseDigitsAndReadsBack) {
    EXPECT_EQ(vt::hexString(VTData{0x00, 0xff}), "00ff");
    EXPECT_EQ(vt::hexString(VTData{}), "");

    VTData every(256);
    for (std::size_t i = 0; i < every.size(); ++i) {
        every[i] = static_cast<std::uint8_t>(i);
    }
    const std::string hex = vt::hexString(every);
    ASSERT_EQ(hex.size(), 512u);
    EXPECT_EQ(hex.substr(0, 8), "00010203");
    EXPECT_EQ(hex.substr(504), "fcfdfeff");
    EXPECT_EQ(vt::dataWithString(hex), every);

    std::string upper = hex;
    std::transform(upper.begin(), upper.end(), upper.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    EXPECT_EQ(vt::dataWithString(upper), every);
}

TEST(QuotesEscapedString, PutsABackslashBeforeEachDoubleQuoteOnly) {
    const struct {
        std::string_view text, escaped;
    } cases[] = {
        {"", ""},
        {"no quotes here", "no quotes here"},
        {R"(say "hi")", R"(say \"hi\")"},
        {R"("")", R"(\"\")"},
        {R"(a \" b)", R"(a \\" b)"},
        {"line\nend\ttab\\", "line\nend\ttab\\"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(vt::quotesEscapedString(c.text), c.escaped) << c.text;
    }
}

}  // namespace
