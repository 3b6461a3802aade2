// Analyses collective operations. See kla_collectives.h.
#include "analyze/sums/kla_collectives.h"

#include <algorithm>
#include <numeric>

namespace kla {

namespace {

constexpr uint64_t kUnknownStarts = ~uint64_t{0} - 1;  // from this value on, the start is unknown

uint64_t sumOf(const uint32_t* values, uint32_t count) {
  return values == nullptr ? 0 : std::accumulate(values, values + count, uint64_t{0});
}

// a + b, the largest time if that is too long.
Time later(Time a, uint64_t b) { return b > kNever - a ? kNever : a + b; }

const Part* partOf(const std::vector<Part>& parts, uint32_t thread) {
  for (const Part& part : parts) {
    if (part.thread == thread) return &part;
  }
  return nullptr;
}

}  // namespace

void Collectives::add(const CollectiveRecord& record, Waits* waits) {
  ++count_;
  const bool complete = readParts(record);
  addToTable(record);
  if (observer.operation != nullptr) observer.operation(observer.user, record, parts_);
  if (waits != nullptr) findWaits(record, complete, *waits);
}

// Sets `parts_`. Returns whether all members are known.
bool Collectives::readParts(const CollectiveRecord& record) {
  parts_.clear();
  const uint32_t index = definitions_.communicatorIds.find(record.communicator);
  if (index == kNone) return false;
  uint32_t rank = 0;
  for (const PAL_Triplet& t : definitions_.communicators[index].members) {
    if (rank == record.members) break;
    for (int64_t gtp = t.first; t.stride > 0 ? gtp <= t.last : gtp >= t.last; gtp += t.stride) {
      if (rank == record.members) return parts_.size() == record.members;
      const uint64_t start = record.starts[rank];
      if (start < kUnknownStarts) {
        const Time begin = later(record.time, start);
        parts_.push_back({calls_.indexOf(static_cast<uint32_t>(gtp)), begin,
                          later(begin, record.durations[rank])});
      }
      ++rank;
    }
  }
  return rank == record.members && parts_.size() == rank;
}

void Collectives::addToTable(const CollectiveRecord& record) {
  const uint32_t index = keys_[uint64_t{record.operation} << 32 | record.communicator];
  if (index == rows_.size()) rows_.push_back({record.operation, record.communicator});
  Row& row = rows_[index];
  ++row.count;
  row.sent += sumOf(record.sent, record.members);
  row.received += sumOf(record.received, record.members);
  if (record.pattern == Pattern::kOneToAll) row.sent += record.rootBytes;
  if (record.pattern == Pattern::kAllToOne) row.received += record.rootBytes;
  Time last = 0;
  for (const Part& part : parts_) last = std::max(last, part.start);
  for (const Part& part : parts_) {
    if (!calls_[part.thread].selected()) continue;
    const Time from = std::max(part.start, window.start);
    const Time to = std::min(part.end, window.end);
    if (from >= to) continue;
    row.ticks += to - from;
    if (std::min(last, to) > from) row.wait += std::min(last, to) - from;
  }
}

void Collectives::findWaits(const CollectiveRecord& record, bool complete, Waits& waits) {
  const uint32_t function = definitions_.functionOfOperation(record.operation);
  const bool hasRoot = record.pattern == Pattern::kAllToOne || record.pattern == Pattern::kOneToAll;
  const uint32_t root = hasRoot ? calls_.indexOf(record.root) : kNone;
  const bool known =
      record.pattern == Pattern::kOneToAll ? partOf(parts_, root) != nullptr : complete;
  if (!complete) ++waits.missing.unseen;
  if (!known || parts_.empty()) return;
  if (record.pattern == Pattern::kOneToAll)
    waitForRoot(root, function, waits);
  else if (record.pattern == Pattern::kAllToOne)
    rootWaits(root, function, waits);
  else
    waitForLast(record.pattern == Pattern::kAll ? WaitKind::kBarrier : WaitKind::kNxN, function,
                waits);
}

// Each member waits until the last has come, and then from the first exit to its own.
void Collectives::waitForLast(WaitKind kind, uint32_t function, Waits& waits) {
  const Part* last = &parts_.front();
  Time firstEnd = kNever;
  for (const Part& part : parts_) {
    if (part.start > last->start) last = &part;
    firstEnd = std::min(firstEnd, part.end);
  }
  for (const Part& part : parts_) {
    const Time until = std::min(last->start, part.end);
    waits.part(part.start, part.end,
               {kind, part.thread, last->thread, function, part.start, until});
    waits.part(
        part.start, part.end,
        {WaitKind::kCompletion, part.thread, kNone, function, std::max(firstEnd, until), part.end});
  }
}

void Collectives::waitForRoot(uint32_t root, uint32_t function, Waits& waits) {
  const Time start = partOf(parts_, root)->start;
  for (const Part& part : parts_) {
    if (part.thread == root) continue;
    waits.part(part.start, part.end,
               {WaitKind::kLateBroadcast, part.thread, root, function, part.start,
                std::min(start, part.end)});
  }
}

void Collectives::rootWaits(uint32_t root, uint32_t function, Waits& waits) {
  const Part* own = partOf(parts_, root);
  const Part* last = nullptr;
  for (const Part& part : parts_) {
    if (part.thread != root && (last == nullptr || part.start > last->start)) last = &part;
  }
  if (own == nullptr || last == nullptr) return;
  waits.part(own->start, own->end,
             {WaitKind::kEarlyReduce, root, last->thread, function, own->start,
              std::min(last->start, own->end)});
}

}  // namespace kla
