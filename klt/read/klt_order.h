// The order in which the records of many streams are delivered.
//
// The rule: streams take turns. A turn serves the stream with the lowest next time for all its
// records up to the next time of the runner-up, inclusive, and then the runner-up for its records
// of that time. Of equal times the earlier position in the list of streams wins. A stream that ends
// leaves its position to the last one.
//
// A tournament over the positions (KLT_MergeTree) finds the two streams of a turn. With hundreds of
// streams the next record is nearly always another stream's, and the tournament waits for memory at
// each. There the records of all streams up to a near time are gathered stream by stream
// (KLT_Slice), sorted, and handed out in the same order: a dump of 4,096 streams takes 0.58
// of the time.
#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "klt/format/klt_record.h"

struct KLT_Stream;

// A stream as delivery in time order sees it: the records that are next. All that most deliveries
// touch of a stream is in here.
struct alignas(64) KLT_Lane {
  uint8_t* next = nullptr;
  uint8_t* end = nullptr;
  uint64_t nextTime = 0;
  uint64_t lastTime = 0;           // of the last record before `end`
  uint8_t* beforeSlice = nullptr;  // `next` before the last slice was gathered
  KLT_Stream* stream = nullptr;
  bool isFilled = false;  // the stream has been filled, and its records aren't in here yet
};

// A stream and its time.
struct KLT_NextStream {
  size_t position;
  uint64_t time;
};

// A tournament of keys that hold a time above a position, so that the lower key comes first and a
// game is decided without a branch: which stream is next can't be predicted (a dump takes 0.93 of
// the time). 64 bits hold the time since `start` in most traces (0.94, with 4,096 streams); 128
// hold any time.
template <class Key>
class KLT_Tournament {
 public:
  static constexpr size_t kNone = ~size_t{0};

  // A new tournament of `count` positions with the times timeOf(position). REQUIRES: fits() for
  // each of them.
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
    // Two independent chains over the losers to `best`, which the processor runs side by side.
    Key one = kNoKey;
    Key other = kNoKey;
    size_t node = leaves_ + best;
    for (; node > 3; node /= 4) {
      one = earlier(one, nodes_[node ^ 1]);
      other = earlier(other, nodes_[(node / 2) ^ 1]);
    }
    if (node > 1) one = earlier(one, nodes_[node ^ 1]);
    const Key key = earlier(one, other);
    return {positionOf(key), timeOf(key)};
  }
  [[nodiscard]] uint64_t time(size_t position) const { return timeOf(nodes_[leaves_ + position]); }
  [[nodiscard]] size_t count() const { return count_; }

  void update(size_t position, uint64_t time) { replay(position, key(position, time)); }
  // Two updates, of different positions. Games that concern both are played once.
  [[gnu::always_inline]] void update(size_t position1, uint64_t time1, size_t position2,
                                     uint64_t time2) {
    Key winner1 = key(position1, time1);
    Key winner2 = key(position2, time2);
    size_t node1 = leaves_ + position1;
    size_t node2 = leaves_ + position2;
    nodes_[node1] = winner1;
    nodes_[node2] = winner2;
    // Paths of different depth wouldn't meet, and both would be followed to the root.
    const bool deep1 = node1 >= deep_;
    const bool deep2 = node2 >= deep_;
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

  // How many steps from `start` fit: neither a key nor a time goes past 64 bits. A time ahead of
  // `start` is further from it than that. (Wide keys, with 64 bits for positions, hold all times.)
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

  // keyOf(i) may read leaves after the new one of i.
  template <class KeyOf>
  void setLeaves(size_t count, const KeyOf& keyOf) {
    leaves_ = count_ = count;
    deep_ = std::bit_ceil(count);
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
  // The game of `node`, which `winner` has reached, and its neighbour. Returns the node above.
  size_t play(size_t node, Key& winner) {
    winner = earlier(winner, nodes_[node ^ 1]);
    nodes_[node / 2] = winner;
    return node / 2;
  }

  // The winner of each game: of node n, that of 2n against 2n + 1. Leaves follow from `leaves_` on,
  // whatever their number, so the tree is no deeper than it must be.
  std::vector<Key> nodes_ = std::vector<Key>(2, kNoKey);
  size_t leaves_ = 0;
  size_t count_ = 0;
  size_t deep_ = 1;  // leaves from here on lie a level below the others
  uint64_t start_ = 0;
  unsigned positionBits_ = 1;
  Key positionMask_ = 1;
  uint64_t steps_ = 0;
};

// The stream with the lowest time among many. A change of one time costs log2(streams) comparisons,
// and so does the question for the runner-up.
class KLT_MergeTree {
 public:
  static constexpr size_t kNone = ~size_t{0};

  // A tree over `count` positions with the times timeOf(position).
  template <class TimeOf>
  void build(size_t count, const TimeOf& timeOf) {
    const auto bits = static_cast<unsigned>(std::bit_width(count));
    uint64_t earliest = ~uint64_t{0};
    uint64_t latest = 0;
    for (size_t i = 0; i < count; ++i) {
      earliest = std::min<uint64_t>(earliest, timeOf(i));
      latest = std::max<uint64_t>(latest, timeOf(i));
    }
    isWide_ = !KLT_Tournament<uint64_t>::fits(latest, earliest, bits);
    if (isWide_)
      wide_.build(count, 0, kWideBits, timeOf);
    else
      narrow_.build(count, earliest, bits, timeOf);
  }

  // The position with the lowest time; kNone if none is left.
  [[nodiscard]] size_t best() const { return isWide_ ? wide_.best() : narrow_.best(); }
  // The position with the lowest time but for `best`, with that time, or kNone.
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
  // Two updates, of different positions.
  [[gnu::always_inline]] void update(size_t position1, uint64_t time1, size_t position2,
                                     uint64_t time2) {
    if (!isWide_ && (!narrow_.fits(time1) || !narrow_.fits(time2))) [[unlikely]]
      widen();
    if (isWide_) [[unlikely]]
      wide_.update(position1, time1, position2, time2);
    else
      narrow_.update(position1, time1, position2, time2);
  }
  // Takes the last position out, which then has no time.
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

// The records of all streams up to a near time, in order. A slice ends before any stream runs out
// of records, so that no stream is filled, and none leaves, while it lasts.
class KLT_Slice {
 public:
  static constexpr size_t kNone = ~size_t{0};

  // A record and the position of its stream; a null record if there is none.
  struct Record {
    size_t position = kNone;
    uint8_t* record = nullptr;
  };

  // Gathers a slice wherever there is anything to gather, however few the streams: for tests.
  void forceSlices() { fewestStreams_ = 1; }

  // Takes the records of the next slice out of the lanes. False, with the lanes as they were, if it
  // wouldn't pay or too much happens at one time: then the tournament serves a turn. REQUIRES: the
  // slice before is used up.
  [[nodiscard]] bool gather(std::span<KLT_Lane> lanes) {
    return lanes.size() >= fewestStreams_ && isDue(lanes) && gatherNow(lanes);
  }

  // The next record in order. The caller passes its end to `delivered`.
  [[nodiscard, gnu::always_inline]] Record next() {
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
  void delivered(uint8_t* end) {
    if (phase_ != Phase::kBest) return;
    afterBest_ = end;
    if (ahead_ == best_) [[unlikely]]
      aheadEnd_ = afterBest_;
  }
  // The turn of the stream that is being served is over: a handler has stopped the reader, or the
  // tournament serves the runner-up.
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
  // With 256 streams and fewer a decode pass takes the same time with slices and without, with 512
  // it takes 0.85 of it.
  static constexpr size_t kManyStreams = 256;

  [[nodiscard]] bool isDue(std::span<const KLT_Lane> lanes);
  [[nodiscard]] bool gatherNow(std::span<KLT_Lane> lanes);
  [[nodiscard]] Collected collect(std::span<KLT_Lane> lanes, uint64_t end);
  void adaptWidth(size_t wanted, size_t gathered);
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

  size_t fewestStreams_ = kManyStreams;  // with which slices are gathered
  uint64_t width_ = 1;                   // of a slice, in time
  size_t blocker_ = kNone;               // the stream that must be filled first, with its last time
  uint64_t blockedAt_ = 0;
  int64_t credit_ = 0;  // records delivered that no look at all streams has been set against
};
