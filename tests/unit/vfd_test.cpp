// Virtual descriptors: closing files to make room, opening them again, and reports of errors.
#include "util/vfd.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/builder/trace_files.h"

namespace {

// Descriptors opened by the replaced system calls, and how many opens fail next.
size_t opens, refusals;

class VfdTest : public testing::Test {
 protected:
  VfdTest() {
    opens = 0;
    Vfd_systemCalls.open = [](const char* name, int flags, mode_t mode) {
      if (refusals > 0) return --refusals, errno = EMFILE, -1;
      return ++opens, Vfd_osCalls.open(name, flags, mode);
    };
    Vfd_systemCalls.dup = [](int fd) { return ++opens, Vfd_osCalls.dup(fd); };
    // Linux closes the file even if a signal interrupts close().
    Vfd_systemCalls.close = [](int fd) { return Vfd_osCalls.close(fd), errno = EINTR, -1; };
  }
  ~VfdTest() override { Vfd_systemCalls = Vfd_osCalls; }

  [[nodiscard]] std::string path(const std::string& name) const { return directory_ / name; }
  [[nodiscard]] int open(const std::string& name, int flags = O_RDWR | O_CREAT | O_TRUNC) const {
    return Vfd_Open(path(name).c_str(), flags, 0666);
  }
  static void write(int descriptor, const std::string& text) {
    EXPECT_EQ(Vfd_Write(descriptor, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  static std::string read(int descriptor, size_t bytes) {
    std::string text(bytes, '\0');
    EXPECT_EQ(Vfd_Read(descriptor, text.data(), bytes), static_cast<ssize_t>(bytes));
    return text;
  }
  // Closes everything that may be closed to make room.
  void evictAll() const {
    refusals = SIZE_MAX;
    EXPECT_EQ(open("refused"), -1);
    EXPECT_EQ(errno, EMFILE);
    refusals = 0;
  }

 private:
  const tb::TempDir directory_;
};

using VfdDeathTest = VfdTest;

// A tenth of all descriptors that the process ever had, so the test needs a new process.
TEST_F(VfdDeathTest, ATenthIsClosedLeastRecentlyUsedFirstButNoPinnedFiles) {
  const auto opensAtEach = [this](size_t count) {
    std::vector<int> files;
    while (files.size() < count) files.push_back(open(std::to_string(files.size())));
    for (const int on : {0, 1}) EXPECT_EQ(Vfd_Pin(files[1], on), 0);  // not below 0
    for (const size_t i : {0U, 2U}) write(files[i], "used");          // 3, 4... are older
    refusals = 1;
    EXPECT_EQ(Vfd_Close(open("new")), 0);
    opens = 0;
    for (const int file : files) {
      write(file, "x");
      std::fprintf(stderr, "%zu ", opens);
      EXPECT_EQ(Vfd_Pin(file, 1), 0);
    }
    evictAll();  // with all pinned there is no room
    for (const int file : files) write(file, "y");
    std::fprintf(stderr, "%zu", opens);
    std::filesystem::remove_all(path(""));
    std::exit(HasFailure() ? 1 : 0);
  };
  const std::string style = std::exchange(testing::FLAGS_gtest_death_test_style, "threadsafe");
  EXPECT_EXIT(opensAtEach(5), testing::ExitedWithCode(0), "^0 0 0 1 1 1$");
  EXPECT_EXIT(opensAtEach(40), testing::ExitedWithCode(0), "^0 0 0 1 2 3 4( 4){34}$");
  testing::FLAGS_gtest_death_test_style = style;
}

TEST_F(VfdTest, OpeningAgainNeitherTruncatesNorAppendsNorCreates) {
  tb::writeFile(path("old"), "kept ");
  const int files[] = {open("new", O_WRONLY | O_APPEND | O_CREAT | O_EXCL | O_TRUNC),
                       open("old", O_WRONLY | O_APPEND)};
  write(files[0], "first ");
  evictAll();
  tb::writeFile(path("new"), "first others wrote this");
  for (const int file : files) write(file, "SECOND");
  EXPECT_EQ(tb::readFile(path("new")), "first SECOND wrote this");
  EXPECT_EQ(tb::readFile(path("old")), "kept SECOND");
  evictAll();
  std::filesystem::remove(path("new"));
  EXPECT_EQ(Vfd_Write(files[0], "x", 1), -1);
  EXPECT_EQ(errno, ENOENT);
  for (const int file : files) EXPECT_EQ(Vfd_Close(file), 0);
}

TEST_F(VfdTest, ADuplicateIsOpenedOnItsFirstUseAndSharesThePosition) {
  tb::writeFile(path("f"), "0123456789");
  const int file = open("f", O_RDONLY);
  EXPECT_EQ(read(file, 2), "01");
  const int twin = Vfd_Dup(file);
  EXPECT_EQ(opens, 1U);
  for (const char* text : {"23", "67"}) {
    EXPECT_EQ(read(twin, 2), text);
    EXPECT_EQ(read(file, 2), text == std::string("23") ? "45" : "89");
    evictAll();  // at 6, the position of the first to be opened again; the other shares it
  }
  EXPECT_EQ(opens, 4U);
  // The file can be opened again until its last descriptor is closed.
  EXPECT_EQ(Vfd_Close(file), 0);
  EXPECT_EQ(Vfd_Seek(twin, 1, SEEK_SET), 1);
  EXPECT_EQ(read(twin, 1), "1");
  EXPECT_EQ(Vfd_Close(twin), 0);
}

TEST_F(VfdTest, AfterClosingAFileThatWasNotOpenOthersStillMakeRoom) {
  const int closed = open("closed"), other = open("other");
  evictAll();
  write(other, "x");
  EXPECT_EQ(Vfd_Close(closed), 0);
  evictAll();
  opens = 0;
  write(other, "y");
  EXPECT_EQ(opens, 1U);
  EXPECT_EQ(Vfd_Close(other), 0);
}

TEST_F(VfdTest, ErrorsAreReportedOnceAlsoThoseOfClosingToMakeRoom) {
  const int file = open("f"), closed = open("g");
  for (const int result : {0, -1}) EXPECT_EQ(Vfd_Close(closed), result);
  for (const bool closing : {false, true}) {
    write(file, "ab");
    Vfd_systemCalls.close = [](int fd) { return Vfd_osCalls.close(fd), errno = EDQUOT, -1; };
    evictAll();
    Vfd_systemCalls.close = Vfd_osCalls.close;
    EXPECT_EQ(closing ? Vfd_Close(file) : Vfd_Write(file, "c", 1), -1);
    EXPECT_EQ(errno, EDQUOT);
  }
  EXPECT_EQ(tb::readFile(path("f")), "abab");
}

}  // namespace
