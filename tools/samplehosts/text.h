#pragma once

// Small helpers the sample hosts share: ISO 8601 times, deterministic numbers and texts, SSH
// public key texts, and the page arguments and "Link" headers of REST lists.

#include <boost/json/object.hpp>
#include <boost/url/url_view.hpp>

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>

namespace vt::sample {

// "yyyy-MM-ddTHH:mm:ssZ" of a moment in seconds since 1970 (UTC).
std::string isoTime(std::time_t seconds);
// Seconds since 1970 of a UTC calendar time.
std::time_t utcTime(int year, int month, int day, int hour = 0, int minute = 0, int second = 0);

// A well-mixed 64-bit number for `seed` (splitmix64): deterministic sample data without a
// generator's state.
std::uint64_t mixed(std::uint64_t seed);
// A seed made of a text (FNV-1a), the same for the same text.
std::uint64_t seedOf(std::string_view text);
// `length` lower-case hexadecimal digits made of the seed (commit ids, colours).
std::string hexDigits(std::uint64_t seed, std::size_t length);

// A branch name out of a title: its first four words, lower-case, joined by dashes.
std::string branchOf(std::string_view title);

// An ed25519 public key text made of bytes of the seed: well formed, so it has a fingerprint,
// though nobody holds its private half.
std::string madeUpKey(std::uint64_t seed, std::string_view comment);
// Whether a public key text is "type base64 [comment]" whose body names the same type.
bool isPublicKey(std::string_view text);
// The base64 body of a public key text: the same key whatever its comment.
std::string_view keyBody(std::string_view text);

// The member `name` of a JSON object when it is a string.
std::optional<std::string> stringArgument(const boost::json::object& arguments,
                                          std::string_view name);

// The page a REST list request asks for with "per_page" and "page"; what cannot be read is
// ignored, as the hosts do.
struct PageRequest {
    std::size_t perPage = 0;
    std::size_t page = 1;

    static PageRequest of(boost::urls::url_view target, std::size_t defaultPerPage,
                          std::size_t maximumPerPage);
    std::size_t first() const { return (page - 1) * perPage; }
    // The number of the last page of a list of `size` items (1 for an empty list).
    std::size_t lastPage(std::size_t size) const;
};

// The "Link" header of page `page.page` of a list of `size` items: the request's own address on
// `origin` (e.g. "http://gitlab.test") with "page" set to the neighbouring pages, relations in
// the hosts' order (prev, next, first, last; first and last only where the host names them).
// Empty when there is only one page.
enum class LinkStyle {
    github,  // prev, next, last, first; next and last only before the end, first only after page 1
    gitlab,  // prev, next, first, last; first and last always
};
std::string linkHeader(std::string_view origin, boost::urls::url_view target,
                       const PageRequest& page, std::size_t size, LinkStyle style);

}  // namespace vt::sample
