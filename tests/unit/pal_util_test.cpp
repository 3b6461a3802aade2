// Directories and whole files, on real files in a directory of the test's own; texts and the stack.
#include "util/pal_util.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "tests/builder/trace_files.h"
#include "util/pal_stack.h"
#include "util/pal_strings.h"

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
  EXPECT_EQ(PAL_System("exit 3"), 3 << 8);
  EXPECT_NE(PAL_RandomSeed64(), PAL_RandomSeed64());
}

TEST(PalStrings, ComparisonIgnoresTheCaseOfAsciiLettersOnly) {
  EXPECT_EQ(PAL_StrCaseCmp("--dump", "--DuMp"), 0);
  EXPECT_EQ(PAL_StrCaseCmp("LOGFILE", "LOGFILE-NAME"), -'-');
  EXPECT_EQ(PAL_StrCaseCmp("\xe4", "a"), 0xe4 - 'A');
  EXPECT_NE(PAL_StrCaseCmp("\xe4", "\xc4"), 0);
  EXPECT_EQ(PAL_StrCaseCmp("_", "a"), '_' - 'A');
  for (int byte = 1; byte < 256; ++byte) {
    const char c = static_cast<char>(byte);
    const bool ascii = byte < 128;
    EXPECT_EQ(PAL_IsSpace(c), ascii && std::isspace(byte) != 0) << byte;
    EXPECT_EQ(PAL_ToUpper(c), static_cast<char>(ascii ? std::toupper(byte) : byte)) << byte;
    EXPECT_EQ(PAL_IsDigits(std::string{'1', c}.c_str()), ascii && std::isdigit(byte)) << byte;
  }
  EXPECT_EQ(PAL_IsDigits(""), 0);
}

TEST(PalStrings, NamesAndFormattedTextsAreWhole) {
  const std::pair<const char*, const char*> names[] = {
      {"a/b\\c", "b\\c"}, {"a\\b/c", "c"}, {"a\\b", "b"}, {"plain", "plain"}, {"dir/", ""}};
  for (const auto& [path, name] : names) EXPECT_STREQ(PAL_BaseName(path), name);
  for (const size_t length : {0U, 1022U, 1023U, 1024U, 100000U}) {
    const std::string text(length, 'y');
    EXPECT_EQ(PAL_asprintf("%d%s", 7, text.c_str()), "7" + text);
  }
  const wchar_t invalid[] = {static_cast<wchar_t>(0x7fffffff), 0};
  EXPECT_EQ(PAL_asprintf("<%ls>", invalid), "<%ls>");
}

TEST(PalStack, KeepsItsItemsWhileItGrowsAndMoves) {
  PAL_Stack<uint64_t> stack;
  std::vector<uint64_t> model;
  for (uint64_t i = 0; i < 1000; ++i) {
    stack.push(i % 3 == 2 ? stack.top() : i);  // its own item while it grows, too
    model.push_back(i % 3 == 2 ? model.back() : i);
    if (i % 7 == 6) stack.pop(), model.pop_back();
    if (i % 100 == 99) {
      PAL_Stack<uint64_t> other(std::move(stack));
      stack = std::move(other);
    }
    ASSERT_TRUE(std::equal(stack.begin(), stack.end(), model.begin(), model.end())) << i;
  }
}

}  // namespace
