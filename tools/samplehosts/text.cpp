#include "samplehosts/text.h"

#include <openssl/evp.h>

#include <chrono>

namespace vt::sample {

std::string base64(std::string_view bytes) {
    std::string text(4 * ((bytes.size() + 2) / 3) + 1, '\0');
    const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                                       reinterpret_cast<const unsigned char*>(bytes.data()),
                                       static_cast<int>(bytes.size()));
    text.resize(static_cast<std::size_t>(length));
    return text;
}

std::optional<std::string> fromBase64(std::string_view text) {
    if (text.empty() || text.size() % 4 != 0) {
        return std::nullopt;
    }
    std::string bytes(3 * (text.size() / 4) + 1, '\0');
    const int length = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(bytes.data()),
                                       reinterpret_cast<const unsigned char*>(text.data()),
                                       static_cast<int>(text.size()));
    if (length < 0) {
        return std::nullopt;
    }
    // EVP_DecodeBlock counts the padding as zero bytes.
    std::size_t size = static_cast<std::size_t>(length);
    for (std::size_t index = text.size(); index > 0 && text[index - 1] == '='; --index) {
        --size;
    }
    bytes.resize(size);
    return bytes;
}

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
