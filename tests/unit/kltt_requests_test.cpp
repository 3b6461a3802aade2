#include "generic/extract/kltt_requests.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "generic/handlers/kltt_context.h"
#include "generic/handlers/kltt_tables.h"
#include "generic/options/RK_conf.h"

namespace {

constexpr uint64_t kNoEnd = ~uint64_t{0};
constexpr uint64_t kLastTick = ~uint64_t{0} >> 1;

TEST(KlttRequests, WindowsBecomeRawTimes) {
  constexpr double kTick = 1.0 / 1048576;
  const struct {
    double clock;
    uint32_t eventBits;
    int ticks;
    double start, end;
    uint64_t rawStart, rawEnd;
  } rows[] = {
      {kTick / 4, 2, 0, 1, 2, 4 << 20, 8 << 20},
      {kTick / 4, 2, 0, 1.9 * kTick, 3.5 * kTick, 1 << 2, 3 << 2},  // whole ticks
      {kTick / 4, 2, 0, 0, -1, 0, kNoEnd},
      {1e-6, 4, 1, 1.5, 2, 1, 2},
      {1e-6, 4, 1, 0, -1, 0, kNoEnd},
      {1e-6, 4, 1, -3, 1e300, 0, kLastTick},
      {10, 0, 0, 15, -1, 1, kNoEnd},  // whose product with -1 is no whole tick
      {10, 0, 0, -0.5, -0.001, 0, kNoEnd},
      {1e-6, 0, 0, 1e300, INFINITY, kLastTick, kLastTick},
      {1e-6, 0, 0, NAN, NAN, 0, 0},
      {1e-6, 3, 0, 1e300, 1e14, kNoEnd, kNoEnd},
      {0, 0, 0, 0, 1, 0, kLastTick},  // infinitely many ticks
      {NAN, 63, 0, 5, 6, 0, 0},
  };
  for (const auto& row : rows) {
    RK_ConfigDefaults();
    KLTT_Context context;
    KLTT_ClockResolution(&context, row.clock, row.eventBits);
    RK_conf.ticks = row.ticks;
    RK_conf.request.assign(2, {});
    RK_conf.request[1].categories = 0x84;
    RK_conf.request[1].triplets = {{0, 3, 1}, {7, 7, 1}};
    for (RK_Request& wanted : RK_conf.request) {
      wanted.window_start = row.start;
      wanted.window_end = row.end;
    }
    const std::vector<KLT_Request> requests = KLTT_BuildRequests(context);
    ASSERT_EQ(requests.size(), 2U);
    for (size_t i = 0; i < 2; ++i) {
      EXPECT_EQ(requests[i].start, row.rawStart) << row.start;
      EXPECT_EQ(requests[i].end, row.rawEnd) << row.end;
      EXPECT_EQ(requests[i].categories, i == 0 ? 1 : 0x84U);
      EXPECT_EQ(requests[i].threads, RK_conf.request[i].triplets);
    }
    RK_conf.merge = 1;  // takes the whole trace
    EXPECT_TRUE(KLTT_BuildRequests(context).empty());
  }
  RK_ConfigDefaults();
}

}  // namespace
