#pragma once

// The bounds the transport keeps against hosts that misbehave, whether broken or hostile. Each
// is stated once, here; none of them changes an answer of a host that behaves.

#include <chrono>
#include <cstddef>

namespace vt::limits {

// Redirects followed for one request; the next one fails with VTURLErrorDomain -1007.
inline constexpr int kMaxRedirects = 5;

// Bytes of one answer body, counted after decompression while it arrives; more fails the
// exchange with VTURLErrorDomain -1103.
inline constexpr std::size_t kMaxAnswerBytes = std::size_t{64} << 20;

// Pages one paging loop reads; a host that still says more follow after these gets a paging
// error.
inline constexpr std::size_t kMaxPages = 1000;

// One HTTP exchange, redirects included.
inline constexpr std::chrono::milliseconds kExchangeTimeout{45'000};

// One service request, all its HTTP exchanges together; VTURLErrorDomain -1001 when it is used up.
inline constexpr std::chrono::milliseconds kRequestTimeout{10 * 60 * 1000};

// Bytes of UTF-8 taken from an answer into an error's description or recovery suggestion.
inline constexpr std::size_t kMaxAnswerTextBytes = std::size_t{64} << 10;

// An answer at least this large makes the end of its service request hand freed memory back to
// the system.
inline constexpr std::size_t kLargeAnswerBytes = std::size_t{1} << 20;

}  // namespace vt::limits
