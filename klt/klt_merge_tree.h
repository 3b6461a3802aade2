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

class KLT_MergeTree {
 public:
  static constexpr size_t kNone = ~size_t{0};

  // A tree over `times`, one leaf for each.
  void build(const std::vector<uint64_t>& times) {
    std::vector<Entry> entries;
    entries.reserve(times.size());
    for (const uint64_t time : times) entries.push_back(entry(entries.size(), time));
    plant(entries);
  }

  // The position with the lowest time; kNone if none is left.
  [[nodiscard]] size_t best() const { return positionOf(nodes_[1]); }
  // The position with the lowest time but for `best`, or kNone.
  [[nodiscard]] size_t second(size_t best) const {
    Entry found = kNobody;
    for (size_t node = leaves_ + best; node > 1; node /= 2) {
      found = earlier(found, nodes_[node ^ 1]);
    }
    return positionOf(found);
  }
  [[nodiscard]] uint64_t time(size_t position) const {
    return static_cast<uint64_t>(nodes_[leaves_ + position] >> 64);
  }

  void update(size_t position, uint64_t time) { replay(position, entry(position, time)); }
  // Two updates, of different positions. Games that concern both are played once.
  void update(size_t position1, uint64_t time1, size_t position2, uint64_t time2) {
    Entry winner1 = entry(position1, time1);
    Entry winner2 = entry(position2, time2);
    size_t node1 = leaves_ + position1;
    size_t node2 = leaves_ + position2;
    nodes_[node1] = winner1;
    nodes_[node2] = winner2;
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
  // Takes the last position out, which then has no time.
  void removeLast() {
    replay(--count_, kNobody);
    if (2 * count_ > leaves_ || count_ == 0) return;
    const auto first = nodes_.begin() + static_cast<std::ptrdiff_t>(leaves_);
    plant(std::vector<Entry>(first, first + static_cast<std::ptrdiff_t>(count_)));
  }

 private:
  // Time and position as one number, so that a game is decided without a branch: which stream comes
  // next can't be predicted.
  __extension__ using Entry = unsigned __int128;
  static constexpr Entry kNobody = ~Entry{0};

  static Entry entry(size_t position, uint64_t time) { return Entry{time} << 64 | position; }
  static size_t positionOf(Entry entry) { return static_cast<size_t>(entry); }
  static Entry earlier(Entry a, Entry b) { return b < a ? b : a; }

  void plant(const std::vector<Entry>& entries) {
    leaves_ = count_ = entries.size();
    deep_ = std::bit_ceil(leaves_);
    nodes_.assign(2 * std::max<size_t>(leaves_, 1), kNobody);
    std::copy(entries.begin(), entries.end(),
              nodes_.begin() + static_cast<std::ptrdiff_t>(leaves_));
    for (size_t node = leaves_; node-- > 1;) {
      nodes_[node] = earlier(nodes_[2 * node], nodes_[2 * node + 1]);
    }
  }
  // The game of `node`, where `winner` came from below, and its neighbour. Returns the node above.
  size_t play(size_t node, Entry& winner) {
    winner = earlier(winner, nodes_[node ^ 1]);
    nodes_[node / 2] = winner;
    return node / 2;
  }
  void replay(size_t position, Entry winner) {
    size_t node = leaves_ + position;
    nodes_[node] = winner;
    while (node > 1) node = play(node, winner);
  }

  // The winner of each game: of node n, that of 2n against 2n + 1. Leaves follow from `leaves_` on,
  // whatever their number, so the tree is no deeper than it must be.
  std::vector<Entry> nodes_ = std::vector<Entry>(2, kNobody);
  size_t leaves_ = 0;
  size_t count_ = 0;
  size_t deep_ = 1;  // leaves from here on lie a level below the others
};
