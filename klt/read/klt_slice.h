// Delivery in time order from thousands of streams.
//
// There the next record is nearly always another stream's, and a tournament waits for memory at
// each. So what all streams hold up to a near time is gathered stream by stream, sorted, and then
// handed out while what comes next is on its way: a dump of 4,096 streams takes 0.58 of the time.
//
// A slice ends before any stream runs out of records, so that no stream is filled, and none leaves,
// while it lasts. The order is that of a tournament: see klt_read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <vector>

#include "klt/format/klt_record.h"

struct KLT_Stream;

// A stream as delivery in time order sees it: the records that come next. All that most deliveries
// touch of a stream is in here.
struct alignas(64) KLT_Lane {
  uint8_t* next = nullptr;
  uint8_t* end = nullptr;
  uint64_t nextTime = 0;
  uint64_t lastTime = 0;           // of the last record ahead of `end`
  uint8_t* beforeSlice = nullptr;  // `next` before the last slice was gathered
  KLT_Stream* stream = nullptr;
  bool isFilled = false;  // the stream has been filled, and its records aren't in here yet
};

class KLT_Slice {
 public:
  static constexpr size_t kNone = ~size_t{0};

  // A record and the position of its stream; a null record if there is none.
  struct Record {
    size_t position = kNone;
    uint8_t* record = nullptr;
  };

  // Takes the records of the next slice out of the lanes. False, with the lanes as they were, if it
  // is too early for one or too much happens at one time: then the tournament goes on. `fills`
  // counts how often a stream was filled or left. REQUIRES: the slice before is used up.
  [[nodiscard]] bool gather(std::span<KLT_Lane> lanes, uint64_t fills);

  // The next record in order; `delivered` is told where it ends.
  [[nodiscard, gnu::always_inline]] Record next() {
    __builtin_prefetch(entries_[at_ + kFetchedAhead].record);
    for (; at_ != count_; ++at_) {
      const Entry& entry = entries_[at_];
      if (isAhead(entry)) [[unlikely]]
        continue;
      const size_t position = positionOf(entry);
      if (phase_ == Phase::kSecond && entry.key != secondKey_) phase_ = Phase::kBegin;
      if (phase_ == Phase::kBegin) {
        phase_ = Phase::kBest;
        best_ = position;
      } else if (phase_ == Phase::kBest && position != best_) {
        // The best stream first has what it holds at the time of the runner-up.
        if (KLT_RecordTime(afterBest_) - start_ == entry.key >> positionBits_) [[unlikely]] {
          ahead_ = best_;
          return {best_, afterBest_};
        }
        phase_ = Phase::kSecond;
        secondKey_ = entry.key;
      }
      ++at_;
      return {position, entry.record};
    }
    return {};
  }
  void delivered(uint8_t* behind) {
    if (phase_ != Phase::kBest) return;
    afterBest_ = behind;
    if (ahead_ == best_) [[unlikely]]
      aheadEnd_ = afterBest_;
  }
  // The turn of the stream that is being served is over: a handler has stopped the reader, or the
  // tournament has seen to the runner-up.
  void endTurn() { phase_ = Phase::kBegin; }
  [[nodiscard]] bool empty() const { return at_ == count_; }

  // The position of the stream that was being served when the slice ended, or kNone: its turn
  // lasts until the runner-up has been served.
  [[nodiscard]] size_t running() const { return phase_ == Phase::kBest ? best_ : kNone; }

  // Calls `visit(position, record)` for each record that hasn't been handed out.
  template <class Visit>
  void eachWaiting(Visit visit) const {
    for (size_t i = at_; i < count_; ++i) {
      if (!isAhead(entries_[i])) visit(positionOf(entries_[i]), entries_[i].record);
    }
  }

 private:
  static constexpr size_t kFetchedAhead = 8;

  // The time since the start of the slice above the position of the stream: the order of entries.
  struct Entry {
    uint64_t key;
    uint8_t* record;
  };
  // Of a turn: it has yet to begin, its best stream is served, or the runner-up is.
  enum class Phase : uint8_t { kBegin, kBest, kSecond };

  [[nodiscard]] size_t positionOf(const Entry& entry) const {
    return static_cast<size_t>(entry.key & ((uint64_t{1} << positionBits_) - 1));
  }
  // Whether the record was handed out ahead of others of its time.
  [[nodiscard]] bool isAhead(const Entry& entry) const {
    return positionOf(entry) == ahead_ && entry.record < aheadEnd_;
  }
  // What it collected; `sources` are the streams that have records in the slice.
  struct Collected {
    bool complete = false;
    size_t sources = 0;
    size_t bytes = 0;
  };
  [[nodiscard]] Collected collect(std::span<KLT_Lane> lanes, uint64_t end);
  void adaptWidth(size_t wanted, size_t bytes);
  void sort(uint64_t span);

  std::vector<Entry> entries_;
  std::vector<Entry> sorted_;    // what a pass of the sort makes of them
  std::vector<uint8_t> copies_;  // the records, stream by stream
  size_t at_ = 0;
  size_t count_ = 0;
  uint64_t start_ = 0;
  unsigned positionBits_ = 0;

  Phase phase_ = Phase::kBegin;
  size_t best_ = kNone;
  uint8_t* afterBest_ = nullptr;  // that stream's next record
  uint64_t secondKey_ = 0;        // of the runner-up's records
  size_t ahead_ = kNone;
  const uint8_t* aheadEnd_ = nullptr;

  // When to gather: looking at all streams must pay.
  uint64_t width_ = 1;      // of a slice, in time
  uint64_t fillsSeen_ = 0;  // a stream must have been filled since
  // Records delivered that no look and no attempt in vain has been set against.
  int64_t credit_ = std::numeric_limits<int64_t>::max();
};
