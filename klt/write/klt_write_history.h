// What a writer remembers of a stream so that a reader can start in the middle of it.
//
// One KLT_WriteHistory belongs to each output stream: the call stack of the stream's thread and the
// positions of records that stay relevant, which are messages and collective operations under way,
// open scopes, and the last sample of each counter. At a seek point all of it is written into the
// anchor component (klt_write_anchor). With statistics on, the stack also measures how long calls
// take.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <unordered_map>
#include <vector>

#include "klt/format/klt_spans.h"
#include "klt/write/klt_filestats.h"
#include "util/pal_stack.h"

// A record of the data component that stays relevant until `end`.
struct KLT_OffsetEntry {
  enum class Kind : uint8_t { kSpan, kCounter, kScope };

  uint64_t time = 0;  // the stream's output time just before the record
  uint64_t end = 0;   // absolute; all ones for never
  uint64_t offset = 0;
  Kind kind = Kind::kSpan;
  uint32_t id = 0;     // counter, or scope
  uint32_t seqnr = 0;  // of a scope
};

// What KLT_AddOffsetHistory notes of a record.
struct KLT_OffsetNote {
  uint64_t time = 0;    // the stream's output time just before the record
  uint64_t end = 0;     // until when it stays relevant
  uint64_t offset = 0;  // of the record
  bool isOpen = false;  // its end isn't known yet
  bool update = false;  // only sets the end of an open record; nothing if there is none
  // Of a sample: its counters, each of which has its last one. Null for other records.
  uint32_t count = 0;
  const uint32_t* counters = nullptr;
};

struct KLT_WillyHistory;

// Offset entries in order of arrival. All operations take amortised constant time; an entry that is
// taken out leaves a gap until the next prune.
class KLT_OffsetEntries {
 public:
  void enterScope(uint32_t scope, uint32_t seqnr, uint64_t time, uint64_t offset);
  void leaveScope(uint32_t scope, uint32_t seqnr);
  // Takes out what has ended at `limit`.
  void prune(uint64_t limit);
  [[nodiscard]] const std::vector<KLT_OffsetEntry>& entries() const { return entries_; }

 private:
  static constexpr size_t kFirstPrune = 64;

  // Places in `entries_`, oldest first; those ahead of `first` have been taken.
  struct Places {
    std::vector<size_t> all;
    size_t first = 0;
  };

  friend void KLT_AddOffsetHistory(KLT_WillyHistory& history, const KLT_OffsetNote& note);

  // A new entry without an end; an entry is stored part by part.
  KLT_OffsetEntry& append(uint64_t time, uint64_t offset);
  void setEnd(uint64_t offset, uint64_t end);
  void setCounters(const KLT_OffsetNote& note);
  void reindex();

  std::vector<KLT_OffsetEntry> entries_;
  std::unordered_map<uint64_t, size_t> open_;      // place of the open spans by offset
  std::unordered_map<uint32_t, size_t> counters_;  // place by counter
  std::unordered_map<uint64_t, Places> scopes_;    // by scope and seqnr
  size_t pruneAt_ = kFirstPrune;
};

// The history of one thread.
struct alignas(64) KLT_WillyHistory {
  struct Call {
    uint32_t function;
    uint32_t scl;
    uint64_t start;      // in ticks
    uint64_t childTime;  // spent in callees so far
  };

  // All that a call touches: with thousands of threads it is the reach for another line of memory
  // that takes the time.
  uint32_t gtp = 0;                        // the stream's thread, 0 for none
  bool isUsed = false;                     // an anchor has something to tell, if only the thread
  PAL_Stack<Call> calls;                   // outermost first
  std::array<uint32_t, 8> profileHints{};  // where the functions called last have their profiles

  KLT_OffsetEntries offsets;

  [[nodiscard]] uint32_t& profileHint(uint32_t function) {
    return profileHints[function % profileHints.size()];
  }
  // Whether any of the calls has a source location.
  [[nodiscard]] bool hasLocations() const {
    return std::any_of(calls.begin(), calls.end(), [](const Call& call) { return call.scl != 0; });
  }
};

// Inlined, because callers know which kind of record it is.
[[gnu::always_inline]] inline void KLT_AddOffsetHistory(KLT_WillyHistory& history,
                                                        const KLT_OffsetNote& note) {
  KLT_OffsetEntries& offsets = history.offsets;
  if (note.update) return offsets.setEnd(note.offset, note.end);
  if (note.counters != nullptr) return offsets.setCounters(note);
  KLT_OffsetEntry& entry = offsets.append(note.time, note.offset);
  if (note.isOpen) {
    offsets.open_[note.offset] = offsets.entries_.size() - 1;
  } else {
    entry.end = note.end;
  }
}

// A stream has the records of one thread, or those of all threads under gtp 0.
using KLT_WriteHistory = KLT_WillyHistory;

// A call begins. `ticks` only counts with statistics.
[[gnu::always_inline]] inline void KLT_AddFunctionHistory(KLT_WriteHistory& history,
                                                          uint32_t function, uint32_t scl,
                                                          uint64_t ticks) {
  history.calls.push({function, scl, ticks, 0});
}

// The innermost call ends; with `stats` its times are entered there. Harmless without a call.
[[gnu::always_inline]] inline void KLT_LeaveFunctionHistory(KLT_WriteHistory& history,
                                                            uint64_t ticks, KLT_FileStats* stats) {
  PAL_Stack<KLT_WillyHistory::Call>& calls = history.calls;
  if (calls.empty()) return;
  // Field by field: the call may have begun a moment ago, and what has just been stored as parts
  // can't be loaded as one before it has left the core.
  const KLT_WillyHistory::Call& call = calls.top();
  const uint32_t function = call.function;
  const uint64_t inclusive = ticks - call.start;
  const uint64_t self = inclusive - call.childTime;
  calls.pop();
  if (stats == nullptr) return;
  KLT_FileStatsFunction(*stats, {history.gtp, function}, self, inclusive,
                        history.profileHint(function));
  if (!calls.empty()) calls.top().childTime += inclusive;
}
