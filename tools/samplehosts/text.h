#pragma once

// Small text helpers of the sample hosts: ISO 8601 times and deterministic numbers.

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>

namespace vt::sample {

// "yyyy-MM-ddTHH:mm:ssZ" of a moment in seconds since 1970 (UTC).
std::string isoTime(std::time_t seconds);
// Seconds since 1970 of a UTC calendar time.
std::time_t utcTime(int year, int month, int day, int hour = 0, int minute = 0, int second = 0);

// A well-mixed 64-bit number for `seed` (splitmix64): deterministic sample data without a
// generator's state.
std::uint64_t mixed(std::uint64_t seed);

}  // namespace vt::sample
