// Directories and whole files, on real files in a directory of the test's own; texts.
#include "util/pal_util.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cctype>
#include <cerrno>
#include <filesystem>
#include <string>

#include "tests/builder/trace_files.h"
#include "util/pal_strings.h"

namespace {

namespace fs = std::filesystem;

TEST(PalUtil, CallsInADirectoryComeBackWithTheirErrno) {
  const tb::TempDir directory;
  // Longer than the first buffer for it.
  const std::string root = fs::canonical(directory.path()).string() + '/' + std::string(250, 'd');
  const std::string sub = root + "/sub", file = sub + "/f";
  const auto look = [] {
    const auto seen = PAL_GetCwd();
    return errno = EXDEV, seen;
  };
  fs::create_directories(sub);
  fs::current_path(root);
  tb::writeFile(file, "");
  testing::internal::CaptureStderr();
  EXPECT_EQ(PAL_InDir("./sub/", look), sub);
  EXPECT_EQ(errno, EXDEV);
  for (const char* same : {".", "no\nne"}) EXPECT_EQ(PAL_InDir(same, look), root);
  EXPECT_GE(PAL_OpenInDir("sub", "f", O_RDONLY, 0), 0);
  EXPECT_GE(PAL_OpenInDir("/", file.c_str(), O_RDONLY, 0), 0);
  EXPECT_EQ(PAL_RemoveInDir("sub", "f"), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "ERROR: cannot cd into no\\x0ane: No such file or directory\n");
  fs::current_path("/");
}

TEST(PalUtil, FilesAreReadWhateverTheirSize) {
  const tb::TempDir directory;
  const std::string file = directory / "f", bad = file + "/f";
  for (const size_t size : {0U, 65536U, 200000U}) {
    tb::writeFile(file, std::string(size, 'x'));
    EXPECT_TRUE(PAL_ReadFile(file.c_str()) == std::string(size, 'x')) << size;
    EXPECT_EQ(PAL_FileSize(file.c_str()), size);
  }
  EXPECT_EQ(PAL_ReadFile("/"), std::nullopt);
  EXPECT_EQ(errno, EISDIR);
  int failed[3] = {9, 9, 9};
  EXPECT_EQ(PAL_IsDir("/", &failed[0]), 1);
  EXPECT_EQ(PAL_IsDir("none", &failed[1]) + PAL_IsDir(bad.c_str(), &failed[2]), 0);
  EXPECT_EQ(testing::PrintToString(failed), "{ 0, 0, 1 }");
  EXPECT_EQ(PAL_System("exit 3"), 3 << 8);
}

TEST(PalStrings, TablesKnowAsciiOnlyAndTextsAreWhole) {
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
  EXPECT_TRUE(PAL_asprintf("%d%s", 7, text.c_str()) == "7" + text);
}

}  // namespace
