// The performance test: which moments it asks for, as the averages of what it reports show.
#include <gtest/gtest.h>

#include <regex>

#include "generic/extract/kltt_extract.h"
#include "generic/options/RK_conf.h"
#include "tests/unit/klt_reading.h"

namespace {

// What is reported, without the times, of a run over a trace with this many operations. One has one
// member if its number is even, else two, but for the one of all 41 members and the one of none.
std::string perfTest(int32_t requests, int operations) {
  constexpr uint64_t kOut = tb::NOT_STARTED;
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
  // Definitions are written as ever, the events that were asked for aren't.
  EXPECT_EQ(tb::readFile(RK_conf.logfile_name).find("EXCHEXT"), std::string::npos);
  RK_ConfigDefaults();
  return std::regex_replace(messages.take(), std::regex("in [-0-9.]+s = [-0-9.]+s/req"), "");
}

// A subset steps by 2 and begins again at 0. The other form asks for 1, 2, 3 and so on, and for 0
// after the last one.
TEST(KlttPerf, ReportsTheMomentsThatItAsksFor) {
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

}  // namespace
