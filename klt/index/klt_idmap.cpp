// The hash table for ids. See klt_idmap.h.
#include "klt/index/klt_idmap.h"

#include <algorithm>
#include <bit>

#include "util/pal_util.h"

namespace {

// Odd, and different in each run, so that no file can be made whose ids all collide. No table is
// iterated in the order of its slots, so the output doesn't depend on it.
uint64_t randomFactor() {
  static const uint64_t factor = PAL_RandomSeed64() | 1;
  return factor;
}

}  // namespace

KLT_IdIndex::KLT_IdIndex(uint32_t directLimit)
    : factor_(randomFactor()), directLimit_(directLimit) {}

void KLT_IdIndex::add(uint32_t id, uint32_t index) {
  if (id < directLimit_) {
    if (id >= directSize_) {
      direct_.resize(std::min(std::bit_ceil(std::max(id + 1, uint32_t{64})), directLimit_));
    }
    directSize_ = direct_.size();
    direct_[id] = index;
    return;
  }
  if ((sparseCount_ + 1) * 2 > sparse_.size()) growSparse();
  place(id, index);
  ++sparseCount_;
}

void KLT_IdIndex::place(uint32_t id, uint32_t index) {
  const size_t mask = sparse_.size() - 1;
  size_t slot = slotOf(id);
  while (sparse_[slot].index != 0) slot = (slot + 1) & mask;
  sparse_[slot] = Slot{.id = id, .index = index};
}

void KLT_IdIndex::growSparse() {
  std::vector<Slot> old(std::max<size_t>(8, sparse_.size() * 2));
  old.swap(sparse_);
  shift_ = 64 - static_cast<uint32_t>(std::countr_zero(sparse_.size()));
  for (const Slot& slot : old) {
    if (slot.index != 0) place(slot.id, slot.index);
  }
}
