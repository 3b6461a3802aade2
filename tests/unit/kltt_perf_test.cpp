// The performance test: which moments are asked for, and what it says.
#include "generic/kltt_perf.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "generic/RK_conf.h"
#include "generic/RK_output.h"
#include "generic/kltt_context.h"
#include "generic/kltt_extract.h"
#include "klt/klt.h"
#include "klt/klt_intern.h"
#include "tests/builder/trace_builder.h"
#include "tests/builder/trace_files.h"

namespace {

class PerfTest : public testing::Test {
 protected:
  void SetUp() override {
    RK_ConfigDefaults();
    trace_.clock(1e-6, 0).processes({1, 1, 1}).defineClass(1, "App").function(1, "main", 1);
    trace_.communicator(1, "world", {{0, 2, 1}});
    trace_.operation(7, "gather", 3);
  }
  void TearDown() override { RK_ConfigDefaults(); }

  // An operation that begins at `time` with these delays of the members.
  void operation(tb::Stream& stream, uint64_t time, std::vector<uint64_t> delays,
                 uint32_t communicator = 1) {
    stream.at(time).collective({.shape = tb::Shape::AllToAll,
                                .communicator = communicator,
                                .operation = 7,
                                .start = delays,
                                .duration = std::vector<uint64_t>(delays.size(), 5),
                                .sent = std::vector<uint32_t>(delays.size(), 1),
                                .received = std::vector<uint32_t>(delays.size(), 1)});
  }

  // The exit status of an extraction to a text file.
  int extract(int32_t requests) {
    const std::string name = trace_.files().writePlain(directory_);
    RK_conf.perftest = requests;
    RK_conf.logfile_name = directory_ / "out.rkf";
    RK_conf.logfile_name_set = true;
    KLT_FileHandle* handle = KLT_Open(name.c_str());
    const int status = KLTT_Extract(handle, 1);
    KLT_Close(handle);
    return status;
  }
  // What it says on standard error.
  std::string run(int32_t requests) {
    testing::internal::CaptureStderr();
    const int status = extract(requests);
    std::string told = testing::internal::GetCapturedStderr();
    EXPECT_EQ(status, 0) << told;
    return told;
  }

  static size_t count(const std::string& text, const std::string& part) {
    size_t found = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
      ++found;
    }
    return found;
  }

  // The average that the line of a measurement ends with.
  static std::string average(const std::string& told, const std::string& measurement) {
    const std::string before = "average number of processes per request ";
    size_t at = told.find(measurement + ": ");
    if (at == std::string::npos) return "no line";
    at = told.find(before, at) + before.size();
    return told.substr(at, told.find('\n', at) - at);
  }

  tb::Trace trace_;
  tb::TempDir directory_;
};

TEST_F(PerfTest, WithoutOperationsNothingIsMeasured) {
  trace_.stream("f.0", tb::FUNCTIONS, {0}).at(10).enter(0, 1).at(20).leave(0);
  EXPECT_EQ(run(5),
            "Gettings collops for performance test...\n"
            "Doing performance test, 0 different collective operations.\n");
  EXPECT_EQ(tb::readFile(directory_ / "out.rkf").find("EXCHEXT"), std::string::npos);
}

TEST_F(PerfTest, OperationsAreTakenInTurnAndCountOnlyWhoTookPart) {
  tb::Stream& stream = trace_.stream("cop", tb::COLLOPS);
  operation(stream, 10, {0, 3, tb::NOT_STARTED - 1});
  operation(stream, 20, {tb::NOT_STARTED, 0, tb::NOT_STARTED});
  operation(stream, 30, {0, 0, 0});
  trace_.stream("f.0", tb::FUNCTIONS, {0}).at(5).enter(0, 1).at(10).leave(0).at(30).enter(0, 1);
  // The subset takes operations 0 1 2 0; the other form 1 2 0 1.
  const std::string told = run(4);
  EXPECT_EQ(told.find("Gettings collops for performance test...\n"
                      "Doing performance test, 3 different collective operations.\n"
                      "subset of collops, only first process: 4 requests in "),
            0U)
      << told;
  EXPECT_EQ(count(told, "\n"), 6U) << told;
  EXPECT_EQ(count(told, "s/req, average number of processes per request "), 4U);
  EXPECT_EQ(average(told, "subset of collops, only first process"), "1.000000");
  EXPECT_EQ(average(told, "all collops, only first process"), "1.000000");
  EXPECT_EQ(average(told, "subset of collops, all processes"), "2.000000");
  EXPECT_EQ(average(told, "all collops, all processes"), "1.750000");
  // Definitions are written as ever, the events that were asked for aren't.
  const std::string text = tb::readFile(directory_ / "out.rkf");
  EXPECT_NE(text.find("COMDEF"), std::string::npos);
  EXPECT_EQ(text.find("EXCHEXT"), std::string::npos);
}

TEST_F(PerfTest, StepsOfBothFormsWrapRound) {
  // Operation i has i % 2 + 1 members, so averages tell which were taken.
  tb::Stream& stream = trace_.stream("cop", tb::COLLOPS);
  for (uint64_t i = 0; i < 250; ++i) {
    operation(stream, 10 + i, {0, i % 2 != 0 ? 0 : tb::NOT_STARTED, tb::NOT_STARTED});
  }
  // The subset steps by 2 and wraps to 0: always even. The other form takes 1, 2, 3, ….
  const std::string told = run(151);
  EXPECT_EQ(average(told, "subset of collops, all processes"), "1.000000");
  EXPECT_EQ(average(told, "all collops, all processes"), "1.503311");  // 76 twice, 75 once: 227/151
}

TEST_F(PerfTest, CommunicatorsLargerThanTheProcessesAndShorterRecordsAreBounded) {
  trace_.communicator(2, "threads", {{0, 40 << 16, 1 << 16}});
  tb::Stream& stream = trace_.stream("cop", tb::COLLOPS);
  operation(stream, 10, std::vector<uint64_t>(41, 1), 2);
  operation(stream, 20, {0}, 2);
  operation(stream, 30, std::vector<uint64_t>(50, 1), 1);
  const std::string told = run(3);
  EXPECT_EQ(average(told, "subset of collops, all processes"), "15.000000");  // 41, 1, 3
}

TEST_F(PerfTest, ANegativeNumberRunsNothing) {
  operation(trace_.stream("cop", tb::COLLOPS), 10, {0, 0, 0});
  const std::string told = run(-2);
  EXPECT_EQ(count(told, ": -2 requests in "), 4U) << told;
}

TEST_F(PerfTest, AnUnknownCommunicatorEndsTheProcess) {
  operation(trace_.stream("cop", tb::COLLOPS), 10, {0}, 9);
  EXPECT_EXIT((void)extract(1), testing::ExitedWithCode(1),
              "AllToAll record with undefined communicator id");
}

}  // namespace
