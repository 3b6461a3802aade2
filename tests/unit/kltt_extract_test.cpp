// The conversion of windows to raw time, and the operations that the performance test visits, which
// the reported averages show. Categories and threads are tested end to end.
#include <gtest/gtest.h>

#include <cmath>
#include <regex>

#include "generic/extract/kltt_extract.h"
#include "generic/extract/kltt_requests.h"
#include "generic/handlers/kltt_context.h"
#include "generic/handlers/kltt_tables.h"
#include "generic/options/RK_conf.h"
#include "tests/unit/klt_reading.h"

namespace {

// The report, without times, of a performance test over this many operations. One member takes part
// in operations with even numbers, two in others, except that 41 take part in 3 and none in 5.
std::string perfTest(int32_t requests, int operations) {
  constexpr uint64_t kOut = tb::kNotStarted;
  tb::Trace trace;
  trace.clock(1e-6, 0).processes({1, 1, 1}).defineClass(1, "App").function(1, "main", 1);
  trace.communicator(1, "", {{0, 40 << 16, 1 << 16}}).operation(7, "gather", 3);
  trace.stream("f.0", tb::FUNCTIONS, {0}).at(5).enter(0, 1).at(10).leave(0).at(30).enter(0, 1);
  tb::Stream& stream = trace.stream("cop", tb::COLLOPS);
  for (int i = 0; i < operations; ++i) {
    tb::Collective operation{.shape = tb::Shape{i % 4}, .communicator = 1, .operation = 7};
    operation.start = {kOut, 0, kOut - 1, i % 2 != 0 ? 1 : kOut};
    if (i == 3) operation.start.assign(50, 0);
    if (i == 5) operation.start.assign(50, kOut);
    operation.duration = operation.start;
    operation.sent = operation.received = std::vector<uint32_t>(operation.start.size(), 1);
    stream.at(stream.time() + 10).collective(operation);
  }
  const reading::OpenTrace open(trace);
  const tb::TempDir directory;
  RK_ConfigDefaults();
  RK_conf.perftest = requests;
  RK_conf.logfile_name = directory / "out.rkf";
  RK_conf.logfile_name_set = true;
  reading::Messages messages;
  EXPECT_EQ(KLTT_Extract(open.handle(), 1), 0);
  // Definitions are written as usual, the requested events aren't.
  EXPECT_EQ(tb::readFile(RK_conf.logfile_name).find("EXCHEXT"), std::string::npos);
  RK_ConfigDefaults();
  return std::regex_replace(messages.take(), std::regex("in [-0-9.]+s = [-0-9.]+s/req"), "");
}

// A subset visits every second operation and then starts again at 0. Otherwise the test visits 1,
// 2, 3 and so on, and 0 after the last operation.
TEST(KlttPerf, ReportsAveragesOfTheVisitedOperations) {
  const std::string average = " requests , average number of processes per request ";
  const std::string head = "Gettings collops for performance test...\nDoing performance test, ";
  EXPECT_EQ(perfTest(5, 0), head + "0 different collective operations.\n");
  EXPECT_EQ(perfTest(300, 250),
            head + "250 different collective operations.\n" +
                "subset of collops, only first process: 300" + average + "1.000000\n" +
                "all collops, only first process: 300" + average + "0.993333\n" +
                "subset of collops, all processes: 300" + average + "1.000000\n" +
                "all collops, all processes: 300" + average + "1.746667\n");
}

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
      {10, 0, 0, 15, -1, 1, kNoEnd},  // -1 s is less than a tick
      {1e-6, 0, 0, NAN, INFINITY, 0, kLastTick},
      {1e-6, 3, 0, 1e300, 1e14, kNoEnd, kNoEnd},
      {0, 0, 0, 0, 1, 0, kLastTick},  // a tick of 0 s
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

// The highest thread can't be named if the trace declares no processes.
TEST(KlttUnmatched, NamesTheThreadsOfTheTraceIfThereAreAny) {
  for (const bool declares : {true, false}) {
    tb::Trace trace;
    trace.clock(1e-6, 0).defineClass(1, "App").function(1, "main", 1);
    if (declares) trace.processes({1, 1});
    trace.stream("f.0", tb::FUNCTIONS, {0}).at(5).enter(0, 1);
    const reading::OpenTrace open(trace);
    const tb::TempDir directory;
    RK_ConfigDefaults();
    RK_conf.logfile_name = directory / "out.rkf";
    RK_conf.logfile_name_set = true;
    RK_conf.request.emplace_back().triplets = {{77, 77, 1}};
    reading::Messages messages;
    EXPECT_EQ(KLTT_Extract(open.handle(), 1), 0);
    const std::string written = messages.take();
    EXPECT_NE(written.find("The request selects no event.\n"), std::string::npos) << written;
    EXPECT_EQ(written.find("There is no thread 77: the processes are 0 to 1.") != written.npos,
              declares);
    EXPECT_EQ(written.find("There is no thread") != written.npos, declares);
  }
  RK_ConfigDefaults();
}

}  // namespace
