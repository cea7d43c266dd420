#include "samplehosts/text.h"

#include <chrono>

namespace vt::sample {

std::string isoTime(std::time_t seconds) {
    std::tm parts{};
    ::gmtime_r(&seconds, &parts);
    char text[32];
    const std::size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
    return std::string(text, length);
}

std::time_t utcTime(int year, int month, int day, int hour, int minute, int second) {
    using namespace std::chrono;
    const sys_days date{std::chrono::year{year} / month / day};
    return system_clock::to_time_t(date + hours{hour} + minutes{minute} + seconds{second});
}

std::uint64_t mixed(std::uint64_t seed) {
    std::uint64_t value = seed + 0x9e3779b97f4a7c15ULL;
    value = (value ^ (value >> 30)) * 0xbf58476d1ce4e5b9ULL;
    value = (value ^ (value >> 27)) * 0x94d049bb133111ebULL;
    return value ^ (value >> 31);
}

}  // namespace vt::sample
