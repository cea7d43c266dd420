// Any text as hex: accepted exactly when it is an even number of hex digits, and then written
// back as the same digits in lowercase. Any bytes as data: their hex text reads back as them.
#include "transport/utilities/utilities.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const bool isHex = size % 2 == 0 && std::all_of(text.begin(), text.end(), [](char c) {
                           return std::isxdigit(static_cast<unsigned char>(c)) != 0;
                       });

    const auto bytes = vt::dataWithString(text);
    if (bytes.has_value() != isHex) {
        std::abort();
    }
    if (bytes) {
        std::string lower(text);
        std::transform(lower.begin(), lower.end(), lower.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        if (bytes->size() != size / 2 || vt::hexString(*bytes) != lower) {
            std::abort();
        }
    }

    const VTData raw(data, data + size);
    const std::string hex = vt::hexString(raw);
    if (hex.size() != 2 * size || vt::dataWithString(hex) != raw) {
        std::abort();
    }

    // Escaping only adds a backslash before each quote.
    const std::string escaped = vt::quotesEscapedString(text);
    std::string unescaped;
    for (std::size_t i = 0; i < escaped.size(); ++i) {
        if (escaped[i] == '\\' && i + 1 < escaped.size() && escaped[i + 1] == '"') {
            continue;
        }
        unescaped.push_back(escaped[i]);
    }
    if (unescaped != text || escaped.size() != size + static_cast<std::size_t>(std::count(
                                                          text.begin(), text.end(), '"'))) {
        std::abort();
    }
    return 0;
}
