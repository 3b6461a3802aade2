// One traversal of a part of a trace: the streams of the components that can hold something wanted.
//
// Internal to the reading modules; callers see klt.h. Owns its streams, its copy of the handlers
// and the order in which streams are served.
#pragma once

#include <cstdint>
#include <ctime>
#include <memory>
#include <unordered_set>
#include <vector>

#include "klt/klt.h"
#include "klt/read/klt_merge_tree.h"
#include "klt/read/klt_slice.h"
#include "klt/stream/klt_stream.h"

// The limit of one call, checked every few records.
class KLT_TimeLimit {
 public:
  static constexpr uint32_t kRecordsPerCheck = 5;

  void start(int timeoutMs) {
    limited_ = timeoutMs >= 0;
    if (limited_) end_ = now() + timeoutMs;
  }
  [[nodiscard]] bool reached() const { return limited_ && now() >= end_; }
  [[nodiscard]] bool limited() const { return limited_; }

 private:
  // Milliseconds by a clock that moves on every few of them: looking at a finer one every few
  // records makes a tenth of a merge.
  static int64_t now() {
    timespec time{};
    (void)clock_gettime(CLOCK_MONOTONIC_COARSE, &time);
    return int64_t{time.tv_sec} * 1000 + time.tv_nsec / 1000000;
  }

  bool limited_ = false;
  int64_t end_ = 0;
};

struct KLT_Reader {
  KLT_FileHandle* file = nullptr;
  int mode = KLT_MODE_DEFINITIONS;  // KLT_MODE_EVENTS for both modes of events
  bool once = false;                // KLT_MODE_EVENTS_ONCE
  bool serial = true;
  KLT_HandlerTable handlers;
  std::vector<KLT_Request> requests;                 // normalised
  std::vector<std::unique_ptr<KLT_Stream>> streams;  // in the order in which ties are decided
  int status = KLT_STATUS_BUILT;
  int historyDepth = 0;  // open history brackets, of which one is shown
  bool lostData = false;
  std::unordered_set<uint32_t> reportedCommunicators;

  // Delivery in time order.
  std::vector<KLT_Lane> lanes;  // of each stream
  KLT_MergeTree order;          // leaf i: next time of stream i
  KLT_Slice slice;
  uint64_t fills = 1;  // how often a stream was filled or has left
  KLT_TimeLimit limit;
  uint64_t recordsToLook = 0;  // until the clock is asked whether the time of the call is up

  // Progress: whether delivery in time order has begun, bytes read of streams that are gone, and
  // all bytes there are.
  bool hasDelivered = false;
  uint64_t bytesDone = 0;
  uint64_t bytesTotal = 0;

  // Scratch for arrays of texts, one vector for each array of a record.
  std::vector<std::vector<const char*>> texts;

  // Once all streams are there, for delivery in time order.
  void makeLanes();
  [[nodiscard]] bool turnIsOver(KLT_Stream& stream);
};

// Opens the index and reads its header; part of building a reader of mode 4. False after a report.
[[nodiscard]] bool KLT_OpenIndexStream(KLT_Reader& reader, KLT_Stream& stream);
