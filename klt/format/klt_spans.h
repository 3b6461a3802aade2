// How long messages and collective operations stay under way, for the contexts of readers and the
// histories of writers alike.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "klt/format/klt_values.h"

namespace klt {

inline constexpr uint64_t kNever = ~uint64_t{0};

[[nodiscard]] inline uint64_t saturatingSum(uint64_t a, uint64_t b) {
  uint64_t sum = 0;
  return __builtin_add_overflow(a, b, &sum) ? kNever : sum;
}

// Whether the receive time says that a side of the message isn't known.
[[nodiscard]] constexpr bool isUnknownSide(int64_t receiveTime) {
  const auto bits = static_cast<uint64_t>(receiveTime);
  return bits == kReceiveUnknown || bits == kSendUnknown;
}

// When a message is over. One whose other side isn't known never is.
[[nodiscard]] inline uint64_t messageEnd(uint64_t time, int64_t receiveTime) {
  if (isUnknownSide(receiveTime)) return kNever;
  return saturatingSum(time, static_cast<uint64_t>(receiveTime < 0 ? -receiveTime : receiveTime));
}

// All ones as a member's start in a collective operation say that it took no part; one less says
// that its start isn't known. Either way the member has no times.
[[nodiscard]] constexpr bool isUnknownStart(uint64_t start) { return start >= kNever - 1; }

// When a collective operation is over for all members that have times; null arrays count as zeros.
[[nodiscard]] inline uint64_t collectiveEnd(uint64_t time, size_t n, const uint64_t* starts,
                                            const uint64_t* deltas) {
  uint64_t longest = 0;
  for (size_t i = 0; i < n; ++i) {
    const uint64_t start = starts == nullptr ? 0 : starts[i];
    if (isUnknownStart(start)) continue;
    longest = std::max(longest, saturatingSum(start, deltas == nullptr ? 0 : deltas[i]));
  }
  return saturatingSum(time, longest);
}

}  // namespace klt
