#pragma once

// Bitbucket's partial responses: the "fields" query parameter of its REST 2.0 API, a
// comma-separated list of dotted member paths that names what an answer holds.
//   "values.id,next"   only these members (arrays are looked through: every element keeps "id")
//   "values.*"         every member at that level
//   "+values.summary"  in addition to what the answer holds anyway
//   "-values.links"    all but this
// Paths that name nothing are ignored, as the host ignores them. A list answer asked for without
// "next" therefore has no "next" member, and a client that pages by it reads one page.

#include <boost/json/value.hpp>

#include <string_view>

namespace vt::sample {

// `whole` cut down to what `fields` names; `whole` itself when `fields` is empty.
boost::json::value withFields(const boost::json::value& whole, std::string_view fields);

}  // namespace vt::sample
