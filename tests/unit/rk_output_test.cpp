// Text output: what arrives, in which pieces, and what is said when it doesn't.
#include "generic/RK_output.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "generic/RK_conf.h"
#include "generic/RK_rkf.h"
#include "generic/RK_wtrace.h"
#include "generic/kltt_exit.h"
#include "util/vfd.h"

namespace {

class RkOutputTest : public testing::Test {
 protected:
  RkOutputTest() {
    std::string pattern = (std::filesystem::temp_directory_path() / "rk_output_XXXXXX").string();
    directory_ = mkdtemp(pattern.data());
  }
  ~RkOutputTest() override {
    Vfd_systemCalls = Vfd_osCalls;
    std::filesystem::remove_all(directory_);
  }

  std::string path(const char* name) const { return directory_ + "/" + name; }

  static std::string contents(const std::string& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
  }

  std::string directory_;
};

size_t occurrences(const std::string& text, const std::string& part) {
  size_t count = 0;
  for (size_t at = 0; (at = text.find(part, at)) != std::string::npos; at++) count++;
  return count;
}

// Runs `action` in a process of its own (a failure is remembered for the process's life) whose
// standard output is `out` (-1: closed). The result is the wait status; what it says on standard
// error goes to `errorFile`.
template <class Action>
int inChild(int out, const std::string& errorFile, Action&& action) {
  const pid_t child = fork();
  if (child == 0) {
    const int error = open(errorFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
    dup2(error, 2);
    if (out < 0) {
      close(1);
    } else {
      dup2(out, 1);
    }
    action();
    _exit(testing::Test::HasFailure() ? 99 : 0);
  }
  int status = -1;
  waitpid(child, &status, 0);
  return status;
}

size_t largestWrite;
size_t writes;

TEST_F(RkOutputTest, TextArrivesInOrderAndInLargeBlocks) {
  largestWrite = writes = 0;
  Vfd_systemCalls.write = [](int fd, const void* buffer, size_t bytes) -> ssize_t {
    largestWrite = std::max(largestWrite, bytes);
    writes++;
    return Vfd_osCalls.write(fd, buffer, bytes);
  };
  RK_Output* output = RK_OutputOpen(path("a").c_str());
  ASSERT_NE(output, nullptr);
  std::string expected;
  const std::string longText(300000, 'x');
  for (int i = 0; i < 40000; i++) {
    const std::string number = std::to_string(i);
    if (i % 3 == 0) RK_OutputPrintf(output, "%d %G\n", i, i / 8.0);
    if (i % 3 == 1) RK_OutputWrite(output, number + "\n");
    if (i % 3 == 2) RK_WriteComment(output, static_cast<uint64_t>(i), "line");
    char text[64];
    snprintf(text, sizeof text,
             i % 3 == 0   ? "%d %G\n"
             : i % 3 == 1 ? "%d\n"
                          : "%d C line\n",
             i, i / 8.0);
    expected += text;
  }
  RK_OutputPrintf(output, "%s", longText.c_str());
  RK_WriteComment(output, 1, longText.c_str());
  expected += longText + "1 C " + longText + "\n";
  EXPECT_EQ(RK_OutputClose(output), 0);
  EXPECT_TRUE(contents(path("a")) == expected);
  EXPECT_EQ(largestWrite, RK_Output::kBlock);
  EXPECT_EQ(writes, (expected.size() + RK_Output::kBlock - 1) / RK_Output::kBlock);
}

TEST_F(RkOutputTest, AFailureIsToldOnceAndSticks) {
  const int status = inChild(1, path("err"), [] {
    RK_Output* output = RK_OutputOpen("/dev/full");
    EXPECT_EQ(RK_WriteAct(output, 1, "a"), 0) << "still in the buffer";
    for (int i = 0; i < 100000; i++) RK_OutputWrite(output, "0123456789");
    EXPECT_TRUE(RK_OutputFailed(output));
    EXPECT_EQ(RK_WriteAct(output, 1, "a"), 1);
    EXPECT_EQ(RK_OutputFlush(output), 1);
    EXPECT_EQ(RK_OutputClose(output), 1);
  });
  EXPECT_EQ(WEXITSTATUS(status), 0);
  const std::string said = contents(path("err"));
  EXPECT_EQ(occurrences(said, "writing to /dev/full failed: No space left on device"), 1U) << said;
}

TEST_F(RkOutputTest, AFailureOfCloseIsToldToo) {
  const int status = inChild(1, path("err"), [&] {
    RK_Output* output = RK_OutputOpen(path("a").c_str());
    RK_OutputWrite(output, "text");
    Vfd_systemCalls.close = [](int fd) {
      Vfd_osCalls.close(fd);
      errno = EDQUOT;
      return -1;
    };
    EXPECT_EQ(RK_OutputClose(output), 1);
  });
  EXPECT_EQ(WEXITSTATUS(status), 0);
  const std::string said = contents(path("err"));
  EXPECT_EQ(occurrences(said, "/a failed: Disk quota exceeded"), 1U) << said;
}

TEST_F(RkOutputTest, WhatCannotBeOpenedIsNull) {
  EXPECT_EQ(RK_OutputOpen(path("missing/a").c_str()), nullptr);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(RK_SinkOpenAscii(directory_.c_str(), 0), nullptr);
}

TEST_F(RkOutputTest, ASinkOpensItsNameFromTheConfiguredDirectory) {
  RK_conf.extended_rkf = 1;
  RK_conf.current_dir = directory_;
  RK_Sink* sink = RK_SinkOpenAscii("s", 0);
  RK_conf.current_dir.clear();
  ASSERT_NE(sink, nullptr);
  EXPECT_EQ(sink->name, "s");
  uint32_t id = 0;
  EXPECT_EQ(RK_SinkDefineFile(sink, 7, "main.c", &id), 0);
  EXPECT_EQ(RK_SinkDefineFile(sink, 7, "main.c", &id), 0);
  EXPECT_EQ(id, 7U);
  const int32_t members[] = {5, 3, 1, 1, 9};
  EXPECT_EQ(RK_SinkDefineCommunicator(sink, "world", 4, 5, members, 0), 0);
  EXPECT_EQ(RK_SinkComment(sink->output, 8, 65535, "ERROR: lost\nmessage"), 0);
  EXPECT_EQ(RK_SinkComment(sink->output, 8, 65535, "QMC: lost"), 0);
  EXPECT_EQ(RK_SinkComment(sink->output, 8, 65535, "ERROR lost"), 0);
  EXPECT_EQ(RK_SinkComment(sink->output, 8, 65535, nullptr), 0);
  EXPECT_EQ(RK_SinkClose(sink, 0), 0);
  EXPECT_EQ(contents(path("s")),
            "FILETOKEN 7 \"main.c\"\nFILETOKEN 7 \"main.c\"\n"
            "COMDEF 4 5 5:1:-2 9:9:1 NAME \"world\"\n"
            "8 C CPU 65536 ERROR: lost message\n8 C CPU 65536 QMC: lost\n"
            "8 C ERROR lost\n8 C (null)\n");
  EXPECT_EQ(RK_SinkClose(nullptr, 0), 0);
}

TEST_F(RkOutputTest, TimesAreShiftedUnlessUnknown) {
  constexpr uint64_t kUnknown = uint64_t{1} << 63;
  RK_Sink sink;
  const struct {
    int32_t shift;
    uint64_t time, shown;
  } cases[] = {
      {13, 8192 * 5 + 3, 5},
      {0, 77, 77},
      {-1, 77, 154},
      {63, kUnknown | 8, 1},
      {64, kUnknown | 8, 1},
      {INT32_MAX, kUnknown - 1, 0},
      {-64, 3, kUnknown},
      {INT32_MIN, 2, 0},
      {-5, kUnknown, kUnknown},
      {-5, kUnknown + 1, kUnknown + 1},
      {5, kUnknown, kUnknown},
  };
  for (const auto& c : cases) {
    sink.timeShift = c.shift;
    EXPECT_EQ(RK_SinkTime(&sink, c.time), c.shown) << c.shift << " " << c.time;
  }
}

TEST_F(RkOutputTest, ExitHandsOverEverythingAndTellsFailures) {
  const int file = open(path("out").c_str(), O_WRONLY | O_CREAT, 0666);
  const int full = open("/dev/full", O_WRONLY);
  ASSERT_GE(full, 0);
  const auto leave = [&](int status) {
    RK_Sink* sink = RK_SinkOpenAscii(path("sink").c_str(), 0);
    RK_OutputWrite(sink->output, "in the sink\n");
    RK_OutputWrite(RK_Stdout(), "on stdout\n");
    KLTT_Exit(status);
  };
  int status = inChild(file, path("err"), [&] { leave(0); });
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_EQ(contents(path("out")), "on stdout\n");
  EXPECT_EQ(contents(path("sink")), "in the sink\n");
  EXPECT_EQ(contents(path("err")), "");

  status = inChild(full, path("err"), [&] { leave(0); });
  EXPECT_EQ(WEXITSTATUS(status), 1);
  EXPECT_EQ(occurrences(contents(path("err")), "writing to stdout failed: No space left on device"),
            1U);
  status = inChild(full, path("err"), [&] { leave(3); });
  EXPECT_EQ(WEXITSTATUS(status), 3);

  status = inChild(-1, path("err"), [] {
    RK_OutputWrite(RK_Stdout(), "text");
    KLTT_Exit(0);
  });
  EXPECT_EQ(WEXITSTATUS(status), 1);
  EXPECT_EQ(occurrences(contents(path("err")), "writing to stdout failed: Bad file descriptor"),
            1U);
  close(file);
  close(full);
}

TEST_F(RkOutputTest, AFatalErrorFollowsTheTextBeforeIt) {
  const int file = open(path("out").c_str(), O_WRONLY | O_CREAT, 0666);
  const int status = inChild(file, path("err"), [&] {
    dup2(1, 2);
    RK_OutputWrite(RK_Stdout(), "before\n");
    KLTT_Fatal("undefined function #%d", 7);
  });
  close(file);
  EXPECT_EQ(WEXITSTATUS(status), 1);
  EXPECT_EQ(contents(path("out")), "before\nundefined function #7\n");
}

TEST_F(RkOutputTest, AClosedPipeEndsTheProcessQuietly) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  close(ends[0]);
  const int killed = inChild(ends[1], path("err"), [&] {
    RK_OutputWrite(RK_Stdout(), "text");
    KLTT_Exit(0);
  });
  close(ends[1]);
  EXPECT_TRUE(WIFSIGNALED(killed));
  EXPECT_EQ(WTERMSIG(killed), SIGPIPE);
  EXPECT_EQ(contents(path("err")), "");
}

TEST_F(RkOutputTest, StandardOutputStaysUsableAfterItsSinkIsClosed) {
  const int file = open(path("out").c_str(), O_WRONLY | O_CREAT, 0666);
  const int status = inChild(file, path("err"), [&] {
    RK_Sink* sink = RK_SinkOpenAscii("-", 0);
    RK_WriteAct(sink->output, 1, "a");
    RK_SinkClose(sink, 0);
    RK_OutputWrite(RK_Stdout(), "after\n");
    KLTT_Exit(0);
  });
  close(file);
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_EQ(contents(path("out")), "DEFACT 1 \"a\"\nafter\n");
}

}  // namespace
