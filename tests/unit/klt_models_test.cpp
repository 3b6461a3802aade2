// The order in which streams are served, and open scopes, against plain searches through lists.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "klt/read/klt_order.h"
#include "klt/stream/klt_scopes.h"

namespace {

// The earliest position with the lowest time, but for `without`.
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
    // Ties are the rule, also at the end of time. Some streams start at any moment or step there.
    const uint64_t start = streams % 3 == 0 ? ~uint64_t{0} - 3 : 100;
    std::vector<uint64_t> times(streams);
    for (uint64_t& time : times) time = streams % 5 == 0 ? random() : start + random() % 4;
    const auto step = [&](size_t i) {
      const bool isWild = streams % 4 == 0 && random() % 16 == 0;
      return times[i] = isWild ? random() >> random() % 64 : times[i] + random() % 3;
    };
    tree.build(streams, [&](size_t i) { return times[i]; });
    while (tree.best() != KLT_MergeTree::kNone || !times.empty()) {
      ASSERT_EQ(tree.best(), lowest(times));
      for (size_t i = 0; i < times.size(); ++i) {  // the runner-up of whichever was served
        const KLT_NextStream second = tree.second(i);
        ASSERT_EQ(second.position, lowest(times, i));
        ASSERT_TRUE(times.size() == 1 || second.time == times[second.position]);
      }
      const size_t changed = random() % 3 == 0 ? random() % times.size() : lowest(times);
      const size_t other = random() % times.size();
      if (random() % 4 == 0) {  // a stream ends: the last one takes its place
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

// Enters and leaves at random, towards many open scopes and back to none, again and again.
TEST(KltOpenScopes, LeaveTheOldestOfAKeyAsAListDoes) {
  std::mt19937 random(1);
  KLT_OpenScopes scopes;
  for (const auto& [size, keys] : {std::pair{8U, 2U}, {40U, 1U}, {200U, 2U}, {200U, 8U}}) {
    std::vector<KLT_OpenScope> list;
    bool growing = true;
    for (uint64_t time = 0; time < 8 * size; ++time) {
      growing = list.empty() || (growing && list.size() < size);
      const KLT_OpenScope s{time, uint32_t(random() % keys), uint32_t(random() % keys)};
      if (random() % 8 < (growing ? 6U : 2U)) {
        scopes.enter(s.time, s.scope, s.seqnr);
        list.push_back(s);
      } else {
        const auto oldest = std::find_if(list.begin(), list.end(), [&](const auto& entry) {
          return entry.scope == s.scope && entry.seqnr == s.seqnr;
        });
        ASSERT_EQ(scopes.leave(s.scope, s.seqnr), oldest != list.end());
        if (oldest != list.end()) list.erase(oldest);
      }
      std::vector<uint64_t> times;
      scopes.each([&](const KLT_OpenScope& entry) { times.push_back(entry.time); });
      ASSERT_TRUE(std::equal(list.begin(), list.end(), times.begin(), times.end(),
                             [](const auto& entry, uint64_t t) { return entry.time == t; }));
      ASSERT_EQ(scopes.empty(), list.empty());
    }
    scopes.clear();
  }
}

}  // namespace
