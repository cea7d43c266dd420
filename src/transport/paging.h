#pragma once

// Paging, written once for every adapter: GraphQL connections followed by their "pageInfo"
// ("endCursor", "hasNextPage"), REST lists followed by the "next" address of the "Link" header,
// and REST lists whose answers name their next page in a "next" member. An adapter states its
// request texts and what it reads from each page; the loops, the failure rules (a failed page fails
// the whole operation) and the guard against a host that hands back the same cursor or address
// twice live here.

#include "records/error.h"
#include "records/values.h"
#include "transport/host.h"

#include <boost/json/object.hpp>
#include <boost/json/value.hpp>

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

namespace vt {

// Finds the connection object (the one holding "nodes" and "pageInfo") in an answer; nullptr when
// the answer has none.
using ConnectionLocator = std::function<const boost::json::object*(const boost::json::value&)>;

// The locator that follows object members from the answer's root, e.g.
// connectionAt({"data", "viewer", "repositories"}).
ConnectionLocator connectionAt(std::initializer_list<std::string_view> path);

// Makes the text of the request for the page after the one whose "endCursor" is given.
using FollowUpText = std::function<std::string(const std::string& endCursor)>;

// Called once per page, in order, with the page's connection (an empty object when the answer has
// none) and the whole answer. Returning false stops the paging as a failure; the callback then has
// set *error (when error is not null).
using CursorPage = std::function<bool(const boost::json::object& connection,
                                      const boost::json::value& answer, VTError* error)>;

// Called once per page of a "Link"-paged list with the decoded answer; false stops as above.
using LinkPage = std::function<bool(const boost::json::value& answer, VTError* error)>;

// What a page of a "next"-paged list tells the loop: read on, stop here with success (the caller
// found what it was looking for), or stop as a failure (the callback has set *error).
enum class PageStep { more, last, failed };
using NextPage = std::function<PageStep(const boost::json::value& answer, VTError* error)>;

// The content of a GraphQL request: {"query": text}.
boost::json::object graphQlContent(std::string_view text);

// Posts `firstText` to the GraphQL endpoint `url`, hands each page to `page`, and while the
// connection's "pageInfo" / "hasNextPage" is true posts followUp(its "endCursor").
// True when every page was read and accepted. On failure returns false with the error of the
// request that failed (passed on unchanged), of the callback, or a paging error (below).
bool pageGraphQl(const VTHost& host, const VTUrl& url, std::string_view firstText,
                 const FollowUpText& followUp, const ConnectionLocator& connection,
                 const CursorPage& page, VTToken& token, VTError* error);

// The same, starting from a first answer already in hand (one query that opens several
// connections, each then followed on its own).
bool pageGraphQlFrom(const VTHost& host, const VTUrl& url, const boost::json::value& firstAnswer,
                     const FollowUpText& followUp, const ConnectionLocator& connection,
                     const CursorPage& page, VTToken& token, VTError* error);

// GETs `firstUrl`, hands each answer to `page`, and follows the "next" address of the "Link"
// header until there is none. Failures as for pageGraphQl.
bool pageLinks(const VTHost& host, const VTUrl& firstUrl, const LinkPage& page, VTToken& token,
               VTError* error);

// GETs `firstUrl`, hands each answer to `page`, and while the page asks for more follows the
// answer's "next" member (an address taken as it stands) until it is missing or empty.
// Failures as for pageGraphQl.
bool pageNext(const VTHost& host, const VTUrl& firstUrl, const NextPage& page, VTToken& token,
              VTError* error);

// Paging errors, all VTHTTPErrorDomain with code 200 (the status of the answer that was refused):
//   "The host sent the same page cursor twice; paging stopped."
//   "The host said more pages follow but sent no page cursor."
//   "The host sent the same next-page address twice; paging stopped."
//   "The host sent a next-page address that is not a URL."
inline constexpr std::int64_t kPagingErrorCode = 200;

}  // namespace vt
