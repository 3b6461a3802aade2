// A map from 32-bit ids to values with a fixed walk order: that of insertion.
//
// The first entry of an id stays; id 0 is never stored. Open addressing over a dense vector of
// entries, so that lookups are one or two loads and walks touch only entries.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

template <class Value>
class KLT_IdMap {
 public:
  struct Entry {
    uint32_t id;
    Value value;
  };

  [[nodiscard]] Value* find(uint32_t id) {
    const uint32_t index = lookup(id);
    return index == kEmpty ? nullptr : &entries_[index].value;
  }
  [[nodiscard]] const Value* find(uint32_t id) const {
    const uint32_t index = lookup(id);
    return index == kEmpty ? nullptr : &entries_[index].value;
  }

  // The value under `id`, made by default on first use. REQUIRES: id != 0. Moves when entries are
  // added.
  Value& operator[](uint32_t id) {
    if (Value* value = find(id)) return *value;
    return add(id, Value{});
  }

  // Null if the id was there already, or is 0.
  Value* insert(uint32_t id, Value value) {
    if (id == 0 || lookup(id) != kEmpty) return nullptr;
    return &add(id, std::move(value));
  }

  [[nodiscard]] size_t size() const { return entries_.size(); }
  [[nodiscard]] bool empty() const { return entries_.empty(); }
  [[nodiscard]] const std::vector<Entry>& entries() const { return entries_; }
  [[nodiscard]] std::vector<Entry>& entries() { return entries_; }
  void clear() {
    entries_.clear();
    slots_.clear();
  }

 private:
  static constexpr uint32_t kEmpty = ~uint32_t{0};

  [[nodiscard]] size_t home(uint32_t id) const {
    return (id * uint64_t{0x9e3779b97f4a7c15} >> 32) & (slots_.size() - 1);
  }

  [[nodiscard]] uint32_t lookup(uint32_t id) const {
    if (slots_.empty()) return kEmpty;
    for (size_t i = home(id);; i = (i + 1) & (slots_.size() - 1)) {
      const uint32_t index = slots_[i];
      if (index == kEmpty || entries_[index].id == id) return index;
    }
  }

  Value& add(uint32_t id, Value value) {
    if (slots_.size() < 2 * (entries_.size() + 1)) rehash();
    entries_.push_back(Entry{id, std::move(value)});
    place(static_cast<uint32_t>(entries_.size() - 1));
    return entries_.back().value;
  }

  void place(uint32_t index) {
    size_t i = home(entries_[index].id);
    while (slots_[i] != kEmpty) i = (i + 1) & (slots_.size() - 1);
    slots_[i] = index;
  }

  void rehash() {
    slots_.assign(slots_.empty() ? 8 : 2 * slots_.size(), kEmpty);
    for (uint32_t i = 0; i < entries_.size(); ++i) place(i);
  }

  std::vector<Entry> entries_;
  std::vector<uint32_t> slots_;
};
