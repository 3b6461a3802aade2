// Hashes and finds keys that come from a file, and sorts by the buckets of a hash table.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
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

// A hash for standard containers whose keys come from a file: integers and texts. The standard
// library's own hashes are predictable, so a small file could contain only keys that collide.
struct PAL_KeyHash {
  [[nodiscard]] size_t operator()(uint64_t key) const {
    static const PAL_Hash<2> hash;
    return hash({static_cast<uint32_t>(key), static_cast<uint32_t>(key >> 32)});
  }
  // A polynomial at a random point, modulo the prime 2^61 - 1. Its coefficients are the length of
  // the text and groups of its bytes.
  [[nodiscard]] size_t operator()(std::string_view text) const {
    __extension__ using Wide = unsigned __int128;
    constexpr uint64_t kPrime = (uint64_t{1} << 61) - 1;
    constexpr size_t kStep = 7;  // bytes of a coefficient, which is below the prime
    static const uint64_t point = PAL_RandomSeed64() % kPrime;
    uint64_t hash = text.size();
    for (size_t at = 0; at < text.size(); at += kStep) {
      uint64_t part = 0;
      std::memcpy(&part, text.data() + at, std::min(kStep, text.size() - at));
      const auto product = Wide{hash} * point;
      hash = static_cast<uint64_t>(product & kPrime) + static_cast<uint64_t>(product >> 61) + part;
      hash = (hash & kPrime) + (hash >> 61);
    }
    return (*this)(hash);
  }
};

template <class Key, class Value>
using PAL_HashMap = std::unordered_map<Key, Value, PAL_KeyHash>;
template <class Key>
using PAL_HashSet = std::unordered_set<Key, PAL_KeyHash>;

// A hash table with open addressing that finds the number of a key. Its owner stores, numbers and
// compares the keys. A slot contains the whole hash, so that different keys are rarely compared.
template <size_t Numbers>
class PAL_KeyIndex {
 public:
  [[nodiscard]] uint32_t hashOf(const std::array<uint32_t, Numbers>& key) const {
    return hash_(key);
  }

  // The number of the key with this hash for which isKey(number) is true; 0 if there is none.
  template <class IsKey>
  [[nodiscard, gnu::always_inline]] uint32_t find(uint32_t hash, IsKey isKey) const {
    const size_t mask = slots_.size() - 1;
    for (size_t at = hash & mask; slots_[at].key > cleared_; at = (at + 1) & mask) {
      const uint32_t number = slots_[at].key - cleared_;
      if (slots_[at].hash == hash && isKey(number)) return number;
    }
    return 0;
  }

  // Adds a key that isn't in the index yet. `number` is from 1 to 2^31.
  void add(uint32_t hash, uint32_t number) {
    if (2 * ++size_ > slots_.size()) rebuild(4 * slots_.size());
    highest_ = std::max(highest_, number);
    put({hash, cleared_ + number});
  }

  // Removes all keys. Raising `cleared_` frees their slots, so these rarely have to be written.
  void clear() {
    cleared_ += highest_;
    size_ = 0;
    highest_ = 0;
    if (cleared_ < uint32_t{1} << 31) return;
    slots_.assign(slots_.size(), {});
    cleared_ = 0;
  }

 private:
  struct Slot {
    uint32_t hash = 0;
    uint32_t key = 0;  // the key's number + `cleared_`; the slot is free if not above `cleared_`
  };

  void put(const Slot& slot) {
    const size_t mask = slots_.size() - 1;
    size_t at = slot.hash & mask;
    while (slots_[at].key > cleared_) at = (at + 1) & mask;
    slots_[at] = slot;
  }

  void rebuild(size_t size) {
    std::vector<Slot> old(size);
    old.swap(slots_);
    for (const Slot& slot : old) {
      if (slot.key > cleared_) put(slot);
    }
  }

  std::vector<Slot> slots_ = std::vector<Slot>(64);  // a power of two, at most half full
  size_t size_ = 0;
  uint32_t highest_ = 0;  // of the numbers of the keys
  uint32_t cleared_ = 0;  // sum of the highest numbers before each clear()
  PAL_Hash<Numbers> hash_;
};

// Sorts `items`, which are in order of insertion, into the order in which a chained hash table with
// `buckets` buckets would be iterated: by bucket, within a bucket by insertion. hashOf(item) is a
// uint32_t; its remainder by `buckets` is the bucket.
//
// This order determines the bytes that are written and the order in which streams are read. No hash
// table of the program is iterated in this order, so it is computed here.
template <class T, class HashOf>
void PAL_SortByBucket(std::vector<T>& items, uint32_t buckets, HashOf hashOf) {
  if (items.size() < 2) return;
  if (items.size() < buckets / 16) {  // then the buckets cost more than a sort
    std::stable_sort(items.begin(), items.end(), [&](const T& a, const T& b) {
      return hashOf(a) % buckets < hashOf(b) % buckets;
    });
    return;
  }
  std::vector<size_t> starts(size_t{buckets} + 1);
  for (const T& item : items) ++starts[hashOf(item) % buckets + 1];
  for (size_t i = 1; i < starts.size(); ++i) starts[i] += starts[i - 1];
  std::vector<T> sorted(items.size());
  for (const T& item : items) sorted[starts[hashOf(item) % buckets]++] = item;
  items.swap(sorted);
}
