// Finding things by 32-bit ids from a file.
//
// Ids are any numbers that a file likes to contain. KLT_IdIndex finds the dense index of an id:
// open addressing with a hash that a file's author can't foresee, and, where asked for, an array
// for small ids. KLT_IdMap keeps values on top of it, with a fixed walk order: that of insertion.
// The first entry of an id stays.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

// id -> dense index.
class KLT_IdIndex {
 public:
  // Ids below `directLimit` are looked up in an array, which grows as far as they reach: a large
  // table is worth 4 bytes for each of them, one of many small ones isn't.
  explicit KLT_IdIndex(uint32_t directLimit = 0);

  // The index stored for `id`, 0 if there is none.
  [[nodiscard]] uint32_t find(uint32_t id) const {
    if (id < directSize_) [[likely]]
      return direct_[id];
    return sparse_.empty() ? 0 : findSparse(id);
  }

  // Stores `index`, which isn't 0, for an `id` that isn't there yet.
  void add(uint32_t id, uint32_t index);

 private:
  struct Slot {
    uint32_t id;
    uint32_t index;  // 0: free
  };

  // Out of line: inlined into every lookup, this rare case costs 1 % of an extraction.
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
  uint32_t shift_ = 64;  // by which a hash is cut to a place in `sparse_`
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

  [[nodiscard]] Value* find(uint32_t id) {
    const uint32_t index = index_.find(id);
    return index == 0 ? nullptr : &entries_[index - 1].value;
  }
  [[nodiscard]] const Value* find(uint32_t id) const {
    const uint32_t index = index_.find(id);
    return index == 0 ? nullptr : &entries_[index - 1].value;
  }

  // The value under `id`, made by default on first use. REQUIRES: id != 0. Moves when entries are
  // added.
  Value& operator[](uint32_t id) {
    if (Value* value = find(id)) return *value;
    return add(id, Value{});
  }

  // Null if the id was there already, or is 0.
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
