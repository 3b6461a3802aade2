// The format, settings and targets of messages, and the debug channel.
#include "util/pal_error.h"
#include "util/pal_debug.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <regex>
#include <string>

namespace {

std::string received;  // by the callback

void receive(void*, const char* block, size_t length) {
  received.append(block, length);
  errno = EBADF;
}

TEST(PalError, EachLineOfAnEnabledLevelHasThePrefixOfTheSettings) {
  const PAL_MessageSettings saved = PAL_messages;
  const std::pair<PAL_MessageSettings, std::string> cases[] = {
      {{nullptr, nullptr, 0, 1, 0, std::tmpfile(), &receive}, ""},
      {{"tool", "tool", 0, 0, 1, std::tmpfile(), &receive}, "tool "},
      {{"tool", nullptr, 1, 1, 1, std::tmpfile(), &receive}, "TIME tool "},
      {{"tool", "p 3", 1, 1, 1, std::tmpfile(), &receive}, "[p 3 TIME] tool "}};
  std::string texts[] = {"\n\na\n\n\nb", std::string(1023, 'x'), std::string(1024, 'x'), "",
                         " \t\n"};
  for (int i = 0; i < 6000; ++i) texts[3] += "a\n";
  const std::regex line("\n*([^\n]+)\n*"), time("\\w{3} \\w{3} [ 0-9]\\d [0-9:]{8} \\d{4}");
  for (const auto& [settings, prefix] : cases) {
    for (const std::string& text : texts) {
      std::string expected;
      for (const std::string level : {"INFO: ", "WARNING: ", "ERROR: "}) {
        if ((level == "ERROR: " ? settings.errorEnabled : settings.infoEnabled) == 0) continue;
        if (text != " \t\n") expected += std::regex_replace(text, line, prefix + level + "$1\n");
      }
      PAL_messages = settings;
      testing::internal::CaptureStderr();
      received.clear();
      errno = ENOTDIR;
      for (const auto write : {&PAL_Info, &PAL_Warning, &PAL_Error}) write("%s", text.c_str());
      EXPECT_EQ(errno, ENOTDIR);
      EXPECT_TRUE(testing::internal::GetCapturedStderr() == received);
      EXPECT_TRUE(std::regex_replace(received, time, "TIME") == expected) << prefix << text.size();
      EXPECT_EQ(std::ftell(settings.logStream), static_cast<long>(received.size()));
      std::rewind(settings.logStream);
    }
    std::fclose(settings.logStream);
  }
  PAL_messages = saved;
}

TEST(PalError, MessagesAboutDataThatIsReadTwiceAreWrittenOnce) {
  PAL_MessagesOnce messages;
  testing::internal::CaptureStderr();
  for (const char text : {'a', 'a', 'b'}) PAL_Warning("%c", text);
  messages.beginSecond();
  for (const char text : {'a', 'c', 'a', 'a'}) PAL_Warning("%c", text);
  const std::string all = testing::internal::GetCapturedStderr();
  EXPECT_EQ(std::regex_replace(all, std::regex(".*: |\n"), ""), "aabca");
}

TEST(PalError, ControlBytesOfNamesAreEscaped) {
  // Also those above 0x7f, as a byte and in UTF-8, but no other character of UTF-8.
  EXPECT_EQ(PAL_Printable({"\x1f\x7f\0 \x9b\xc2\x9b\xc3\x9b", 9}),
            "\\x1f\\x7f\\x00 \\x9b\\xc2\\x9b\xc3\x9b");
  testing::internal::CaptureStderr();
  errno = ENOENT;
  PAL_Perror("t\r");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "t\\x0d: No such file or directory\n");
}

// The channel stores its descriptor and position, so the test runs in a process of its own.
TEST(PalErrorDeathTest, DebugChannelWritesTimeAndLocationBeforeEachLine) {
  const auto debug = [] {
    setenv("PAL_DEBUG_FD", "2", 1);
    errno = ERANGE;
    PAL_Debug("d/a.cpp", 1, "one ");
    PAL_Debug("d/a.cpp", 1, "line\ntwo");
    PAL_Debug("d/a.cpp", 2, "%s = %d\n", "call", errno);
    PAL_Abort();
  };
  EXPECT_EXIT(debug(), testing::KilledBySignal(SIGABRT),
              "^\\[[0-9]+\\.[0-9]{6} init/0x[0-9a-f]+/[0-9]+@a\\.cpp:1\\] one line\n"
              "\\[.*:1\\] two\n\\[.*:2\\] call = 34\n"
              "\\[.*@pal_debug\\.cpp:[0-9]+\\] aborting in PAL_abort\\(\\)$");
}

}  // namespace
