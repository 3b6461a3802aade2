// Functions on directories, with files in a temporary directory, and on texts.
#include "util/pal_util.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include "tests/builder/trace_files.h"
#include "util/pal_strings.h"

namespace {

namespace fs = std::filesystem;

// A test that doesn't end is killed after this CPU time, whatever the load of the machine.
const bool kLimitsTime = [] {
  const rlimit limit = {600, 600};
  return setrlimit(RLIMIT_CPU, &limit) == 0;
}();

TEST(PalUtil, CallsInADirectoryReturnToThePreviousOneWithTheirErrno) {
  const tb::TempDir directory;
  // A path that is longer than the first buffer.
  const std::string root = fs::canonical(directory.path()).string() + '/' + std::string(250, 'd');
  const std::string sub = root + "/sub", file = sub + "/f";
  const auto directoryAndErrno = [] {
    const auto seen = PAL_GetCwd();
    return errno = EXDEV, seen;
  };
  fs::create_directories(sub);
  fs::current_path(root);
  tb::writeFile(file, "");
  testing::internal::CaptureStderr();
  EXPECT_EQ(PAL_InDir("./sub/", directoryAndErrno), sub);
  EXPECT_EQ(errno, EXDEV);
  for (const char* same : {".", "no\nne"}) EXPECT_EQ(PAL_InDir(same, directoryAndErrno), root);
  EXPECT_GE(PAL_OpenInDir("sub", "f", O_RDONLY, 0), 0);
  EXPECT_GE(PAL_OpenInDir("/", file.c_str(), O_RDONLY, 0), 0);
  EXPECT_EQ(PAL_RemoveInDir("sub", "f"), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "ERROR: cannot cd into no\\x0ane: No such file or directory\n");
  fs::current_path("/");
}

TEST(PalStrings, TablesAreForAsciiOnlyAndLongTextsAreComplete) {
  for (int byte = 1; byte < 256; ++byte) {
    const char c = static_cast<char>(byte);
    const bool ascii = byte < 128;
    EXPECT_EQ(PAL_IsSpace(c), ascii && std::isspace(byte) != 0) << byte;
    EXPECT_EQ(PAL_ToUpper(c), static_cast<char>(ascii ? std::toupper(byte) : byte)) << byte;
    EXPECT_EQ(PAL_IsDigits(std::string{'1', c}.c_str()), ascii && std::isdigit(byte)) << byte;
  }
  EXPECT_EQ(PAL_IsDigits(""), 0);
  EXPECT_EQ(PAL_StrCaseCmp("--dump", "--DuMp"), 0);
  EXPECT_EQ(PAL_StrCaseCmp("LOGFILE", "LOGFILE-NAME"), -'-');
  EXPECT_EQ(PAL_StrCaseCmp("\xe4", "a"), 0xe4 - 'A');
  const std::string text(100000, 'y');
  EXPECT_EQ(PAL_asprintf("%s", ""), "");
  EXPECT_TRUE(PAL_asprintf("%d%s", 7, text.c_str()) == "7" + text);
}

}  // namespace
