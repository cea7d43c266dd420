// Any bytes to both directions: decompression always answers (inflated bytes or the input), and
// whatever compression shrinks decompresses back to the input. The input is also inflated behind
// a valid zlib header, so that the fuzzer reaches the deflate decoder without first finding one.
#include "transport/utilities/utilities.h"

#include <cstdlib>

namespace {

void expectAnswer(const VTData& input) {
    VTError error;
    const auto inflated = VTCompressor::decompressedData(input, &error);
    if (!inflated || error) {
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const VTData input(data, data + size);
    expectAnswer(input);
    VTData withHeader{0x78, 0x9c};
    withHeader.insert(withHeader.end(), input.begin(), input.end());
    expectAnswer(withHeader);

    VTError error;
    const auto compressed = VTCompressor::compressedData(input, &error);
    if (!compressed || error || compressed->size() > input.size()) {
        std::abort();
    }
    if (*compressed != input && VTCompressor::decompressedData(*compressed, &error) != input) {
        std::abort();
    }
    return 0;
}
