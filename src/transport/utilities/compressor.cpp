#include "transport/utilities/utilities.h"

#include <zlib.h>

#include <algorithm>
#include <limits>
#include <memory>
#include <string>

namespace {

// One working buffer of this size per call; output grows by appending what each step produced.
constexpr std::size_t kBufferSize = 1024 * 1024;

// zlib counts input in 32 bits.
constexpr std::size_t kLargestInput = std::numeric_limits<uInt>::max();

// The working buffer: it is only ever written by zlib before it is read, so it is not cleared.
using Buffer = std::unique_ptr<Bytef[]>;

Buffer newBuffer() {
    return std::make_unique_for_overwrite<Bytef[]>(kBufferSize);
}

// Appends what the last step wrote into the buffer.
void appendProduced(VTData& output, const Buffer& buffer, const z_stream& stream) {
    output.insert(output.end(), buffer.get(), buffer.get() + (kBufferSize - stream.avail_out));
}

VTError zlibError(std::string_view prefix, int code) {
    return VTError(VTZlibErrorDomain, code, std::string(prefix) + std::to_string(code));
}

VTError tooLargeError(std::string_view prefix) {
    return VTError(VTZlibErrorDomain, Z_BUF_ERROR,
                   std::string(prefix) + std::to_string(Z_BUF_ERROR),
                   "Data of 4 GiB or more cannot be handled.");
}

// zlib takes a non-const input pointer but only reads through it.
Bytef* inputPointer(std::span<const std::uint8_t> data) {
    return const_cast<Bytef*>(reinterpret_cast<const Bytef*>(data.data()));
}

}  // namespace

std::optional<VTData> VTCompressor::compressedData(const VTData& data, VTError* error) {
    return compressedData(std::span<const std::uint8_t>(data), error);
}

std::optional<VTData> VTCompressor::compressedData(std::span<const std::uint8_t> data,
                                                   VTError* error) {
    constexpr std::string_view prefix = "Error compressing data: ";
    if (data.size() > kLargestInput) {
        VTSetError(error, tooLargeError(prefix));
        return std::nullopt;
    }

    z_stream stream{};
    int code = deflateInit(&stream, Z_DEFAULT_COMPRESSION);
    VTData output;
    if (code == Z_OK) {
        const Buffer buffer = newBuffer();
        const Bytef* next = inputPointer(data);
        std::size_t remaining = data.size();
        // An empty input still gets one finishing step, so that the stream is complete.
        do {
            const std::size_t slice = std::min(remaining, kBufferSize);
            const int flush = remaining <= kBufferSize ? Z_FINISH : Z_NO_FLUSH;
            stream.next_in = const_cast<Bytef*>(next);
            stream.avail_in = static_cast<uInt>(slice);
            // A step that fills the whole buffer may have more to give.
            do {
                stream.next_out = buffer.get();
                stream.avail_out = static_cast<uInt>(kBufferSize);
                deflate(&stream, flush);
                appendProduced(output, buffer, stream);
            } while (stream.avail_out == 0);
            next += slice;
            remaining -= slice;
        } while (remaining > 0);
        code = deflateEnd(&stream);
        if (code > 0) {
            code = Z_OK;
        }
    }
    if (code != Z_OK) {
        VTSetError(error, zlibError(prefix, code));
        output.clear();
        // Data that does not shrink passes through raw; an empty input is that even now.
        if (!data.empty()) {
            return std::nullopt;
        }
    }

    if (output.size() < data.size()) {
        return output;
    }
    return VTData(data.begin(), data.end());
}

std::optional<VTData> VTCompressor::decompressedData(const VTData& data, VTError* error) {
    return decompressedData(std::span<const std::uint8_t>(data), error);
}

std::optional<VTData> VTCompressor::decompressedData(std::span<const std::uint8_t> data,
                                                     VTError* error) {
    constexpr std::string_view prefix = "Error decompressing data: ";
    if (data.size() > kLargestInput) {
        VTSetError(error, tooLargeError(prefix));
        return std::nullopt;
    }

    z_stream stream{};
    stream.next_in = inputPointer(data);
    stream.avail_in = static_cast<uInt>(data.size());
    int code = inflateInit(&stream);
    if (code >= Z_OK) {
        const Buffer buffer = newBuffer();
        VTData output;
        // The loop ends when a step leaves room in the buffer, not at the stream's end: a
        // truncated stream gives what was decoded so far.
        for (;;) {
            stream.next_out = buffer.get();
            stream.avail_out = static_cast<uInt>(kBufferSize);
            const int step = inflate(&stream, Z_NO_FLUSH);
            if (step == Z_MEM_ERROR || step == Z_DATA_ERROR) {
                inflateEnd(&stream);
                code = step;
                break;
            }
            if (step == Z_NEED_DICT) {
                inflateEnd(&stream);
                code = Z_DATA_ERROR;
                break;
            }
            appendProduced(output, buffer, stream);
            if (stream.avail_out != 0) {
                code = inflateEnd(&stream);
                if (code == Z_OK) {
                    return output;
                }
                break;
            }
        }
    }

    // Data that is not a zlib stream, or needs a preset dictionary, passes through raw.
    if (code == Z_DATA_ERROR) {
        return VTData(data.begin(), data.end());
    }
    VTSetError(error, zlibError(prefix, code));
    return std::nullopt;
}
