#include "transport/utilities/utilities.h"

#include <openssl/evp.h>

#include <array>

namespace vt {
namespace {

// errSecParam: the code the fingerprint reports for every key text it cannot use.
constexpr std::int64_t kKeyErrorCode = -50;

constexpr std::string_view kHexDigits = "0123456789abcdef";

bool isKeyWhitespace(char c) {
    return c == ' ' || c == '\t';
}

VTError keyError(std::string_view description) {
    return VTError(VTSecurityErrorDomain, kKeyErrorCode, description);
}

// Value of each byte as a hex digit, or -1.
constexpr std::array<std::int8_t, 256> kHexValues = [] {
    std::array<std::int8_t, 256> table{};
    table.fill(-1);
    for (int i = 0; i < 10; ++i) {
        table['0' + i] = static_cast<std::int8_t>(i);
    }
    for (int i = 0; i < 6; ++i) {
        table['a' + i] = static_cast<std::int8_t>(10 + i);
        table['A' + i] = static_cast<std::int8_t>(10 + i);
    }
    return table;
}();

bool isBase64Character(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' ||
           c == '/';
}

// Strict base64: the whole text, in groups of four, with "=" only as the last one or two
// characters. OpenSSL's block decoder would skip surrounding whitespace and count padding as
// zero bytes, so the text is checked here first and the padding taken off the decoded length.
std::optional<VTData> decodedBase64(std::string_view text, VTError* error) {
    std::size_t padding = 0;
    while (padding < 2 && padding < text.size() && text[text.size() - 1 - padding] == '=') {
        ++padding;
    }
    for (std::size_t i = 0; i < text.size() - padding; ++i) {
        if (!isBase64Character(text[i])) {
            VTSetError(error, keyError("The key body is not base64: it holds a character outside "
                                       "the base64 alphabet."));
            return std::nullopt;
        }
    }
    if (text.size() % 4 != 0) {
        VTSetError(error, keyError("The key body is not base64: its length is not a multiple of "
                                   "four."));
        return std::nullopt;
    }
    if (text.size() > static_cast<std::size_t>(INT32_MAX)) {
        VTSetError(error, keyError("The key body is too long to decode."));
        return std::nullopt;
    }
    VTData bytes(text.size() / 4 * 3);
    const int decoded =
        EVP_DecodeBlock(bytes.data(), reinterpret_cast<const unsigned char*>(text.data()),
                        static_cast<int>(text.size()));
    if (decoded < 0 || static_cast<std::size_t>(decoded) != bytes.size()) {
        VTSetError(error, keyError("The key body is not base64."));
        return std::nullopt;
    }
    bytes.resize(bytes.size() - padding);
    return bytes;
}

std::optional<std::array<unsigned char, 16>> md5Digest(const VTData& bytes, VTError* error) {
    std::array<unsigned char, 16> digest{};
    unsigned int length = 0;
    if (EVP_Digest(bytes.data(), bytes.size(), digest.data(), &length, EVP_md5(), nullptr) != 1 ||
        length != digest.size()) {
        VTSetError(error, keyError("The MD5 digest of the key could not be computed."));
        return std::nullopt;
    }
    return digest;
}

}  // namespace

std::string base64String(std::string_view bytes) {
    if (bytes.size() > static_cast<std::size_t>(INT32_MAX) / 4 * 3) {
        return std::string();
    }
    std::string text(4 * ((bytes.size() + 2) / 3) + 1, '\0');
    const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                                       reinterpret_cast<const unsigned char*>(bytes.data()),
                                       static_cast<int>(bytes.size()));
    text.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
    return text;
}

std::optional<VTData> dataWithBase64(std::string_view text) {
    return decodedBase64(text, nullptr);
}

std::optional<std::string> fingerprintWithKey(std::string_view key, VTError* error) {
    // "type body comment": the type word and the comment are dropped, only the body is hashed.
    std::size_t start = 0;
    while (start < key.size() && !isKeyWhitespace(key[start])) {
        ++start;
    }
    if (start == key.size()) {
        VTSetError(error, keyError("The key text has no whitespace after its type."));
        return std::nullopt;
    }
    while (start < key.size() && isKeyWhitespace(key[start])) {
        ++start;
    }
    if (start == key.size()) {
        VTSetError(error, keyError("The key text has no body after its type."));
        return std::nullopt;
    }
    std::string_view body = key.substr(start);
    std::size_t end = 0;
    while (end < body.size() && !isKeyWhitespace(body[end])) {
        ++end;
    }
    body = body.substr(0, end);

    const std::optional<VTData> bytes = decodedBase64(body, error);
    if (!bytes) {
        return std::nullopt;
    }
    const auto digest = md5Digest(*bytes, error);
    if (!digest) {
        return std::nullopt;
    }
    const std::string hex = hexString(digest->data(), digest->size());

    std::string fingerprint;
    fingerprint.reserve(hex.size() + hex.size() / 2);
    for (std::size_t i = 0; i < hex.size(); ++i) {
        if (i > 0 && i % 2 == 0) {
            fingerprint.push_back(':');
        }
        fingerprint.push_back(hex[i]);
    }
    VTSetError(error, VTError());
    return fingerprint;
}

std::string quotesEscapedString(std::string_view text) {
    std::string escaped;
    escaped.reserve(text.size());
    for (const char c : text) {
        if (c == '"') {
            escaped.push_back('\\');
        }
        escaped.push_back(c);
    }
    return escaped;
}

std::optional<VTData> dataWithString(std::string_view hex) {
    if (hex.size() % 2 != 0) {
        return std::nullopt;
    }
    VTData bytes(hex.size() / 2);
    for (std::size_t i = 0; i < hex.size(); ++i) {
        // Bytes above 0x7f (non-ASCII text) are not digits in the table either.
        const std::int8_t value = kHexValues[static_cast<unsigned char>(hex[i])];
        if (value < 0) {
            return std::nullopt;
        }
        bytes[i / 2] |= static_cast<std::uint8_t>(i % 2 == 0 ? value << 4 : value);
    }
    return bytes;
}

std::string hexString(const VTData& data) {
    return hexString(data.data(), data.size());
}

std::string hexString(const unsigned char* bytes, std::size_t length) {
    std::string hex;
    hex.reserve(length * 2);
    for (std::size_t i = 0; i < length; ++i) {
        hex.push_back(kHexDigits[bytes[i] >> 4]);
        hex.push_back(kHexDigits[bytes[i] & 0x0f]);
    }
    return hex;
}

}  // namespace vt
