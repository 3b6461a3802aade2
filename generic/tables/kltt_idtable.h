// Tables by id for the driver: definitions, and whatever else is found by a number from the trace.
//
// A table gives its entries dense indices from 1 in order of arrival, keeps them in that order and
// never removes one. Id 0 means "none" everywhere in the format: it is never stored and never
// found. Small ids, the usual case, are found through an array (klt_idmap). Names are kept apart,
// as many definitions of a trace can share one.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_set>
#include <vector>

#include "klt/index/klt_idmap.h"

// Ids below this are looked up in an array of at most 256 KiB.
inline constexpr uint32_t KLTT_DIRECT_IDS = 65536;

// A definition with a name. `extra` is what the definition adds to it: the class of a function, the
// kind of a collective operation.
struct KLTT_Named {
  uint32_t key = 0;
  uint32_t extra = 0;
  const char* name = "";  // of a KLTT_Names
};

// The names of definitions, each once.
class KLTT_Names {
 public:
  // A copy of `text` (null: an empty text) that lives as long as this object.
  [[nodiscard]] const char* keep(const char* text) {
    return text == nullptr ? "" : texts_.emplace(text).first->c_str();
  }

 private:
  std::unordered_set<std::string> texts_;
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
  KLT_IdIndex index_{KLTT_DIRECT_IDS};
  std::vector<Entry> entries_;
};

// Inserts a named entry, its name kept in `names`. 1 if the key is new, 0 if it exists: then the
// first entry stays. Key 0 counts as new and is not stored.
int KLTT_TableInsert(KLTT_Table<KLTT_Named>& table, KLTT_Names& names, uint32_t key,
                     const char* name, uint32_t extra);
