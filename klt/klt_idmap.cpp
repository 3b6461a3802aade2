// Finding things by id: the road that isn't an array. See klt_idmap.h.
#include "klt/klt_idmap.h"

#include <algorithm>
#include <bit>

#include "util/pal_util.h"

namespace {

// Makes the order of slots differ from run to run, so that a file can't be made in which all ids
// meet in one place. Nothing is ever walked in the order of the slots.
uint64_t seed() {
  static const uint64_t value = uint64_t{PAL_RandomSeed()} << 32 | PAL_RandomSeed();
  return value;
}

}  // namespace

void KLT_IdIndex::add(uint32_t id, uint32_t index) {
  if (id < directLimit_) {
    if (id >= direct_.size()) direct_.resize(std::bit_ceil(std::max(id + 1, uint32_t{64})));
    direct_[id] = index;
    return;
  }
  if ((sparseCount_ + 1) * 2 > sparse_.size()) growSparse();
  place(id, index);
  ++sparseCount_;
}

size_t KLT_IdIndex::slotOf(uint32_t id) const {
  uint64_t hash = (seed() ^ id) * 0x9e3779b97f4a7c15u;
  hash ^= hash >> 32;
  hash *= 0xd6e8feb86659fd93u;
  return static_cast<size_t>(hash >> 32) & (sparse_.size() - 1);
}

uint32_t KLT_IdIndex::findSparse(uint32_t id) const {
  const size_t mask = sparse_.size() - 1;
  for (size_t slot = slotOf(id);; slot = (slot + 1) & mask) {
    if (sparse_[slot].id == id || sparse_[slot].index == 0) return sparse_[slot].index;
  }
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
  for (const Slot& slot : old) {
    if (slot.index != 0) place(slot.id, slot.index);
  }
}
