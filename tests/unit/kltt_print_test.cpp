// Printed lines: threads, statistics, profiles and reports.
#include "generic/kltt_print.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>

#include "generic/RK_output.h"
#include "generic/RK_wtrace.h"
#include "generic/kltt_context.h"
#include "generic/kltt_tables.h"

namespace {

class KlttPrint : public testing::Test {
 protected:
  void SetUp() override {
    context.listing = RK_OutputOpen(path_.c_str());
    ASSERT_NE(context.listing, nullptr);
  }
  void TearDown() override {
    RK_OutputClose(context.listing);
    std::remove(path_.c_str());
  }

  // What has been printed since the last call.
  std::string text() {
    RK_OutputFlush(context.listing);
    std::ifstream file(path_, std::ios::binary);
    file.seekg(static_cast<std::streamoff>(seen_));
    std::string fresh{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    seen_ += fresh.size();
    return fresh;
  }

  std::string report(const char* level, const char* description, const char* header = nullptr) {
    const char* call = "MPI_Send()";
    const uint32_t n = header == nullptr ? 0 : 1;
    KLTT_Report(&context, 5, 0x20001, "LOCAL:X", level, description, n, nullptr, nullptr, &header,
                nullptr, &call, nullptr);
    return text();
  }

  KLTT_Context context;

 private:
  std::string path_ = testing::TempDir() + "kltt_print." + std::to_string(::getpid());
  size_t seen_ = 0;
};

TEST_F(KlttPrint, ThreadsTellTheirOwnClock) {
  const uint32_t threads[] = {1, 3};
  KLTT_ProcessDeclaration(&context, 2, threads);
  KLTT_Duration(&context, 100, 2000);
  KLTT_ListThread(&context, 0x20001, "node", ",10.0.0.1,,10.0.0.2,", 7, uint64_t{1} << 40, -0.5,
                  0.25);
  EXPECT_EQ(text(),
            "PROCESS 1\nTHREAD 2\nHOSTNAME node\nIP 10.0.0.1\nIP 10.0.0.2\nPID 7\n"
            "TID 1099511627776\nSTART 24.500000\nEND 499.500000\n\n");
  KLTT_ListThread(&context, 0, nullptr, nullptr, 0, 0, 0, 0);
  EXPECT_EQ(text(),
            "PROCESS 0\nTHREAD 0\nHOSTNAME \nPID 0\nTID 0\nSTART 0.000000\nEND 0.000000\n\n");
}

TEST_F(KlttPrint, UndeclaredThreadsAreLeftOut) {
  KLTT_ListThread(&context, 0, "early", nullptr, 0, 0, 0, 1);
  const uint32_t threads[] = {1, 0xffffffff};
  KLTT_ProcessDeclaration(&context, 2, threads);
  for (const uint32_t gtp : {0x10000U, 2U, 0xffffffffU}) {
    KLTT_ListThread(&context, gtp, "undeclared", nullptr, 0, 0, 0, 1);
  }
  EXPECT_EQ(text(), "");
  KLTT_ListThread(&context, 0xffff0001, "last", nullptr, 0, 0, 0, 1);
  EXPECT_NE(text(), "");
}

TEST_F(KlttPrint, CustomStatisticsKeepTheFirstName) {
  const char* labels[] = {"hits", nullptr};
  const char* units[] = {"#", "s"};
  const double values[] = {1.5, -2e-300};
  KLTT_CustomStatisticsDefinition(&context, 4, "cache", 2, labels, units);
  KLTT_CustomStatisticsDefinition(&context, 4, nullptr, 0, labels, units);
  EXPECT_EQ(text(), "# cache <hits (#)>:<(null) (s)>\n# (null) \n");
  KLTT_CustomStatistics(&context, 4, "rank 0", 2, values);
  KLTT_CustomStatistics(&context, 4, nullptr, 0, values);
  EXPECT_EQ(text(), "INFO cache \"rank 0\":1.500000e+00:-2.000000e-300\nINFO cache \"(null)\"\n");
}

TEST_F(KlttPrint, StatisticsOfUndefinedThingsEndTheProcess) {
  const auto fatal = testing::ExitedWithCode(1);
  EXPECT_EXIT(KLTT_CustomStatistics(&context, 0, "x", 0, nullptr), fatal, "^stats id is zero\n$");
  EXPECT_EXIT(KLTT_CustomStatistics(&context, 9, "x", 0, nullptr), fatal,
              "^entry for undefined statistics #9\n$");
  EXPECT_EXIT(KLTT_CollopStatistics(&context, 1, 0, 1), fatal,
              "^collective operation id is zero\n$");
  EXPECT_EXIT(KLTT_CollopStatistics(&context, 1, 3, 1), fatal,
              "^statistics for undefined collection operation #3\n$");
  EXPECT_EXIT(KLTT_FunctionStatistics(&context, 0, 0, 1, 0, 0, 0, 0, 0, 0), fatal,
              "^function id is zero\n$");
  EXPECT_EXIT(KLTT_FunctionStatistics(&context, 8, 0, 1, 0, 0, 0, 0, 0, 0), fatal,
              "^statistics for undefined function #8\n$");
}

// The lines order some fields otherwise than the records.
TEST_F(KlttPrint, ProfilesHaveOneHeaderAndTheirOwnOrderOfFields) {
  KLTT_FunctionProfile(&context, 0x10000, 2, 3, 4, 5, 6, 7, 8, ~uint64_t{0});
  std::string lines = text();
  EXPECT_EQ(lines.find("# FUNCTION_PROFILE <willy>:<func>:"), 0U);
  EXPECT_EQ(lines.substr(lines.find('\n') + 1),
            "INFO FUNCTION_PROFILE 65536:2:3:4:5:6:7:8:18446744073709551615\n");
  KLTT_FunctionProfile(&context, 1, 2, 3, 4, 5, 6, 7, 8, 9);
  EXPECT_EQ(text(), "INFO FUNCTION_PROFILE 1:2:3:4:5:6:7:8:9\n");

  KLTT_OneToOneProfile(&context, 1, 2, 3, 4, 5, 6, 7, 8, -3, -9, 5);
  lines = text();
  EXPECT_EQ(lines.find("# ONE2ONE_PROFILE  <sender>:"), 0U);
  EXPECT_EQ(lines.substr(lines.find('\n') + 1), "INFO ONE2ONE_PROFILE 1:2:3:4:5:6:7:8:-9:5:-3\n");

  const uint32_t n[] = {1, 2};
  const double rates[] = {0.5, 1e9};
  const uint64_t durations[] = {3, 4};
  KLTT_CollopProfile(&context, 36, 0, 1, 2, n, n, n, n, n, n, n, rates, rates, rates, durations,
                     durations, durations);
  lines = text();
  EXPECT_EQ(lines.find("# COLLOP_PROFILE  <type>:"), 0U);
  EXPECT_EQ(lines.substr(lines.find('\n') + 1),
            "INFO COLLOP_PROFILE 36:0:1:0:1:1:1:1:1:1:1:0.500000:0.500000:0.500000:3:3:3\n"
            "INFO COLLOP_PROFILE 36:0:1:1:2:2:2:2:2:2:2:1000000000.000000:1000000000.000000:"
            "1000000000.000000:4:4:4\n");

  KLTT_LwStatistics(&context, 1, 2, 3, 4, -2, 5, 11, 12, 13, 21, 22, 23);
  EXPECT_EQ(text(), "INFO LWSTATS 1:2:3:4:-2:5:21:22:23:11:12:13\n");
}

TEST_F(KlttPrint, ReportsTellTheirLevel) {
  EXPECT_EQ(report("warning", ""), "[1] WARNING: LOCAL:X\n\n\n");
  for (const char* level : {"Warning", "warnings", "error", ""}) {
    EXPECT_EQ(report(level, ""), "[1] ERROR: LOCAL:X\n\n\n") << level;
  }
  EXPECT_EQ(report(nullptr, nullptr), "[1] ERROR: LOCAL:X\n\n\n");
}

TEST_F(KlttPrint, ReportsAreCutIntoLines) {
  EXPECT_EQ(report("error", "one"), "[1] ERROR: LOCAL:X\n[1] ERROR:   one\n\n");
  EXPECT_EQ(report("error", "one\n"), "[1] ERROR: LOCAL:X\n[1] ERROR:   one\n\n\n");
  EXPECT_EQ(report("error", "one\r\ntwo\rthree"),
            "[1] ERROR: LOCAL:X\n[1] ERROR:   one\n[1] ERROR:   \n[1] ERROR:   two\n"
            "[1] ERROR:   three\n\n");
  EXPECT_EQ(report("error", "d", "\nh"),
            "[1] ERROR: LOCAL:X\n[1] ERROR:   d\n[1] ERROR:     \n[1] ERROR:     h\n"
            "[1] ERROR:     MPI_Send()\n\n");
}

// With an output the definitions belong there, and nothing is entered for the lines behind.
TEST_F(KlttPrint, AnOutputSilencesThePrinters) {
  RK_Sink sink;
  context.sink = &sink;
  const char* label = "l";
  const double value = 1;
  EXPECT_EQ(KLTT_CustomStatisticsDefinition(&context, 4, "cache", 1, &label, &label), 0);
  EXPECT_EQ(KLTT_CustomStatistics(&context, 4, "x", 1, &value), 0);
  EXPECT_EQ(KLTT_FunctionProfile(&context, 1, 2, 3, 4, 5, 6, 7, 8, 9), 0);
  EXPECT_EQ(report("error", "d"), "");
  context.sink = nullptr;
  EXPECT_EQ(text(), "");
  EXPECT_EXIT(KLTT_CustomStatistics(&context, 4, "x", 1, &value), testing::ExitedWithCode(1),
              "entry for undefined statistics #4");
}

}  // namespace
