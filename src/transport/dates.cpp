#include "transport/dates.h"

#include <unicode/datefmt.h>
#include <unicode/gregocal.h>
#include <unicode/locid.h>
#include <unicode/smpdtfmt.h>
#include <unicode/timezone.h>
#include <unicode/uloc.h>
#include <unicode/unistr.h>

#include <array>
#include <cstdlib>
#include <map>
#include <memory>
#include <optional>

namespace vt {
namespace {

constexpr double kMillisecondsPerSecond = 1000.0;

UDate udateWithMoment(double moment) {
    return (moment + kReferenceDateSince1970) * kMillisecondsPerSecond;
}

double momentWithUDate(UDate date) {
    return date / kMillisecondsPerSecond - kReferenceDateSince1970;
}

std::string nonEmptyEnvironment(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? std::string(value) : std::string();
}

// The environment the rendering depends on, as it stands (LC_ALL, LC_TIME, LANG and TZ, each
// with whether it is set). Comparing these raw values is cheap; deriving the ICU locale name from
// them is not, so it is done only when they change.
struct UserEnvironment {
    std::array<std::optional<std::string>, 4> values;

    // True when the environment still holds `values`, without copying any of it.
    bool isCurrent() const {
        for (std::size_t index = 0; index < kNames.size(); ++index) {
            const char* value = std::getenv(kNames[index]);
            if ((value != nullptr) != values[index].has_value() ||
                (value != nullptr && *values[index] != value)) {
                return false;
            }
        }
        return true;
    }

    static UserEnvironment current() {
        UserEnvironment environment;
        for (std::size_t index = 0; index < kNames.size(); ++index) {
            if (const char* value = std::getenv(kNames[index])) {
                environment.values[index] = value;
            }
        }
        return environment;
    }

    static constexpr std::array<const char*, 4> kNames{"LC_ALL", "LC_TIME", "LANG", "TZ"};
};

// The user's settings that the rendering depends on; formatters are rebuilt when they change.
struct UserSettings {
    std::string locale;
    std::string zone;  // the TZ text; empty means the system's zone

    bool operator==(const UserSettings&) const = default;

    static UserSettings current() { return {userLocaleName(), nonEmptyEnvironment("TZ")}; }
};

// Per-thread ICU objects for the user's locale and zone.
struct UserFormatters {
    UserEnvironment environment;
    UserSettings settings;
    std::unique_ptr<icu::DateFormat> display;
    std::unique_ptr<icu::Calendar> calendar;
};

UserFormatters& userFormatters() {
    thread_local UserFormatters formatters;
    thread_local bool made = false;
    if (made && formatters.environment.isCurrent()) {
        return formatters;
    }
    formatters.environment = UserEnvironment::current();
    UserSettings settings = UserSettings::current();
    if (made && formatters.settings == settings) {
        return formatters;
    }
    // ICU reads TZ itself when it detects the host's zone, so the system's zone and a TZ setting
    // are found the same way.
    std::unique_ptr<icu::TimeZone> zone(icu::TimeZone::detectHostTimeZone());
    const icu::Locale locale(settings.locale.c_str());
    formatters.display.reset(icu::DateFormat::createDateTimeInstance(
        icu::DateFormat::kLong, icu::DateFormat::kShort, locale));
    if (formatters.display != nullptr) {
        formatters.display->setTimeZone(*zone);
    }
    UErrorCode status = U_ZERO_ERROR;
    auto calendar = std::make_unique<icu::GregorianCalendar>(*zone, status);
    formatters.calendar = U_SUCCESS(status) ? std::move(calendar) : nullptr;
    formatters.settings = std::move(settings);
    made = true;
    return formatters;
}

icu::SimpleDateFormat* isoFormatter(std::string_view pattern) {
    thread_local std::map<std::string, std::unique_ptr<icu::SimpleDateFormat>, std::less<>> cache;
    if (auto found = cache.find(pattern); found != cache.end()) {
        return found->second.get();
    }
    UErrorCode status = U_ZERO_ERROR;
    auto formatter = std::make_unique<icu::SimpleDateFormat>(
        icu::UnicodeString::fromUTF8(
            icu::StringPiece(pattern.data(), static_cast<int32_t>(pattern.size()))),
        icu::Locale("en_US_POSIX"), status);
    if (U_FAILURE(status)) {
        return nullptr;
    }
    formatter->setTimeZone(*icu::TimeZone::getGMT());
    formatter->setLenient(false);
    return cache.emplace(std::string(pattern), std::move(formatter)).first->second.get();
}

}  // namespace

std::optional<double> momentWithIsoText(std::string_view text, std::string_view pattern) {
    icu::SimpleDateFormat* formatter = isoFormatter(pattern);
    if (formatter == nullptr) {
        return std::nullopt;
    }
    const icu::UnicodeString unicode = icu::UnicodeString::fromUTF8(
        icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
    icu::ParsePosition position(0);
    const UDate date = formatter->parse(unicode, position);
    if (position.getErrorIndex() >= 0 || position.getIndex() != unicode.length()) {
        return std::nullopt;
    }
    return momentWithUDate(date);
}

std::string isoTextWithMoment(double moment, std::string_view pattern) {
    std::string result;
    if (icu::SimpleDateFormat* formatter = isoFormatter(pattern)) {
        icu::UnicodeString text;
        formatter->format(udateWithMoment(moment), text);
        text.toUTF8String(result);
    }
    return result;
}

std::string localizedDate(double moment) {
    UserFormatters& formatters = userFormatters();
    std::string result;
    if (formatters.display != nullptr) {
        icu::UnicodeString text;
        formatters.display->format(udateWithMoment(moment), text);
        text.toUTF8String(result);
    }
    return result;
}

std::optional<std::string> localizedIsoDate(std::string_view text, std::string_view pattern) {
    if (auto moment = momentWithIsoText(text, pattern)) {
        return localizedDate(*moment);
    }
    return std::nullopt;
}

bool isSameDay(double first, double second) {
    icu::Calendar* calendar = userFormatters().calendar.get();
    if (calendar == nullptr) {
        return false;
    }
    auto day = [calendar](double moment) {
        UErrorCode status = U_ZERO_ERROR;
        calendar->setTime(udateWithMoment(moment), status);
        std::array<int32_t, 3> fields{calendar->get(UCAL_EXTENDED_YEAR, status),
                                      calendar->get(UCAL_MONTH, status),
                                      calendar->get(UCAL_DAY_OF_MONTH, status)};
        return U_SUCCESS(status) ? std::optional(fields) : std::nullopt;
    };
    const auto firstDay = day(first);
    const auto secondDay = day(second);
    return firstDay.has_value() && firstDay == secondDay;
}

std::string userLocaleName() {
    std::string name;
    for (const char* variable : {"LC_ALL", "LC_TIME", "LANG"}) {
        name = nonEmptyEnvironment(variable);
        if (!name.empty()) {
            break;
        }
    }
    // POSIX names carry a code set and a modifier ("de_DE.UTF-8@euro"); ICU wants neither, apart
    // from the script modifiers, which name a script of their own.
    std::string modifier;
    if (auto at = name.find('@'); at != std::string::npos) {
        modifier = name.substr(at + 1);
        name.erase(at);
    }
    if (auto dot = name.find('.'); dot != std::string::npos) {
        name.erase(dot);
    }
    if (name == "C" || name == "POSIX") {
        return "en_US_POSIX";
    }
    if (name.empty()) {
        return name;
    }
    if (modifier == "latin" || modifier == "cyrillic") {
        const std::string script = modifier == "latin" ? "Latn" : "Cyrl";
        auto underscore = name.find('_');
        name = underscore == std::string::npos
                   ? name + "_" + script
                   : name.substr(0, underscore) + "_" + script + name.substr(underscore);
    }
    std::array<char, ULOC_FULLNAME_CAPACITY> buffer{};
    UErrorCode status = U_ZERO_ERROR;
    const int32_t length = uloc_canonicalize(name.c_str(), buffer.data(),
                                             static_cast<int32_t>(buffer.size()), &status);
    if (U_FAILURE(status) || length >= static_cast<int32_t>(buffer.size())) {
        return name;
    }
    return std::string(buffer.data(), static_cast<std::size_t>(length));
}

int caseInsensitiveCompare(std::string_view first, std::string_view second) {
    const icu::UnicodeString left = icu::UnicodeString::fromUTF8(
        icu::StringPiece(first.data(), static_cast<int32_t>(first.size())));
    const icu::UnicodeString right = icu::UnicodeString::fromUTF8(
        icu::StringPiece(second.data(), static_cast<int32_t>(second.size())));
    return left.caseCompare(right, U_FOLD_CASE_DEFAULT | U_COMPARE_CODE_POINT_ORDER);
}

}  // namespace vt
