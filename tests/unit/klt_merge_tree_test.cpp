// The order in which streams are served, against a plain search.
#include "klt/klt_merge_tree.h"

#include <gtest/gtest.h>

#include <random>
#include <set>
#include <utility>
#include <vector>

namespace {

constexpr size_t kNone = KLT_MergeTree::kNone;

// The earliest position with the lowest time, but for `without`.
size_t lowest(const std::vector<uint64_t>& times, size_t without = kNone) {
  size_t best = kNone;
  for (size_t i = 0; i < times.size(); ++i) {
    if (i != without && (best == kNone || times[i] < times[best])) best = i;
  }
  return best;
}

void build(KLT_MergeTree& tree, const std::vector<uint64_t>& times) {
  tree.build(times.size(), [&](size_t i) { return times[i]; });
}

TEST(KltMergeTree, AgreesWithASearchThroughChangesAndRemovals) {
  std::mt19937_64 random(7);
  for (size_t streams = 1; streams <= 40; ++streams) {
    // Steps on; at times one to any moment, ahead of the first one or far behind it.
    const auto step = [&](uint64_t& time) {
      if (streams % 4 == 0 && random() % 16 == 0)
        time = random() >> random() % 64;
      else
        time += random() % 3;
    };
    std::vector<uint64_t> times(streams);
    const uint64_t start = streams % 3 == 0 ? ~uint64_t{0} - 9 : 100;  // some pass the end of time
    for (uint64_t& time : times) time = start + random() % 4;          // ties are the rule
    KLT_MergeTree tree;
    build(tree, times);
    while (!times.empty()) {
      const size_t best = lowest(times);
      ASSERT_EQ(tree.best(), best);
      const size_t second = tree.second(best).position;
      ASSERT_EQ(second, lowest(times, best));
      ASSERT_TRUE(second == kNone || tree.second(best).time == times[second]);
      for (size_t i = 0; i < times.size(); ++i) {  // the runner-up of whichever was served
        ASSERT_EQ(tree.second(i).position, lowest(times, i));
      }
      const size_t changed = random() % 3 == 0 ? random() % times.size() : best;
      if (random() % 4 == 0) {  // a stream ends: the last one takes its place
        std::swap(times[changed], times.back());
        times.pop_back();
        if (changed < times.size()) tree.update(changed, times[changed]);
        tree.removeLast();
      } else if (const size_t other = random() % times.size(); other != changed) {
        step(times[changed]);
        step(times[other]);
        tree.update(changed, times[changed], other, times[other]);
      } else {
        step(times[changed]);
        tree.update(changed, times[changed]);
      }
    }
    EXPECT_EQ(tree.best(), kNone);
  }
}

// A number that counts the games of a tournament.
struct CountingKey {
  uint64_t bits;
  static inline size_t games = 0;

  constexpr CountingKey(uint64_t value = 0) : bits(value) {}  // implicit, as of numbers
  constexpr explicit operator uint64_t() const { return bits; }
  constexpr CountingKey operator~() const { return ~bits; }
  constexpr CountingKey operator<<(unsigned by) const { return bits << by; }
  constexpr CountingKey operator>>(unsigned by) const { return bits >> by; }
  constexpr CountingKey operator|(CountingKey other) const { return bits | other.bits; }
  constexpr CountingKey operator&(CountingKey other) const { return bits & other.bits; }
  constexpr CountingKey operator-(CountingKey other) const { return bits - other.bits; }
  constexpr bool operator==(const CountingKey&) const = default;
  bool operator<(CountingKey other) const {
    ++games;
    return bits < other.bits;
  }
};

// Leaves of both depths included, which a number of streams between powers of two has.
TEST(KltMergeTree, GamesOfTwoChangesArePlayedOnce) {
  for (size_t streams = 2; streams <= 20; ++streams) {
    KLT_Tournament<CountingKey> tournament;
    tournament.build(streams, 0, 8, [](size_t) { return 5; });
    for (size_t a = 0; a < streams; ++a) {
      for (size_t b = 0; b < streams; ++b) {
        if (a == b) continue;
        std::set<size_t> games;
        for (size_t node : {streams + a, streams + b}) {
          while ((node /= 2) > 0) games.insert(node);
        }
        CountingKey::games = 0;
        tournament.update(a, 6, b, 5);
        EXPECT_EQ(CountingKey::games, games.size()) << a << " and " << b << " of " << streams;
      }
    }
  }
}

TEST(KltMergeTree, CanBeEmptyAndBuiltAgain) {
  KLT_MergeTree tree;
  build(tree, {});
  EXPECT_EQ(tree.best(), kNone);
  build(tree, {5, ~uint64_t{0}, 5});
  EXPECT_EQ(tree.best(), 0U);
  EXPECT_EQ(tree.second(0).position, 2U);
  build(tree, {~uint64_t{0}});
  EXPECT_EQ(tree.best(), 0U);  // the last moment of time is a time, too
  EXPECT_EQ(tree.second(0).position, kNone);
}

}  // namespace
