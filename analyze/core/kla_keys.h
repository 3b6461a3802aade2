// Gives keys from a trace (ids, threads, pairs) consecutive indices, in the order of first use.
//
// Keys aren't trusted: the hash has a random factor, so that no file can force collisions. Small
// keys, such as the ids of most traces, are found in an array.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "analyze/core/kla_types.h"

namespace kla {

class KeyIndex {
 public:
  // Keys below `directLimit` are found in an array of 4 bytes for each key up to the largest one.
  explicit KeyIndex(uint32_t directLimit = 0);

  // The index of a key; kNone if it has none.
  [[nodiscard]] uint32_t find(uint64_t key) const {
    if (key < direct_.size()) return direct_[key];
    return slots_.empty() ? kNone : findSlot(key);
  }
  // The index of a key, the next one if the key is new.
  uint32_t operator[](uint64_t key) {
    const uint32_t index = find(key);
    return index != kNone ? index : add(key);
  }

  [[nodiscard]] uint32_t size() const { return static_cast<uint32_t>(keys_.size()); }
  // The keys by index.
  [[nodiscard]] const std::vector<uint64_t>& keys() const& { return keys_; }
  [[nodiscard]] std::vector<uint64_t> keys() && { return std::move(keys_); }

 private:
  [[nodiscard]] size_t slotOf(uint64_t key) const {
    uint64_t hash = (key ^ key >> 32) * factor_;
    hash = (hash ^ hash >> 29) * 0x9e3779b97f4a7c15;
    return static_cast<size_t>(hash >> shift_);
  }
  [[nodiscard]] uint32_t findSlot(uint64_t key) const {
    const size_t mask = slots_.size() - 1;
    for (size_t slot = slotOf(key);; slot = (slot + 1) & mask) {
      const uint32_t index = slots_[slot];
      if (index == kNone || keys_[index] == key) return index;
    }
  }
  uint32_t add(uint64_t key);
  void place(uint32_t index);

  std::vector<uint64_t> keys_;
  std::vector<uint32_t> direct_;
  std::vector<uint32_t> slots_;  // indices; a power of two, at most half full
  uint32_t used_ = 0;            // of `slots_`
  uint64_t factor_;
  uint32_t shift_ = 64;
  uint32_t directLimit_;
};

}  // namespace kla
