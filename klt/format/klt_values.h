// Special values of fields (no location, unknown times), and the parts of a thread number.
#pragma once

#include <cstdint>

namespace klt {

// A source location id (SCL) of 0 or of this value means that there is no location.
inline constexpr uint32_t kNoScl = 0x7fffffff;
[[nodiscard]] constexpr bool isScl(uint32_t scl) { return scl != 0 && scl != kNoScl; }

// The receive time of a message is the signed difference from its send time. With one of these
// values the receive or the send isn't known.
inline constexpr uint64_t kReceiveUnknown = uint64_t{1} << 63;
inline constexpr uint64_t kSendUnknown = kReceiveUnknown + 1;

// Which members of a collective operation send and receive. The kind is part of the definition of
// an operation, and each kind has its own record type. Other numbers in a definition are invalid.
enum class CollopKind : uint32_t { kNone, kOneToAll = 1, kAllToOne = 2, kAllToAll = 3, kAll = 4 };

// The root of an operation that has no root.
inline constexpr uint32_t kNoRoot = ~uint32_t{0};

// The rate hint of a counter: one bit of its flags, 0 for none. If several bits are set, it is the
// first of 0x10, 0x04, 0x08.
[[nodiscard]] constexpr uint32_t rateHint(uint32_t flags) {
  return flags & 0x10 ? 0x10 : flags & 0x04 ? 0x04 : flags & 0x08;
}

// The process of a thread number (gtp), and the number of the thread within the process.
[[nodiscard]] constexpr uint32_t processOf(uint32_t gtp) { return gtp & 0xffff; }
[[nodiscard]] constexpr uint32_t threadOf(uint32_t gtp) { return gtp >> 16; }

}  // namespace klt
