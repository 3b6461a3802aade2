// Picks the stream with the lowest time among many: a tournament over stream positions.
//
// Of equal times the earlier position wins. A change of one time costs log2(streams) comparisons,
// and so does the question for the runner-up.
#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <vector>

// A stream and its time.
struct KLT_NextStream {
  size_t position;
  uint64_t time;
};

// A tournament of numbers that hold a time above a position, so that a game is decided without a
// branch: which stream comes next can't be predicted. 64 bits hold the time since `start` in most
// traces and take half the time of 128, which hold any time.
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
    plant(count, [&](size_t i) { return key(i, timeOf(i)); });
  }

  [[nodiscard]] static bool fits(uint64_t time, uint64_t start, unsigned positionBits) {
    return time - start < stepsThatFit(start, positionBits);
  }
  [[nodiscard]] bool fits(uint64_t time) const { return time - start_ < steps_; }

  [[nodiscard]] size_t best() const { return positionOf(nodes_[1]); }
  [[nodiscard]] KLT_NextStream second(size_t best) const {
    // The losers to `best` in two lines, for the sake of the processor's pipeline.
    Key one = kNobody;
    Key other = kNobody;
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
    // Paths of different depth wouldn't meet, and both would be walked to the end.
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
    replay(--count_, kNobody);
    if (2 * count_ > leaves_ || count_ == 0) return;
    const size_t first = leaves_;
    plant(count_, [&](size_t i) { return nodes_[first + i]; });
  }

 private:
  static constexpr Key kNobody = ~Key{0};

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
    if (key == kNobody) return kNone;
    return static_cast<size_t>(key & positionMask_);
  }

  [[nodiscard]] uint64_t timeOf(Key key) const {
    return start_ + static_cast<uint64_t>(key >> positionBits_);
  }

  // keyOf(i) may look at leaves that stand behind the new one of i.
  template <class KeyOf>
  void plant(size_t count, const KeyOf& keyOf) {
    leaves_ = count_ = count;
    deep_ = std::bit_ceil(count);
    if (nodes_.size() < 2 * count) nodes_.resize(2 * count);
    nodes_[1] = kNobody;
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
  // The game of `node`, where `winner` came from below, and its neighbour. Returns the node above.
  size_t play(size_t node, Key& winner) {
    winner = earlier(winner, nodes_[node ^ 1]);
    nodes_[node / 2] = winner;
    return node / 2;
  }

  // The winner of each game: of node n, that of 2n against 2n + 1. Leaves follow from `leaves_` on,
  // whatever their number, so the tree is no deeper than it must be.
  std::vector<Key> nodes_ = std::vector<Key>(2, kNobody);
  size_t leaves_ = 0;
  size_t count_ = 0;
  size_t deep_ = 1;  // leaves from here on lie a level below the others
  uint64_t start_ = 0;
  unsigned positionBits_ = 1;
  Key positionMask_ = 1;
  uint64_t steps_ = 0;
};

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
