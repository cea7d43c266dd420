#pragma once

// Checks GraphQL texts against a host's published schema with the project's validator
// (tools/graphql-validate, on graphql-js installed by scripts/setup.sh). The schemas live in
// tests/schemas (VT_SCHEMA_DIR).

#include <boost/json/array.hpp>

#include <string>
#include <vector>

namespace vt::test {

// Why the check cannot run here (node or the validator is missing), or empty when it can.
std::string missingGraphQlValidator();

// Validates every document against `schemaFile` in one node run (starting node costs about half
// a second). One result per document, in order: {"valid": bool, "errors": [text],
// "deprecations": [text]}. Adds a test failure and returns an empty array when the validator does
// not answer.
boost::json::array validateGraphQl(const std::string& schemaFile,
                                   const std::vector<std::string>& documents);

}  // namespace vt::test
