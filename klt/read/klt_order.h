// Determines the order in which the records of many streams are delivered.
//
// The rule: a turn serves two streams. It delivers the records of the stream with the lowest next
// time (the best stream) up to and including the second-lowest next time, and then the records with
// that time of the stream that has it (the runner-up). If times are equal, the stream with the
// lower position in the list is first. When a stream ends, the last stream moves to its position.
//
// A tournament over the positions (KLT_MergeTree) finds the two streams of a turn. With hundreds of
// streams nearly every turn serves other streams, and the tournament has a cache miss at each
// record. Then the next records of all streams are collected stream by stream (KLT_Slice), sorted,
// and delivered in the same order: a dump of 4,096 streams takes 0.58 of the time.
#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "klt/format/klt_record.h"
#include "util/pal_util.h"

struct KLT_Stream;

// The next records of a stream, for delivery in time order. Most deliveries access nothing else of
// a stream.
struct alignas(64) KLT_Lane {
  uint8_t* next = nullptr;
  uint8_t* end = nullptr;
  uint64_t nextTime = 0;
  uint64_t lastTime = 0;           // of the last record before `end`
  uint8_t* beforeSlice = nullptr;  // `next` before the last slice was collected
  KLT_Stream* stream = nullptr;
  bool isFilled = false;  // the stream has been filled, but `next` and `end` aren't set yet
};

// The position of a stream and its next time.
struct KLT_NextStream {
  size_t position;
  uint64_t time;
};

// A tournament tree of keys. A key has a time in its upper bits and a position in its lower bits.
// The lower key wins, so a game needs no branch, which would be unpredictable (a dump takes 0.93 of
// the time). 64-bit keys are sufficient for the times since `start` in most traces, 128-bit keys
// for all times (with 64 bits a dump of 4,096 streams takes 0.94 of the time).
template <class Key>
class KLT_Tournament {
 public:
  static constexpr size_t kNone = ~size_t{0};

  // Builds a tournament of `count` positions with the times timeOf(position). REQUIRES: fits() is
  // true for each time.
  template <class TimeOf>
  void build(size_t count, uint64_t start, unsigned positionBits, const TimeOf& timeOf) {
    start_ = start;
    positionBits_ = positionBits;
    positionMask_ = (Key{1} << positionBits) - 1;
    steps_ = stepsThatFit(start, positionBits);
    setLeaves(count, [&](size_t i) { return key(i, timeOf(i)); });
  }

  [[nodiscard]] static bool fits(uint64_t time, uint64_t start, unsigned positionBits) {
    return time - start < stepsThatFit(start, positionBits);
  }
  [[nodiscard]] bool fits(uint64_t time) const { return time - start_ < steps_; }

  [[nodiscard]] size_t best() const { return positionOf(nodes_[1]); }
  [[nodiscard]] KLT_NextStream second(size_t best) const {
    // Two minima over the keys that lost to `best`, which the processor computes in parallel.
    Key minimum1 = kNoKey;
    Key minimum2 = kNoKey;
    size_t node = leaves_ + best;
    for (; node > 3; node /= 4) {
      minimum1 = earlier(minimum1, nodes_[node ^ 1]);
      minimum2 = earlier(minimum2, nodes_[(node / 2) ^ 1]);
    }
    if (node > 1) minimum1 = earlier(minimum1, nodes_[node ^ 1]);
    const Key key = earlier(minimum1, minimum2);
    return {positionOf(key), timeOf(key)};
  }
  [[nodiscard]] uint64_t time(size_t position) const { return timeOf(nodes_[leaves_ + position]); }
  [[nodiscard]] size_t count() const { return count_; }

  void update(size_t position, uint64_t time) { replay(position, key(position, time)); }
  // Updates two different positions. A game on both paths to the root is played once.
  [[gnu::always_inline]] void update(size_t position1, uint64_t time1, size_t position2,
                                     uint64_t time2) {
    Key winner1 = key(position1, time1);
    Key winner2 = key(position2, time2);
    size_t node1 = leaves_ + position1;
    size_t node2 = leaves_ + position2;
    nodes_[node1] = winner1;
    nodes_[node2] = winner2;
    // Both paths must start at the same depth; otherwise they would only meet at the root.
    const bool deep1 = node1 >= deepestLevel_;
    const bool deep2 = node2 >= deepestLevel_;
    if (deep1 && !deep2) node1 = play(node1, winner1);
    if (deep2 && !deep1) node2 = play(node2, winner2);
    while (node1 / 2 != node2 / 2) {
      node1 = play(node1, winner1);
      node2 = play(node2, winner2);
    }
    while (node1 > 1) node1 = play(node1, winner1);
  }
  void removeLast() {
    replay(--count_, kNoKey);
    if (2 * count_ > leaves_ || count_ == 0) return;
    const size_t first = leaves_;
    setLeaves(count_, [&](size_t i) { return nodes_[first + i]; });
  }

 private:
  static constexpr Key kNoKey = ~Key{0};

  // The limit of the times since `start` below which neither a key nor a time exceeds 64 bits. A
  // time before `start` has an unsigned difference above the limit. (Wide keys don't need a limit,
  // because they are sufficient for all times.)
  static constexpr uint64_t stepsThatFit(uint64_t start, unsigned positionBits) {
    return std::min(~uint64_t{0} >> std::min(positionBits, 63U), ~uint64_t{0} - start);
  }
  static Key earlier(Key a, Key b) { return b < a ? b : a; }
  [[nodiscard]] Key key(size_t position, uint64_t time) const {
    return Key{time - start_} << positionBits_ | position;
  }
  [[nodiscard]] size_t positionOf(Key key) const {
    if (key == kNoKey) return kNone;
    return static_cast<size_t>(key & positionMask_);
  }

  [[nodiscard]] uint64_t timeOf(Key key) const {
    return start_ + static_cast<uint64_t>(key >> positionBits_);
  }

  // keyOf(i) may read nodes after the new leaf of i.
  template <class KeyOf>
  void setLeaves(size_t count, const KeyOf& keyOf) {
    leaves_ = count_ = count;
    deepestLevel_ = std::bit_ceil(count);
    if (nodes_.size() < 2 * count) nodes_.resize(2 * count);
    nodes_[1] = kNoKey;
    for (size_t i = 0; i < count; ++i) nodes_[count + i] = keyOf(i);
    for (size_t node = count; node-- > 1;) {
      nodes_[node] = earlier(nodes_[2 * node], nodes_[2 * node + 1]);
    }
  }
  void replay(size_t position, Key winner) {
    size_t node = leaves_ + position;
    nodes_[node] = winner;
    while (node > 1) node = play(node, winner);
  }
  // Plays the game between `node`, which `winner` has reached, and its neighbour. Returns the
  // parent.
  size_t play(size_t node, Key& winner) {
    winner = earlier(winner, nodes_[node ^ 1]);
    nodes_[node / 2] = winner;
    return node / 2;
  }

  // nodes_[n] is the winner of nodes_[2n] against nodes_[2n + 1]. The leaves start at `leaves_`,
  // which is their number and needn't be a power of two, so the tree has the least possible depth.
  std::vector<Key> nodes_ = std::vector<Key>(2, kNoKey);
  size_t leaves_ = 0;
  size_t count_ = 0;
  size_t deepestLevel_ = 1;  // leaves from this index on are a level deeper than others
  uint64_t start_ = 0;
  unsigned positionBits_ = 1;
  Key positionMask_ = 1;
  uint64_t steps_ = 0;
};

// Finds the stream with the lowest time. A change of one time takes log2(streams) comparisons, and
// so does finding the runner-up.
class KLT_MergeTree {
 public:
  static constexpr size_t kNone = ~size_t{0};

  // Builds a tree of `count` positions with the times timeOf(position).
  template <class TimeOf>
  void build(size_t count, const TimeOf& timeOf) {
    const auto bits = static_cast<unsigned>(std::bit_width(count));
    uint64_t earliest = ~uint64_t{0};
    uint64_t latest = 0;
    for (size_t i = 0; i < count; ++i) {
      earliest = std::min<uint64_t>(earliest, timeOf(i));
      latest = std::max<uint64_t>(latest, timeOf(i));
    }
    isWide_ =
        PAL_fast == PAL_Fast::kNever || !KLT_Tournament<uint64_t>::fits(latest, earliest, bits);
    if (isWide_)
      wide_.build(count, 0, kWideBits, timeOf);
    else
      narrow_.build(count, earliest, bits, timeOf);
  }

  // The position with the lowest time; kNone if no position is left.
  [[nodiscard]] size_t best() const { return isWide_ ? wide_.best() : narrow_.best(); }
  // The position with the lowest time apart from `best`, and that time; kNone if there is none.
  [[nodiscard]] KLT_NextStream second(size_t best) const {
    return isWide_ ? wide_.second(best) : narrow_.second(best);
  }

  void update(size_t position, uint64_t time) {
    if (!isWide_ && !narrow_.fits(time)) [[unlikely]]
      widen();
    if (isWide_) [[unlikely]]
      wide_.update(position, time);
    else
      narrow_.update(position, time);
  }
  // Updates two different positions.
  [[gnu::always_inline]] void update(size_t position1, uint64_t time1, size_t position2,
                                     uint64_t time2) {
    if (!isWide_ && (!narrow_.fits(time1) || !narrow_.fits(time2))) [[unlikely]]
      widen();
    if (isWide_) [[unlikely]]
      wide_.update(position1, time1, position2, time2);
    else
      narrow_.update(position1, time1, position2, time2);
  }
  // Removes the last position.
  void removeLast() { isWide_ ? wide_.removeLast() : narrow_.removeLast(); }

 private:
  __extension__ using Wide = unsigned __int128;
  static constexpr unsigned kWideBits = 64;

  void widen() {
    wide_.build(narrow_.count(), 0, kWideBits, [this](size_t i) { return narrow_.time(i); });
    isWide_ = true;
  }

  KLT_Tournament<uint64_t> narrow_;
  KLT_Tournament<Wide> wide_;
  bool isWide_ = false;
};

// The next records of all streams up to some time, in order of delivery. A slice ends before the
// last record in any lane, so that no stream has to be filled or removed while the slice is
// delivered.
class KLT_Slice {
 public:
  static constexpr size_t kNone = ~size_t{0};

  // A record and the position of its stream; a null record if there is none.
  struct Record {
    size_t position = kNone;
    uint8_t* record = nullptr;
  };

  // Collects the records of the next slice from the lanes. False, with the lanes unchanged, if a
  // slice wouldn't save time or isn't possible; then the caller serves a turn by the tournament.
  // REQUIRES: all records of the previous slice have been delivered.
  [[nodiscard]] bool gather(std::span<KLT_Lane> lanes) {
    return lanes.size() >= minStreams_ && isDue(lanes) && gatherNow(lanes);
  }

  // The next record in order. After delivery the caller passes its end to delivered().
  [[nodiscard, gnu::always_inline]] Record next() {
    for (; at_ != count_; ++at_) {
      const Entry& entry = entries_[at_];
      if (isDelivered(entry)) [[unlikely]]
        continue;
      const size_t position = positionOf(entry);
      if (phase_ == Phase::kSecond && entry.key != secondKey_) phase_ = Phase::kBegin;
      if (phase_ == Phase::kBegin) {
        phase_ = Phase::kBest;
        best_ = position;
      } else if (phase_ == Phase::kBest && position != best_) {
        // The best stream's records at the time of the runner-up come first.
        if (KLT_RecordTime(afterBest_) - start_ == entry.key >> positionBits_) [[unlikely]] {
          early_ = best_;
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
  void delivered(uint8_t* end) {
    if (phase_ != Phase::kBest) return;
    afterBest_ = end;
    if (early_ == best_) [[unlikely]]
      earlyEnd_ = afterBest_;
  }
  // Ends the current turn, because a handler has stopped the reader or the tournament serves the
  // runner-up.
  void endTurn() { phase_ = Phase::kBegin; }
  [[nodiscard]] bool empty() const { return at_ == count_; }

  // The position of the best stream of a turn that continues after the slice, or kNone.
  [[nodiscard]] size_t running() const { return phase_ == Phase::kBest ? best_ : kNone; }

  // Calls visit(position, record) for each record that hasn't been delivered.
  template <class Visit>
  void eachWaiting(Visit visit) const {
    for (size_t i = at_; i < count_; ++i) {
      if (!isDelivered(entries_[i])) visit(positionOf(entries_[i]), entries_[i].record);
    }
  }

 private:
  struct Entry {
    uint64_t key;  // upper bits: time since the slice's start, lower bits: position of the stream
    uint8_t* record;
  };
  // The phase of a turn: before it, serving the best stream, serving the runner-up.
  enum class Phase : uint8_t { kBegin, kBest, kSecond };

  [[nodiscard]] size_t positionOf(const Entry& entry) const {
    return static_cast<size_t>(entry.key & ((uint64_t{1} << positionBits_) - 1));
  }
  // Whether the record has been delivered early, before other records of its time.
  [[nodiscard]] bool isDelivered(const Entry& entry) const {
    return positionOf(entry) == early_ && entry.record < earlyEnd_;
  }
  // The result of collect().
  struct Collected {
    bool complete = false;
    size_t sources = 0;  // streams with records in the slice
    size_t bytes = 0;
  };
  // With up to 256 streams slices don't change the time of a decoding pass; with 512 it takes 0.85
  // of the time.
  static constexpr size_t kManyStreams = 256;

  [[nodiscard]] bool isDue(std::span<const KLT_Lane> lanes);
  [[nodiscard]] bool gatherNow(std::span<KLT_Lane> lanes);
  [[nodiscard]] Collected collect(std::span<KLT_Lane> lanes, uint64_t end);
  void adaptWidth(size_t wanted, size_t collected);
  void sort(uint64_t span);

  std::vector<Entry> entries_;
  std::vector<Entry> sorted_;    // output of a pass of the sort
  std::vector<uint8_t> copies_;  // copies of the records, stream by stream
  size_t at_ = 0;
  size_t count_ = 0;
  uint64_t start_ = 0;
  unsigned positionBits_ = 0;

  Phase phase_ = Phase::kBegin;
  size_t best_ = kNone;
  uint8_t* afterBest_ = nullptr;  // next record of the best stream
  uint64_t secondKey_ = 0;        // of the runner-up's records
  // The stream whose records before `earlyEnd_` have been delivered early.
  size_t early_ = kNone;
  const uint8_t* earlyEnd_ = nullptr;

  // With fewer streams no slices are collected.
  size_t minStreams_ = PAL_fast == PAL_Fast::kNever    ? kNone
                       : PAL_fast == PAL_Fast::kAlways ? 1
                                                       : kManyStreams;
  uint64_t width_ = 1;      // of a slice, in raw time
  size_t blocker_ = kNone;  // the stream that must be filled before the next slice
  uint64_t blockedAt_ = 0;  // time of the last record of that stream
  int64_t credit_ = 0;      // see isDue()
};
