// Text output: its bytes, the sizes of its writes, and the exit of the process. Full disks are
// tested end to end.
#include "generic/text/RK_output.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "generic/sink/RK_wtrace.h"
#include "generic/text/RK_line.h"
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
  std::string expected;
  for (uint64_t i = 0; i < 40000; i++) {
    const std::string text =
        std::to_string(i) + std::string(i % 9999 == 3 ? 300000 : i % 2000, 'x');
    if (i % 3 == 0) RK_OutputPrintf(output, "%s%c", text.c_str(), '\n');
    if (i % 3 == 1) RK_OutputWrite(output, text + "\n");
    if (i % 3 == 2) RK_Line(output).text(text.c_str()).end();
    expected += text + '\n';
  }
  EXPECT_EQ(RK_OutputClose(output), 0);
  Vfd_systemCalls = Vfd_osCalls;
  EXPECT_TRUE(tb::readFile(directory / "a") == expected);
  EXPECT_EQ(largest, RK_Output::kBlock);
  EXPECT_EQ(writes, (expected.size() + largest - 1) / largest);
}

TEST(RkOutputDeathTest, OpenOutputsAreClosedAtTheExit) {
  const tb::TempDir directory;
  const std::string file = directory / "out", sinkFile = directory / "sink";
  const auto leave = [&] {
    dup2(open(file.c_str(), O_WRONLY | O_CREAT, 0666), STDOUT_FILENO);
    static RK_Sink* left = nullptr;  // still open at the exit; static, so no leak
    left = RK_SinkOpenAscii(sinkFile.c_str(), 0);
    RK_OutputWrite(left->output, "in the sink\n");
    EXPECT_EQ(RK_WriteAct(RK_Stdout(), 1, "a"), 0);
    dup2(STDOUT_FILENO, STDERR_FILENO);
    KLTT_Fatal("undefined function #%d", 7);
  };
  EXPECT_EXIT(leave(), testing::ExitedWithCode(1), "");
  EXPECT_EQ(tb::readFile(file), "DEFACT 1 \"a\"\nundefined function #7\n");
  EXPECT_EQ(tb::readFile(sinkFile), "in the sink\n");
}

}  // namespace
