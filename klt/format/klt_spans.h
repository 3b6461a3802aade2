// Computes when messages and collective operations end. The contexts of readers and the histories
// of writers use the same rules.
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

// Whether the receive time says that the send or the receive of the message isn't known.
[[nodiscard]] constexpr bool isUnknownSide(int64_t receiveTime) {
  const auto bits = static_cast<uint64_t>(receiveTime);
  return bits == kReceiveUnknown || bits == kSendUnknown;
}

// When a message ends. A message never ends if one side isn't known.
[[nodiscard]] inline uint64_t messageEnd(uint64_t time, int64_t receiveTime) {
  if (isUnknownSide(receiveTime)) return kNever;
  return saturatingSum(time, static_cast<uint64_t>(receiveTime < 0 ? -receiveTime : receiveTime));
}

// A member's start time of all ones means that the member took no part in the collective operation;
// one less means that the start isn't known. In both cases the times of the member aren't used.
[[nodiscard]] constexpr bool isUnknownStart(uint64_t start) { return start >= kNever - 1; }

// When a collective operation has ended for all members with a known start. A null array counts as
// an array of zeros.
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
