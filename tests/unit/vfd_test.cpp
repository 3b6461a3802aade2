// Virtual descriptors: what survives when the kernel runs out of real ones, and what is told.
//
// Room is made on purpose either by a low limit in a child process or by an `open` that always
// fails with EMFILE, which closes everything that may be closed.
#include "util/vfd.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "tests/builder/trace_files.h"

namespace {

// What the replaced system calls count and decide by.
int opens, dups, closes, refusals, closeError;

class VfdTest : public testing::Test {
 protected:
  VfdTest() {
    opens = dups = closes = refusals = closeError = 0;
    Vfd_systemCalls.open = [](const char* name, int flags, mode_t mode) {
      if (refusals != 0) return --refusals, errno = EMFILE, -1;
      return ++opens, Vfd_osCalls.open(name, flags, mode);
    };
    Vfd_systemCalls.dup = [](int fd) { return ++dups, Vfd_osCalls.dup(fd); };
    Vfd_systemCalls.close = [](int fd) {
      ++closes;
      const int result = Vfd_osCalls.close(fd);
      errno = closeError;
      return closeError == 0 ? result : -1;
    };
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
  static void evictAll() {
    refusals = -1;
    EXPECT_EQ(Vfd_Open("/dev/null", O_RDONLY, 0), -1);
    EXPECT_EQ(errno, EMFILE);
    refusals = 0;
  }
  static void limitDescriptors() {
    const rlimit limit{16, 16};
    setrlimit(RLIMIT_NOFILE, &limit);
  }

 private:
  const tb::TempDir directory_;
};

using VfdDeathTest = VfdTest;

TEST_F(VfdDeathTest, ThreadsWriteAThousandFilesUnderALowLimit) {
  constexpr int kThreads = 4, kFiles = 250, kRounds = 3;
  const auto name = [](int thread, int file) {
    return std::to_string(thread) + "." + std::to_string(file);
  };
  const auto work = [&](int thread) {
    std::vector<int> files;
    errno = E2BIG;
    for (int i = 0; i < kFiles; ++i) files.push_back(open(name(thread, i)));
    for (int round = 0; round < kRounds; ++round)
      for (const int file : files) write(file, std::to_string(round) + ",");
    for (const int file : files) EXPECT_EQ(Vfd_Close(file), 0);
    EXPECT_EQ(errno, E2BIG) << "success leaves errno alone";
  };
  const auto body = [&] {
    Vfd_systemCalls = Vfd_osCalls;
    limitDescriptors();
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) threads.emplace_back(work, i);
    for (std::thread& thread : threads) thread.join();
    std::_Exit(HasFailure() ? 1 : 0);
  };
  EXPECT_EXIT(body(), testing::ExitedWithCode(0), "");
  for (int thread = 0; thread < kThreads; ++thread)
    for (int i = 0; i < kFiles; ++i) EXPECT_EQ(tb::readFile(path(name(thread, i))), "0,1,2,");
}

TEST_F(VfdDeathTest, PinnedFilesStayAndWithAllPinnedThereIsNoRoom) {
  const auto body = [&] {
    limitDescriptors();
    std::vector<int> files;
    for (int last = open("0"); last >= 0; last = open(std::to_string(files.size()))) {
      EXPECT_EQ(Vfd_Pin(last, 0) + Vfd_Pin(last, 1), 0) << "unpinning below zero owes nothing";
      files.push_back(last);
    }
    EXPECT_EQ(errno, EMFILE);
    EXPECT_EQ(Vfd_Pin(files[2], 0), 0);
    const int another = open("another");
    // Now the only files that can make room are `another` and the third one, in turn.
    write(files[2], "third");
    write(another, "another");
    std::_Exit(HasFailure() || files.size() > 16 ? 1 : 0);
  };
  EXPECT_EXIT(body(), testing::ExitedWithCode(0), "");
  EXPECT_EQ(tb::readFile(path("2")), "third");
  EXPECT_EQ(tb::readFile(path("another")), "another");
}

TEST_F(VfdDeathTest, ATenthOfTheTableMakesRoomLeastRecentlyUsedFirst) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // a table without entries of other tests
  for (const size_t count : {size_t{5}, size_t{25}}) {
    const auto body = [&] {
      std::vector<int> files;
      while (files.size() < count) files.push_back(open(std::to_string(files.size())));
      for (const size_t i : {0U, 2U}) write(files[i], "used");  // 1, 3, 4... are older
      refusals = 1;
      EXPECT_GE(open("new"), 0);
      EXPECT_EQ(closes, count == 5 ? 1 : 2);
      opens = 0;
      for (const size_t i : {0U, 2U, 4U}) write(files[i], "x");
      EXPECT_EQ(opens, 0);
      for (const size_t i : {1U, 3U}) write(files[i], "x");
      EXPECT_EQ(opens, closes);
      std::_Exit(HasFailure() ? 1 : 0);
    };
    EXPECT_EXIT(body(), testing::ExitedWithCode(0), "");
  }
}

TEST_F(VfdTest, OpeningAgainNeitherTruncatesNorAppendsNorCreates) {
  for (const bool isNew : {true, false}) {
    if (!isNew) tb::writeFile(path("f"), "kept ");
    const int file = open("f", O_WRONLY | O_APPEND | (isNew ? O_CREAT | O_EXCL | O_TRUNC : 0));
    if (isNew) write(file, "first ");
    evictAll();
    if (isNew) tb::writeFile(path("f"), "first others wrote this");
    write(file, "SECOND");
    EXPECT_EQ(tb::readFile(path("f")), isNew ? "first SECOND wrote this" : "kept SECOND");
    evictAll();
    std::filesystem::remove(path("f"));
    EXPECT_EQ(Vfd_Write(file, "x", 1), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(std::filesystem::exists(path("f")));
    EXPECT_EQ(Vfd_Close(file), 0);
  }
}

TEST_F(VfdTest, WhatHasNoPositionOrOwnerIsNoVictim) {
  ASSERT_EQ(mkfifo(path("fifo").c_str(), 0600), 0);
  const int fifo = open("fifo", O_RDWR), os = ::open(path("fifo").c_str(), O_WRONLY);
  const int adopted = Vfd_Adopt(os);
  const int twin = Vfd_Dup(adopted);
  evictAll();
  write(adopted, "one ");
  EXPECT_EQ(Vfd_Close(adopted), 0);
  write(twin, "two ");
  EXPECT_EQ(Vfd_Close(twin), 0);
  EXPECT_EQ(::write(os, "three", 5), 5);
  close(os);
  evictAll();
  EXPECT_EQ(read(fifo, 13), "one two three");
  EXPECT_EQ(Vfd_Close(fifo), 0);
  EXPECT_EQ(Vfd_Adopt(-1), -1);
  EXPECT_EQ(errno, EINVAL);
}

TEST_F(VfdTest, ADuplicateCostsNothingUntilUsedAndSharesThePosition) {
  tb::writeFile(path("f"), "0123456789");
  const int file = open("f", O_RDONLY);
  EXPECT_EQ(read(file, 2), "01");
  const int twin = Vfd_Dup(file);
  EXPECT_EQ(opens + dups, 1);
  EXPECT_EQ(read(twin, 2), "23");
  EXPECT_EQ(read(file, 2), "45");
  EXPECT_EQ(dups, 1);
  // Both closed at 6. Whichever opens first does so there, and the other joins it.
  evictAll();
  EXPECT_EQ(read(twin, 2), "67");
  EXPECT_EQ(read(file, 2), "89");
  EXPECT_EQ(opens, 2);
  EXPECT_EQ(dups, 2);
  // The file is known until its last descriptor goes.
  EXPECT_EQ(Vfd_Close(file), 0);
  evictAll();
  EXPECT_EQ(Vfd_Seek(twin, 1, SEEK_SET), 1);
  EXPECT_EQ(read(twin, 1), "1");
  EXPECT_EQ(Vfd_Close(twin), 0);
}

TEST_F(VfdTest, AClosedNumberIsUnknownAndThenTheNextHandedOut) {
  const int a = open("a"), b = open("b");
  EXPECT_EQ(Vfd_Close(a) + Vfd_Close(b), 0);
  for (const int unknown : {a, b, -1, 1 << 30}) {
    errno = 0;
    EXPECT_EQ(Vfd_Seek(unknown, 0, SEEK_SET), -1);
    EXPECT_EQ(Vfd_Pin(unknown, 1) + Vfd_Dup(unknown) + Vfd_Close(unknown), -3);
    EXPECT_EQ(errno, EBADF);
  }
  EXPECT_EQ(open("c"), b);
  EXPECT_EQ(open("d"), a);
  EXPECT_EQ(Vfd_Close(a) + Vfd_Close(b), 0);
}

TEST_F(VfdTest, ErrorsAreToldOnceAlsoOfClosingToMakeRoom) {
  const int file = open("f");
  Vfd_systemCalls.write = [](int, const void*, size_t) { return ssize_t{0}; };
  EXPECT_EQ(Vfd_WriteFully(file, "x", 1), 0U);
  EXPECT_EQ(errno, EIO) << "one that takes nothing";
  Vfd_systemCalls.write = Vfd_osCalls.write;
  for (const bool closing : {false, true}) {
    write(file, "ab");
    closeError = EDQUOT;
    evictAll();
    closeError = 0;
    EXPECT_EQ(closing ? Vfd_Close(file) : Vfd_Write(file, "c", 1), -1);
    EXPECT_EQ(errno, EDQUOT);
  }
  EXPECT_EQ(tb::readFile(path("f")), "abab");
}

}  // namespace
