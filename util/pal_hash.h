// Hashes of keys of a few numbers that come from a file.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "util/pal_util.h"

// A hash of `Numbers` numbers. Two keys meet in one hash with the least chance there can be,
// whatever they are: the factors, one for each number and one that is added, are drawn for each
// object and can't be foreseen. The products are independent of each other, so that many take
// little longer than one.
template <size_t Numbers>
class PAL_Hash {
 public:
  PAL_Hash() {
    for (uint64_t& factor : factors_) factor = PAL_RandomSeed64();
  }

  [[nodiscard]] uint32_t operator()(const std::array<uint32_t, Numbers>& numbers) const {
    return hash(numbers, std::make_index_sequence<Numbers>());
  }

 private:
  template <size_t... I>
  [[nodiscard]] uint32_t hash(const std::array<uint32_t, Numbers>& numbers,
                              std::index_sequence<I...>) const {
    return static_cast<uint32_t>((factors_[Numbers] + ... + (factors_[I] * numbers[I])) >> 32);
  }

  std::array<uint64_t, Numbers + 1> factors_;
};
