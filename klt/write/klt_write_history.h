// What a writer remembers of a stream so that a reader can start in the middle of it.
//
// One KLT_WriteHistory belongs to each output stream. It keeps the call stack of the stream's
// thread and the positions of records that stay relevant: messages and collective operations under
// way, open scopes, the last sample of each counter. At a seek point all of it is written into the
// anchor component (klt_write). With statistics on, the stack also measures how long calls take.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <unordered_map>
#include <vector>

#include "klt/write/klt_filestats.h"
#include "util/pal_stack.h"

// A record of the data component that stays relevant until `end`.
struct KLT_OffsetEntry {
  static constexpr uint64_t kNever = ~uint64_t{0};

  enum class Kind : uint8_t { kSpan, kCounter, kScope };

  uint64_t time = 0;  // the stream's output time just before the record
  uint64_t end = 0;   // absolute; all ones for never
  uint64_t offset = 0;
  Kind kind = Kind::kSpan;
  uint32_t id = 0;     // counter, or scope
  uint32_t seqnr = 0;  // of a scope
};

// Offset entries in order of arrival. All operations take amortised constant time; an entry that is
// taken out leaves a gap until the next prune.
class KLT_OffsetEntries {
 public:
  void addSpan(uint64_t time, uint64_t end, uint64_t offset, bool open);
  // Sets the end of the open entry at `offset`; nothing if there is none.
  void endSpan(uint64_t offset, uint64_t end);
  // The last sample of a counter replaces the one before, in its place.
  void setCounter(uint32_t counter, uint64_t time, uint64_t offset);
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

  // A new entry, all zeros but for the time; an entry is stored part by part.
  KLT_OffsetEntry& append(uint64_t time);
  void reindex();

  std::vector<KLT_OffsetEntry> entries_;
  std::unordered_map<uint64_t, size_t> open_;      // place of the open spans by offset
  std::unordered_map<uint32_t, size_t> counters_;  // place by counter
  std::unordered_map<uint64_t, Places> scopes_;    // by scope and seqnr
  size_t pruneAt_ = kFirstPrune;
};

struct alignas(64) KLT_WriteHistory {
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

// A call begins. `ticks` only counts with statistics.
[[gnu::always_inline]] inline void KLT_AddFunctionHistory(KLT_WriteHistory& history,
                                                          uint32_t function, uint32_t scl,
                                                          uint64_t ticks) {
  history.calls.push({function, scl, ticks, 0});
}

// The innermost call ends; with `stats` its times are entered there. Harmless without a call.
[[gnu::always_inline]] inline void KLT_LeaveFunctionHistory(KLT_WriteHistory& history,
                                                            uint64_t ticks, KLT_FileStats* stats) {
  PAL_Stack<KLT_WriteHistory::Call>& calls = history.calls;
  if (calls.empty()) return;
  // Field by field: the call may have begun a moment ago, and what has just been stored as parts
  // can't be loaded as one before it has left the core.
  const KLT_WriteHistory::Call& call = calls.top();
  const uint32_t function = call.function;
  const uint64_t inclusive = ticks - call.start;
  const uint64_t self = inclusive - call.childTime;
  calls.pop();
  if (stats == nullptr) return;
  stats->function(history.gtp, function, self, inclusive, history.profileHint(function));
  if (!calls.empty()) calls.top().childTime += inclusive;
}
