// Directories, whole files and seeds, on real files in a directory of the test's own.
#include "util/pal_util.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include "tests/builder/trace_files.h"

namespace {

namespace fs = std::filesystem;

template <class F>
std::string said(F&& call) {
  testing::internal::CaptureStderr();
  call();
  return testing::internal::GetCapturedStderr();
}

TEST(PalUtil, CallsInADirectoryComeBackWithTheirErrno) {
  const tb::TempDir directory;
  const std::string root = fs::canonical(directory.path()), none = ": No such file or directory\n";
  fs::current_path(root);
  fs::create_directories("sub/gone");
  tb::writeFile("sub/f", "");
  const struct {
    const char* directory;
    std::string seen, message;
  } cases[] = {
      {nullptr, root, ""},
      {".", root, ""},
      {root.c_str(), root, ""},
      {"./sub/", root + "/sub", ""},
      {"no\nne", root, "ERROR: cannot cd into no\\x0ane" + none},
      {"", root, "ERROR: cannot cd into " + none},
  };
  for (const auto& c : cases) {
    const auto look = [] { return errno = EXDEV, PAL_GetCwd(); };
    EXPECT_EQ(said([&] { EXPECT_EQ(PAL_InDir(c.directory, look), c.seen); }), c.message);
    EXPECT_EQ(errno, EXDEV);
    EXPECT_EQ(PAL_GetCwd(), root);
    const bool there = c.seen != root;
    const auto open = [&] { EXPECT_EQ(PAL_OpenInDir(c.directory, "f", O_RDONLY, 0) >= 0, there); };
    EXPECT_EQ(said(open), c.message);
    EXPECT_EQ(errno, there ? EXDEV : ENOENT);
  }
  EXPECT_GE(PAL_OpenInDir("/", (root + "/sub/f").c_str(), O_RDONLY, 0), 0);
  EXPECT_EQ(PAL_RemoveInDir("sub", "f"), 0);
  EXPECT_FALSE(fs::exists("sub/f"));

  fs::current_path("sub/gone");
  EXPECT_EQ(said([&] { PAL_InDir("..", [] { fs::remove("gone"); }); }),
            "ERROR: cannot cd back into " + root + "/sub/gone" + none);
  fs::create_directory("gone");
  fs::current_path("gone");
  fs::remove(root + "/sub/gone");
  const auto nowhere = [] { EXPECT_EQ(PAL_InDir("/", [] { return PAL_GetCwd(); }), std::nullopt); };
  EXPECT_EQ(said(nowhere), "ERROR: cannot determine cwd" + none);
  fs::current_path(root);
}

TEST(PalUtil, FilesAreReadWhateverTheirSizeAndTheLengthOfTheirPath) {
  const tb::TempDir directory;
  std::string path = fs::canonical(directory.path());
  for (const size_t size : {0U, 1U, 65536U, 65537U, 200000U}) {
    fs::current_path(path);
    EXPECT_EQ(PAL_GetCwd(), path);
    std::string text(size, '\0');
    for (size_t i = 0; i < size; ++i) text[i] = static_cast<char>(i * 7);
    tb::writeFile("file", text);
    EXPECT_TRUE(PAL_ReadFile("file") == text) << size;
    EXPECT_EQ(PAL_FileSize("file"), size);
    path += '/' + std::string(200, 'd');
    fs::create_directory(path);
  }
  const struct {
    const char* path;
    int isDir, failed, readError;
  } cases[] = {
      {"/", 1, 0, EISDIR}, {"file", 0, 0, 0}, {"none", 0, 0, ENOENT}, {"file/f", 0, 1, ENOTDIR}};
  for (const auto& c : cases) {
    int failed = 9;
    EXPECT_EQ(PAL_IsDir(c.path, &failed), c.isDir) << c.path;
    EXPECT_EQ(failed, c.failed) << c.path;
    errno = 0;
    EXPECT_EQ(PAL_ReadFile(c.path).has_value(), c.readError == 0);
    EXPECT_EQ(errno, c.readError);
  }
  fs::current_path("/");
}

TEST(PalUtil, CommandsAndChance) {
  EXPECT_EQ(PAL_System("exit 3"), 3 << 8);
  EXPECT_NE(PAL_RandomSeed64(), PAL_RandomSeed64());
}

}  // namespace
