// Normalised requests are checked instant by instant against what the requests themselves select.
#include "klt/klt_request.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <set>
#include <string>

namespace {

constexpr uint64_t kNoEnd = ~uint64_t{0};

std::string text(const KLT_Request& request) {
  std::string result = std::to_string(request.start) + "-" +
                       (request.end == kNoEnd ? "" : std::to_string(request.end)) + " " +
                       std::to_string(request.categories);
  for (const PAL_Triplet& t : request.threads) {
    result += " " + std::to_string(t.first) + ":" + std::to_string(t.last) + ":" +
              std::to_string(t.stride);
  }
  return result;
}

std::vector<std::string> normalised(const std::vector<KLT_Request>& requests) {
  std::vector<const KLT_Request*> pointers;
  for (const KLT_Request& request : requests) pointers.push_back(&request);
  std::vector<std::string> result;
  for (const KLT_Request& request : KLT_NormaliseRequests(pointers)) {
    result.push_back(text(request));
  }
  return result;
}

using Lines = std::vector<std::string>;

TEST(KltRequestTest, ACopyIsDeepAndMendsAnInvertedWindow) {
  KLT_Request* request = KLT_RequestAlloc();
  EXPECT_EQ(text(*request), "0- 0");
  *request = {20, 10, 4, {{1, 2, 1}}};
  KLT_Request* copy = KLT_RequestCopy(request);
  request->threads[0].last = 7;
  EXPECT_EQ(text(*copy), "20- 4 1:2:1");
  EXPECT_EQ(text(*request), "20-10 4 1:7:1");
  KLT_RequestRelease(copy);
  KLT_RequestRelease(request);
  KLT_RequestRelease(nullptr);
}

TEST(KltRequestTest, ASingleRequestStaysAsItIs) {
  EXPECT_EQ(normalised({{5, 5, 6, {{9, 3, 1}, {2, 1, -1}}}}), (Lines{"5-5 6 9:3:1 2:1:-1"}));
  EXPECT_EQ(normalised({{5, 4, 6, {}}}), (Lines{"5- 6"}));
  EXPECT_EQ(normalised({}), Lines{});
}

TEST(KltRequestTest, EqualWindowsUniteCategoriesAndThreads) {
  EXPECT_EQ(normalised({{1, 9, 4, {{0, 0, 1}}}, {1, 9, 8, {{1, 1, 1}}}}), (Lines{"1-9 12 0:1:1"}));
  EXPECT_EQ(normalised({{1, 9, 4, {{0, 0, 1}}}, {1, 9, 8, {}}}), (Lines{"1-9 12"}));
}

TEST(KltRequestTest, OverlapsAreCutAndTheOverlapSelectsBoth) {
  EXPECT_EQ(normalised({{5, kNoEnd, 8, {}}, {1, 9, 4, {}}}), (Lines{"1-5 4", "5-9 12", "9- 8"}));
  EXPECT_EQ(normalised({{1, 20, 4, {{3, 4, 1}}}, {5, 9, 4, {{1, 2, 1}}}}),
            (Lines{"1-5 4 3:4:1", "5-9 4 1:4:1", "9-20 4 3:4:1"}));
}

TEST(KltRequestTest, WhatAnotherRequestHoldsDisappears) {
  EXPECT_EQ(normalised({{1, 20, 1, {}}, {5, 9, 4, {{1, 2, 1}}}}), (Lines{"1-20 1"}));
  EXPECT_EQ(normalised({{1, 20, 4, {{7, 7, 1}, {1, 3, 1}}}, {5, 20, 4, {{2, 3, 1}}}}),
            (Lines{"1-20 4 7:7:1 1:3:1"}));
  EXPECT_EQ(normalised({{1, 5, 12, {}}, {5, 9, 12, {}}, {9, 9, 4, {}}}), (Lines{"1-9 12"}));
}

TEST(KltRequestTest, EmptyWindowsStayWhereNothingElseTellsTheirState) {
  EXPECT_EQ(normalised({{1, 5, 4, {}}, {5, 5, 8, {}}, {5, 9, 16, {}}}),
            (Lines{"1-5 4", "5-5 8", "5-9 16"}));
  EXPECT_EQ(normalised({{7, 7, 8, {}}, {7, 7, 4, {}}}), (Lines{"7-7 12"}));
  EXPECT_EQ(normalised({{1, 9, 4, {}}, {5, 5, 8, {}}}), (Lines{"1-9 4"}));
  EXPECT_EQ(normalised({{5, 5, 8, {{1, 1, 1}}}, {5, 9, 8, {}}}), (Lines{"5-9 8"}));
  // Fewer threads and fewer categories at once are a selection of its own.
  EXPECT_EQ(normalised({{1, 5, 12, {}}, {5, 5, 4, {{1, 1, 1}}}, {5, 9, 12, {}}}),
            (Lines{"1-5 12", "5-5 4 1:1:1", "5-9 12"}));
}

TEST(KltRequestTest, ThreadsThatNameNobodyDontBecomeAllThreads) {
  testing::internal::CaptureStderr();
  const Lines result = normalised({{1, 9, 4, {{3, 1, 1}}}, {1, 9, 8, {{4, 2, 1}}}});
  const Lines mixed = normalised({{1, 9, 4, {{3, 1, 1}}}, {1, 9, 8, {{4, 6, 1}}}});
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(result, (Lines{"1-9 12 3:1:1 4:2:1"}));
  EXPECT_EQ(mixed, (Lines{"1-9 12 4:6:1"}));
}

// What is selected at an instant, in a form that can be compared. Mask 1 and its supersets are one.
struct Selection {
  uint32_t categories = 0;
  bool allThreads = false;
  std::set<int32_t> threads;

  void add(const KLT_Request& request) {
    categories |= request.categories & 1 ? 1 : request.categories;
    if (categories & 1) categories = 1;
    allThreads |= request.threads.empty();
    for (const int32_t v : PAL_TripletsExpand(request.threads)) threads.insert(v);
    if (allThreads) threads.clear();
  }
  bool operator==(const Selection&) const = default;
};

Selection at(uint64_t instant, const std::vector<KLT_Request>& requests) {
  Selection selection;
  for (const KLT_Request& request : requests) {
    if (request.start <= instant && instant < request.end) selection.add(request);
  }
  return selection;
}

std::vector<KLT_Request> randomRequests(std::mt19937& random, size_t count) {
  const auto upTo = [&](uint32_t limit) { return static_cast<int32_t>(random() % limit); };
  std::vector<KLT_Request> requests(count);
  for (KLT_Request& request : requests) {
    request.start = random() % 100;
    request.end = upTo(8) ? request.start + 1 + random() % (upTo(3) ? 12 : 90) : kNoEnd;
    request.categories = upTo(9) ? 1U << (1 + random() % 3) : 1;
    for (int32_t n = upTo(4); n > 0; n--) {
      const int32_t first = upTo(10);
      request.threads.push_back({first, first + upTo(6), 1 + upTo(3)});
    }
  }
  return requests;
}

TEST(KltRequestTest, EachInstantSelectsWhatItsRequestsSelectTogether) {
  std::mt19937 random(7);
  for (size_t round = 0; round < 700; round++) {
    const std::vector<KLT_Request> requests =
        randomRequests(random, round % 50 ? 2 + round % 9 : 90);
    std::vector<const KLT_Request*> pointers;
    for (const KLT_Request& request : requests) pointers.push_back(&request);
    const std::vector<KLT_Request> result = KLT_NormaliseRequests(pointers);

    for (size_t i = 0; i + 1 < result.size(); i++) {
      ASSERT_LT(result[i].start, result[i].end);
      ASSERT_LE(result[i].end, result[i + 1].start);
      if (result[i].end < result[i + 1].start) continue;
      ASSERT_NE(at(result[i].start, result), at(result[i].end, result)) << "not merged";
    }
    for (uint64_t instant = 0; instant < 210; instant++) {
      ASSERT_EQ(at(instant, result), at(instant, requests))
          << "round " << round << " at " << instant;
    }
  }
}

TEST(KltRequestTest, ThousandsOfRequestsAreNormalisedAtOnce) {
  std::vector<KLT_Request> requests;
  for (uint32_t i = 0; i < 3000; i++) {
    requests.push_back({i, 10000 - i, 4, {{static_cast<int32_t>(i % 7), 3000, 7}}});
  }
  EXPECT_EQ(normalised(requests).size(), 13U);
}

}  // namespace
