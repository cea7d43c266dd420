// Any bytes as an answer body. Decoding gives either a value, leaving the caller's error alone, or
// nothing and exactly one kind of error: UTF-8 text becomes an HTTP error with code 0 whose
// description is the text itself (an HTML error page), other bytes a JSON error (3840) that names
// a byte offset inside the body. An empty body is an empty object; a decoded value encodes and
// decodes back to itself; and the host's message read from a decoded answer is one of the
// answer's own texts or the fixed fallback. The same bytes also build an answer shaped like a
// host's error, which must decode from its text to itself and yield its message. The body is copied
// to a buffer of its exact size so that ASan sees any read past it.
#include "transport/answer.h"
#include "transport/host.h"

#include <boost/json/serialize.hpp>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

namespace {

void check(bool holds) {
    if (!holds) {
        __builtin_trap();
    }
}

// Well-formed UTF-8, written apart from the decoder's own check: no stray continuation bytes,
// overlong forms, surrogates or code points above U+10FFFF.
bool wellFormedUtf8(std::string_view text) {
    std::size_t i = 0;
    while (i < text.size()) {
        const auto lead = static_cast<unsigned char>(text[i]);
        if (lead < 0x80) {
            ++i;
            continue;
        }
        std::size_t length = 0;
        std::uint32_t point = 0;
        std::uint32_t smallest = 0;
        if ((lead & 0xE0) == 0xC0) {
            length = 2, point = lead & 0x1F, smallest = 0x80;
        } else if ((lead & 0xF0) == 0xE0) {
            length = 3, point = lead & 0x0F, smallest = 0x800;
        } else if ((lead & 0xF8) == 0xF0) {
            length = 4, point = lead & 0x07, smallest = 0x10000;
        } else {
            return false;
        }
        if (text.size() - i < length) {
            return false;
        }
        for (std::size_t k = 1; k < length; ++k) {
            const auto next = static_cast<unsigned char>(text[i + k]);
            if ((next & 0xC0) != 0x80) {
                return false;
            }
            point = (point << 6) | (next & 0x3F);
        }
        if (point < smallest || point > 0x10FFFF || (point >= 0xD800 && point <= 0xDFFF)) {
            return false;
        }
        i += length;
    }
    return true;
}

// Calls `visit` on every double in the value.
template <typename Visit>
void forEachDouble(const boost::json::value& value, Visit&& visit) {
    if (const auto* number = value.if_double()) {
        visit(*number);
    } else if (const auto* array = value.if_array()) {
        for (const auto& element : *array) {
            forEachDouble(element, visit);
        }
    } else if (const auto* object = value.if_object()) {
        for (const auto& member : *object) {
            forEachDouble(member.value(), visit);
        }
    }
}

// The host's message must be one of the texts where hosts put it, the answer's "message" member
// in any form, or the fallback; and a GraphQL error list's first message always wins.
void checkErrorMessage(const boost::json::value& answer) {
    static const std::string kFallback = "No error description.";
    const std::string message = VTHost::errorMessageWithJson(answer);
    const auto* object = answer.if_object();
    if (object == nullptr) {
        check(message == kFallback);
        return;
    }
    std::vector<std::string> texts;
    auto collect = [&texts](const boost::json::value* holder) {
        if (holder == nullptr || !holder->is_object()) {
            return;
        }
        for (std::string_view key : {"message", "error_description", "error"}) {
            if (const auto* text = holder->get_object().if_contains(key);
                text && text->is_string()) {
                texts.emplace_back(text->get_string());
            }
        }
    };
    collect(&answer);
    collect(object->if_contains("error"));
    const boost::json::value* first = nullptr;
    if (const auto* errors = object->if_contains("errors");
        errors != nullptr && errors->is_array() && !errors->get_array().empty()) {
        first = &errors->get_array().front();
        collect(first);
    }
    const auto* member = object->if_contains("message");
    if (member != nullptr && !member->is_string()) {
        texts.push_back(boost::json::serialize(*member));
    }
    const bool found = std::find(texts.begin(), texts.end(), message) != texts.end();
    // The fallback only when nothing usable is there: an answer with a "message" always has one.
    check(found || (message == kFallback && member == nullptr));
    if (first != nullptr && first->is_object()) {
        if (const auto* text = first->get_object().if_contains("message");
            text && text->is_string()) {
            check(message == text->get_string());
        }
    }
}

// The bytes read as a small stack program that builds a JSON value, so that the fuzzer reaches
// answers shaped like hosts' errors at once instead of having to spell them: the low three bits
// of a byte choose what to push, the other five its size or content. Strings are printable ASCII
// and at most 256 bytes are read, so that the value always encodes and stays shallow.
boost::json::value built(std::string_view program) {
    static constexpr std::string_view kKeys[] = {
        "message", "error_description", "error", "errors", "data", "type"};
    program = program.substr(0, 256);
    std::vector<boost::json::value> stack;
    auto pop = [&stack]() {
        boost::json::value top = std::move(stack.back());
        stack.pop_back();
        return top;
    };
    for (std::size_t i = 0; i < program.size(); ++i) {
        const auto byte = static_cast<unsigned char>(program[i]);
        const unsigned operand = byte >> 3;
        switch (byte & 7) {
            case 0: {
                const std::size_t length =
                    std::min<std::size_t>(operand % 8, program.size() - i - 1);
                boost::json::string text;
                for (char c : program.substr(i + 1, length)) {
                    text.push_back(static_cast<char>(' ' + static_cast<unsigned char>(c) % 95));
                }
                stack.emplace_back(std::move(text));
                i += length;
                break;
            }
            case 1:
                stack.emplace_back(static_cast<std::int64_t>(operand) - 16);
                break;
            case 2:
                stack.emplace_back(operand / 3.0);
                break;
            case 3:
                stack.emplace_back(operand % 3 == 0 ? boost::json::value() : (operand % 3 == 1));
                break;
            case 4: {
                boost::json::array array;
                for (unsigned n = operand % 4; n > 0 && !stack.empty(); --n) {
                    array.insert(array.begin(), pop());
                }
                stack.emplace_back(std::move(array));
                break;
            }
            case 5:
            case 6: {
                boost::json::object object;
                for (unsigned n = operand % 4, key = operand >> 2; n > 0 && !stack.empty();
                     --n, ++key) {
                    object.emplace(kKeys[key % std::size(kKeys)], pop());
                }
                stack.emplace_back(std::move(object));
                break;
            }
            default:
                stack.emplace_back("No error description.");
                break;
        }
    }
    return stack.empty() ? boost::json::object() : pop();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto bytes = std::make_unique<char[]>(size);
    std::copy(data, data + size, bytes.get());
    const std::string_view body(bytes.get(), size);

    // Answers shaped like hosts' errors, written and decoded as a body would be.
    const boost::json::value answer = built(body);
    const auto decoded = vt::decodeAnswerBody(boost::json::serialize(answer), nullptr);
    check(decoded && *decoded == answer);
    checkErrorMessage(*decoded);

    const VTError stale(VTGitErrorDomain, 9, "stale");
    VTError error = stale;
    const auto value = vt::decodeAnswerBody(body, &error);
    const auto unreported = vt::decodeAnswerBody(body, nullptr);
    check(value.has_value() == unreported.has_value() && (!value || *value == *unreported));

    if (value) {
        check(error == stale || !error);
        check(!body.empty() || *value == boost::json::object());
        // JSON text is UTF-8: no other bytes may ever decode.
        check(wellFormedUtf8(body));
        // JSON has no NaN; numbers beyond the range of a double decode as infinities, which JSON
        // cannot write back, and everything else is written and read back to the same value.
        bool finite = true;
        forEachDouble(*value, [&finite](double number) {
            check(!std::isnan(number));
            finite = finite && std::isfinite(number);
        });
        if (finite) {
            const auto reread = vt::decodeAnswerBody(boost::json::serialize(*value), nullptr);
            check(reread && *reread == *value);
        }
        checkErrorMessage(*value);
        return 0;
    }

    check(!body.empty() && error != stale && !error.description().empty());
    if (wellFormedUtf8(body)) {
        check(error.domain == VTHTTPErrorDomain && error.code == 0 && error.description() == body);
    } else {
        check(error.domain == VTJSONErrorDomain && error.code == 3840);
        const std::string description = error.description();
        const std::size_t at = description.rfind("around byte ");
        check(at != std::string::npos);
        const std::size_t offset = std::strtoull(description.c_str() + at + 12, nullptr, 10);
        check(offset <= size);
    }
    return 0;
}
