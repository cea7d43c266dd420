#pragma once

// The owner and name of a GitHub repository URL, and the shared answer readers this adapter uses.

#include "records/error.h"
#include "records/values.h"
#include "transport/json_paths.h"
#include "transport/query_text.h"

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/value.hpp>

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

namespace vt::github {

// The shared answer readers and query texts, under the names this adapter has always used.
using vt::arrayAt;
using vt::deletingPathExtension;
using vt::fillText;
using vt::integerAt;
using vt::isTrueAt;
using vt::JsonRoot;
using vt::kMissingText;
using vt::memberAt;
using vt::objectAt;
using vt::placeText;
using vt::stringAt;
using vt::urlAt;
using vt::urlWithText;

// The parts of a repository address, from its non-empty, percent-decoded path components.
struct RepositoryPath {
    std::string owner;     // the first component
    std::string name;      // the last component without its extension
    std::string fullName;  // every component joined by "/", the last without its extension
};

// nullopt, with a VTURLErrorDomain error (-1000, bad URL), when the path has no component.
std::optional<RepositoryPath> repositoryPath(const VTUrl& url, VTError* error);
std::optional<RepositoryPath> repositoryPath(std::string_view urlText, VTError* error);

}  // namespace vt::github
