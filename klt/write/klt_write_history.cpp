// Keeps the state of an output component for seek points. See klt_write_history.h.
#include "klt/write/klt_write_history.h"

#include <algorithm>
#include <functional>
#include <utility>

#include "util/pal_hash.h"
#include "util/pal_mem.h"

namespace {

// The `end` of an entry that has been removed and is still in the list.
constexpr uint64_t kRemoved = 0;

uint64_t scopeKey(uint32_t scope, uint32_t seqnr) { return uint64_t{scope} << 32 | seqnr; }

}  // namespace

KLT_OffsetEntry& KLT_OffsetEntries::append(uint64_t time, uint64_t offset) {
  if (entries_.size() >= pruneAt_) {
    prune(time);
    pruneAt_ = std::max(kFirstPrune, 2 * entries_.size());
  }
  PAL_MakeRoom(entries_);
  KLT_OffsetEntry& entry = entries_.emplace_back();
  entry.time = time;
  entry.end = klt::kNever;
  entry.offset = offset;
  return entry;
}

void KLT_OffsetEntries::setEnd(uint64_t offset, uint64_t end) {
  const auto found = open_.find(offset);
  if (found == open_.end()) return;
  close(entries_[found->second], end);
  open_.erase(found);
}

// Only the last sample of each counter has an entry: a new sample changes the entry of the previous
// sample.
void KLT_OffsetEntries::setCounters(const KLT_OffsetNote& note) {
  for (uint32_t i = note.count; i-- > 0;) {
    const uint32_t counter = note.counters[i];
    const auto found = counters_.find(counter);
    if (found != counters_.end()) {
      entries_[found->second].time = note.time;
      entries_[found->second].offset = note.offset;
      continue;
    }
    KLT_OffsetEntry& entry = append(note.time, note.offset);
    entry.kind = KLT_OffsetEntry::Kind::kCounter;
    entry.id = counter;
    counters_[counter] = entries_.size() - 1;
  }
}

void KLT_OffsetEntries::enterScope(uint32_t scope, uint32_t seqnr, uint64_t time, uint64_t offset) {
  KLT_OffsetEntry& entry = append(time, offset);
  entry.kind = KLT_OffsetEntry::Kind::kScope;
  entry.id = scope;
  entry.seqnr = seqnr;
  scopes_[scopeKey(scope, seqnr)].all.push_back(entries_.size() - 1);
}

void KLT_OffsetEntries::leaveScope(uint32_t scope, uint32_t seqnr) {
  const auto found = scopes_.find(scopeKey(scope, seqnr));
  if (found == scopes_.end()) return;
  Indexes& indexes = found->second;
  close(entries_[indexes.all[indexes.first++]], kRemoved);
  if (indexes.first == indexes.all.size()) scopes_.erase(found);
}

void KLT_OffsetEntries::pushEnd(uint64_t end) {
  if (end == klt::kNever) return;
  ends_.push_back(end);
  std::push_heap(ends_.begin(), ends_.end(), std::greater<>());
}

size_t KLT_OffsetEntries::countAfter(uint64_t limit) {
  constexpr size_t kMany = 4096;
  if (entries_.size() < kMany) {
    prune(limit);
    return entries_.size();
  }
  if (!std::exchange(isCounting_, true)) {
    for (const KLT_OffsetEntry& entry : entries_) {
      if (entry.end != klt::kNever) ends_.push_back(entry.end);
    }
    std::make_heap(ends_.begin(), ends_.end(), std::greater<>());
  }
  countedTo_ = std::max(countedTo_, limit);
  while (!ends_.empty() && ends_.front() <= limit) {
    std::pop_heap(ends_.begin(), ends_.end(), std::greater<>());
    ends_.pop_back();
    ++ended_;
  }
  return entries_.size() - ended_;
}

void KLT_OffsetEntries::prune(uint64_t limit) {
  limit = std::max(limit, countedTo_);
  isCounting_ = false;
  ends_ = {};
  ended_ = countedTo_ = 0;
  const size_t before = entries_.size();
  std::erase_if(entries_, [limit](const KLT_OffsetEntry& e) {
    return e.end <= limit && e.end != klt::kNever;
  });
  if (entries_.size() != before) reindex();
}

void KLT_OffsetEntries::reindex() {
  const PAL_Place here;
  PAL_HashMap<uint64_t, size_t> open;
  counters_.clear();
  scopes_.clear();
  for (size_t i = 0; i < entries_.size(); ++i) {
    const KLT_OffsetEntry& entry = entries_[i];
    switch (entry.kind) {
      case KLT_OffsetEntry::Kind::kSpan:
        if (open_.contains(entry.offset)) open[entry.offset] = i;
        break;
      case KLT_OffsetEntry::Kind::kCounter:
        counters_[entry.id] = i;
        break;
      case KLT_OffsetEntry::Kind::kScope:
        scopes_[scopeKey(entry.id, entry.seqnr)].all.push_back(i);
        break;
    }
  }
  open_ = std::move(open);
}
