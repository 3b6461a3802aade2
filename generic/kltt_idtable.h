// Tables by id for the driver: definitions, and whatever else is found by a number from the trace.
//
// Ids are any 32-bit numbers that a file likes to contain. Small ones, the usual case, index an
// array; the others go through open addressing with a hash that a file's author can't foresee. A
// table gives its entries dense indices from 1 in order of arrival, keeps them in that order and
// never removes one. Id 0 means "none" everywhere in the format: it is never stored and never
// found.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// id -> dense index.
class KLTT_IdIndex {
 public:
  // The index stored for `id`, 0 if there is none.
  [[nodiscard]] uint32_t find(uint32_t id) const {
    if (id < direct_.size()) [[likely]]
      return direct_[id];
    return sparse_.empty() ? 0 : findSparse(id);
  }

  // Stores `index` for an `id` that isn't there yet.
  void add(uint32_t id, uint32_t index);

 private:
  // Ids below this are looked up in an array, which grows as far as they reach: at most 256 KiB.
  static constexpr uint32_t kDirectLimit = 65536;

  struct Slot {
    uint32_t id;
    uint32_t index;  // 0: free
  };

  uint32_t findSparse(uint32_t id) const;
  size_t slotOf(uint32_t id) const;
  void place(uint32_t id, uint32_t index);
  void growSparse();

  std::vector<uint32_t> direct_;
  std::vector<Slot> sparse_;  // a power of two, at most half full
  size_t sparseCount_ = 0;
  uint64_t seed_ = 0;
};

// A definition with a name. `extra` is what the definition adds to it: the parent of a class, the
// class of a function, the kind of a collective operation.
struct KLTT_Named {
  uint32_t key = 0;
  uint32_t extra = 0;
  std::string name;
};

template <class Entry>
class KLTT_Table {
 public:
  // The dense index of `key`, from 1; 0 if it isn't in the table.
  [[nodiscard]] uint32_t indexOf(uint32_t key) const { return index_.find(key); }

  // Null if `key` isn't in the table. Entries move when the table grows.
  [[nodiscard]] const Entry* find(uint32_t key) const {
    const uint32_t index = index_.find(key);
    return index == 0 ? nullptr : &entries_[index - 1];
  }
  [[nodiscard]] Entry* find(uint32_t key) {
    const uint32_t index = index_.find(key);
    return index == 0 ? nullptr : &entries_[index - 1];
  }

  // A new, empty entry; null if `key` is 0 or taken.
  Entry* insert(uint32_t key) {
    if (key == 0 || index_.find(key) != 0) return nullptr;
    entries_.emplace_back();
    entries_.back().key = key;
    index_.add(key, static_cast<uint32_t>(entries_.size()));
    return &entries_.back();
  }

  [[nodiscard]] uint32_t count() const { return static_cast<uint32_t>(entries_.size()); }
  [[nodiscard]] const std::vector<Entry>& entries() const { return entries_; }
  [[nodiscard]] std::vector<Entry>& entries() { return entries_; }

 private:
  KLTT_IdIndex index_;
  std::vector<Entry> entries_;
};

// Inserts a named entry with a copy of `name` (null: an empty name). 1 if the key is new, 0 if it
// exists: then the first entry stays. Key 0 counts as new and is not stored.
int KLTT_TableInsert(KLTT_Table<KLTT_Named>& table, uint32_t key, const char* name, uint32_t extra);
