#include "transport/answer.h"

#include "transport/host.h"

#include <unicode/utf8.h>
#include <boost/json/monotonic_resource.hpp>
#include <boost/json/stream_parser.hpp>

namespace vt {

namespace {

bool isUtf8(std::string_view text) {
    std::int32_t index = 0;
    const auto length = static_cast<std::int32_t>(text.size());
    if (text.size() > static_cast<std::size_t>(INT32_MAX)) {
        return false;
    }
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
    while (index < length) {
        UChar32 c;
        U8_NEXT(bytes, index, length, c);
        if (c < 0) {
            return false;
        }
    }
    return true;
}

}  // namespace

std::optional<boost::json::value> decodeAnswerBody(std::string_view body, VTError* error) {
    if (body.empty()) {
        return boost::json::value(boost::json::object());
    }
    boost::json::parse_options options;
    options.max_depth = 512;
    boost::json::stream_parser parser(boost::json::storage_ptr(), options);
    // An answer is read and then dropped whole: its nodes come from one growing block store, so
    // parsing bumps a pointer and dropping it frees a few blocks instead of every node. Copies
    // taken out of it into other containers get those containers' storage.
    parser.reset(boost::json::make_shared_resource<boost::json::monotonic_resource>());
    boost::json::error_code code;
    std::size_t consumed = parser.write(body.data(), body.size(), code);
    if (!code) {
        parser.finish(code);
    }
    if (!code) {
        return parser.release();
    }
    if (isUtf8(body)) {
        VTSetError(error, VTError(VTHTTPErrorDomain, 0, body));
    } else {
        VTSetError(error, VTError(VTJSONErrorDomain, 3840,
                                  "The data could not be read as JSON: " + code.message() +
                                      " (around byte " + std::to_string(consumed) + ")."));
    }
    return std::nullopt;
}

std::string nextLinkFromHeader(std::string_view header) {
    // Entries look like <address>; rel="next", <address>; rel="last". Only "next" is taken.
    std::size_t position = 0;
    auto skipSpace = [&] {
        while (position < header.size() && (header[position] == ' ' || header[position] == '\t' ||
                                            header[position] == '\n' || header[position] == '\r')) {
            ++position;
        }
    };
    while (true) {
        skipSpace();
        std::size_t open = header.find('<', position);
        if (open == std::string_view::npos) {
            return {};
        }
        position = open + 1;
        skipSpace();
        std::size_t close = header.find(">;", position);
        if (close == std::string_view::npos) {
            return {};
        }
        std::string_view candidate = header.substr(position, close - position);
        position = close + 2;
        skipSpace();
        static constexpr std::string_view kRel = "rel=\"";
        std::size_t rel = header.find(kRel, position);
        if (rel == std::string_view::npos) {
            return {};
        }
        position = rel + kRel.size();
        skipSpace();
        std::size_t quote = header.find('"', position);
        std::string_view relation = header.substr(
            position, quote == std::string_view::npos ? std::string_view::npos : quote - position);
        if (relation == "next") {
            return std::string(candidate);
        }
        if (quote == std::string_view::npos) {
            return {};
        }
        position = quote;
        skipSpace();
        if (position >= header.size()) {
            return {};
        }
    }
}

}  // namespace vt
