// Directories, whole files and seeds, on real files in a directory of the test's own.
#include "util/pal_util.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>

#include "util/pal_error.h"
#include "util/vfd.h"

namespace {

namespace fs = std::filesystem;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

class PalUtil : public testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = testing::TempDir() + "pal_util_XXXXXX";
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    root_ = fs::canonical(pattern);
    start_ = fs::current_path();
    fs::current_path(root_);
    fs::create_directory("sub");
  }
  void TearDown() override {
    fs::current_path(start_);
    fs::remove_all(root_);
  }

  static void Write(const fs::path& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
  }

  fs::path root_;

 private:
  fs::path start_;
};

TEST_F(PalUtil, CwdLongerThanTheFirstBuffer) {
  EXPECT_EQ(PAL_GetCwd(), root_.string());
  const std::string name(200, 'd');
  for (int depth = 0; depth < 3; ++depth) {
    fs::create_directory(name);
    fs::current_path(name);
  }
  EXPECT_EQ(PAL_GetCwd(), (root_ / name / name / name).string());
}

TEST_F(PalUtil, InDirRunsTheCallThereAndComesBackWithItsErrno) {
  std::optional<std::string> seen;
  const int result = PAL_InDir("sub", [&] {
    seen = PAL_GetCwd();
    errno = EXDEV;
    return 42;
  });
  EXPECT_EQ(errno, EXDEV);
  EXPECT_EQ(result, 42);
  EXPECT_EQ(seen, (root_ / "sub").string());
  EXPECT_EQ(PAL_GetCwd(), root_.string());
  for (const char* here : {static_cast<const char*>(nullptr), ".", root_.c_str()}) {
    EXPECT_EQ(PAL_InDir(here, [] { return PAL_GetCwd(); }), root_.string());
  }
}

TEST_F(PalUtil, InDirReportsAMissingDirectoryAndStillCalls) {
  CaptureStderr();
  const auto seen = PAL_InDir("no\nne", [] { return PAL_GetCwd(); });
  EXPECT_EQ(GetCapturedStderr(), "ERROR: cannot cd into no\\x0ane: No such file or directory\n");
  EXPECT_EQ(seen, root_.string());
}

TEST_F(PalUtil, InDirReportsThatTheWayBackIsGone) {
  fs::create_directory("gone");
  fs::current_path("gone");
  CaptureStderr();
  PAL_InDir("../sub", [&] { fs::remove(root_ / "gone"); });
  EXPECT_EQ(GetCapturedStderr(), "ERROR: cannot cd back into " + (root_ / "gone").string() +
                                     ": No such file or directory\n");
  fs::current_path(root_);
}

TEST_F(PalUtil, InDirWithoutAWorkingDirectoryCallsWhereItIs) {
  fs::create_directory("gone");
  fs::current_path("gone");
  fs::remove(root_ / "gone");
  CaptureStderr();
  const int result = PAL_InDir(root_.c_str(), [] { return PAL_GetCwd() ? 0 : 5; });
  EXPECT_EQ(GetCapturedStderr(), "ERROR: cannot determine cwd: No such file or directory\n");
  EXPECT_EQ(result, 5);
  fs::current_path(root_);
}

TEST_F(PalUtil, OpenInDirCreatesReadsAndRemovesThere) {
  const int out = PAL_OpenInDir("sub", "f", O_WRONLY | O_CREAT | O_EXCL, 0666);
  ASSERT_GE(out, 0);
  EXPECT_EQ(Vfd_Write(out, "text", 4), 4);
  Vfd_Close(out);
  EXPECT_EQ(PAL_FileSize("sub/f"), 4U);
  const std::string absolute = (root_ / "sub/f").string();
  for (const auto& [directory, path] : {std::pair<const char*, const char*>{nullptr, "sub/f"},
                                        {"./sub/", "f"},
                                        {"/", absolute.c_str()}}) {
    const int in = PAL_OpenInDir(directory, path, O_RDONLY, 0);
    char text[8] = "";
    EXPECT_EQ(Vfd_Read(in, text, sizeof text), 4) << path;
    Vfd_Close(in);
  }
  CaptureStderr();
  EXPECT_EQ(PAL_OpenInDir("sub", "missing", O_RDONLY, 0), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(PAL_RemoveInDir("sub", "f"), 0);
  EXPECT_EQ(PAL_RemoveInDir("sub", "f"), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(GetCapturedStderr(), "");
  EXPECT_FALSE(fs::exists("sub/f"));
}

TEST_F(PalUtil, OpenInDirWithAMissingOrEmptyDirectoryOpensHere) {
  Write("here", "h");
  for (const char* directory : {"none", ""}) {
    CaptureStderr();
    const int in = PAL_OpenInDir(directory, "here", O_RDONLY, 0);
    EXPECT_GE(in, 0);
    Vfd_Close(in);
    EXPECT_EQ(GetCapturedStderr(),
              std::string("ERROR: cannot cd into ") + directory + ": No such file or directory\n");
  }
}

TEST_F(PalUtil, DirectoryTestTellsFailureFromAbsence) {
  Write("file", "");
  int error = 9;
  EXPECT_EQ(PAL_IsDir("sub", &error), 1);
  EXPECT_EQ(error, 0);
  EXPECT_EQ(PAL_IsDir("file", &error), 0);
  EXPECT_EQ(error, 0);
  EXPECT_EQ(PAL_IsDir("none", &error), 0);
  EXPECT_EQ(error, 0);
  EXPECT_EQ(PAL_IsDir("file/below", &error), 0);
  EXPECT_EQ(error, 1);
  EXPECT_EQ(PAL_IsDir("none", nullptr), 0);
  EXPECT_EQ(PAL_FileSize("none"), 0U);
}

TEST_F(PalUtil, ReadFileReturnsEveryByte) {
  for (const size_t size : {0U, 1U, 65535U, 65536U, 65537U, 200000U}) {
    std::string text(size, '\0');
    for (size_t i = 0; i < size; ++i) text[i] = static_cast<char>(i * 7);
    Write("data", text);
    const auto read = PAL_ReadFile("data");
    ASSERT_TRUE(read.has_value());
    EXPECT_TRUE(*read == text) << size;
  }
  EXPECT_FALSE(PAL_ReadFile("none").has_value());
  EXPECT_EQ(errno, ENOENT);
  EXPECT_FALSE(PAL_ReadFile("sub").has_value());
  EXPECT_EQ(errno, EISDIR);
}

TEST_F(PalUtil, SystemReturnsTheStatusOfTheCommand) {
  const int status = PAL_System("exit 3");
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 3);
}

TEST_F(PalUtil, SeedsAreNonzeroAndDiffer) {
  const uint32_t first = PAL_RandomSeed();
  const uint32_t second = PAL_RandomSeed();
  const uint32_t third = PAL_RandomSeed();
  EXPECT_NE(first, 0U);
  EXPECT_FALSE(first == second && second == third);
}

}  // namespace
