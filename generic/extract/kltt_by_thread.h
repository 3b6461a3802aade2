// Extracts a binary trace without merging the calls of all threads by time.
//
// Each component of the output gets the same records, in the same order, whether the calls of
// different threads are merged or not. Only the order of the components in the index and that of
// the profiles depends on the merge: both are sorted by the first record. So the calls of each
// thread are read and written on their own, and a record that creates a component or a profile is
// repeated in the merge of the other records, where it only gives them their places. For records of
// different threads with the same time, the places can be different from those after a full merge.
//
// This takes half of the time with many threads, and the memory of one thread. An unusual trace can
// have other records among the calls, or calls elsewhere. Then the components would be different,
// and the caller has to extract the trace again, with all records merged.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "generic/sink/kltt_queue.h"
#include "klt/format/klt_handlers.h"
#include "klt/klt.h"
#include "klt/write/klt_write.h"
#include "util/pal_hash.h"

struct KLTT_Context;

class KLTT_ByThread {
 public:
  // `merged` has the handlers of the extraction. REQUIRES: the context's sink is binary.
  KLTT_ByThread(KLTT_Context& context, const KLT_HandlerTable& merged);
  ~KLTT_ByThread();
  KLTT_ByThread(const KLTT_ByThread&) = delete;
  KLTT_ByThread& operator=(const KLTT_ByThread&) = delete;

  // The receiver of the calls that are read on their own, and the handlers of the merge.
  [[nodiscard]] KLT_AloneReceiver receiver();
  [[nodiscard]] const KLT_HandlerTable& mergedHandlers() const { return merged_; }
  // Whether the trace can't be extracted this way.
  [[nodiscard]] bool hasRefused() const { return hasRefused_; }

 private:
  // What a repeated record has created.
  enum Created : uint8_t { kNothing = 0, kComponent = 1, kProfile = 2 };
  struct Thread {
    std::vector<uint8_t> created;  // by each of its repeated records
    size_t next = 0;               // of these records
    uint32_t profile = 0;          // number of its next profile
  };

  template <auto Member>
  struct Refused;

  static int enterAlone(void* user, uint64_t time, uint32_t gtp, uint32_t function, uint32_t scl);
  static int leaveAlone(void* user, uint64_t time, uint32_t gtp, uint32_t scl);
  static int endAlone(void* user, uint64_t time, uint32_t categories, uint32_t numTriplets,
                      const PAL_Triplet* triplets);
  static int enterMerged(void* user, uint64_t time, uint32_t gtp, uint32_t function, uint32_t scl);
  static int leaveMerged(void* user, uint64_t time, uint32_t gtp, uint32_t scl);

  template <class Handle>
  int handleAlone(uint64_t time, uint32_t gtp, Handle handle);
  int refuse();
  [[nodiscard]] bool startThread(uint32_t gtp);
  void endThread();
  void note(uint64_t time, KLT_WriterCounts now);
  void exchangeQueues();
  void startMerge();
  int place(uint64_t time, uint32_t gtp, Thread& thread);

  KLTT_Context& context_;
  KLT_WFileHandle* writer_;
  KLT_HandlerTable alone_, merged_;
  KLTT_Queue pending_;  // the context's, which the calls that are read on their own don't write
  PAL_HashMap<uint32_t, Thread> threads_;
  Thread* current_ = nullptr;
  KLT_WriterCounts counts_{};  // after the last record
  uint32_t gtp_ = 0;           // of `current_`
  bool hasStarted_ = false;    // a call of it after the time 0 has been noted
  bool repeats_ = false;
  bool hasRefused_ = false;
};
