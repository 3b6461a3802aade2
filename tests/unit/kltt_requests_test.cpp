#include "generic/kltt_requests.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "generic/RK_conf.h"
#include "kltt_fixture.h"

namespace {

constexpr uint64_t kEndOfTime = ~uint64_t{0};
constexpr uint64_t kLastTick = ~uint64_t{0} >> 1;

class KlttRequests : public KlttFixture {
 protected:
  KLT_Request window(double start, double end) {
    RK_Request wanted{};
    wanted.window_start = start;
    wanted.window_end = end;
    RK_conf.request = {wanted};
    const std::vector<KLT_Request> requests = KLTT_BuildRequests(context);
    return requests.size() == 1 ? requests.front() : KLT_Request{};
  }
  void expectWindow(double start, double end, uint64_t rawStart, uint64_t rawEnd) {
    const KLT_Request request = window(start, end);
    EXPECT_EQ(request.start, rawStart) << start;
    EXPECT_EQ(request.end, rawEnd) << end;
  }
};

TEST_F(KlttRequests, SecondsBecomeWholeTicksOfTheClock) {
  setClock(1.0 / 4 / 1048576, 2);  // ticks of 2^-20 seconds
  expectWindow(1, 2, 4 << 20, 8 << 20);
  expectWindow(1.9 / 1048576, 3.5 / 1048576, 1 << 2, 3 << 2);
  expectWindow(0, -1, 0, kEndOfTime);
}

TEST_F(KlttRequests, TicksAreRawTimeWithoutTheirFraction) {
  RK_conf.ticks = 1;
  setClock(1e-6, 4);
  expectWindow(1.5, 2, 1, 2);
  expectWindow(0, -1, 0, kEndOfTime);
  expectWindow(-3, 1e300, 0, kLastTick);
}

TEST_F(KlttRequests, AnOpenEndStaysOpenWithASlowClock) {
  setClock(10, 0);
  expectWindow(15, -1, 1, kEndOfTime);
  expectWindow(-0.5, -0.001, 0, kEndOfTime);
}

TEST_F(KlttRequests, WildWindowsAndClocksAreClamped) {
  constexpr double kInfinity = std::numeric_limits<double>::infinity();
  setClock(1e-6, 0);
  expectWindow(1e300, kInfinity, kLastTick, kLastTick);
  expectWindow(std::nan(""), std::nan(""), 0, 0);
  setClock(1e-6, 3);
  expectWindow(1e300, 1e14, kEndOfTime, kEndOfTime);
  setClock(0, 0);  // infinitely many ticks
  expectWindow(0, 1, 0, kLastTick);
  setClock(std::nan(""), 63);
  expectWindow(5, 6, 0, 0);
}

TEST_F(KlttRequests, CategoriesThreadsAndOrderAreKept) {
  RK_Request all{};
  all.window_end = -1;
  RK_Request some = all;
  some.categories = 0x84;
  some.triplets = {{0, 3, 1}, {7, 7, 1}};
  RK_conf.request = {all, some};
  const std::vector<KLT_Request> requests = KLTT_BuildRequests(context);
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[0].categories, 1u);
  EXPECT_TRUE(requests[0].threads.empty());
  EXPECT_EQ(requests[1].categories, 0x84u);
  EXPECT_EQ(requests[1].threads, some.triplets);
}

TEST_F(KlttRequests, ConversionAndMergeTakeTheWholeTrace) {
  RK_conf.request = {RK_Request{}};
  RK_conf.convert = 1;
  EXPECT_TRUE(KLTT_BuildRequests(context).empty());
  RK_conf.convert = 0;
  RK_conf.merge = 1;
  EXPECT_TRUE(KLTT_BuildRequests(context).empty());
  RK_conf.merge = 0;
  RK_conf.request.clear();
  EXPECT_TRUE(KLTT_BuildRequests(context).empty());
}

}  // namespace
