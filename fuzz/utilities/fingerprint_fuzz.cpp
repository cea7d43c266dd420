// Any text, as a key line: either a 47-character fingerprint and no error, or nothing and the
// key error. The text is copied to a buffer of its exact size so that ASan sees any read past it.
#include "transport/utilities/utilities.h"

#include <cctype>
#include <cstdlib>
#include <memory>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto text = std::make_unique<char[]>(size);
    std::copy(data, data + size, text.get());
    const std::string_view key(text.get(), size);

    VTError error(VTHTTPErrorDomain, 1, "stale");
    const auto fingerprint = vt::fingerprintWithKey(key, &error);
    if (fingerprint) {
        if (error || fingerprint->size() != 47) {
            std::abort();
        }
        for (std::size_t i = 0; i < fingerprint->size(); ++i) {
            const char c = (*fingerprint)[i];
            const bool valid = i % 3 == 2 ? c == ':'
                                          : (std::isdigit(static_cast<unsigned char>(c)) ||
                                             (c >= 'a' && c <= 'f'));
            if (!valid) {
                std::abort();
            }
        }
    } else if (error.domain != VTSecurityErrorDomain || error.code != -50 ||
               error.description().empty()) {
        std::abort();
    }
    if (vt::fingerprintWithKey(key, nullptr) != fingerprint) {
        std::abort();
    }
    return 0;
}
