// Picks the stream with the lowest time among many: a tournament over stream positions.
//
// Of equal times the earlier position wins. A change of one time costs log2(streams) comparisons,
// and so does the question for the runner-up.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

class KLT_MergeTree {
 public:
  static constexpr size_t kNone = ~size_t{0};

  // A tree over `times`, one leaf for each.
  void build(const std::vector<uint64_t>& times) {
    leaves_ = 1;
    while (leaves_ < times.size()) leaves_ *= 2;
    count_ = times.size();
    nodes_.assign(2 * leaves_, kNobody);
    for (size_t i = 0; i < times.size(); ++i) nodes_[leaves_ + i] = entry(i, times[i]);
    for (size_t node = leaves_ - 1; node >= 1; --node) {
      nodes_[node] = earlier(nodes_[2 * node], nodes_[2 * node + 1]);
    }
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
  // Takes the last position out, which then has no time.
  void removeLast() { replay(--count_, kNobody); }

 private:
  // Time and position as one number, so that a game is decided without a branch: which stream comes
  // next can't be predicted.
  __extension__ using Entry = unsigned __int128;
  static constexpr Entry kNobody = ~Entry{0};

  static Entry entry(size_t position, uint64_t time) { return Entry{time} << 64 | position; }
  static size_t positionOf(Entry entry) { return static_cast<size_t>(entry); }
  static Entry earlier(Entry a, Entry b) { return b < a ? b : a; }
  void replay(size_t position, Entry winner) {
    nodes_[leaves_ + position] = winner;
    for (size_t node = leaves_ + position; node > 1; node /= 2) {
      winner = earlier(winner, nodes_[node ^ 1]);
      nodes_[node / 2] = winner;
    }
  }

  std::vector<Entry> nodes_;  // the winner of each game; leaves from `leaves_` on
  size_t leaves_ = 1;
  size_t count_ = 0;
};
