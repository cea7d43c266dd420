#include "records/error.h"

#include <gtest/gtest.h>
#include <boost/json/parse.hpp>

namespace {

namespace json = boost::json;

TEST(AnError, CarriesItsTextsInTheUserInfo) {
    const VTError error(VTHTTPErrorDomain, 404, "not found", "Resource not accessible");
    EXPECT_TRUE(error);
    EXPECT_EQ(error.description(), "not found");
    EXPECT_EQ(error.recoverySuggestion(), "Resource not accessible");
    EXPECT_EQ(VTError(VTZlibErrorDomain, -3, "data error").recoverySuggestion(), std::nullopt);
    EXPECT_FALSE(VTError());
}

TEST(AnError, SurvivesItsValueFormWithExtraUserInfo) {
    const VTError error(VTGitErrorDomain, -2,
                        json::object{{"description", "Sign-in failed."},
                                     {"recoverySuggestion", "Try again."},
                                     {"reason", "denied"}});
    const json::object value = error.toValue();
    EXPECT_EQ(value, json::parse(R"({"domain": "VTGitErrorDomain", "code": -2, "userInfo":
        {"description": "Sign-in failed.", "recoverySuggestion": "Try again.",
         "reason": "denied"}})"));
    EXPECT_EQ(VTError::fromValue(value), error);
}

TEST(AnError, IsNothingWhenThereIsNoError) {
    EXPECT_TRUE(VTError().toValue().empty());
    EXPECT_EQ(VTError::fromValue(json::object()), std::nullopt);
}

TEST(AnError, AcceptsAMissingUserInfoButRefusesMalformedMembers) {
    EXPECT_EQ(VTError::fromValue(json::parse(R"({"domain": "VTURLErrorDomain", "code": -1001})")),
              VTError(VTURLErrorDomain, -1001, json::object()));
    for (const char* text : {
             R"({"code": 1})",
             R"({"domain": "", "code": 1})",
             R"({"domain": 5, "code": 1})",
             R"({"domain": "D"})",
             R"({"domain": "D", "code": "1"})",
             R"({"domain": "D", "code": 1.0})",
             R"({"domain": "D", "code": 18446744073709551615})",
             R"({"domain": "D", "code": 1, "userInfo": "text"})",
             R"(["D", 1])",
         }) {
        EXPECT_EQ(VTError::fromValue(json::parse(text)), std::nullopt) << text;
    }
}

}  // namespace
