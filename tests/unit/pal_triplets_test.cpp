// Triplet lists: every operation is compared with sets of numbers on small random lists, and must
// be fast on lists with billions of numbers.
#include "util/triplets/pal_triplets.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <ctime>
#include <random>
#include <regex>
#include <set>
#include <string>

static std::ostream& operator<<(std::ostream& out, const PAL_Triplet& t) {
  return out << t.first << ':' << t.last << ':' << t.stride;
}

namespace {

using Set = std::set<int32_t>;
using Numbers = std::vector<int32_t>;
constexpr int32_t kMin = INT32_MIN, kMax = INT32_MAX;

class PalTriplets : public testing::Test {
 protected:
  PalTriplets() { testing::internal::CaptureStderr(); }
  ~PalTriplets() override { EXPECT_EQ(testing::internal::GetCapturedStderr(), ""); }
  // The first letters of the messages since the last call: Invalid data, Wrong stride.
  static std::string reported() {
    const std::string messages = testing::internal::GetCapturedStderr();
    testing::internal::CaptureStderr();
    return std::regex_replace(messages, std::regex("ERROR: (.).*\n"), "$1");
  }
};

TEST_F(PalTriplets, ParsesOneToThreePiecesOf191Characters) {
  const std::pair<std::string, PAL_Triplets> cases[] = {
      {" \tn:N 77", {{9, 9, 1}}},
      {"4294967295:2147483648", {{-1, kMin, 1}}},
      {"1:2:x", {}},
      {"4294967296", {}},
      {std::string(185, '0') + "12:3456", {{12, 345, 1}}},
  };
  for (const auto& [text, expected] : cases) {
    PAL_Triplet t{};
    const int result = PAL_TripletParse(text.c_str(), 9, &t.first, &t.last, &t.stride);
    EXPECT_EQ(result == 1 ? PAL_Triplets{t} : PAL_Triplets{}, expected) << text;
  }
}

// The greedy rule in its simplest form. A repeated number counts once.
PAL_Triplets greedy(Numbers v) {
  v.erase(std::unique(v.begin(), v.end()), v.end());
  PAL_Triplets result;
  for (size_t i = 0, end = 0; i < v.size(); i = end) {
    const int32_t stride = i + 1 == v.size() ? 1 : v[i + 1] - v[i];
    for (end = i + 1; end < v.size() && v[end] - v[end - 1] == stride;) end++;
    result.push_back({v[i], v[end - 1], stride});
  }
  return result;
}

PAL_Triplets greedy(const Set& set) { return greedy(Numbers(set.begin(), set.end())); }

TEST_F(PalTriplets, AgreeWithSetsOfNumbers) {
  std::mt19937 random(20240611);
  const auto below = [&](int limit) {
    return static_cast<int32_t>(random() % static_cast<uint32_t>(limit));
  };
  for (int round = 0; round < 6000; round++) {
    const int32_t base = round % 3 == 0 ? kMin : round % 3 == 1 ? kMax - 99 : -30;
    PAL_Triplets lists[2];
    for (PAL_Triplets& list : lists) {
      list.resize(static_cast<size_t>(below(9)));
      for (PAL_Triplet& t : list) {
        t.first = base + below(60);
        t.last = t.first + below(40);
        t.stride = 1 + below(below(2) ? 6 : 1);
        if (below(2)) t = {t.last, t.first, -t.stride};
      }
    }
    const auto& [a, b] = lists;
    if (below(20) == 0) lists[0] = b;
    SCOPED_TRACE(testing::PrintToString(a) + " and " + testing::PrintToString(b));

    Numbers order;
    for (const PAL_Triplet& t : a) {
      for (int64_t v = t.first; t.stride > 0 ? v <= t.last : v >= t.last; v += t.stride)
        order.push_back(static_cast<int32_t>(v));
    }
    ASSERT_EQ(PAL_TripletsExpand(a), order);
    ASSERT_EQ(PAL_TripletsCompress(order, false), greedy(order));
    ASSERT_EQ(PAL_TripletsCompress(PAL_TripletSpan(a)), greedy(order));
    const Numbers others = PAL_TripletsExpand(b);
    const Set x(order.begin(), order.end()), y(others.begin(), others.end());
    Set either = x, both, left;
    either.insert(y.begin(), y.end());
    for (const int32_t v : x) (y.contains(v) ? both : left).insert(v);
    ASSERT_EQ(PAL_TripletsIntersect(a, b), greedy(both));
    ASSERT_EQ(PAL_TripletsUnite(a, b), greedy(either));
    ASSERT_EQ(PAL_TripletsSubtract(a, b), greedy(left));
    ASSERT_EQ(PAL_TripletsCompress(order, true), greedy(x));
    ASSERT_EQ(PAL_TripletsOverlap(a, b), !both.empty());
    ASSERT_EQ(PAL_TripletsEqual(a, b), x == y);
    ASSERT_EQ(PAL_TripletsSubset(a, b), both == y);
    const auto first =
        std::find_if(order.begin(), order.end(), [&](int32_t v) { return y.contains(v); });
    int32_t number = 0;
    ASSERT_EQ(PAL_TripletsFirstCommon(a, b, &number), first != order.end());
    ASSERT_TRUE(first == order.end() || number == *first);
    const PAL_TripletSet set(b);
    ASSERT_EQ(set.intersect(a), greedy(both));
    ASSERT_EQ(set.firstCommon(a, &number), first != order.end());
    const PAL_TripletOrder places(b);
    for (int32_t v = base; v < base + 99; v++) {
      ASSERT_EQ(places.find(v), PAL_TripletsFind(b, v)) << v;
      ASSERT_EQ(set.contains(v), y.contains(v)) << v;
      ASSERT_EQ(PAL_TripletsContains(b, v), y.contains(v)) << v;
    }
  }
}

TEST_F(PalTriplets, ListsOfFewOrBillionsOfNumbersTakeLittleTime) {
  const PAL_Triplets all{{kMin, kMax, 1}}, positive{{0, kMax, 1}}, odd{{kMin + 1, kMax, 2}},
      even{{kMax - 1, kMin, -2}}, good{{2, 9, 1}}, bad{{1, 5, 1}, {3, 1, 1}};
  // Two lists that interleave over a long range.
  const PAL_Triplets sieve{{0, kMax, 2}, {0, kMax, 3}, {1, kMax, 5}, {2, kMax, 7}};
  const PAL_Triplets some{{0, 12, 1}, {65535, 65536 * 50 + 65535, 65536}};
  // 1,000 processes of 200 threads each, listed process by process.
  PAL_Triplets byProcess, byThread;
  for (int32_t p = 0; p < 1000; p++) byProcess.push_back({p, p + 199 * 65536, 65536});
  for (int32_t t = 0; t < 200; t++) byThread.push_back({t * 65536, t * 65536 + 999, 1});
  const auto unite = &PAL_TripletsUnite, intersect = &PAL_TripletsIntersect,
             subtract = &PAL_TripletsSubtract;
  const struct {
    PAL_Triplets (*call)(PAL_TripletSpan, PAL_TripletSpan);
    PAL_Triplets a, b, result;
    const char* messages = "";
  } cases[] = {
      {unite, all, even, all},
      {unite, byProcess, {}, byThread},
      {subtract, positive, {{5, 9, 4}, {7, 7, 1}}, {{0, 4, 1}, {6, 10, 2}, {11, kMax, 1}}},
      {intersect, even, positive, {{0, kMax - 1, 2}}},
      {intersect, sieve, some, PAL_TripletsIntersect(some, sieve)},
      {unite, sieve, {}, {}, "I"},
      // An invalid entry makes the checked operand empty.
      {intersect, bad, good, {}, "I"},
      {unite, {{2, 9, 0}, {2, 9, 1}}, {}, good, "W"},
  };
  const std::clock_t begin = std::clock();
  for (const auto& c : cases) {
    EXPECT_EQ(c.call(c.a, c.b), c.result);
    EXPECT_EQ(reported(), c.messages) << &c - cases;
  }
  int32_t number = 0;
  EXPECT_FALSE(PAL_TripletsOverlap(even, odd) || PAL_TripletsEqual(some, sieve));
  EXPECT_TRUE(PAL_TripletsOverlap(some, sieve) && PAL_TripletsSubset(all, odd));
  EXPECT_TRUE(PAL_TripletsEqual(even, PAL_Triplets{{kMin, kMax, 2}}));
  EXPECT_TRUE(PAL_TripletsFirstCommon(even, positive, &number));
  EXPECT_EQ(number, kMax - 1);
  EXPECT_LT(std::clock() - begin, 20 * CLOCKS_PER_SEC);
  // At the limits of counting and expansion.
  EXPECT_EQ(PAL_TripletsCount(PAL_Triplets{{0, kMax, 1}, {-1, kMin + 2, -1}}), 4294967294U);
  EXPECT_EQ(PAL_TripletsExpand(PAL_Triplets{{1, 1 << 20, 1}}).size(), 1U << 20);
  EXPECT_EQ(PAL_TripletsCount(PAL_Triplets{{0, kMax, 1}, {-1, kMin + 1, -1}}), 0U);
  EXPECT_TRUE(PAL_TripletsExpand(PAL_Triplets{{0, 1 << 20, 1}}).empty());
  EXPECT_EQ(reported(), "II");
}

}  // namespace
