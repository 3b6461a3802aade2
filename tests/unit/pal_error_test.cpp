// The message format, its gates and targets, and the debug channel.
#include "util/pal_error.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <regex.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "util/pal_util.h"
#include "util/vfd.h"

namespace {

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

class PalError : public testing::Test {
 protected:
  void SetUp() override { PAL_messages = {"klttool", nullptr, 0, 1, 1, nullptr, nullptr}; }
  void TearDown() override { PAL_messages = saved_; }

  template <class F>
  static std::string Output(F&& call) {
    CaptureStderr();
    call();
    return GetCapturedStderr();
  }

 private:
  PAL_MessageSettings saved_ = PAL_messages;
};

TEST_F(PalError, EachLineHasThePrefixOfItsLevel) {
  EXPECT_EQ(Output([] { PAL_Error("first %d\nsecond\n", 1); }),
            "klttool ERROR: first 1\nklttool ERROR: second\n");
  EXPECT_EQ(Output([] { PAL_Warning("\n\nw\n\n\nx"); }),
            "klttool WARNING: w\nklttool WARNING: x\n");
  EXPECT_EQ(Output([] { PAL_Info("%s", " \t\n"); }), "");
  PAL_messages.programName = nullptr;
  EXPECT_EQ(Output([] { PAL_Info("i"); }), "INFO: i\n");
}

TEST_F(PalError, ProcessNameStandsInBracketsUnlessItIsTheProgram) {
  PAL_messages.processName = "p 3";
  EXPECT_EQ(Output([] { PAL_Error("e"); }), "[p 3] klttool ERROR: e\n");
  PAL_messages.processName = "klttool";
  EXPECT_EQ(Output([] { PAL_Error("e"); }), "klttool ERROR: e\n");
}

TEST_F(PalError, WhatIsReadTwiceIsComplainedOfOnce) {
  const auto say = [](const char* texts) {
    for (; *texts != '\0'; ++texts) PAL_Warning("%c", *texts);
  };
  const std::string told = Output([&] {
    say("a");
    {
      PAL_MessagesOnce messages;
      say("aab");
      messages.beginSecond();
      say("acaa");
    }
    say("b");
  });
  std::string letters;
  for (size_t i = 0; i < told.size(); ++i) letters += told[i] == '\n' ? told.substr(i - 1, 1) : "";
  EXPECT_EQ(letters, "aaabcab");
}

bool Matches(const std::string& text, const std::string& pattern) {
  regex_t compiled;
  if (regcomp(&compiled, ("^" + pattern + "$").c_str(), REG_EXTENDED | REG_NOSUB) != 0) {
    return false;
  }
  const bool matches = regexec(&compiled, text.c_str(), 0, nullptr, 0) == 0;
  regfree(&compiled);
  return matches;
}

TEST_F(PalError, TimeStandsAheadOfTheProgramOrBehindTheProcess) {
  PAL_messages.showTime = 1;
  const std::string stamp = "[A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9][0-9] [0-9:]{8} [0-9]{4}";
  const std::string plain = Output([] { PAL_Error("e\nf"); });
  EXPECT_TRUE(Matches(plain, stamp + " klttool ERROR: e\n" + stamp + " klttool ERROR: f\n"))
      << plain;
  PAL_messages.processName = "p";
  const std::string named = Output([] { PAL_Error("e"); });
  EXPECT_TRUE(Matches(named, "\\[p " + stamp + "\\] klttool ERROR: e\n")) << named;
}

TEST_F(PalError, GatesDropWhatIsDisabled) {
  PAL_messages.infoEnabled = 0;
  EXPECT_EQ(Output([] {
              PAL_Info("i");
              PAL_Warning("w");
              PAL_Error("e");
            }),
            "klttool ERROR: e\n");
  PAL_messages.errorEnabled = 0;
  EXPECT_EQ(Output([] { PAL_Error("e"); }), "");
}

TEST_F(PalError, LongTextsAreNotCut) {
  const std::string line(3000, 'x');
  for (const size_t size : {1023U, 1024U, 3000U}) {
    const std::string text = line.substr(0, size);
    EXPECT_EQ(Output([&] { PAL_Error("%s", text.c_str()); }), "klttool ERROR: " + text + "\n");
  }
  std::string lines;
  std::string expected;
  for (int i = 0; i < 30000; ++i) {
    lines += "a\n";
    expected += "klttool INFO: a\n";
  }
  EXPECT_EQ(Output([&] { PAL_Info("%s", lines.c_str()); }), expected);
}

std::string callbackText;

TEST_F(PalError, FurtherTargetsGetTheSameBlockAndErrnoIsKept) {
  char* text = nullptr;
  size_t size = 0;
  FILE* stream = open_memstream(&text, &size);
  PAL_SetLogStream(stream);
  PAL_SetLogCallback([](void* context, const char* block, size_t length) {
    EXPECT_EQ(context, nullptr);
    callbackText.assign(block, length);
    errno = EBADF;
  });
  errno = ENOTDIR;
  const std::string output = Output([] { PAL_Error("a\nb"); });
  EXPECT_EQ(errno, ENOTDIR);
  std::fclose(stream);
  EXPECT_EQ(output, "klttool ERROR: a\nklttool ERROR: b\n");
  EXPECT_EQ(text, output);
  EXPECT_EQ(callbackText, output);
  std::free(text);
}

TEST_F(PalError, ControlBytesOfNamesAreEscaped) {
  EXPECT_EQ(PAL_Printable(std::string_view("a\n\x1b[2J\x7f\0\xc3\xa9", 10)),
            "a\\x0a\\x1b[2J\\x7f\\x00\xc3\xa9");
  errno = ENOENT;
  EXPECT_EQ(Output([] { PAL_Perror("t\r.klt"); }), "t\\x0d.klt: No such file or directory\n");
  EXPECT_EQ(Output([] { PAL_Perror(nullptr); }), "No such file or directory\n");
}

// The channel remembers its descriptor and position, so each case runs in a process of its own.
using PalErrorDeathTest = PalError;

TEST_F(PalErrorDeathTest, AbortSaysSoOnTheDebugChannel) {
  EXPECT_EXIT(PAL_Abort(), testing::KilledBySignal(SIGABRT),
              "\\[[0-9]+\\.[0-9]{6} init/0x[0-9a-f]+/[0-9]+@pal_error\\.cpp:[0-9]+\\] aborting in "
              "PAL_abort\\(\\)");
}

TEST_F(PalErrorDeathTest, DebugPrefixesWhatBeginsALine) {
  EXPECT_EXIT(
      {
        setenv("PAL_DEBUG_FD", "2", 1);
        errno = ERANGE;
        PAL_Debug("d/a.cpp", 1, "one ");
        PAL_Debug("d/a.cpp", 1, "line\ntwo");
        PAL_Debug("d/a.cpp", 2, "%s = %d\n", "call", errno);
        std::_Exit(errno == ERANGE ? 0 : 1);
      },
      testing::ExitedWithCode(0),
      "^\\[.*@a\\.cpp:1\\] one line\n\\[.*@a\\.cpp:1\\] two\n\\[.*@a\\.cpp:2\\] call = 34\n$");
}

TEST_F(PalErrorDeathTest, DebugOpensAFileForANamedProcessHoweverManyThereAre) {
  const std::string directory = testing::TempDir() + "pal_error_debug";
  std::filesystem::create_directory(directory);
  EXPECT_EXIT(
      {
        unsetenv("PAL_DEBUG_FD");
        if (chdir(directory.c_str()) != 0) std::_Exit(2);
        PAL_messages.processName = "a b/c\\d";
        rlimit few{};
        few.rlim_cur = few.rlim_max = 16;
        setrlimit(RLIMIT_NOFILE, &few);
        for (int i = 0; i < 20; ++i) (void)Vfd_Open("/", O_RDONLY, 0);
        PAL_Debug("x.cpp", 1, "first\n");
        for (int i = 0; i < 20; ++i) (void)Vfd_Open("/", O_RDONLY, 0);
        PAL_Debug("x.cpp", 1, "second\n");
        std::_Exit(0);
      },
      testing::ExitedWithCode(0), "^$");
  const std::string name = directory + "/PAL-debug-a_b_c_d.out";
  struct stat status = {};
  ASSERT_EQ(stat(name.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600U);
  const std::string text = PAL_ReadFile(name.c_str()).value_or("");
  EXPECT_NE(text.find("first\n["), std::string::npos) << text;
  EXPECT_TRUE(text.ends_with("] second\n")) << text;
  std::filesystem::remove(name);

  std::filesystem::create_directory(name);
  EXPECT_EXIT(
      {
        unsetenv("PAL_DEBUG_FD");
        if (chdir(directory.c_str()) != 0) std::_Exit(2);
        PAL_messages.processName = "a b/c\\d";
        PAL_Debug("x.cpp", 1, "dropped\n");
        std::_Exit(0);
      },
      testing::ExitedWithCode(0),
      "WARNING: cannot open PAL-debug-a_b_c_d\\.out in .*pal_error_debug\n$");
  std::filesystem::remove_all(directory);
}

}  // namespace
