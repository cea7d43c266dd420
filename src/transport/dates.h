#pragma once

// Dates as the adapters read and show them, on ICU: host texts parsed with fixed patterns in GMT,
// moments rendered for the user (long date, short time) in the user's locale and time zone, and
// Gregorian calendar days. Also the case-insensitive ordering the adapters sort names with.
//
// Moments are seconds since 2001-01-01T00:00:00Z, as a double. Every function may be called from
// any thread: the ICU formatters are cached per thread, as they are slow to make and not safe to
// share.

#include <optional>
#include <string>
#include <string_view>

namespace vt {

// The pattern of the ISO texts hosts send ("2011-01-26T19:01:12Z", "...+01:00").
inline constexpr std::string_view kIsoDatePattern = "yyyy-MM-dd'T'HH:mm:ssZ";
// The same with fractions of a second ("2011-01-26T19:01:12.123Z"). Neither pattern parses the
// other's texts.
inline constexpr std::string_view kIsoFractionDatePattern = "yyyy-MM-dd'T'HH:mm:ss.SZ";

// Seconds from 1970-01-01T00:00:00Z to the reference date 2001-01-01T00:00:00Z.
inline constexpr double kReferenceDateSince1970 = 978307200.0;

// The moment of `text` read with the ICU `pattern` in GMT and the locale en_US_POSIX, strictly
// (no rolling over of out-of-range fields) and as a whole (nothing may follow). nullopt when the
// text does not match.
std::optional<double> momentWithIsoText(std::string_view text,
                                        std::string_view pattern = kIsoDatePattern);

// The moment written with the ICU `pattern` in GMT and the locale en_US_POSIX (the "Z" of the ISO
// pattern writes "+0000"), as hosts' texts are read back.
std::string isoTextWithMoment(double moment, std::string_view pattern = kIsoDatePattern);

// The moment rendered with ICU's long date style and short time style ("January 26, 2011 at
// 7:01 PM" in en_US) in the user's locale and time zone (see userLocaleName and the TZ rules of
// the platform: TZ, else the system's zone).
std::string localizedDate(double moment);

// localizedDate of the moment of `text`; nullopt when the text does not match `pattern`.
std::optional<std::string> localizedIsoDate(std::string_view text,
                                            std::string_view pattern = kIsoDatePattern);

// True when both moments fall on the same Gregorian year, month and day in the user's time zone.
bool isSameDay(double first, double second);

// The ICU locale name of the user's date locale: the first non-empty of LC_ALL, LC_TIME and LANG,
// without its code set, canonicalized for ICU ("en_US.UTF-8" is "en_US"; "C" and "POSIX" are
// "en_US_POSIX"). The empty string (ICU's root locale) when none is set.
std::string userLocaleName();

// Negative, zero or positive as `first` orders before, with or after `second` when both are
// compared by ICU's default case folding (code point order of the folded texts).
int caseInsensitiveCompare(std::string_view first, std::string_view second);

}  // namespace vt
