#pragma once

// The value types that cross the service: result dictionaries, decoded host answers and tokens are
// Boost.JSON values. A record (see records.h) becomes an object whose "$class" member names its
// class.

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/value.hpp>
#include <boost/url/url.hpp>

#include <cstdint>
#include <string>
#include <vector>

// A token dictionary: "token_type", "access_token" and, for hosts that renew tokens,
// "refresh_token" and friends. An empty object means "no token": no "Authorization" header is sent.
using VTToken = boost::json::object;

// A parsed absolute URL (repository remote, API endpoint, paging address).
using VTUrl = boost::urls::url;

// Raw bytes (an object id in a merge request).
using VTData = std::vector<std::uint8_t>;
