// KLTT_Table finds definitions and other entries by an id from the trace.
//
// A table gives its entries dense indices from 1 in the order of insertion, keeps them in that
// order and never removes one. Id 0 means "none" everywhere in the format: it is never stored and
// never found. Small ids, the usual case, are looked up in an array (klt_idmap). Names are stored
// separately (klt_texts), because many definitions of a trace can have the same name.
#pragma once

#include <cstdint>
#include <vector>

#include "klt/index/klt_idmap.h"
#include "klt/index/klt_texts.h"

// Smaller ids are looked up in an array of at most 256 KiB.
inline constexpr uint32_t kKlttDirectIds = 65536;

// A definition with a name. `extra` is its second property: the class of a function, or the kind of
// a collective operation.
struct KLTT_Named {
  uint32_t key = 0;
  uint32_t extra = 0;
  const char* name = "";  // in a KLT_Texts
};

template <class Entry>
class KLTT_Table {
 public:
  // The dense index of `key`, from 1; 0 if it isn't in the table.
  [[nodiscard]] uint32_t indexOf(uint32_t key) const { return index_.find(key); }

  // Null if `key` isn't in the table. Insertion invalidates the pointer.
  [[nodiscard]] const Entry* find(uint32_t key) const {
    const uint32_t index = index_.find(key);
    return index == 0 ? nullptr : &entries_[index - 1];
  }
  [[nodiscard]] Entry* find(uint32_t key) {
    const uint32_t index = index_.find(key);
    return index == 0 ? nullptr : &entries_[index - 1];
  }

  // A new, empty entry; null if `key` is 0 or already in the table.
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
  KLT_IdIndex index_{kKlttDirectIds};
  std::vector<Entry> entries_;
};

// Inserts a named entry, whose name (null: an empty text) `texts` keeps. Returns 1 if the key is
// new. Returns 0 if it exists, and keeps the first entry. Key 0 counts as new, but is not stored.
int KLTT_TableInsert(KLTT_Table<KLTT_Named>& table, KLT_Texts& texts, uint32_t key,
                     const char* name, uint32_t extra);
