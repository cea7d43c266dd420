#include "transport/answer.h"
#include "transport/host.h"

#include <gtest/gtest.h>
#include <boost/json/parse.hpp>

#include <cmath>

namespace {

TEST(TheLinkScan, TakesOnlyTheNextRelation) {
    struct Case {
        const char* header;
        const char* next;
    };
    const Case cases[] = {
        {R"(<https://h/k?page=2>; rel="next", <https://h/k?page=5>; rel="last")",
         "https://h/k?page=2"},
        {R"(<https://h/k?page=1>; rel="prev", <https://h/k?page=3>; rel="next")",
         "https://h/k?page=3"},
        {R"(<https://h/k?page=5>; rel="last")", ""},
        {R"(<https://h/k?page=1>; rel="first",   <https://h/k?page=9>; rel="last")", ""},
        {"", ""},
        {"garbage without brackets", ""},
        {R"(<https://h/k?page=2>; rel="nex)", ""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(vt::nextLinkFromHeader(c.header), c.next) << c.header;
    }
}

TEST(AnswerDecoding, AcceptsFragmentsAndTreatsAnEmptyBodyAsAnEmptyObject) {
    EXPECT_EQ(*vt::decodeAnswerBody("", nullptr), boost::json::object());
    EXPECT_EQ(*vt::decodeAnswerBody("\"text\"", nullptr), boost::json::value("text"));
    EXPECT_EQ(*vt::decodeAnswerBody("42", nullptr), boost::json::value(42));
    EXPECT_EQ(*vt::decodeAnswerBody(" [1, 2] ", nullptr), boost::json::parse("[1,2]"));
}

TEST(AnswerDecoding, ReadsEveryNumberAsItsNearestValue) {
    // Zeros with huge exponents once came out as NaN, and some large exponents a step off.
    const auto numbers = vt::decodeAnswerBody(
        "[0e400, -0e999, 7E301, 1e400, 1e-400, 0.1, -12, 18446744073709551615]", nullptr);
    ASSERT_TRUE(numbers);
    const boost::json::array expected{0.0, -0.0, 7e301, HUGE_VAL,
                                      0.0, 0.1,  -12,   18446744073709551615u};
    ASSERT_EQ(numbers->as_array().size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(numbers->as_array()[i], expected[i]) << i;
    }
    EXPECT_TRUE(std::signbit(numbers->as_array()[1].as_double()));
}

TEST(AnswerDecoding, RefusesDataAfterTheValue) {
    VTError error;
    EXPECT_FALSE(vt::decodeAnswerBody(R"({"a":1} {"b":2})", &error));
    EXPECT_EQ(error.domain, VTHTTPErrorDomain);
    EXPECT_EQ(error.description(), R"({"a":1} {"b":2})");
}

TEST(AnswerDecoding, ReportsTextAsAnHttpErrorAndBinaryAsAJsonError) {
    VTError error;
    EXPECT_FALSE(vt::decodeAnswerBody("<html>down</html>", &error));
    EXPECT_EQ(error.domain, VTHTTPErrorDomain);
    EXPECT_EQ(error.code, 0);
    EXPECT_EQ(error.description(), "<html>down</html>");

    EXPECT_FALSE(vt::decodeAnswerBody(std::string("{\"a\":\xff\xfe"), &error));
    EXPECT_EQ(error.domain, VTJSONErrorDomain);
    EXPECT_EQ(error.code, 3840);
    EXPECT_NE(error.description().find("byte"), std::string::npos);
}

TEST(ErrorMessages, PickTheHostsOwnText) {
    struct Case {
        const char* answer;
        const char* message;
    };
    const Case cases[] = {
        {R"({"errors":[{"message":"first"},{"message":"second"}],"data":{}})", "first"},
        {R"({"error":{"message":"nested"}})", "nested"},
        {R"({"error":"invalid_grant","error_description":"expired grant"})", "expired grant"},
        {R"({"error":"invalid_grant"})", "invalid_grant"},
        {R"({"message":"Bad credentials"})", "Bad credentials"},
        {R"({"errors":["plain"],"message":7})", "7"},
        {R"({"other":1})", "No error description."},
        {R"([1,2])", "No error description."},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(VTHost::errorMessageWithJson(boost::json::parse(c.answer)), c.message)
            << c.answer;
    }
}

TEST(StatusTexts, UseTheStandardReasonPhrase) {
    EXPECT_EQ(VTHost::stringForStatusCode(401), "HTTP status code 401 (Unauthorized)");
    EXPECT_EQ(VTHost::stringForStatusCode(502), "HTTP status code 502 (Bad Gateway)");
    EXPECT_EQ(VTHost::stringForStatusCode(599), "HTTP status code 599 (Server Error)");
}

}  // namespace
