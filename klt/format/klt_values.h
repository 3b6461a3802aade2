// Values of fields that stand for something else than a number, and how a thread is numbered.
#pragma once

#include <cstdint>

namespace klt {

// A source location (SCL) of 0 or of this value is none.
inline constexpr uint32_t kNoScl = 0x7fffffff;
[[nodiscard]] constexpr bool isScl(uint32_t scl) { return scl != 0 && scl != kNoScl; }

// The receive time of a message, a signed difference to its send time, is one of these where a side
// is not known.
inline constexpr uint64_t kReceiveUnknown = uint64_t{1} << 63;
inline constexpr uint64_t kSendUnknown = kReceiveUnknown + 1;

// Which members of a collective operation send and receive. The definition of an operation has it,
// and each kind has its own record. A definition may hold other numbers, which are no kind.
enum class CollopKind : uint32_t { kNone, kOneToAll = 1, kAllToOne = 2, kAllToAll = 3, kAll = 4 };

// In place of the root of an operation that has none.
inline constexpr uint32_t kNoRoot = ~uint32_t{0};

// The hint at the rate of a counter: a bit of its flags, of several the first of these; 0 for none.
[[nodiscard]] constexpr uint32_t rateHint(uint32_t flags) {
  return flags & 0x10 ? 0x10 : flags & 0x04 ? 0x04 : flags & 0x08;
}

// The process of a thread number (gtp), and which thread of the process it is.
[[nodiscard]] constexpr uint32_t processOf(uint32_t gtp) { return gtp & 0xffff; }
[[nodiscard]] constexpr uint32_t threadOf(uint32_t gtp) { return gtp >> 16; }

}  // namespace klt
