// Gives keys consecutive indices. See kla_keys.h.
#include "analyze/core/kla_keys.h"

#include <algorithm>
#include <bit>
#include <random>

namespace kla {

namespace {

uint64_t randomFactor() {
  static std::mt19937_64 engine = [] {
    std::random_device device;
    return std::mt19937_64(uint64_t{device()} << 32 | device());
  }();
  return engine() | 1;
}

}  // namespace

KeyIndex::KeyIndex(uint32_t directLimit) : factor_(randomFactor()), directLimit_(directLimit) {}

uint32_t KeyIndex::add(uint64_t key) {
  const auto index = static_cast<uint32_t>(keys_.size());
  keys_.push_back(key);
  if (key < directLimit_) {
    const size_t size = std::min<size_t>(directLimit_, std::bit_ceil(key + 1));
    if (direct_.size() <= key) direct_.resize(size, kNone);
    direct_[key] = index;
    return index;
  }
  if (2 * (size_t{used_} + 1) > slots_.size()) {
    const size_t size = std::max<size_t>(8, 2 * slots_.size());
    slots_.assign(size, kNone);
    shift_ = static_cast<uint32_t>(64 - std::countr_zero(size));
    for (uint32_t old = 0; old < index; ++old) {
      if (keys_[old] >= directLimit_) place(old);
    }
  }
  place(index);
  ++used_;
  return index;
}

void KeyIndex::place(uint32_t index) {
  const size_t mask = slots_.size() - 1;
  size_t slot = slotOf(keys_[index]);
  while (slots_[slot] != kNone) slot = (slot + 1) & mask;
  slots_[slot] = index;
}

}  // namespace kla
