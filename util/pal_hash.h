// Hashes keys that come from a file, and sorts by the buckets of a hash table.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "util/pal_util.h"

// A universal hash of `Numbers` numbers. The factors, one for each number, and the summand are
// random for each object, so that no input can force collisions. The products are independent of
// each other, so that the processor computes them in parallel.
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

// Sorts `items`, which are in order of insertion, into the order in which a chained hash table with
// `buckets` buckets would be iterated: by bucket, within a bucket by insertion. hashOf(item) is a
// uint32_t; its remainder is the bucket.
//
// This order is part of the format: it determines the bytes that are written and the order in which
// streams are read. The hash tables of the program don't have chains, so it is computed here.
template <class T, class HashOf>
void PAL_SortByBucket(std::vector<T>& items, uint32_t buckets, HashOf hashOf) {
  std::vector<size_t> starts(size_t{buckets} + 1);
  for (const T& item : items) ++starts[hashOf(item) % buckets + 1];
  for (size_t i = 1; i < starts.size(); ++i) starts[i] += starts[i - 1];
  std::vector<T> sorted(items.size());
  for (const T& item : items) sorted[starts[hashOf(item) % buckets]++] = item;
  items.swap(sorted);
}
