#pragma once

// Small stateless helpers the adapters share: MD5 key fingerprints, quote escaping, hex text of
// data, and zlib compression with raw pass-through.

#include "records/error.h"
#include "records/values.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace vt {

// See VTHost::fingerprintWithKey. Key texts without whitespace around the body are refused with a
// VTSecurityErrorDomain error (-50), as is a body that is not base64.
std::optional<std::string> fingerprintWithKey(std::string_view key, VTError* error);
std::string quotesEscapedString(std::string_view text);

// Bytes as base64 text, padded, without line breaks.
std::string base64String(std::string_view bytes);
// Strict base64 (the whole text, in groups of four, "=" only at the end) to bytes; nullopt for
// any other text.
std::optional<VTData> dataWithBase64(std::string_view text);

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
    // The zlib stream of `data` when it is shorter than `data`, otherwise `data` itself. nullopt
    // with a VTZlibErrorDomain error ("Error compressing data: %d") when zlib fails, or when the
    // input is larger than 4 GiB - 1 (code Z_BUF_ERROR, with a recovery suggestion saying so).
    static std::optional<VTData> compressedData(const VTData& data, VTError* error);
    static std::optional<VTData> compressedData(std::span<const std::uint8_t> data, VTError* error);

    // The inflated bytes of a zlib stream; a truncated stream gives the bytes decoded so far.
    // Data that is not a zlib stream (or needs a preset dictionary) comes back unchanged with no
    // error. nullopt with a VTZlibErrorDomain error ("Error decompressing data: %d") when zlib runs
    // out of memory or fails to start or end, or when the input is larger than 4 GiB - 1.
    static std::optional<VTData> decompressedData(const VTData& data, VTError* error);
    static std::optional<VTData> decompressedData(std::span<const std::uint8_t> data,
                                                  VTError* error);
};
