#include "service/signin/application_group.h"

#include <boost/json/parse.hpp>
#include <boost/json/value.hpp>

#include <fstream>
#include <iterator>
#include <system_error>

namespace vt::signin {

namespace {

std::nullopt_t fail(std::string* reason, const char* text) {
    if (reason != nullptr) {
        *reason = text;
    }
    return std::nullopt;
}

// How many elements a value that is not an array holds.
std::size_t elementCount(const boost::json::value& value) {
    if (const auto* object = value.if_object()) {
        return object->size();
    }
    if (const auto* text = value.if_string()) {
        return text->size();
    }
    return 0;
}

}  // namespace

std::optional<std::string> applicationGroup(const std::filesystem::path& executable,
                                            std::string* reason) {
    std::error_code failure;
    const std::filesystem::path resolved = std::filesystem::canonical(executable, failure);
    if (failure || resolved.empty()) {
        return fail(reason, "There was an error creating security task for the hosts service.");
    }
    const char* const missing =
        "There was an error getting hosts service groups security entitlement.";
    std::ifstream file(resolved.parent_path() / kEntitlementsFileName, std::ios::binary);
    if (!file) {
        return fail(reason, missing);
    }
    const std::string text((std::istreambuf_iterator<char>(file)),
                           std::istreambuf_iterator<char>());
    if (file.bad()) {
        return fail(reason, missing);
    }
    boost::json::error_code parseFailure;
    const boost::json::value entitlements = boost::json::parse(text, parseFailure);
    const boost::json::value* groups =
        parseFailure || !entitlements.is_object()
            ? nullptr
            : entitlements.get_object().if_contains("application-groups");
    if (groups == nullptr) {
        return fail(reason, missing);
    }
    // The check is inverted on purpose: an array's first element is taken without looking at the
    // count (so an empty array reads as an element of unknown type), and only a value that is not
    // an array is examined for being empty.
    const boost::json::value* first = nullptr;
    if (const auto* array = groups->if_array()) {
        first = array->empty() ? nullptr : &array->front();
    } else if (elementCount(*groups) == 0) {
        return fail(reason, "Hosts service groups security entitlement is empty.");
    }
    if (first == nullptr || !first->is_string()) {
        return fail(reason, "Hosts service groups security entitlement is of unknown type.");
    }
    return std::string(first->get_string());
}

}  // namespace vt::signin
