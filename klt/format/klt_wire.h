// Loads and stores the numbers of a trace, which are big-endian and unaligned.
//
// These functions don't check bounds; the decoders check once for a whole run of fields.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace klt {

[[nodiscard]] inline uint16_t swapBytes(uint16_t v) { return __builtin_bswap16(v); }
[[nodiscard]] inline uint32_t swapBytes(uint32_t v) { return __builtin_bswap32(v); }
[[nodiscard]] inline uint64_t swapBytes(uint64_t v) { return __builtin_bswap64(v); }

// Converts a number of this machine to big-endian order, and back.
template <class T>
[[nodiscard]] inline T bigEndian(T v) {
  return std::endian::native == std::endian::big ? v : swapBytes(v);
}

// REQUIRES: sizeof(T) readable bytes at `p`, which need not be aligned.
template <class T>
[[nodiscard]] inline T loadNative(const uint8_t* p) {
  static_assert(std::is_trivially_copyable_v<T>);
  T v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

// REQUIRES: sizeof(T) writable bytes at `p`.
template <class T>
inline void storeNative(uint8_t* p, T v) {
  static_assert(std::is_trivially_copyable_v<T>);
  std::memcpy(p, &v, sizeof v);
}

[[nodiscard]] inline uint16_t loadBig16(const uint8_t* p) {
  return bigEndian(loadNative<uint16_t>(p));
}
[[nodiscard]] inline uint32_t loadBig32(const uint8_t* p) {
  return bigEndian(loadNative<uint32_t>(p));
}
[[nodiscard]] inline uint64_t loadBig64(const uint8_t* p) {
  return bigEndian(loadNative<uint64_t>(p));
}

// The unsigned big-endian value of 1, 2, 4 or 8 bytes.
[[nodiscard]] inline uint64_t loadBig(const uint8_t* p, unsigned bytes) {
  switch (bytes) {
    case 1:
      return *p;
    case 2:
      return loadBig16(p);
    case 4:
      return loadBig32(p);
    default:
      return loadBig64(p);
  }
}

// Always inlined: a call costs more than the store, and there would be one call per field.
[[gnu::always_inline]] inline void storeBig16(uint8_t* p, uint16_t v) {
  storeNative(p, bigEndian(v));
}
[[gnu::always_inline]] inline void storeBig32(uint8_t* p, uint32_t v) {
  storeNative(p, bigEndian(v));
}
[[gnu::always_inline]] inline void storeBig64(uint8_t* p, uint64_t v) {
  storeNative(p, bigEndian(v));
}

[[nodiscard]] constexpr size_t roundUp8(size_t n) { return (n + 7) & ~size_t{7}; }

}  // namespace klt
