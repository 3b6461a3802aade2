// Text output: what arrives, in which pieces, and what is said when it doesn't.
#include "generic/text/RK_output.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>

#include "generic/sink/RK_wtrace.h"
#include "generic/text/RK_rkf.h"
#include "generic/text/kltt_exit.h"
#include "tests/builder/trace_files.h"
#include "util/vfd.h"

namespace {

TEST(RkOutput, TextArrivesInOrderAndInLargeBlocks) {
  static size_t largest, writes;
  largest = writes = 0;
  Vfd_systemCalls.write = [](int fd, const void* buffer, size_t bytes) {
    largest = std::max(largest, bytes);
    writes++;
    return Vfd_osCalls.write(fd, buffer, bytes);
  };
  const tb::TempDir directory;
  RK_Output* output = RK_OutputOpen("a", directory.path().c_str());
  ASSERT_NE(output, nullptr);
  std::string expected;
  for (uint64_t i = 0; i < 40000; i++) {
    const std::string text = std::to_string(i) + std::string(i % 9999 == 3 ? 300000 : 0, 'x');
    if (i % 3 == 0) RK_OutputPrintf(output, "%s %c\n", text.c_str(), 'C');
    if (i % 3 == 1) RK_OutputWrite(output, text + "\n");
    if (i % 3 == 2) RK_WriteComment(output, i, text.c_str());
    expected += (i % 3 == 2 ? std::to_string(i) + " C " : "") + text + (i % 3 == 0 ? " C\n" : "\n");
  }
  EXPECT_EQ(RK_OutputClose(output), 0);
  Vfd_systemCalls = Vfd_osCalls;
  EXPECT_TRUE(tb::readFile(directory / "a") == expected);
  EXPECT_EQ(largest, RK_Output::kBlock);
  EXPECT_EQ(writes, (expected.size() + largest - 1) / largest);
}

TEST(RkOutputDeathTest, FailuresAreToldOnceAndLastToTheExit) {
  const tb::TempDir directory;
  const std::string file = directory / "out", sinkFile = directory / "sink";
  const struct {
    std::string out;
    int status, exitStatus;
    const char *text, *messages;
  } rows[] = {
      {file, 0, 0, "DEFACT 1 \"a\"\nafter\n", ""},
      {file, -1, 1, "DEFACT 1 \"a\"\nafter\nundefined function #7\n", ""},
      {"/dev/full", 0, 1, "", "ERROR: writing to stdout failed: No space left on device\n"},
      {"/dev/full", 3, 3, "", "ERROR: writing to stdout failed: No space left on device\n"},
  };
  for (const auto& row : rows) {
    const auto leave = [&] {
      dup2(open(row.out.c_str(), O_WRONLY | O_CREAT, 0666), STDOUT_FILENO);
      if (row.status < 0) dup2(STDOUT_FILENO, STDERR_FILENO);
      RK_Sink* sink = RK_SinkOpenAscii("-", 0);
      RK_WriteAct(sink->output, 1, "a");
      RK_SinkClose(sink, 0);
      static RK_Sink* left = nullptr;  // open, and no leak, at the exit
      left = RK_SinkOpenAscii(sinkFile.c_str(), 0);
      RK_OutputWrite(left->output, "in the sink\n");
      RK_OutputWrite(RK_Stdout(), "after\n");
      if (row.status < 0) KLTT_Fatal("undefined function #%d", 7);
      KLTT_Exit(row.status);
    };
    tb::writeFile(file, "");
    EXPECT_EXIT(leave(), testing::ExitedWithCode(row.exitStatus),
                testing::Matcher<const std::string&>(row.messages));
    EXPECT_EQ(tb::readFile(file), row.text);
    EXPECT_EQ(tb::readFile(sinkFile), "in the sink\n");
  }
  const auto goOn = [] {
    RK_Output* output = RK_OutputOpen("/dev/full");
    EXPECT_EQ(RK_WriteAct(output, 1, "a"), 0) << "still in the buffer";
    RK_OutputWrite(output, std::string(1000000, 'x'));
    EXPECT_TRUE(RK_OutputFailed(output));
    EXPECT_EQ(RK_WriteAct(output, 1, "a") + RK_OutputFlush(output) + RK_OutputClose(output), 3);
    std::_Exit(testing::Test::HasFailure() ? 1 : 0);
  };
  EXPECT_EXIT(goOn(), testing::ExitedWithCode(0),
              "^ERROR: writing to /dev/full failed: No space left on device\n$");
}

TEST(RkOutput, TimesAreShiftedUnlessUnknown) {
  constexpr uint64_t kUnknown = uint64_t{1} << 63;
  const struct {
    int32_t shift;
    uint64_t time, shown;
  } rows[] = {
      {13, 8192 * 5 + 3, 5},    {-1, 77, 154},
      {64, kUnknown | 8, 1},    {INT32_MAX, kUnknown - 1, 0},
      {-64, 3, kUnknown},       {INT32_MIN, 2, 0},
      {-5, kUnknown, kUnknown}, {-5, kUnknown + 1, kUnknown + 1},
  };
  for (const auto& row : rows) {
    const std::unique_ptr<RK_Sink> sink(RK_SinkOpenAscii("-", 0));
    sink->timeShift = row.shift;
    EXPECT_EQ(RK_SinkTime(sink.get(), row.time), row.shown) << row.shift << " " << row.time;
  }
}

}  // namespace
