// Hashes of keys of a few numbers that come from a file, and the order of a table with chains.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "util/pal_util.h"

// A universal hash of `Numbers` numbers. The factors, one for each number and one that is added,
// are drawn at random for each object, so that nobody can prepare keys that collide. The products
// are independent of each other, so that the processor computes them in parallel.
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

// Sorts `items`, which are in order of arrival, into the order in which a table with `buckets`
// chains is walked: chain by chain, and in each chain by arrival. hashOf(item) is a uint32_t; its
// remainder is the chain.
//
// This order is part of the format: of the bytes that are written, and of the order in which
// streams are read. Tables that find entries keep no chains, so that it can't depend on them.
template <class T, class HashOf>
void PAL_SortByBucket(std::vector<T>& items, uint32_t buckets, HashOf hashOf) {
  std::vector<size_t> starts(size_t{buckets} + 1);
  for (const T& item : items) ++starts[hashOf(item) % buckets + 1];
  for (size_t i = 1; i < starts.size(); ++i) starts[i] += starts[i - 1];
  std::vector<T> sorted(items.size());
  for (const T& item : items) sorted[starts[hashOf(item) % buckets]++] = item;
  items.swap(sorted);
}
