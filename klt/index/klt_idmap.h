// Tables with 32-bit ids from a file as keys.
//
// A file may contain any ids. KLT_IdIndex finds the dense index of an id with open addressing,
// whose hash has a random factor so that no file can force collisions, and optionally with an array
// for small ids. KLT_IdMap stores values by these indices, in order of insertion; the first entry
// of an id stays.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

// id -> dense index.
class KLT_IdIndex {
 public:
  // Ids below `directLimit` are looked up in an array with 4 bytes for each id up to the largest
  // one stored. This saves time in a large table, but would waste memory in many small ones.
  explicit KLT_IdIndex(uint32_t directLimit = 0);

  // The index stored for `id`, 0 if there is none.
  [[nodiscard]] uint32_t find(uint32_t id) const {
    if (id < directSize_) [[likely]]
      return direct_[id];
    return sparse_.empty() ? 0 : findSparse(id);
  }

  // Stores `index` for `id`. REQUIRES: index != 0, and no index is stored for `id`.
  void add(uint32_t id, uint32_t index);

 private:
  struct Slot {
    uint32_t id;
    uint32_t index;  // 0: free
  };

  // Not inlined: with this rare case inlined into every lookup, an extraction takes 1 % longer.
  [[nodiscard, gnu::noinline]] uint32_t findSparse(uint32_t id) const {
    const size_t mask = sparse_.size() - 1;
    for (size_t slot = slotOf(id);; slot = (slot + 1) & mask) {
      if (sparse_[slot].id == id || sparse_[slot].index == 0) return sparse_[slot].index;
    }
  }
  [[nodiscard]] size_t slotOf(uint32_t id) const {
    uint64_t hash = id * factor_;
    hash = (hash ^ hash >> 32) * 0x9e3779b97f4a7c15;
    return static_cast<size_t>(hash >> shift_);
  }
  void place(uint32_t id, uint32_t index);
  void growSparse();

  std::vector<uint32_t> direct_;
  size_t directSize_ = 0;
  std::vector<Slot> sparse_;  // a power of two, at most half full
  size_t sparseCount_ = 0;
  uint64_t factor_;
  uint32_t shift_ = 64;  // hash >> shift_ is an index of `sparse_`
  uint32_t directLimit_;
};

// Values by id. Id 0 means "none" in the format: it is never stored.
template <class Value>
class KLT_IdMap {
 public:
  struct Entry {
    uint32_t id;
    Value value;
  };

  // As for KLT_IdIndex.
  explicit KLT_IdMap(uint32_t directLimit = 0) : index_(directLimit) {}

  [[nodiscard]] Value* find(uint32_t id) {
    const uint32_t index = index_.find(id);
    return index == 0 ? nullptr : &entries_[index - 1].value;
  }
  [[nodiscard]] const Value* find(uint32_t id) const {
    const uint32_t index = index_.find(id);
    return index == 0 ? nullptr : &entries_[index - 1].value;
  }

  // The value for `id`, default-constructed on first use. REQUIRES: id != 0. The reference is valid
  // until an entry is added.
  Value& operator[](uint32_t id) {
    if (Value* value = find(id)) return *value;
    return add(id, Value{});
  }

  // Null if the map already contains `id`, or `id` is 0.
  Value* insert(uint32_t id, Value value) {
    if (id == 0 || index_.find(id) != 0) return nullptr;
    return &add(id, std::move(value));
  }

  [[nodiscard]] size_t size() const { return entries_.size(); }
  [[nodiscard]] bool empty() const { return entries_.empty(); }
  [[nodiscard]] const std::vector<Entry>& entries() const { return entries_; }
  [[nodiscard]] std::vector<Entry>& entries() { return entries_; }
  void clear() {
    entries_.clear();
    index_ = KLT_IdIndex();
  }

 private:
  Value& add(uint32_t id, Value value) {
    entries_.push_back(Entry{id, std::move(value)});
    index_.add(id, static_cast<uint32_t>(entries_.size()));
    return entries_.back().value;
  }

  std::vector<Entry> entries_;
  KLT_IdIndex index_;
};
