// Defines the reader: one traversal of the components that can contain what its requests select.
//
// Internal to klt/read; callers use klt.h. A reader owns its streams, its copy of the handlers and
// the order in which streams are served.
#pragma once

#include <cstdint>
#include <ctime>
#include <memory>
#include <vector>

#include "klt/klt.h"
#include "klt/read/klt_alone.h"
#include "klt/read/klt_order.h"
#include "klt/stream/klt_stream.h"

struct KLT_Reader;
class KLT_StreamTurn;

// The time limit of one call, checked every few records.
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
  // Milliseconds of a clock with a resolution of a few milliseconds. Reading a finer clock every
  // few records takes a tenth of the time of a merge.
  static int64_t now() {
    timespec time{};
    (void)clock_gettime(CLOCK_MONOTONIC_COARSE, &time);
    return int64_t{time.tv_sec} * 1000 + time.tv_nsec / 1000000;
  }

  bool limited_ = false;
  int64_t end_ = 0;
};

// The turns of a stream that isn't merged with others: its records are delivered as soon as they
// have passed the filter. The first turn of a stream ends after kRecordsPerCheck records.
class KLT_StreamTurn final : public KLT_Turn {
 public:
  KLT_StreamTurn(KLT_Reader& reader, KLT_Stream& stream) : reader_(reader), stream_(stream) {}

  void begin() { records_ = 0; }
  void end() {
    wasServed_ = true;
    isStopped_ = false;
  }
  void take(uint8_t* record) override;
  [[nodiscard]] State state() override;

 private:
  KLT_Reader& reader_;
  KLT_Stream& stream_;
  uint32_t records_ = 0;  // of this turn, since the last check of the time limit
  bool wasServed_ = false;
  bool isStopped_ = false;  // by a handler
};

struct KLT_Reader {
  KLT_Pass pass;
  std::vector<std::unique_ptr<KLT_Stream>> streams;  // at equal times the first one is served
  int status = KLT_STATUS_BUILT;
  bool lostData = false;
  int historyDepth = 0;  // open history brackets, of which only the outermost is delivered
  // Buffers for arrays of texts, one vector for each array of a record.
  std::vector<std::vector<const char*>> texts;

  std::unique_ptr<KLT_AloneStreams> alone;  // streams to read before the others; null: none

  // Delivery in time order.
  std::vector<KLT_Lane> lanes;  // one per stream
  KLT_MergeTree order;          // leaf i: next time of stream i
  KLT_Slice slice;
  KLT_TimeLimit limit;
  uint64_t recordsToCheck = 0;  // records until the time limit is checked

  // Delivery stream by stream.
  std::vector<std::unique_ptr<KLT_StreamTurn>> turns;  // one per stream

  // Progress.
  bool hasDelivered = false;  // delivery in time order has begun
  uint64_t bytesDone = 0;     // consumed from streams that have been removed
  uint64_t bytesTotal = 0;    // of all streams
};

// Prepares delivery. REQUIRES: all streams have been added.
void KLT_PrepareDelivery(KLT_Reader& reader);
