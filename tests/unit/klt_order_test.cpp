// Compares the order of streams with a linear search.
#include "klt/read/klt_order.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

namespace {

// The first position with the lowest time, except `without`.
size_t lowest(const std::vector<uint64_t>& times, size_t without = KLT_MergeTree::kNone) {
  size_t best = KLT_MergeTree::kNone;
  for (size_t i = 0; i < times.size(); ++i) {
    if (i != without && (best > i || times[i] < times[best])) best = i;
  }
  return best;
}

TEST(KltMergeTree, AgreesWithASearchThroughChangesAndRemovals) {
  std::mt19937_64 random(7);
  KLT_MergeTree tree;
  for (size_t streams = 0; streams <= 40; ++streams) {
    // Many times are equal, also near the largest time. Some streams start at or step to any time.
    const uint64_t start = streams % 3 == 0 ? ~uint64_t{0} - 3 : 100;
    std::vector<uint64_t> times(streams);
    for (uint64_t& time : times) time = streams % 5 == 0 ? random() : start + random() % 4;
    const auto step = [&](size_t i) {
      const bool isAnyTime = streams % 4 == 0 && random() % 16 == 0;
      return times[i] = isAnyTime ? random() >> random() % 64 : times[i] + random() % 3;
    };
    tree.build(streams, [&](size_t i) { return times[i]; });
    while (tree.best() != KLT_MergeTree::kNone || !times.empty()) {
      ASSERT_EQ(tree.best(), lowest(times));
      for (size_t i = 0; i < times.size(); ++i) {  // the runner-up to any stream
        const KLT_NextStream second = tree.second(i);
        ASSERT_EQ(second.position, lowest(times, i));
        ASSERT_TRUE(times.size() == 1 || second.time == times[second.position]);
      }
      const size_t changed = random() % 3 == 0 ? random() % times.size() : lowest(times);
      const size_t other = random() % times.size();
      if (random() % 4 == 0) {  // a stream ends: the last one moves to its position
        times[changed] = times.back();
        tree.update(changed, times.back());
        tree.removeLast();
        times.pop_back();
      } else if (other != changed && random() % 2 == 0) {
        tree.update(changed, step(changed), other, step(other));
      } else {
        tree.update(changed, step(changed));
      }
    }
  }
}

}  // namespace
