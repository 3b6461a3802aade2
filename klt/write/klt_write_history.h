// Keeps the state of an output component that seek points store for readers that start there.
//
// Each component has a KLT_WriteHistory: the call stack of its thread, and the offsets of the
// records that are still relevant, which are messages and collective operations that haven't ended,
// open scopes, and the last sample of each counter. At a seek point it is written to the anchor
// component (klt_write_anchor). With statistics, the stack is also used to measure the duration of
// calls.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "klt/format/klt_spans.h"
#include "klt/write/klt_filestats.h"
#include "util/pal_hash.h"
#include "util/pal_stack.h"

// A record of the data component that is relevant before the time `end`.
struct KLT_OffsetEntry {
  enum class Kind : uint8_t { kSpan, kCounter, kScope };

  uint64_t time = 0;  // the component's running time just before the record
  uint64_t end = 0;   // absolute; all ones for never
  uint64_t offset = 0;
  Kind kind = Kind::kSpan;
  uint32_t id = 0;     // counter, or scope
  uint32_t seqnr = 0;  // of a scope
};

// The arguments of KLT_AddOffsetHistory.
struct KLT_OffsetNote {
  uint64_t time = 0;    // the component's running time just before the record
  uint64_t end = 0;     // the record is relevant before this time
  uint64_t offset = 0;  // of the record
  bool isOpen = false;  // its end isn't known yet
  bool update = false;  // only sets the end of an open record, if there is one at `offset`
  // For a record of samples: its counters. Null for other records.
  uint32_t count = 0;
  const uint32_t* counters = nullptr;
};

struct KLT_WillyHistory;

// Offset entries in order of insertion. All operations take amortised constant or logarithmic time;
// a removed entry stays in the list, marked, until the next prune().
class KLT_OffsetEntries {
 public:
  void enterScope(uint32_t scope, uint32_t seqnr, uint64_t time, uint64_t offset);
  void leaveScope(uint32_t scope, uint32_t seqnr);
  // Removes the entries with an end at or before `limit`.
  void prune(uint64_t limit);
  // The number of entries that prune(limit) would leave. Few entries are pruned at once. Of many
  // entries, all of which prune() would have to process, only those that have ended are processed;
  // the next prune() removes them.
  [[nodiscard]] size_t countAfter(uint64_t limit);
  [[nodiscard]] const std::vector<KLT_OffsetEntry>& entries() const { return entries_; }

 private:
  static constexpr size_t kFirstPrune = 64;

  // Indexes in `entries_`, oldest first; those before `first` have been removed.
  struct Indexes {
    std::vector<size_t> all;
    size_t first = 0;
  };

  friend void KLT_AddOffsetHistory(KLT_WillyHistory& history, const KLT_OffsetNote& note);

  // Appends an entry without an end.
  KLT_OffsetEntry& append(uint64_t time, uint64_t offset);
  void setEnd(uint64_t offset, uint64_t end);
  // Sets the end of an entry.
  void close(KLT_OffsetEntry& entry, uint64_t end) {
    entry.end = end;
    if (isCounting_) pushEnd(end);
  }
  void pushEnd(uint64_t end);
  void setCounters(const KLT_OffsetNote& note);
  void reindex();

  std::vector<KLT_OffsetEntry> entries_;
  // Indexes in `entries_`.
  PAL_HashMap<uint64_t, size_t> open_;      // open spans by offset
  PAL_HashMap<uint32_t, size_t> counters_;  // by counter
  PAL_HashMap<uint64_t, Indexes> scopes_;   // by scope and seqnr
  size_t pruneAt_ = kFirstPrune;
  // From a call of countAfter() with many entries to the next prune(): the ends of entries as a
  // heap with the lowest on top, the number of ends removed from it, and the highest limit.
  bool isCounting_ = false;
  std::vector<uint64_t> ends_;
  size_t ended_ = 0;
  uint64_t countedTo_ = 0;
};

// The history of one thread.
struct alignas(64) KLT_WillyHistory {
  struct Call {
    uint32_t function;
    uint32_t scl;
    uint64_t start;      // in ticks
    uint64_t childTime;  // in ticks, spent in callees so far
  };

  // These fields are used for every call and share a cache line: with thousands of threads, cache
  // misses take most of the time.
  uint32_t gtp = 0;         // the component's thread, 0 for none
  bool hasRecords = false;  // a record with a history has been written
  PAL_Stack<Call> calls;    // outermost first
  KLT_ProfileHints profileHints;

  KLT_OffsetEntries offsets;

  // Whether any of the calls has a source location.
  [[nodiscard]] bool hasLocations() const {
    return std::any_of(calls.begin(), calls.end(), [](const Call& call) { return call.scl != 0; });
  }
};

// Inlined, because the kind of record is a constant in its callers.
[[gnu::always_inline]] inline void KLT_AddOffsetHistory(KLT_WillyHistory& history,
                                                        const KLT_OffsetNote& note) {
  KLT_OffsetEntries& offsets = history.offsets;
  if (note.update) return offsets.setEnd(note.offset, note.end);
  if (note.counters != nullptr) return offsets.setCounters(note);
  KLT_OffsetEntry& entry = offsets.append(note.time, note.offset);
  if (note.isOpen) {
    offsets.open_[note.offset] = offsets.entries_.size() - 1;
  } else {
    offsets.close(entry, note.end);
  }
}

// A component has the records of one thread, or of all threads; then `gtp` is 0.
using KLT_WriteHistory = KLT_WillyHistory;

// A call begins. `ticks` is only used for statistics.
[[gnu::always_inline]] inline void KLT_AddFunctionHistory(KLT_WriteHistory& history,
                                                          uint32_t function, uint32_t scl,
                                                          uint64_t ticks) {
  history.calls.push({function, scl, ticks, 0});
}

// The innermost call ends. Its times are added to `stats` unless that is null. Does nothing if no
// call is open.
[[gnu::always_inline]] inline void KLT_LeaveFunctionHistory(KLT_WriteHistory& history,
                                                            uint64_t ticks, KLT_FileStats* stats) {
  PAL_Stack<KLT_WillyHistory::Call>& calls = history.calls;
  if (calls.empty()) return;
  // The call isn't copied as a whole: if it was pushed just before, a load that spans several
  // recent stores would stall.
  const KLT_WillyHistory::Call& call = calls.top();
  const uint32_t function = call.function;
  const uint64_t inclusive = ticks - call.start;
  const uint64_t self = inclusive - call.childTime;
  calls.pop();
  if (stats == nullptr) return;
  KLT_FileStatsFunction(*stats, {history.gtp, function}, self, inclusive, history.profileHints);
  if (!calls.empty()) calls.top().childTime += inclusive;
}
