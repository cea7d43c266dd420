#include "transport/dates.h"
#include "github_test_support.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <string>

namespace {

using vt::testing::useFixedDateSettings;

class Dates : public ::testing::Test {
protected:
    void SetUp() override { useFixedDateSettings(); }
};

struct ParseCase {
    const char* text;
    std::string_view pattern;
    std::optional<double> moment;
};

TEST_F(Dates, ParseWholeIsoTextsInGmtIntoSecondsSinceTheReferenceDate) {
    const ParseCase cases[] = {
        {"2001-01-01T00:00:00Z", vt::kIsoDatePattern, 0.0},
        {"2011-01-26T19:01:12Z", vt::kIsoDatePattern, 317761272.0},
        {"2011-01-26T20:01:12+01:00", vt::kIsoDatePattern, 317761272.0},
        {"2000-12-31T23:59:59Z", vt::kIsoDatePattern, -1.0},
        {"2011-01-26T19:01:12.5Z", vt::kIsoFractionDatePattern, 317761272.5},
        // Each pattern refuses the other's texts, out-of-range fields and trailing text.
        {"2011-01-26T19:01:12.5Z", vt::kIsoDatePattern, std::nullopt},
        {"2011-01-26T19:01:12Z", vt::kIsoFractionDatePattern, std::nullopt},
        {"2011-13-26T19:01:12Z", vt::kIsoDatePattern, std::nullopt},
        {"2011-01-26T19:01:12Z and more", vt::kIsoDatePattern, std::nullopt},
        {"2011-01-26T19:01:12", vt::kIsoDatePattern, std::nullopt},
        {"", vt::kIsoDatePattern, std::nullopt},
    };
    for (const ParseCase& test : cases) {
        EXPECT_EQ(vt::momentWithIsoText(test.text, test.pattern), test.moment) << test.text;
    }
}

TEST_F(Dates, RenderLongDateAndShortTimeInTheUsersLocaleAndZone) {
    EXPECT_EQ(vt::localizedIsoDate("2011-01-26T19:01:12Z"), "January 26, 2011 at 7:01\u202fPM");
    EXPECT_EQ(vt::localizedIsoDate("not a date"), std::nullopt);

    setenv("LANG", "de_DE.UTF-8", 1);
    setenv("TZ", "Europe/Berlin", 1);
    EXPECT_EQ(vt::localizedDate(317761272.0), "26. Januar 2011 um 20:01");

    // LC_ALL wins over LANG, LC_TIME over LANG.
    setenv("LC_TIME", "en_GB.UTF-8", 1);
    EXPECT_EQ(vt::localizedDate(317761272.0), "26 January 2011 at 20:01");
    setenv("LC_ALL", "en_US.UTF-8", 1);
    EXPECT_EQ(vt::localizedDate(317761272.0), "January 26, 2011 at 8:01\u202fPM");
}

TEST_F(Dates, CompareCalendarDaysInTheUsersZone) {
    const double lateEvening = *vt::momentWithIsoText("2020-03-01T22:30:00Z");
    const double nearMidnight = *vt::momentWithIsoText("2020-03-01T23:30:00Z");
    const double nextMorning = *vt::momentWithIsoText("2020-03-02T06:00:00Z");
    EXPECT_TRUE(vt::isSameDay(lateEvening, nearMidnight));
    EXPECT_FALSE(vt::isSameDay(nearMidnight, nextMorning));

    setenv("TZ", "Europe/Berlin", 1);  // 23:30 UTC is already the next day there
    EXPECT_FALSE(vt::isSameDay(lateEvening, nearMidnight));
    EXPECT_TRUE(vt::isSameDay(nearMidnight, nextMorning));
}

TEST_F(Dates, UserLocaleNamesAreCanonicalizedForIcu) {
    const std::pair<const char*, const char*> cases[] = {
        {"en_US.UTF-8", "en_US"},      {"C", "en_US_POSIX"},    {"POSIX", "en_US_POSIX"},
        {"C.UTF-8", "en_US_POSIX"},    {"de_DE@euro", "de_DE"}, {"sr_RS.UTF-8@latin", "sr_Latn_RS"},
        {"pt_BR.ISO-8859-1", "pt_BR"},
    };
    for (const auto& [posix, icu] : cases) {
        setenv("LANG", posix, 1);
        EXPECT_EQ(vt::userLocaleName(), icu) << posix;
    }
    setenv("LC_ALL", "", 1);  // empty settings are passed over, as the C library does
    setenv("LC_TIME", "fr_FR.UTF-8", 1);
    EXPECT_EQ(vt::userLocaleName(), "fr_FR");
}

TEST_F(Dates, CaseInsensitiveOrderFoldsCase) {
    EXPECT_LT(vt::caseInsensitiveCompare("Alpha", "beta"), 0);
    EXPECT_GT(vt::caseInsensitiveCompare("gamma", "Beta"), 0);
    EXPECT_EQ(vt::caseInsensitiveCompare("STRASSE", "straße"), 0);
}

}  // namespace
