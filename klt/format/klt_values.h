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
enum class CollopKind : uint32_t { kOneToAll = 1, kAllToOne = 2, kAllToAll = 3, kAll = 4 };

// The process of a thread number (gtp), and which thread of the process it is.
[[nodiscard]] constexpr uint32_t processOf(uint32_t gtp) { return gtp & 0xffff; }
[[nodiscard]] constexpr uint32_t threadOf(uint32_t gtp) { return gtp >> 16; }

}  // namespace klt
