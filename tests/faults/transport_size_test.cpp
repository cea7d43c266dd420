// Answers too large to hold: bodies are bounded after decompression while they arrive, and texts
// an answer puts into an error are cut at a character boundary.

#include "transport_support.h"

#include "fakehost/fake_host.h"
#include "transport/answer.h"
#include "transport/host.h"
#include "transport/limits.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace {

using testing::IsEmpty;
using vt::fake::FakeHost;
using vt::fake::Response;
using vt::faults::gzipped;
using vt::faults::urlOf;
using vt::limits::kMaxAnswerBytes;
using vt::limits::kMaxAnswerTextBytes;

class LargeAnswers : public testing::Test {
protected:
    void TearDown() override { EXPECT_THAT(fake.problems(), IsEmpty()); }

    std::optional<boost::json::value> get() {
        return adapter.jsonGetWithUrl(urlOf(fake.url("/big")), token, nullptr, &error);
    }

    FakeHost fake;
    VTHost adapter;
    VTToken token;
    VTError error;
};

// A JSON answer of exactly `size` bytes: blanks, then an empty object.
Response gzipAnswer(std::size_t size) {
    Response response = Response::json(gzipped(size - 2, "{}"));
    response.headers.emplace_back("Content-Encoding", "gzip");
    return response;
}

TEST_F(LargeAnswers, AGzipBombIsCutOffAtTheBoundAfterInflating) {
    Response bomb = gzipAnswer(kMaxAnswerBytes + 1);
    ASSERT_LT(bomb.body.size(), kMaxAnswerBytes / 100);
    fake.expect("GET", "/big", std::move(bomb));
    EXPECT_FALSE(get());
    EXPECT_EQ(error, VTError(VTURLErrorDomain, -1103, "answer too large"));
}

TEST_F(LargeAnswers, AGzipAnswerOfExactlyTheBoundIsRead) {
    fake.expect("GET", "/big", gzipAnswer(kMaxAnswerBytes));
    auto answer = get();
    ASSERT_TRUE(answer) << error.description();
    EXPECT_EQ(*answer, boost::json::object());
}

TEST_F(LargeAnswers, APlainBodyOverTheBoundIsCutOff) {
    std::string body(kMaxAnswerBytes - 1, ' ');
    body += "{}";
    fake.expect("GET", "/big", Response::json(std::move(body)));
    EXPECT_FALSE(get());
    EXPECT_EQ(error, VTError(VTURLErrorDomain, -1103, "answer too large"));
}

TEST_F(LargeAnswers, ABodyCutOffByAResetIsALostConnection) {
    Response response = Response::json(std::string(1 << 20, ' ') + "{}");
    response.resetAfter = 100'000;
    fake.expect("GET", "/big", std::move(response));
    EXPECT_FALSE(get());
    EXPECT_EQ(error.domain, VTURLErrorDomain);
    EXPECT_EQ(error.code, -1005);
}

// Error pages of 20 MB whose text is cut to the bound: the suggestion is the page's longest
// prefix of whole characters that fits.
struct PageCase {
    const char* name;
    std::string unit;    // repeated to fill the page
    std::size_t offset;  // ASCII bytes before the first unit
};

class AHugeErrorPage : public LargeAnswers, public testing::WithParamInterface<PageCase> {};

TEST_P(AHugeErrorPage, LeavesOnlyItsFirst64KiBInTheSuggestion) {
    const PageCase& page = GetParam();
    std::string text(page.offset, '<');
    while (text.size() < 20'000'000) {
        text += page.unit;
    }
    Response response;
    response.status = 502;
    response.headers.emplace_back("Content-Type", "text/html");
    response.body = text;
    fake.expect("GET", "/big", std::move(response));
    EXPECT_FALSE(get());
    EXPECT_EQ(error.code, 502);
    EXPECT_EQ(error.description(), "HTTP status code 502 (Bad Gateway)");
    const std::string suggestion = error.recoverySuggestion().value_or("");
    EXPECT_LE(suggestion.size(), kMaxAnswerTextBytes);
    EXPECT_GT(suggestion.size(), kMaxAnswerTextBytes - page.unit.size());
    EXPECT_EQ(suggestion, text.substr(0, suggestion.size()));
    // The cut falls before a character's first byte, never inside one.
    EXPECT_NE(static_cast<unsigned char>(text[suggestion.size()]) & 0xC0, 0x80);
}

INSTANTIATE_TEST_SUITE_P(OfEveryCharacterWidth, AHugeErrorPage,
                         testing::Values(PageCase{"Ascii", "<p>", 0},
                                         PageCase{"TwoBytesAcrossTheCut", "\u00e9", 1},
                                         PageCase{"ThreeBytesAcrossTheCut", "\u20ac", 2},
                                         PageCase{"FourBytesAcrossTheCut", "\U0001F600", 3},
                                         PageCase{"FourBytesEndingAtTheCut", "\U0001F600", 0}),
                         [](const testing::TestParamInfo<PageCase>& info) {
                             return std::string(info.param.name);
                         });

TEST_F(LargeAnswers, AHugeMessageOfTheHostIsCutInTheError) {
    const std::string message(3'000'000, 'm');
    fake.expect("GET", "/big", Response::json(R"({"message":")" + message + R"("})", 401));
    fake.expect("GET", "/big", Response::json(R"({"errors":[{"message":")" + message + R"("}]})"));
    EXPECT_FALSE(get());
    EXPECT_EQ(error.recoverySuggestion(), message.substr(0, kMaxAnswerTextBytes));
    EXPECT_FALSE(get());
    EXPECT_EQ(error.description(), message.substr(0, kMaxAnswerTextBytes));
}

TEST_F(LargeAnswers, ATextAnswerWithASuccessStatusGivesItsCutText) {
    fake.expect("GET", "/big", Response::json(std::string(200'000, 'x'), 200));
    EXPECT_FALSE(get());
    EXPECT_EQ(error, VTError(VTHTTPErrorDomain, 0, std::string(kMaxAnswerTextBytes, 'x')));
}

}  // namespace
