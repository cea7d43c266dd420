#include "graphql_schema.h"

#include "scratch.h"

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <boost/json/value_from.hpp>

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

namespace vt::test {

std::string missingGraphQlValidator() {
    if (std::system("node --version > /dev/null 2>&1") != 0) {
        return "node is not installed";
    }
    if (!std::filesystem::exists(std::filesystem::path(VT_GRAPHQL_MODULES) / "graphql")) {
        return std::string("graphql-js is not installed in ") + VT_GRAPHQL_MODULES +
               " (run scripts/setup.sh)";
    }
    return {};
}

boost::json::array validateGraphQl(const std::string& schemaFile,
                                   const std::vector<std::string>& documents) {
    TemporaryFolder folder;
    const std::string list =
        folder.write("documents.json", boost::json::serialize(boost::json::value_from(documents)));
    const std::string command = std::string("NODE_PATH='") + VT_GRAPHQL_MODULES + "' node '" +
                                VT_GRAPHQL_VALIDATOR + "' '" + schemaFile + "' '" + list + "' 2>&1";
    std::string output;
    if (FILE* pipe = ::popen(command.c_str(), "r")) {
        std::array<char, 4096> buffer{};
        while (std::fgets(buffer.data(), buffer.size(), pipe) != nullptr) {
            output += buffer.data();
        }
        ::pclose(pipe);
    }
    boost::system::error_code failure;
    boost::json::value results = boost::json::parse(output, failure);
    if (failure || !results.is_array()) {
        ADD_FAILURE() << "the validator did not answer: " << output;
        return {};
    }
    return results.as_array();
}

}  // namespace vt::test
