#include "transport/answer.h"

#include "transport/host.h"
#include "transport/limits.h"

#include <unicode/utf8.h>
#include <boost/json/basic_parser_impl.hpp>
#include <boost/json/monotonic_resource.hpp>
#include <boost/json/value_stack.hpp>

#include <charconv>

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

// Builds the value as Boost.JSON's own parser does, except for doubles: Boost.JSON 1.81 does not
// round every decimal exponent correctly (7E301 comes out one step above the nearest double) and
// reads a zero with an exponent above 308, such as 0e400, as NaN. Doubles are therefore read
// again from their text, which from_chars rounds correctly; only out of its range (1e400, 1e-400)
// does the parser's infinity or zero stand.
class ValueBuilder {
public:
    static constexpr std::size_t max_object_size = boost::json::object::max_size();
    static constexpr std::size_t max_array_size = boost::json::array::max_size();
    static constexpr std::size_t max_key_size = boost::json::string::max_size();
    static constexpr std::size_t max_string_size = boost::json::string::max_size();

    // An answer is read and then dropped whole: its nodes come from one growing block store, so
    // parsing bumps a pointer and dropping it frees a few blocks instead of every node. Copies
    // taken out of it into other containers get those containers' storage.
    ValueBuilder() {
        stack_.reset(boost::json::make_shared_resource<boost::json::monotonic_resource>());
    }

    boost::json::value release() { return stack_.release(); }

    bool on_document_begin(boost::json::error_code&) { return true; }
    bool on_document_end(boost::json::error_code&) { return true; }
    bool on_object_begin(boost::json::error_code&) { return true; }
    bool on_object_end(std::size_t n, boost::json::error_code&) {
        stack_.push_object(n);
        return true;
    }
    bool on_array_begin(boost::json::error_code&) { return true; }
    bool on_array_end(std::size_t n, boost::json::error_code&) {
        stack_.push_array(n);
        return true;
    }
    bool on_key_part(boost::json::string_view s, std::size_t, boost::json::error_code&) {
        stack_.push_chars(s);
        return true;
    }
    bool on_key(boost::json::string_view s, std::size_t, boost::json::error_code&) {
        stack_.push_key(s);
        return true;
    }
    bool on_string_part(boost::json::string_view s, std::size_t, boost::json::error_code&) {
        stack_.push_chars(s);
        return true;
    }
    bool on_string(boost::json::string_view s, std::size_t, boost::json::error_code&) {
        stack_.push_string(s);
        return true;
    }
    bool on_number_part(boost::json::string_view s, boost::json::error_code&) {
        number_.append(s.data(), s.size());
        return true;
    }
    bool on_int64(std::int64_t i, boost::json::string_view, boost::json::error_code&) {
        number_.clear();
        stack_.push_int64(i);
        return true;
    }
    bool on_uint64(std::uint64_t u, boost::json::string_view, boost::json::error_code&) {
        number_.clear();
        stack_.push_uint64(u);
        return true;
    }
    bool on_double(double d, boost::json::string_view s, boost::json::error_code&) {
        number_.append(s.data(), s.size());
        double exact = 0;
        const bool read =
            std::from_chars(number_.data(), number_.data() + number_.size(), exact).ec ==
            std::errc();
        number_.clear();
        stack_.push_double(read ? exact : d);
        return true;
    }
    bool on_bool(bool b, boost::json::error_code&) {
        stack_.push_bool(b);
        return true;
    }
    bool on_null(boost::json::error_code&) {
        stack_.push_null();
        return true;
    }
    bool on_comment_part(boost::json::string_view, boost::json::error_code&) { return true; }
    bool on_comment(boost::json::string_view, boost::json::error_code&) { return true; }

private:
    boost::json::value_stack stack_;
    std::string number_;  // the number's text so far, when it came in parts
};

}  // namespace

std::optional<boost::json::value> decodeAnswerBody(std::string_view body, VTError* error) {
    if (body.empty()) {
        return boost::json::value(boost::json::object());
    }
    boost::json::parse_options options;
    options.max_depth = 512;
    boost::json::basic_parser<ValueBuilder> parser(options);
    boost::json::error_code code;
    const std::size_t consumed = parser.write_some(false, body.data(), body.size(), code);
    if (!code && consumed < body.size()) {
        code = boost::json::error::extra_data;
    }
    if (!code) {
        return parser.handler().release();
    }
    if (isUtf8(body)) {
        VTSetError(error, VTError(VTHTTPErrorDomain, 0, answerText(body)));
    } else {
        VTSetError(error, VTError(VTJSONErrorDomain, 3840,
                                  "The data could not be read as JSON: " + code.message() +
                                      " (around byte " + std::to_string(consumed) + ")."));
    }
    return std::nullopt;
}

std::string answerText(std::string_view text) {
    if (text.size() <= limits::kMaxAnswerTextBytes) {
        return std::string(text);
    }
    // Back to the first byte of the character that the cut would split.
    auto end = static_cast<std::int32_t>(limits::kMaxAnswerTextBytes);
    U8_SET_CP_START(reinterpret_cast<const std::uint8_t*>(text.data()), 0, end);
    return std::string(text.substr(0, static_cast<std::size_t>(end)));
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
