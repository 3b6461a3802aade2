// The windows that a user asks for in the reader's unit. Categories and threads are tested end to
// end.
#include "generic/extract/kltt_requests.h"

#include <gtest/gtest.h>

#include <cmath>

#include "generic/handlers/kltt_context.h"
#include "generic/handlers/kltt_tables.h"
#include "generic/options/RK_conf.h"

namespace {

TEST(KlttRequests, WindowsBecomeRawTimes) {
  constexpr uint64_t kNoEnd = ~uint64_t{0}, kLastTick = kNoEnd >> 1;
  constexpr double kTick = 1.0 / 1048576;
  const struct {
    double clock;
    uint32_t eventBits;
    int ticks;
    double start, end;
    uint64_t rawStart, rawEnd;
  } rows[] = {
      {kTick / 4, 2, 0, 1.9 * kTick, 3.5 * kTick, 1 << 2, 3 << 2},  // whole ticks
      {1e-6, 4, 1, 1.5, 2, 1, 2},
      {1e-6, 4, 1, -3, 1e300, 0, kLastTick},
      {10, 0, 0, 15, -1, 1, kNoEnd},  // whose product with -1 is no whole tick
      {1e-6, 0, 0, NAN, INFINITY, 0, kLastTick},
      {1e-6, 3, 0, 1e300, 1e14, kNoEnd, kNoEnd},
      {0, 0, 0, 0, 1, 0, kLastTick},  // infinitely many ticks
  };
  for (const auto& row : rows) {
    RK_ConfigDefaults();
    KLTT_Context context;
    KLTT_ClockResolution(&context, row.clock, row.eventBits);
    RK_conf.ticks = row.ticks;
    RK_Request& wanted = RK_conf.request.emplace_back();
    wanted.window_start = row.start;
    wanted.window_end = row.end;
    const std::vector<KLT_Request> requests =
        KLTT_BuildRequests(context, RK_conf.request, RK_conf.ticks != 0);
    ASSERT_EQ(requests.size(), 1U);
    EXPECT_EQ(requests[0].start, row.rawStart) << row.start;
    EXPECT_EQ(requests[0].end, row.rawEnd) << row.end;
  }
  RK_ConfigDefaults();
}

}  // namespace
