#include "samplehosts/graphql.h"

#include "samplehosts/text.h"
#include "transport/utilities/utilities.h"

#include <boost/json/array.hpp>
#include <boost/json/parse.hpp>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdint>

namespace vt::sample::graphql {

namespace {

// Deeper documents are refused, so that no text can exhaust the stack.
constexpr int kMaximumDepth = 64;

bool isNameStart(char c) {
    return c == '_' || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool isNamePart(char c) {
    return isNameStart(c) || (c >= '0' && c <= '9');
}

void appendUtf8(std::string& out, std::uint32_t code) {
    if (code < 0x80) {
        out += static_cast<char>(code);
    } else if (code < 0x800) {
        out += static_cast<char>(0xc0 | (code >> 6));
        out += static_cast<char>(0x80 | (code & 0x3f));
    } else if (code < 0x10000) {
        out += static_cast<char>(0xe0 | (code >> 12));
        out += static_cast<char>(0x80 | ((code >> 6) & 0x3f));
        out += static_cast<char>(0x80 | (code & 0x3f));
    } else {
        out += static_cast<char>(0xf0 | (code >> 18));
        out += static_cast<char>(0x80 | ((code >> 12) & 0x3f));
        out += static_cast<char>(0x80 | ((code >> 6) & 0x3f));
        out += static_cast<char>(0x80 | (code & 0x3f));
    }
}

// A recursive-descent reader of the supported subset. Strings may hold raw line breaks, and
// escapes GraphQL does not define are kept as they stand: clients that only escape quotes still
// get their text through unchanged.
class Reader {
public:
    explicit Reader(std::string_view text) : text_(text) {}

    std::optional<Document> document(std::string* problem) {
        Document document;
        skipIgnored();
        if (pos_ < text_.size() && isNameStart(text_[pos_])) {
            const std::string keyword = name();
            if (keyword != "query" && keyword != "mutation") {
                return failed(problem, back(keyword.size()));
            }
            document.mutation = keyword == "mutation";
            skipIgnored();
            if (pos_ < text_.size() && isNameStart(text_[pos_])) {
                name();  // the operation's own name
            }
        }
        if (!selectionSet(document.selections, 0)) {
            return failed(problem, pos_);
        }
        skipIgnored();
        if (pos_ != text_.size()) {
            return failed(problem, pos_);
        }
        return document;
    }

private:
    std::optional<Document> failed(std::string* problem, std::size_t at) const {
        if (problem != nullptr) {
            const auto [line, column] = where(at);
            const std::string token =
                at < text_.size() ? std::string(1, text_[at]) : std::string("end of file");
            *problem = "Parse error on \"" + token + "\" at [" + std::to_string(line) + ", " +
                       std::to_string(column) + "]";
        }
        return std::nullopt;
    }

    std::size_t back(std::size_t length) const { return pos_ >= length ? pos_ - length : 0; }

    std::pair<std::size_t, std::size_t> where(std::size_t at) const {
        std::size_t line = 1;
        std::size_t lineStart = 0;
        for (std::size_t index = 0; index < at && index < text_.size(); ++index) {
            if (text_[index] == '\n') {
                ++line;
                lineStart = index + 1;
            }
        }
        return {line, at - lineStart + 1};
    }

    void skipIgnored() {
        while (pos_ < text_.size()) {
            const char c = text_[pos_];
            if (c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == ',') {
                ++pos_;
            } else if (c == '#') {
                while (pos_ < text_.size() && text_[pos_] != '\n') {
                    ++pos_;
                }
            } else {
                break;
            }
        }
    }

    bool take(char c) {
        skipIgnored();
        if (pos_ < text_.size() && text_[pos_] == c) {
            ++pos_;
            return true;
        }
        return false;
    }

    bool peek(char c) {
        skipIgnored();
        return pos_ < text_.size() && text_[pos_] == c;
    }

    // The name at the current position (empty when there is none).
    std::string name() {
        skipIgnored();
        const std::size_t start = pos_;
        if (pos_ < text_.size() && isNameStart(text_[pos_])) {
            while (pos_ < text_.size() && isNamePart(text_[pos_])) {
                ++pos_;
            }
        }
        return std::string(text_.substr(start, pos_ - start));
    }

    bool selectionSet(std::vector<Field>& into, int depth) {
        if (depth > kMaximumDepth || !take('{')) {
            return false;
        }
        while (!take('}')) {
            if (pos_ >= text_.size() || !selection(into, depth)) {
                return false;
            }
        }
        return !into.empty();
    }

    bool selection(std::vector<Field>& into, int depth) {
        Field field;
        skipIgnored();
        std::tie(field.line, field.column) = where(pos_);
        if (text_.substr(pos_, 3) == "...") {
            pos_ += 3;
            if (name() != "on") {
                return false;
            }
            field.typeCondition = name();
            if (field.typeCondition.empty()) {
                return false;
            }
        } else {
            field.name = name();
            if (field.name.empty()) {
                return false;
            }
            if (peek('(') && !arguments(field.arguments, depth)) {
                return false;
            }
        }
        if ((peek('{') || !field.typeCondition.empty()) &&
            !selectionSet(field.selections, depth + 1)) {
            return false;
        }
        into.push_back(std::move(field));
        return true;
    }

    bool arguments(boost::json::object& into, int depth) {
        take('(');
        while (!take(')')) {
            const std::string key = name();
            if (key.empty() || !take(':')) {
                return false;
            }
            auto parsed = value(depth + 1);
            if (!parsed) {
                return false;
            }
            into[key] = std::move(*parsed);
        }
        return true;
    }

    std::optional<boost::json::value> value(int depth) {
        if (depth > kMaximumDepth) {
            return std::nullopt;
        }
        skipIgnored();
        if (pos_ >= text_.size()) {
            return std::nullopt;
        }
        const char c = text_[pos_];
        if (c == '"') {
            return stringValue();
        }
        if (c == '[') {
            ++pos_;
            boost::json::array list;
            while (!take(']')) {
                auto element = value(depth + 1);
                if (!element) {
                    return std::nullopt;
                }
                list.push_back(std::move(*element));
            }
            return boost::json::value(std::move(list));
        }
        if (c == '{') {
            boost::json::object object;
            ++pos_;
            while (!take('}')) {
                const std::string key = name();
                if (key.empty() || !take(':')) {
                    return std::nullopt;
                }
                auto member = value(depth + 1);
                if (!member) {
                    return std::nullopt;
                }
                object[key] = std::move(*member);
            }
            return boost::json::value(std::move(object));
        }
        if (c == '-' || (c >= '0' && c <= '9')) {
            return number();
        }
        const std::string word = name();
        if (word.empty()) {
            return std::nullopt;
        }
        if (word == "true" || word == "false") {
            return boost::json::value(word == "true");
        }
        if (word == "null") {
            return boost::json::value(nullptr);
        }
        return boost::json::value(word);  // an enum value
    }

    std::optional<boost::json::value> number() {
        const std::size_t start = pos_;
        ++pos_;
        while (pos_ < text_.size() &&
               (std::isdigit(static_cast<unsigned char>(text_[pos_])) || text_[pos_] == '.' ||
                text_[pos_] == 'e' || text_[pos_] == 'E' || text_[pos_] == '+')) {
            ++pos_;
        }
        const std::string_view digits = text_.substr(start, pos_ - start);
        std::int64_t integer = 0;
        auto [end, fault] = std::from_chars(digits.data(), digits.data() + digits.size(), integer);
        if (fault == std::errc() && end == digits.data() + digits.size()) {
            return boost::json::value(integer);
        }
        double real = 0;
        auto [realEnd, realFault] =
            std::from_chars(digits.data(), digits.data() + digits.size(), real);
        if (realFault != std::errc() || realEnd != digits.data() + digits.size()) {
            return std::nullopt;
        }
        return boost::json::value(real);
    }

    std::optional<boost::json::value> stringValue() {
        ++pos_;  // the opening quote
        std::string text;
        while (pos_ < text_.size() && text_[pos_] != '"') {
            const char c = text_[pos_++];
            if (c != '\\' || pos_ >= text_.size()) {
                text += c;
                continue;
            }
            const char escaped = text_[pos_++];
            switch (escaped) {
                case '"':
                case '\\':
                case '/':
                    text += escaped;
                    break;
                case 'b':
                    text += '\b';
                    break;
                case 'f':
                    text += '\f';
                    break;
                case 'n':
                    text += '\n';
                    break;
                case 'r':
                    text += '\r';
                    break;
                case 't':
                    text += '\t';
                    break;
                case 'u': {
                    std::uint32_t code = 0;
                    if (!hexQuad(code)) {
                        text += "\\u";
                        break;
                    }
                    std::uint32_t low = 0;
                    if (code >= 0xd800 && code < 0xdc00 && text_.substr(pos_, 2) == "\\u") {
                        pos_ += 2;
                        if (hexQuad(low) && low >= 0xdc00 && low < 0xe000) {
                            code = 0x10000 + ((code - 0xd800) << 10) + (low - 0xdc00);
                        }
                    }
                    appendUtf8(text, code);
                    break;
                }
                default:
                    text += '\\';
                    text += escaped;
            }
        }
        if (pos_ >= text_.size()) {
            return std::nullopt;  // no closing quote
        }
        ++pos_;
        return boost::json::value(std::move(text));
    }

    bool hexQuad(std::uint32_t& code) {
        if (pos_ + 4 > text_.size()) {
            return false;
        }
        auto [end, fault] = std::from_chars(text_.data() + pos_, text_.data() + pos_ + 4, code, 16);
        if (fault != std::errc() || end != text_.data() + pos_ + 4) {
            return false;
        }
        pos_ += 4;
        return true;
    }

    std::string_view text_;
    std::size_t pos_ = 0;
};

// Runs one document: walks the selections over the model, collecting errors on the way.
class Runner {
public:
    Runner(const Lookup& lookup, const Dialect& dialect) : lookup_(lookup), dialect_(dialect) {}

    boost::json::object run(const Document& document, const boost::json::object& root) {
        boost::json::value data = select(root, document.selections);
        boost::json::object answer;
        if (!invalid_) {
            answer["data"] = std::move(data);
        }
        if (!errors_.empty()) {
            answer["errors"] = std::move(errors_);
        }
        return answer;
    }

private:
    void addError(const Field& field, std::string message, boost::json::object extra) {
        boost::json::object error = std::move(extra);
        boost::json::array path;
        for (const std::string& step : path_) {
            path.emplace_back(step);
        }
        error["path"] = std::move(path);
        error["locations"] =
            boost::json::array{boost::json::object{{"line", field.line}, {"column", field.column}}};
        error["message"] = std::move(message);
        errors_.emplace_back(std::move(error));
    }

    // A fault of the document itself: the answer then has no "data", as on GitHub.
    void addInvalid(const Field& field, std::string message, std::string code) {
        invalid_ = true;
        addError(field, std::move(message), boost::json::object{{"extensions", {{"code", code}}}});
    }

    boost::json::value select(const boost::json::object& model,
                              const std::vector<Field>& selections) {
        boost::json::object out;
        for (const Field& selection : selections) {
            addSelection(out, model, selection);
        }
        return out;
    }

    void addSelection(boost::json::object& out, const boost::json::object& model,
                      const Field& field) {
        if (!field.typeCondition.empty()) {
            if (typeOf(model) == field.typeCondition) {
                for (const Field& inner : field.selections) {
                    addSelection(out, model, inner);
                }
            }
            return;
        }
        path_.push_back(field.name);
        out[field.name] = resolve(model, field);
        path_.pop_back();
    }

    boost::json::value resolve(const boost::json::object& model, const Field& field) {
        if (field.name == "__typename") {
            return boost::json::value(typeOf(model));
        }
        if (!field.name.starts_with("__")) {
            if (const boost::json::value* member = model.if_contains(field.name)) {
                return shape(*member, field);
            }
            std::optional<Failure> failure;
            if (auto built = lookup_(model, field, failure)) {
                if (failure) {
                    addError(field, failure->message, boost::json::object{{"type", failure->type}});
                    return nullptr;
                }
                if (const LazyList* list = std::get_if<LazyList>(&*built)) {
                    return field.selections.empty() ? shape(boost::json::array(), field)
                                                    : connection(*list, field);
                }
                return shape(std::get<boost::json::value>(*built), field);
            }
        }
        addInvalid(field,
                   "Field '" + field.name + "' doesn't exist on type '" + typeOf(model) + "'",
                   "undefinedField");
        return nullptr;
    }

    // The value as the field's selections ask for it.
    boost::json::value shape(const boost::json::value& value, const Field& field) {
        if (field.selections.empty()) {
            // A list of scalars (GitLab's mutation "errors") is a leaf; objects and lists of
            // objects need selections.
            const boost::json::array* list = value.if_array();
            if (list != nullptr &&
                std::none_of(list->begin(), list->end(), [](const boost::json::value& element) {
                    return element.is_object() || element.is_array();
                })) {
                return value;
            }
            if (value.is_object() || value.is_array()) {
                addInvalid(field, "Field must have selections (field '" + field.name + "')",
                           "selectionMismatch");
                return nullptr;
            }
            return value;
        }
        if (value.is_null()) {
            return nullptr;
        }
        if (const boost::json::object* object = value.if_object()) {
            return select(*object, field.selections);
        }
        if (const boost::json::array* list = value.if_array()) {
            return connection(
                LazyList{list->size(), [list](std::size_t index) { return (*list)[index]; }},
                field);
        }
        addInvalid(field, "Selections can't be made on scalars (field '" + field.name + "')",
                   "selectionMismatch");
        return nullptr;
    }

    boost::json::value connection(const LazyList& list, const Field& field) {
        const std::size_t size = list.size;
        std::optional<std::int64_t> first;
        if (const boost::json::value* given = field.arguments.if_contains("first")) {
            if (!given->is_int64() || given->get_int64() < 0) {
                addError(field, "Argument 'first' on Field '" + field.name + "' is invalid.",
                         boost::json::object{{"type", "ARGUMENT_ERROR"}});
                return nullptr;
            }
            first = given->get_int64();
        }
        if (!first && dialect_.defaultPage > 0) {
            first = dialect_.defaultPage;
        }
        if (first && *first > kMaximumPage && !dialect_.refusesLargePages) {
            first = kMaximumPage;
        }
        if (first && *first > kMaximumPage) {
            addError(field,
                     "Requesting " + std::to_string(*first) + " records on the `" + field.name +
                         "` connection exceeds the `first` limit of 100 records.",
                     boost::json::object{{"type", "EXCESSIVE_PAGINATION"}});
            return nullptr;
        }
        std::size_t start = 0;
        if (const boost::json::value* after = field.arguments.if_contains("after");
            after != nullptr && !after->is_null() &&
            !(dialect_.emptyCursorStarts && after->is_string() && after->get_string().empty())) {
            const auto index =
                after->is_string() ? indexOfCursor(after->get_string()) : std::nullopt;
            if (!index) {
                addError(field, "`after` cursor is not a valid cursor for `" + field.name + "`.",
                         boost::json::object{{"type", "INVALID_CURSOR_ARGUMENTS"}});
                return nullptr;
            }
            start = std::min(*index + 1, size);
        }
        const std::size_t end =
            first ? std::min(size, start + static_cast<std::size_t>(*first)) : size;
        boost::json::object model{
            {"__typename", "Connection"},
            {dialect_.countField, size},
            {"pageInfo",
             {{"__typename", "PageInfo"},
              {"startCursor", end > start ? boost::json::value(cursorAt(start)) : nullptr},
              {"endCursor", end > start ? boost::json::value(cursorAt(end - 1)) : nullptr},
              {"hasNextPage", end < size},
              {"hasPreviousPage", start > 0}}}};
        boost::json::object out;
        for (const Field& selection : field.selections) {
            if (selection.name != "nodes" && selection.name != "edges") {
                addSelection(out, model, selection);
                continue;
            }
            if (!first) {
                addError(selection,
                         "You must provide a `first` or `last` value to properly paginate the `" +
                             field.name + "` connection.",
                         boost::json::object{{"type", "MISSING_PAGINATION_BOUNDARIES"}});
                out[selection.name] = nullptr;
                continue;
            }
            path_.push_back(selection.name);
            boost::json::array nodes;
            nodes.reserve(end - start);
            for (std::size_t index = start; index < end; ++index) {
                if (selection.name == "nodes") {
                    nodes.push_back(shape(list.element(index), selection));
                } else {
                    const boost::json::value edge =
                        boost::json::object{{"__typename", "Edge"},
                                            {"node", list.element(index)},
                                            {"cursor", cursorAt(index)}};
                    nodes.push_back(shape(edge, selection));
                }
            }
            out[selection.name] = std::move(nodes);
            path_.pop_back();
        }
        return out;
    }

    const Lookup& lookup_;
    const Dialect& dialect_;
    std::vector<std::string> path_;
    boost::json::array errors_;
    bool invalid_ = false;
};

constexpr std::string_view kCursorPrefix = "cursor:v2:";

}  // namespace

std::optional<Document> parse(std::string_view text, std::string* problem) {
    return Reader(text).document(problem);
}

boost::json::object execute(const Document& document, const boost::json::object& root,
                            const Lookup& lookup, const Dialect& dialect) {
    return Runner(lookup, dialect).run(document, root);
}

std::optional<boost::json::object> answerRequest(std::string_view body, const Lookup& lookup,
                                                 const Dialect& dialect) {
    boost::system::error_code fault;
    const boost::json::value content = boost::json::parse(body, fault);
    const boost::json::value* query =
        content.is_object() ? content.get_object().if_contains("query") : nullptr;
    if (fault || query == nullptr || !query->is_string()) {
        return std::nullopt;
    }
    std::string problem;
    const auto document = parse(query->get_string(), &problem);
    if (!document) {
        return errorAnswer(problem);
    }
    const boost::json::object root{{"__typename", document->mutation ? "Mutation" : "Query"}};
    return execute(*document, root, lookup, dialect);
}

std::string typeOf(const boost::json::object& model) {
    const boost::json::value* type = model.if_contains("__typename");
    return type != nullptr && type->is_string() ? std::string(type->get_string())
                                                : std::string("Object");
}

const boost::json::object& inputOf(const Field& field) {
    static const boost::json::object kNoInput;
    const boost::json::value* given = field.arguments.if_contains("input");
    return given != nullptr && given->is_object() ? given->get_object() : kNoInput;
}

boost::json::object errorAnswer(std::string_view message) {
    return boost::json::object{
        {"errors", boost::json::array{boost::json::object{{"message", message}}}}};
}

std::string cursorAt(std::size_t index) {
    return vt::base64String(std::string(kCursorPrefix) + std::to_string(index));
}

std::optional<std::size_t> indexOfCursor(std::string_view cursor) {
    const std::optional<VTData> bytes = vt::dataWithBase64(cursor);
    if (!bytes) {
        return std::nullopt;
    }
    const std::string text(bytes->begin(), bytes->end());
    if (!text.starts_with(kCursorPrefix)) {
        return std::nullopt;
    }
    std::size_t index = 0;
    const char* digits = text.data() + kCursorPrefix.size();
    const char* end = text.data() + text.size();
    auto [stop, fault] = std::from_chars(digits, end, index);
    if (fault != std::errc() || stop != end || digits == end) {
        return std::nullopt;
    }
    return index;
}

}  // namespace vt::sample::graphql
