// Planned requests: compared at each instant with what the requests select, and examples of what
// this comparison doesn't show.
#include "klt/read/klt_plan.h"

#include <gtest/gtest.h>

#include <random>
#include <set>
#include <sstream>
#include <string>
#include <utility>

namespace {

using Requests = std::vector<KLT_Request>;

std::string text(const Requests& requests) {
  std::ostringstream result;
  for (const auto& [start, end, categories, threads] : requests) {
    result << start << '-' << end << ' ' << categories << ' ';
    for (const auto& [first, last, stride] : threads) result << first << ':' << last << ' ';
  }
  return result.str();
}

// The pieces for a component with these threads, or with any. An empty list selects all of them.
Requests planned(const Requests& requests, const PAL_Triplets& component = {}) {
  std::vector<const KLT_Request*> pointers;
  for (const KLT_Request& request : requests) pointers.push_back(&request);
  KLT_ThreadLists lists;
  KLT_RequestPlan plan(pointers, lists);
  const bool any = component.empty();
  Requests result;
  for (const KLT_RequestPlan::Piece& piece :
       plan.piecesOf(any ? plan.relationToAny() : plan.relationTo(lists.share(component)), any)) {
    result.push_back({piece.start, piece.end, piece.categories, piece.given->triplets()});
  }
  return result;
}

TEST(KltRequest, KeepsUnitesAndCuts) {
  const std::pair<Requests, const char*> cases[] = {
      {{{5, 4, 6, {{9, 3, 1}, {2, 1, -1}}}}, "5-18446744073709551615 6 9:3 2:1 "},
      // A request that includes the others keeps the order of its threads.
      {{{1, 20, 4, {{7, 7, 1}, {1, 3, 1}}}, {5, 20, 4, {{2, 3, 1}}}}, "1-20 4 7:7 1:3 "},
      // Windows without length are kept unless another window includes the state at their instant.
      {{{7, 7, 8, {}}, {1, 5, 4, {}}, {5, 5, 8, {}}, {7, 7, 4, {}}}, "1-5 4 5-5 8 7-7 12 "},
      {{{1, 9, 4, {}}, {5, 5, 8, {}}, {9, 9, 4, {}}}, "1-9 4 "},
      {{{5, 5, 8, {{1, 1, 1}}}, {5, 9, 8, {}}}, "5-9 8 "},
      {{{1, 5, 12, {}}, {5, 5, 4, {{1, 1, 1}}}, {5, 9, 12, {}}}, "1-5 12 5-5 4 1:1 5-9 12 "},
      // A list without threads doesn't become all threads.
      {{{1, 9, 4, {{3, 1, 1}}}, {1, 9, 8, {{4, 2, 1}}}}, "1-9 12 3:1 4:2 "},
      {{{1, 9, 4, {{3, 1, 1}}}, {1, 9, 8, {{4, 6, 1}}}}, "1-9 12 4:6 "},
  };
  testing::internal::CaptureStderr();
  for (const auto& [requests, result] : cases) EXPECT_EQ(text(planned(requests)), result);
  testing::internal::GetCapturedStderr();
  for (const auto& [end, copied] : {std::pair{5U, uint64_t{5}}, {4U, ~uint64_t{0}}}) {
    const KLT_Request request{5, end, 6, {}};
    KLT_Request* copy = KLT_RequestCopy(&request);
    EXPECT_EQ(copy->end, copied);
    KLT_RequestRelease(copy);
  }
}

using Selected = std::pair<uint32_t, std::set<int32_t>>;

// The selected categories (1: all) and threads (-1: all) at an instant.
Selected selectedAt(uint64_t instant, const Requests& requests) {
  uint32_t categories = 0;
  std::set<int32_t> threads;
  for (const KLT_Request& request : requests) {
    if (instant < request.start || (instant >= request.end && request.end >= request.start))
      continue;
    categories |= request.categories;
    if (request.threads.empty()) threads.insert(-1);
    for (const int32_t thread : PAL_TripletsExpand(request.threads)) threads.insert(thread);
  }
  if (threads.count(-1) != 0) threads = {-1};
  return {categories & 1 ? 1 : categories, threads};
}

// What is left of a selection in a component with the threads `own`.
Selected within(Selected selected, const std::set<int32_t>& own) {
  auto& [categories, threads] = selected;
  if (threads.count(-1) != 0) threads = own;
  std::erase_if(threads, [&](int32_t thread) { return own.count(thread) == 0; });
  if (threads.empty()) categories = 0;
  return selected;
}

TEST(KltRequest, EachInstantSelectsWhatItsRequestsSelectTogether) {
  std::mt19937 random(7);
  const auto upTo = [&](uint32_t limit) { return static_cast<int32_t>(random() % limit); };
  for (size_t round = 0; round < 700; ++round) {
    Requests requests(round % 50 == 0 ? 90 : 1 + round % 9);
    for (auto& [start, end, categories, threads] : requests) {
      start = 1 + random() % 100;
      end = upTo(8) ? start + 1 + random() % (upTo(3) ? 12 : 90) : start / 2;  // backwards: no end
      categories = upTo(9) ? 1U << (1 + random() % 3) : 1;
      for (int32_t n = upTo(4), first = upTo(10); n > 0; --n, first = upTo(10)) {
        threads.push_back({first, first + upTo(6), 1 + upTo(3)});
      }
    }
    const Requests result = planned(requests);
    for (size_t i = 1; i < result.size(); ++i) {
      ASSERT_LE(result[i - 1].end, result[i].start);
      if (result[i - 1].end < result[i].start) continue;
      ASSERT_NE(selectedAt(result[i - 1].start, result), selectedAt(result[i].start, result));
    }
    for (uint64_t instant = 0; instant < 210; ++instant) {
      ASSERT_EQ(selectedAt(instant, result), selectedAt(instant, requests)) << text(requests);
    }
    const std::set<int32_t> own{upTo(10), upTo(10), upTo(10)};
    const PAL_Triplets component =
        PAL_TripletsCompress(std::vector<int32_t>(own.begin(), own.end()), false);
    const Requests ofComponent = planned(requests, component);
    for (uint64_t instant = 0; instant < 210; ++instant) {
      ASSERT_EQ(within(selectedAt(instant, ofComponent), own),
                within(selectedAt(instant, requests), own))
          << text(requests);
    }
  }
}

}  // namespace
