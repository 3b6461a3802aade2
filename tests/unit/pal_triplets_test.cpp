// Triplet lists against brute force: every operation is compared with std::set arithmetic on small
// random lists, and shown to be immediate on lists that stand for billions of numbers.
#include "util/pal_triplets.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <ctime>
#include <iterator>
#include <random>
#include <set>
#include <string>
#include <utility>

#include "util/pal_error.h"

static std::ostream& operator<<(std::ostream& out, const PAL_Triplet& t) {
  return out << t.first << ':' << t.last << ':' << t.stride;
}

namespace {

using Set = std::set<int32_t>;

// Collects the messages of a test.
class PalTripletsTest : public testing::Test {
 protected:
  PalTripletsTest() : saved_(PAL_messages) {
    messages_.clear();
    PAL_messages.logCallback = [](void*, const char* text, size_t length) {
      messages_.append(text, length);
    };
  }
  ~PalTripletsTest() override { PAL_messages = saved_; }

  static size_t messagesWith(const std::string& text) {
    size_t count = 0;
    for (size_t at = 0; (at = messages_.find(text, at)) != std::string::npos; at++) count++;
    return count;
  }

 private:
  PAL_MessageSettings saved_;
  static inline std::string messages_;
};

Set numbersOf(const PAL_Triplets& list) {
  Set numbers;
  for (const PAL_Triplet& t : list) {
    if (t.stride == 0) continue;
    for (int64_t v = t.first; t.stride > 0 ? v <= t.last : v >= t.last; v += t.stride) {
      numbers.insert(static_cast<int32_t>(v));
    }
  }
  return numbers;
}

// The greedy rule in its plainest form, on ascending numbers.
PAL_Triplets greedy(const Set& set) {
  const std::vector<int32_t> v(set.begin(), set.end());
  PAL_Triplets result;
  for (size_t i = 0; i < v.size();) {
    if (i + 1 == v.size()) {
      result.push_back({v[i], v[i], 1});
      break;
    }
    const int32_t stride = v[i + 1] - v[i];
    size_t end = i + 1;
    while (end + 1 < v.size() && v[end + 1] - v[end] == stride) end++;
    result.push_back({v[i], v[end], stride});
    i = end + 1;
  }
  return result;
}

template <class Algorithm>
Set apply(Algorithm algorithm, const Set& a, const Set& b) {
  Set result;
  algorithm(a.begin(), a.end(), b.begin(), b.end(), std::inserter(result, result.end()));
  return result;
}

#define SET_ALGORITHM(name) [](auto... arguments) { return std::name(arguments...); }

TEST_F(PalTripletsTest, ParsesOneToThreePieces) {
  struct Case {
    const char* text;
    int result;
    PAL_Triplet triplet;
  };
  const Case cases[] = {
      {"5", 1, {5, 5, 1}},
      {" \t2:N", 1, {2, 9, 1}},
      {"n:N:n", 1, {9, 9, 9}},
      {"0:10:2 77", 1, {0, 10, 2}},
      {"1:2:3:4", 1, {1, 2, 3}},
      {":::1::2", 1, {1, 2, 1}},
      {"4294967295:2147483648", 1, {-1, INT32_MIN, 1}},
      {"1:-2", 0, {1, 1, 1}},
      {"1:2:x", 0, {1, 2, 1}},
      {"4294967296", 0, {-7, -7, -7}},
      {"99999999999999999999999999", 0, {-7, -7, -7}},
      {"NN", 0, {-7, -7, -7}},
      {"", 0, {-7, -7, -7}},
      {" : ", 0, {-7, -7, -7}},
  };
  for (const Case& c : cases) {
    PAL_Triplet t{-7, -7, -7};
    EXPECT_EQ(PAL_TripletParse(c.text, 9, &t.first, &t.last, &t.stride), c.result) << c.text;
    EXPECT_EQ(t, c.triplet) << c.text;
  }
  int32_t unused = 0;
  EXPECT_EQ(PAL_TripletParse(nullptr, 9, &unused, &unused, &unused), 0);
  EXPECT_EQ(PAL_TripletParse("1", 9, &unused, nullptr, &unused), 0);
}

TEST_F(PalTripletsTest, ParsesAtMost191Characters) {
  const std::string zeros(185, '0');
  PAL_Triplet t{};
  EXPECT_EQ(PAL_TripletParse((zeros + "12:345").c_str(), 0, &t.first, &t.last, &t.stride), 1);
  EXPECT_EQ(t, (PAL_Triplet{12, 345, 1}));
  EXPECT_EQ(PAL_TripletParse((zeros + "12:3456").c_str(), 0, &t.first, &t.last, &t.stride), 1);
  EXPECT_EQ(t, (PAL_Triplet{12, 345, 1}));
}

TEST_F(PalTripletsTest, CountsAndExpandsInListOrder) {
  EXPECT_EQ(PAL_TripletsExpand(PAL_Triplets{{3, 1, -1}, {0, 10, 3}, {5, 5, -1}, {3, 3, 7}}),
            (std::vector<int32_t>{3, 2, 1, 0, 3, 6, 9, 5, 3}));
  EXPECT_EQ(
      PAL_TripletsExpand(PAL_Triplets{{INT32_MAX - 1, INT32_MAX, 1},
                                      {0, INT32_MIN, INT32_MIN},
                                      {INT32_MIN, INT32_MAX, INT32_MAX}}),
      (std::vector<int32_t>{INT32_MAX - 1, INT32_MAX, 0, INT32_MIN, INT32_MIN, -1, INT32_MAX - 1}));
  EXPECT_EQ(messagesWith("\n"), 0U);
  EXPECT_EQ(PAL_TripletsExpand(PAL_Triplets{{1, 2, 1}, {8, 9, 0}, {5, 4, -1}}),
            (std::vector<int32_t>{1, 2, 5, 4}));
  EXPECT_EQ(messagesWith("Wrong triplet syntax, stride == 0, ignoring triplet.\n"), 1U);
  EXPECT_EQ(messagesWith("Invalid"), 0U);
}

TEST_F(PalTripletsTest, RefusesToCountOrExpandWhatMakesNoSense) {
  EXPECT_EQ(PAL_TripletsCount(PAL_Triplets{}), 0U);
  EXPECT_EQ(PAL_TripletsCount(PAL_Triplets{{7, 1, 0}, {1, 2, 1}}), 2U);
  EXPECT_EQ(PAL_TripletsCount(PAL_Triplets{{0, INT32_MAX, 1}, {-1, INT32_MIN + 2, -1}}),
            4294967294U);
  EXPECT_EQ(messagesWith("\n"), 0U);
  EXPECT_EQ(PAL_TripletsCount(PAL_Triplets{{0, INT32_MAX, 1}, {-1, INT32_MIN + 1, -1}}), 0U);
  EXPECT_EQ(PAL_TripletsCount(PAL_Triplets{{1, 2, 1}, {3, 1, 1}}), 0U);
  EXPECT_EQ(PAL_TripletsCount(PAL_Triplets{{1, 3, -1}}), 0U);
  EXPECT_EQ(messagesWith("Invalid triplet data.\n"), 3U);
  EXPECT_EQ(PAL_TripletsExpand(PAL_Triplets{{1, 1 << 20, 1}}).size(), size_t{1} << 20);
  EXPECT_EQ(messagesWith("Invalid triplet data.\n"), 3U);
  EXPECT_TRUE(PAL_TripletsExpand(PAL_Triplets{{0, 1 << 20, 1}}).empty());
  EXPECT_EQ(messagesWith("Invalid triplet data.\n"), 4U);
}

TEST_F(PalTripletsTest, CompressesGreedily) {
  struct Case {
    std::vector<int32_t> numbers;
    bool sort;
    PAL_Triplets triplets;
  };
  const Case cases[] = {
      {{}, true, {}},
      {{5}, true, {{5, 5, 1}}},
      {{4, 4, 4}, true, {{4, 4, 1}}},
      {{9, 3, 1, 2, 11, 7, 3}, true, {{1, 3, 1}, {7, 11, 2}}},
      {{1, 3, 4, 5}, true, {{1, 3, 2}, {4, 5, 1}}},
      {{5, 3, 1}, false, {{5, 1, -2}}},
      {{1, 2, 2, 3, 3, 1}, false, {{1, 3, 1}, {1, 1, 1}}},
      {{INT32_MIN, INT32_MAX, 3},
       false,
       {{INT32_MIN, INT32_MIN, 1}, {INT32_MAX, 3, 3 - INT32_MAX}}},
      {{0, INT32_MIN}, false, {{0, INT32_MIN, INT32_MIN}}},
  };
  for (const Case& c : cases) EXPECT_EQ(PAL_TripletsCompress(c.numbers, c.sort), c.triplets);
}

TEST_F(PalTripletsTest, MembershipFollowsStrideAndBounds) {
  const PAL_Triplets list{{0, 10, 3}, {40, 31, -4}, {100, 90, 1}, {90, 100, -1}, {55, 55, 0}};
  const Set expected{0, 3, 6, 9, 32, 36, 40};
  const PAL_TripletSet set(list);
  for (int32_t v = -5; v < 120; v++) {
    EXPECT_EQ(PAL_TripletsContains(list, v), expected.contains(v)) << v;
    EXPECT_EQ(set.contains(v), expected.contains(v)) << v;
  }
  EXPECT_EQ(messagesWith("\n"), 0U);
}

class RandomLists {
 public:
  PAL_Triplets list() {
    PAL_Triplets result(static_cast<size_t>(upTo(9)));
    for (PAL_Triplet& t : result) {
      t.first = base_ + upTo(60);
      t.stride = 1 + upTo(upTo(2) ? 6 : 1);
      t.last = t.first + upTo(40);
      if (upTo(2)) t = {t.last, t.first, -t.stride};
    }
    return result;
  }
  int32_t upTo(int32_t limit) {
    return static_cast<int32_t>(random_() % static_cast<uint32_t>(limit));
  }
  void moveTo(int32_t base) { base_ = base; }

 private:
  std::mt19937 random_{20240611};
  int32_t base_ = 0;
};

TEST_F(PalTripletsTest, AgreesWithSetArithmetic) {
  RandomLists random;
  for (int round = 0; round < 6000; round++) {
    random.moveTo(round % 3 == 0 ? INT32_MIN : round % 3 == 1 ? INT32_MAX - 99 : -30);
    const PAL_Triplets a = random.list();
    const PAL_Triplets b = random.upTo(20) ? random.list() : a;
    const Set x = numbersOf(a);
    const Set y = numbersOf(b);
    SCOPED_TRACE(testing::PrintToString(a) + " and " + testing::PrintToString(b));

    const Set both = apply(SET_ALGORITHM(set_intersection), x, y);
    ASSERT_EQ(PAL_TripletsIntersect(a, b), greedy(both));
    ASSERT_EQ(PAL_TripletsUnite(a, b), greedy(apply(SET_ALGORITHM(set_union), x, y)));
    ASSERT_EQ(PAL_TripletsSubtract(a, b), greedy(apply(SET_ALGORITHM(set_difference), x, y)));
    ASSERT_EQ(PAL_TripletsOverlap(a, b), !both.empty());
    ASSERT_EQ(PAL_TripletsEqual(a, b), x == y);
    ASSERT_EQ(PAL_TripletsSubset(a, b), both == y);

    const std::vector<int32_t> order = PAL_TripletsExpand(a);
    const auto first =
        std::find_if(order.begin(), order.end(), [&](int32_t v) { return y.contains(v); });
    int32_t number = 0;
    ASSERT_EQ(PAL_TripletsFirstCommon(a, b, &number), first != order.end());
    if (first != order.end()) {
      ASSERT_EQ(number, *first);
    }

    const PAL_TripletSet set(b);
    for (const int32_t v : order) ASSERT_EQ(set.contains(v), y.contains(v)) << v;
  }
  EXPECT_EQ(messagesWith("\n"), 0U);
}

TEST_F(PalTripletsTest, EqualityIsThatOfSetsNotOfCounts) {
  EXPECT_FALSE(PAL_TripletsEqual(PAL_Triplets{{1, 1, 1}, {1, 1, 1}}, PAL_Triplets{{1, 2, 1}}));
  EXPECT_TRUE(PAL_TripletsEqual(PAL_Triplets{{1, 1, 1}, {1, 1, 1}}, PAL_Triplets{{1, 1, 9}}));
}

TEST_F(PalTripletsTest, InvertedEntriesEmptyTheOperandThatIsWalked) {
  const PAL_Triplets bad{{1, 5, 1}, {3, 1, 1}};
  const PAL_Triplets good{{2, 9, 1}};
  EXPECT_TRUE(PAL_TripletsIntersect(bad, good).empty());
  EXPECT_EQ(PAL_TripletsUnite(bad, good), good);
  EXPECT_TRUE(PAL_TripletsSubset(good, bad));
  EXPECT_EQ(messagesWith("Invalid triplet data.\n"), 3U);
  EXPECT_EQ(PAL_TripletsIntersect(good, bad), (PAL_Triplets{{2, 5, 1}}));
  EXPECT_EQ(PAL_TripletsSubtract(good, bad), (PAL_Triplets{{6, 9, 1}}));
  EXPECT_EQ(messagesWith("Invalid triplet data.\n"), 3U);
}

TEST_F(PalTripletsTest, HugeListsAreImmediate) {
  const PAL_Triplets positive{{0, INT32_MAX, 1}};
  const PAL_Triplets all{{INT32_MIN, INT32_MAX, 1}};
  const PAL_Triplets even{{INT32_MAX - 1, INT32_MIN, -2}};
  const PAL_Triplets odd{{INT32_MIN + 1, INT32_MAX, 2}};
  const PAL_Triplets far{{0, INT32_MIN, INT32_MIN}};
  const PAL_Triplets few{{5, 9, 4}, {7, 7, 1}};
  for (int round = 0; round < 200; round++) {
    EXPECT_EQ(PAL_TripletsUnite(positive, all), all);
    EXPECT_EQ(PAL_TripletsSubtract(all, positive), (PAL_Triplets{{INT32_MIN, -1, 1}}));
    EXPECT_EQ(PAL_TripletsSubtract(positive, few),
              (PAL_Triplets{{0, 4, 1}, {6, 10, 2}, {11, INT32_MAX, 1}}));
    EXPECT_EQ(PAL_TripletsIntersect(even, positive), (PAL_Triplets{{0, INT32_MAX - 1, 2}}));
    EXPECT_EQ(PAL_TripletsIntersect(even, few), PAL_Triplets{});
    EXPECT_EQ(PAL_TripletsUnite(all, even), all);
    EXPECT_EQ(PAL_TripletsSubtract(even, even), PAL_Triplets{});
    EXPECT_EQ(PAL_TripletsIntersect(far, all),
              (PAL_Triplets{{INT32_MIN, INT32_MIN, 1}, {0, 0, 1}}));
    EXPECT_FALSE(PAL_TripletsOverlap(even, odd));
    EXPECT_TRUE(PAL_TripletsSubset(all, odd));
    EXPECT_FALSE(PAL_TripletsEqual(even, odd));
    EXPECT_TRUE(PAL_TripletsEqual(even, PAL_Triplets{{INT32_MIN, INT32_MAX, 2}}));
    int32_t number = 0;
    EXPECT_TRUE(PAL_TripletsFirstCommon(even, positive, &number));
    EXPECT_EQ(number, INT32_MAX - 1);
    EXPECT_FALSE(PAL_TripletsFirstCommon(odd, even, &number));
  }
  EXPECT_EQ(messagesWith("\n"), 0U);
}

TEST_F(PalTripletsTest, ListsThatInterleaveWithoutEndAreRefused) {
  const PAL_Triplets sieve{
      {0, INT32_MAX, 2}, {0, INT32_MAX, 3}, {1, INT32_MAX, 5}, {2, INT32_MAX, 7}};
  EXPECT_TRUE(PAL_TripletsUnite(sieve, {}).empty());
  EXPECT_FALSE(PAL_TripletsEqual(sieve, sieve));
  EXPECT_EQ(messagesWith("Invalid triplet data.\n"), 2U);
}

// A file may name such lists thousands of times.
TEST_F(PalTripletsTest, FewNumbersOfListsThatInterleaveAreImmediate) {
  const PAL_Triplets sieve{
      {0, INT32_MAX, 2}, {0, INT32_MAX, 3}, {1, INT32_MAX, 5}, {2, INT32_MAX, 7}};
  const PAL_Triplets few{{0, 12, 1}, {65535, 65536 * 50 + 65535, 65536}};
  const std::clock_t begin = std::clock();
  for (int round = 0; round < 1000; round++) {
    const PAL_Triplets both = PAL_TripletsIntersect(few, sieve);
    ASSERT_EQ(PAL_TripletsIntersect(sieve, few), both);
    ASSERT_TRUE(PAL_TripletsOverlap(few, sieve));
    ASSERT_FALSE(PAL_TripletsEqual(few, sieve));
    if (round > 0) continue;
    for (const int32_t number : PAL_TripletsExpand(few)) {
      EXPECT_EQ(PAL_TripletsContains(both, number), PAL_TripletsContains(sieve, number)) << number;
    }
    EXPECT_LE(PAL_TripletsCount(both), PAL_TripletsCount(few));
  }
  EXPECT_LT(std::clock() - begin, 10 * CLOCKS_PER_SEC);
  EXPECT_EQ(messagesWith("Invalid triplet data.\n"), 0U);
}

TEST_F(PalTripletsTest, RepeatedEntriesAndTheOrderOfOperandsDontMatter) {
  const PAL_Triplets all(4, {0, INT32_MAX - 1, 1});
  const PAL_Triplets interleaved{{0, 3000000, 2}, {0, 3000000, 3}};
  const PAL_Triplets expected = PAL_TripletsUnite(interleaved, {});
  EXPECT_EQ(expected.size(), 1000001U);
  EXPECT_EQ(PAL_TripletsIntersect(all, interleaved), expected);
  EXPECT_EQ(PAL_TripletsIntersect(interleaved, all), expected);
  EXPECT_EQ(messagesWith("Invalid triplet data.\n"), 0U);
}

TEST_F(PalTripletsTest, AListForEachProcessMeltsIntoRuns) {
  // 1,000 processes of 200 threads each, listed process by process.
  PAL_Triplets byProcess;
  PAL_Triplets byThread;
  for (int32_t p = 0; p < 1000; p++) byProcess.push_back({p, p + 199 * 65536, 65536});
  for (int32_t t = 0; t < 200; t++) byThread.push_back({t * 65536, t * 65536 + 999, 1});
  EXPECT_EQ(PAL_TripletsUnite(byProcess, {}), byThread);
  EXPECT_TRUE(PAL_TripletsEqual(byProcess, byThread));
  const PAL_TripletSet set(byProcess);
  EXPECT_TRUE(set.contains(999 + 199 * 65536));
  EXPECT_FALSE(set.contains(1000 + 199 * 65536));
  EXPECT_FALSE(set.contains(-1));
}

TEST_F(PalTripletsTest, ParallelFormIsFirstsThenLastsThenStrides) {
  const PAL_Triplets list{{1, 2, 3}, {4, 5, 6}};
  const std::vector<int32_t> parallel = PAL_TripletsToParallel(list);
  EXPECT_EQ(parallel, (std::vector<int32_t>{1, 4, 2, 5, 3, 6}));
  EXPECT_EQ(PAL_TripletsFromParallel(2, &parallel[0], &parallel[2], &parallel[4]), list);
}

}  // namespace
