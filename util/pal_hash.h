// Hashes and finds keys that come from a file, and sorts by the buckets of a hash table.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>
#include <type_traits>
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

  // Starts to fetch the slot of a hash into the caches.
  void fetch(uint32_t hash) const { __builtin_prefetch(&slots_[hash & (slots_.size() - 1)]); }
  // The number that find() probably compares first; 0 if there is none.
  [[nodiscard]] uint32_t guess(uint32_t hash) const {
    const Slot& slot = slots_[hash & (slots_.size() - 1)];
    return slot.key > cleared_ && slot.hash == hash ? slot.key - cleared_ : 0;
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

// A vector in chunks of `PerChunk` elements, a power of two. Elements never move.
template <class T, size_t PerChunk = 256>
class PAL_Chunks {
 public:
  [[nodiscard]] size_t size() const { return size_; }
  [[nodiscard]] bool empty() const { return size_ == 0; }
  [[nodiscard]] T& operator[](size_t i) { return (*chunks_[i / PerChunk])[i % PerChunk]; }
  [[nodiscard]] const T& operator[](size_t i) const {
    return (*chunks_[i / PerChunk])[i % PerChunk];
  }

  // Adds an element and returns it.
  T& add(T element) {
    if (size_ == chunks_.size() * PerChunk) chunks_.push_back(std::make_unique<Chunk>());
    return (*this)[size_++] = std::move(element);
  }
  // Removes all elements and keeps the chunks.
  void clear() {
    if constexpr (!std::is_trivially_destructible_v<T>) {
      for (size_t i = 0; i < size_; ++i) (*this)[i] = T{};
    }
    size_ = 0;
  }

 private:
  using Chunk = std::array<T, PerChunk>;

  std::vector<std::unique_ptr<Chunk>> chunks_;
  size_t size_ = 0;
};

// Items that wait until their memory has been fetched. With a table that is larger than the caches,
// each lookup waits for main memory twice, for the slot of the hash table and for the entry. While
// an item waits here, both are fetched. Items leave in the order in which they were added.
template <class Item>
class PAL_FetchQueue {
 public:
  // Adds an item, for which fetchSlot(item) is called now, fetchEntry(item) some items later, and
  // use(item) again some items later.
  template <class FetchSlot, class FetchEntry, class Use>
  void add(const Item& item, FetchSlot fetchSlot, FetchEntry fetchEntry, Use use) {
    at(added_) = item;
    fetchSlot(item);
    if (added_ >= kDistance) fetchEntry(at(added_ - kDistance));
    if (added_ - used_ == 2 * kDistance) use(at(used_++));
    ++added_;
  }
  // Calls use(item) for all that wait.
  template <class Use>
  void flush(Use use) {
    while (used_ != added_) use(at(used_++));
    added_ = used_ = 0;
  }

 private:
  static constexpr size_t kDistance = 8;

  [[nodiscard]] Item& at(size_t i) { return items_[i % items_.size()]; }

  std::array<Item, 4 * kDistance> items_;
  size_t added_ = 0;
  size_t used_ = 0;
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
