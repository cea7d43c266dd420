#pragma once

// Small stateless helpers the adapters share: MD5 key fingerprints, quote escaping, hex text of
// data, and zlib compression with raw pass-through.

#include "records/error.h"
#include "records/values.h"

#include <optional>
#include <string>
#include <string_view>

namespace vt {

// See VTHost::fingerprintWithKey. Key texts without whitespace around the body are refused with a
// VTSecurityErrorDomain error (-50), as is a body that is not base64.
std::optional<std::string> fingerprintWithKey(std::string_view key, VTError* error);
std::string quotesEscapedString(std::string_view text);

// Hex text (either case) to bytes; nullopt for odd length, a non-hex or a non-ASCII character.
std::optional<VTData> dataWithString(std::string_view hex);
// Bytes to lowercase hex text.
std::string hexString(const VTData& data);
std::string hexString(const unsigned char* bytes, std::size_t length);

}  // namespace vt

// zlib streams through one 1 MiB buffer; data that does not shrink, or is not a zlib stream,
// passes through unchanged.
class VTCompressor {
public:
    static std::optional<VTData> compressedData(const VTData& data, VTError* error);
    static std::optional<VTData> decompressedData(const VTData& data, VTError* error);
};
