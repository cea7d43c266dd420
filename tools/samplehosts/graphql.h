#pragma once

// A small GraphQL server core for the sample hosts: it reads a query or mutation document and
// answers it from a model of JSON objects the way a GraphQL server does, with exactly the fields
// that were asked for, lists served as paged connections, and GraphQL "errors" for whatever it
// does not know, so that a client asking for something the model lacks gets an error rather than
// a made-up answer.
//
// Supported: fields, arguments (strings, numbers, booleans, null, enum words, lists, objects),
// inline fragments ("...on User{...}"), commas anywhere. Not supported (a parse error): variables,
// aliases, directives, named fragments.

#include <boost/json/object.hpp>
#include <boost/json/value.hpp>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace vt::sample::graphql {

struct Field {
    std::string name;           // empty for an inline fragment
    std::string typeCondition;  // the type of an inline fragment
    // Argument values as JSON; enum words are strings.
    boost::json::object arguments;
    std::vector<Field> selections;
    std::size_t line = 1;  // where the field starts in the text, counted from 1
    std::size_t column = 1;
};

struct Document {
    bool mutation = false;
    std::vector<Field> selections;
};

// The document of `text`; nullopt with GitHub's kind of message ("Parse error on ... at [1, 20]")
// in `problem` when the text is not one this reader understands.
std::optional<Document> parse(std::string_view text, std::string* problem);

// A failure a lookup reports for its field: the field's value becomes null and the answer gets an
// error of this type and message.
struct Failure {
    std::string type;  // e.g. "NOT_FOUND", "UNPROCESSABLE"
    std::string message;
};

// A list whose elements are built only when a page shows them.
struct LazyList {
    std::size_t size = 0;
    std::function<boost::json::value(std::size_t index)> element;
};

// How a host's server serves connections; the defaults are GitHub's.
struct Dialect {
    // The page a connection serves without "first"; 0: "first" is required and its absence is an
    // error (GitHub). GitLab serves its default page.
    std::int64_t defaultPage = 0;
    // Whether "first" above kMaximumPage is an error (GitHub) or quietly served as the maximum
    // (GitLab).
    bool refusesLargePages = true;
    // Whether an empty "after" text starts at the beginning (GitLab) or is an invalid cursor.
    bool emptyCursorStarts = false;
    // The connection's count field: GitHub's "totalCount", GitLab's "count".
    std::string countField = "totalCount";
};

// Model objects name their type under "__typename"; members whose names begin with "__" are never
// shown. A member that holds an array is a connection: it is served by "first" and "after" as
// "nodes", "edges" (each {"node", "cursor"}), "pageInfo" and the count field. A field the object
// does not hold is asked of the lookup, which builds it (members that are costly or keyed by
// arguments, and mutations) or returns nullopt when the type has no such field.
using Built = std::variant<boost::json::value, LazyList>;
using Lookup = std::function<std::optional<Built>(
    const boost::json::object& parent, const Field& field, std::optional<Failure>& failure)>;

// The answer body for `document` run against `root`: {"data": ...} with "errors" when lookups
// failed, or {"errors": [...]} alone when the document asks for fields that do not exist.
boost::json::object execute(const Document& document, const boost::json::object& root,
                            const Lookup& lookup, const Dialect& dialect = {});

// The answer body for the JSON request body {"query": text}: the text parsed and run, or the
// parse error; nullopt when the body holds no query text (the host's own 400).
// The root is {"__typename": "Query"} or {"__typename": "Mutation"}.
std::optional<boost::json::object> answerRequest(std::string_view body, const Lookup& lookup,
                                                 const Dialect& dialect = {});

// The type a model object names under "__typename" ("Object" when it names none).
std::string typeOf(const boost::json::object& model);
// The "input" object argument of a mutation field (an empty object when there is none).
const boost::json::object& inputOf(const Field& field);

// The answer body for a document that could not be run at all.
boost::json::object errorAnswer(std::string_view message);

// Connection cursors: opaque texts that stand for a position in a list.
std::string cursorAt(std::size_t index);
std::optional<std::size_t> indexOfCursor(std::string_view cursor);

// The largest page a connection serves.
inline constexpr std::int64_t kMaximumPage = 100;

}  // namespace vt::sample::graphql
