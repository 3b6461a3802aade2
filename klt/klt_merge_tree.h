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
    times_ = times;
    winner_.assign(2 * leaves_, kNoLeaf);
    for (uint32_t i = 0; i < times.size(); ++i) winner_[leaves_ + i] = i;
    for (size_t node = leaves_ - 1; node >= 1; --node) play(node);
  }

  // The position with the lowest time; kNone if none is left.
  [[nodiscard]] size_t best() const {
    const uint32_t leaf = winner_[1];
    return leaf == kNoLeaf ? kNone : leaf;
  }
  // The position with the lowest time but for `best`, or kNone.
  [[nodiscard]] size_t second(size_t best) const {
    uint32_t found = kNoLeaf;
    for (size_t node = leaves_ + best; node > 1; node /= 2)
      found = better(found, winner_[node ^ 1]);
    return found == kNoLeaf ? kNone : found;
  }
  [[nodiscard]] uint64_t time(size_t position) const { return times_[position]; }

  void update(size_t position, uint64_t time) {
    times_[position] = time;
    replay(position);
  }
  // Takes the last position out, which then has no time.
  void removeLast() {
    const size_t last = times_.size() - 1;
    winner_[leaves_ + last] = kNoLeaf;
    replay(last);
    times_.pop_back();
  }

 private:
  static constexpr uint32_t kNoLeaf = ~uint32_t{0};

  [[nodiscard]] uint32_t better(uint32_t a, uint32_t b) const {
    if (a == kNoLeaf) return b;
    if (b == kNoLeaf) return a;
    if (times_[a] != times_[b]) return times_[a] < times_[b] ? a : b;
    return a < b ? a : b;
  }
  void play(size_t node) { winner_[node] = better(winner_[2 * node], winner_[2 * node + 1]); }
  void replay(size_t position) {
    for (size_t node = (leaves_ + position) / 2; node >= 1; node /= 2) play(node);
  }

  std::vector<uint64_t> times_;
  std::vector<uint32_t> winner_;  // by node; leaves from `leaves_` on
  size_t leaves_ = 1;
};
