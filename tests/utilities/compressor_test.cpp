#include "transport/utilities/utilities.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <zlib.h>

#include <random>
#include <string>

namespace {

constexpr std::size_t kMiB = 1024 * 1024;

// Deterministic bytes: uniform over the whole byte range (incompressible), or over a 16-letter
// alphabet (compresses to a bit over half).
VTData randomBytes(std::size_t size, bool letters, std::uint32_t seed = 7) {
    std::mt19937 generator(seed);
    VTData bytes(size);
    for (auto& byte : bytes) {
        const auto value = static_cast<std::uint8_t>(generator());
        byte = letters ? static_cast<std::uint8_t>('a' + (value & 0x0f)) : value;
    }
    return bytes;
}

VTData bytesOf(std::string_view text) {
    return VTData(text.begin(), text.end());
}

// zlib's own one-shot inflate, to check that the output is an ordinary zlib stream.
VTData uncompressed(const VTData& stream, std::size_t size) {
    VTData bytes(size);
    uLongf length = size;
    EXPECT_EQ(uncompress(bytes.data(), &length, stream.data(), stream.size()), Z_OK);
    bytes.resize(length);
    return bytes;
}

TEST(Compressor, RoundTripsDataAroundAndAcrossTheBufferSize) {
    for (const std::size_t size : {kMiB - 1, kMiB, kMiB + 1, 3 * kMiB}) {
        const VTData data = randomBytes(size, true);
        VTError error;
        const auto compressed = VTCompressor::compressedData(data, &error);
        ASSERT_TRUE(compressed) << size;
        EXPECT_LT(compressed->size(), data.size()) << size;
        EXPECT_EQ(uncompressed(*compressed, size), data) << size;
        EXPECT_EQ(VTCompressor::decompressedData(*compressed, &error), data) << size;
        EXPECT_FALSE(error) << size;
    }
}

TEST(Compressor, TenThousandZerosBecomeAShortZlibStream) {
    const VTData zeros(10000, 0);
    const auto compressed = VTCompressor::compressedData(zeros, nullptr);
    ASSERT_TRUE(compressed);
    EXPECT_LT(compressed->size(), 100u);
    EXPECT_EQ(uncompressed(*compressed, zeros.size()), zeros);
    EXPECT_EQ(VTCompressor::decompressedData(*compressed, nullptr), zeros);
}

TEST(Compressor, PassesDataThatDoesNotShrinkThroughUnchanged) {
    for (const VTData& data : {VTData{}, VTData{'x'}, randomBytes(100, false),
                               randomBytes(2 * kMiB + kMiB / 2, false)}) {
        VTError error;
        EXPECT_EQ(VTCompressor::compressedData(data, &error), data) << data.size();
        EXPECT_FALSE(error);
    }
}

TEST(Decompressor, PassesDataThatIsNotAZlibStreamThroughUnchanged) {
    VTData wrongChecksum = *VTCompressor::compressedData(VTData(1000, 'q'), nullptr);
    wrongChecksum.back() ^= 0x01;

    // A stream that needs a preset dictionary.
    VTData withDictionary(64);
    z_stream stream{};
    ASSERT_EQ(deflateInit(&stream, Z_DEFAULT_COMPRESSION), Z_OK);
    const std::string dictionary = "veldtrack";
    deflateSetDictionary(&stream, reinterpret_cast<const Bytef*>(dictionary.data()),
                         dictionary.size());
    VTData input = bytesOf("veldtrack veldtrack");
    stream.next_in = input.data();
    stream.avail_in = input.size();
    stream.next_out = withDictionary.data();
    stream.avail_out = withDictionary.size();
    ASSERT_EQ(deflate(&stream, Z_FINISH), Z_STREAM_END);
    withDictionary.resize(stream.total_out);
    deflateEnd(&stream);

    for (const VTData& data : {bytesOf("Plain text, not compressed at all."), VTData{},
                               wrongChecksum, withDictionary, randomBytes(3 * kMiB, false)}) {
        VTError error;
        EXPECT_EQ(VTCompressor::decompressedData(data, &error), data) << data.size();
        EXPECT_FALSE(error);
    }
}

TEST(Decompressor, GivesTheBytesDecodedSoFarOfATruncatedStream) {
    const VTData data = randomBytes(200000, true);
    VTData stream = *VTCompressor::compressedData(data, nullptr);
    stream.resize(stream.size() / 2);

    VTError error;
    const auto prefix = VTCompressor::decompressedData(stream, &error);
    ASSERT_TRUE(prefix);
    EXPECT_FALSE(error);
    EXPECT_GT(prefix->size(), 0u);
    EXPECT_LT(prefix->size(), data.size());
    EXPECT_TRUE(std::equal(prefix->begin(), prefix->end(), data.begin()));
}

TEST(Compressor, RefusesInputsOfFourGibibytesInBothDirections) {
    // One byte more than zlib's 32-bit counts hold, reserved but never touched: both directions
    // must refuse before reading a byte.
    const std::size_t size = std::size_t{1} << 32;
    void* memory =
        mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED) {
        GTEST_SKIP() << "cannot reserve 4 GiB of address space";
    }
    const std::span<const std::uint8_t> huge(static_cast<const std::uint8_t*>(memory), size);

    VTError error;
    EXPECT_EQ(VTCompressor::compressedData(huge, &error), std::nullopt);
    EXPECT_EQ(error.domain, VTZlibErrorDomain);
    EXPECT_EQ(error.code, Z_BUF_ERROR);
    EXPECT_EQ(error.description(), "Error compressing data: -5");
    EXPECT_TRUE(error.recoverySuggestion());

    EXPECT_EQ(VTCompressor::decompressedData(huge, &error), std::nullopt);
    EXPECT_EQ(error.description(), "Error decompressing data: -5");
    EXPECT_EQ(VTCompressor::decompressedData(huge, nullptr), std::nullopt);
    munmap(memory, size);
}

}  // namespace
