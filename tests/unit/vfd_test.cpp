// Virtual descriptors: what survives when the kernel runs out of real ones, and what is told.
//
// Room is made on purpose either by a low limit in a child process or by an `open` that always
// fails with EMFILE, which closes everything that may be closed.
#include "util/vfd.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

namespace {

// Runs `body` in a child, whose limits and table are its own; its failures are ours.
void inChild(const std::function<void()>& body) {
  std::fflush(nullptr);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    body();
    std::fflush(nullptr);
    _exit(testing::Test::HasFailure() ? 1 : 0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
}

void limitDescriptors(rlim_t count) {
  const rlimit limit{count, count};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
}

// What the replaced system calls count and decide by.
struct {
  int opens, dups, closes, transfers;
} calls;

class VfdTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = testing::TempDir() + "vfd.XXXXXX";
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    directory_ = pattern;
    calls = {};
  }
  void TearDown() override {
    Vfd_systemCalls = Vfd_osCalls;
    std::filesystem::remove_all(directory_);
  }

  [[nodiscard]] std::string path(const std::string& name) const { return directory_ + "/" + name; }

  [[nodiscard]] static std::string contents(const std::string& file) {
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }

  [[nodiscard]] int open(const std::string& name, int flags = O_RDWR | O_CREAT | O_TRUNC) const {
    return Vfd_Open(path(name).c_str(), flags, 0666);
  }

  static void write(int descriptor, const std::string& text) {
    EXPECT_EQ(Vfd_Write(descriptor, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }

  static std::string read(int descriptor, size_t bytes) {
    std::string text(bytes, '\0');
    const ssize_t count = Vfd_Read(descriptor, text.data(), bytes);
    text.resize(count < 0 ? 0 : static_cast<size_t>(count));
    return text;
  }

  // Closes everything that may be closed to make room.
  static void evictAll() {
    const auto before = Vfd_systemCalls.open;
    Vfd_systemCalls.open = [](const char*, int, mode_t) {
      errno = EMFILE;
      return -1;
    };
    EXPECT_EQ(Vfd_Open("/dev/null", O_RDONLY, 0), -1);
    EXPECT_EQ(errno, EMFILE);
    Vfd_systemCalls.open = before;
  }

 private:
  std::string directory_;
};

TEST_F(VfdTest, AThousandFilesUnderALowLimitKeepContentsAndPositions) {
  constexpr int kFiles = 1000;
  constexpr int kRounds = 3;
  inChild([&] {
    limitDescriptors(16);
    std::vector<int> files;
    for (int i = 0; i < kFiles; ++i) {
      files.push_back(open(std::to_string(i)));
      ASSERT_GE(files.back(), 0) << i;
    }
    for (int round = 0; round < kRounds; ++round) {
      for (int i = 0; i < kFiles; ++i) {
        write(files[static_cast<size_t>(i)], std::to_string(i) + "/" + std::to_string(round) + " ");
      }
    }
    for (const int file : files) EXPECT_EQ(Vfd_Close(file), 0);
  });
  for (int i = 0; i < kFiles; ++i) {
    const std::string n = std::to_string(i);
    EXPECT_EQ(contents(path(n)), n + "/0 " + n + "/1 " + n + "/2 ");
  }
}

TEST_F(VfdTest, PinnedFilesStayAndWithAllPinnedThereIsNoRoom) {
  inChild([&] {
    limitDescriptors(16);
    std::vector<int> files;
    int last = 0;
    for (int i = 0; (last = open(std::to_string(i))) >= 0; ++i) {
      ASSERT_LT(i, 16);
      ASSERT_EQ(Vfd_Pin(last, 1), 0);
      files.push_back(last);
    }
    EXPECT_EQ(errno, EMFILE);
    EXPECT_EQ(Vfd_Pin(files[2], 0), 0);
    last = open("another");
    EXPECT_GE(last, 0);
    // Now the only files that can make room are `another` and the third one, in turn.
    write(files[2], "third");
    write(last, "another");
    EXPECT_EQ(Vfd_Close(last), 0);
    EXPECT_EQ(contents(path("2")), "third");
    EXPECT_EQ(contents(path("another")), "another");
  });
}

TEST_F(VfdTest, ATenthOfTheTableMakesRoomLeastRecentlyUsedFirst) {
  static int closed;
  static int refusals;
  for (const size_t least : {size_t{5}, size_t{25}}) {
    inChild([&] {
      // Slots freed by earlier tests count too; they are all in use before new ones are made.
      std::vector<int> files;
      int largest = -1;
      while (files.size() < least || largest + 1 != static_cast<int>(files.size())) {
        ASSERT_LT(files.size(), size_t{5000});
        files.push_back(open(std::to_string(files.size())));
        largest = std::max(largest, files.back());
      }
      const int target = std::max(static_cast<int>(files.size()) / 10, 1);
      for (const size_t i : {size_t{0}, size_t{2}})
        write(files[i], "used");  // 1, 3, 4... are older

      closed = 0;
      refusals = 1;
      Vfd_systemCalls.open = [](const char* name, int flags, mode_t mode) {
        if (refusals-- > 0) {
          errno = EMFILE;
          return -1;
        }
        ++calls.opens;
        return Vfd_osCalls.open(name, flags, mode);
      };
      Vfd_systemCalls.close = [](int fd) {
        ++closed;
        return Vfd_osCalls.close(fd);
      };
      EXPECT_GE(open("new"), 0);
      EXPECT_EQ(closed, target);
      calls.opens = 0;
      write(files[0], "x");
      write(files[2], "x");
      EXPECT_EQ(calls.opens, 0);
      write(files[1], "x");
      EXPECT_EQ(calls.opens, 1);
      write(files[3], "x");
      EXPECT_EQ(calls.opens, std::min(target, 2));
    });
  }
}

TEST_F(VfdTest, OpeningAgainNeitherTruncatesNorAppends) {
  const int file = open("f", O_WRONLY | O_CREAT | O_EXCL | O_TRUNC | O_APPEND);
  write(file, "first ");
  evictAll();
  std::ofstream(path("f"), std::ios::app) << "others wrote this";
  write(file, "SECOND");
  EXPECT_EQ(Vfd_Close(file), 0);
  EXPECT_EQ(contents(path("f")), "first SECOND wrote this");
}

TEST_F(VfdTest, AnAppendingFileThatHasWrittenNothingYetStillAppends) {
  std::ofstream(path("f")) << "kept ";
  const int file = open("f", O_WRONLY | O_APPEND);
  evictAll();
  write(file, "added");
  EXPECT_EQ(Vfd_Close(file), 0);
  EXPECT_EQ(contents(path("f")), "kept added");
}

TEST_F(VfdTest, AnAdoptedDescriptorIsNoVictimAndStaysItsOwners) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const int adopted = Vfd_Adopt(ends[1]);
  const int twin = Vfd_Dup(adopted);
  evictAll();
  write(adopted, "one ");
  EXPECT_EQ(Vfd_Close(adopted), 0);
  write(twin, "two ");
  EXPECT_EQ(Vfd_Close(twin), 0);
  EXPECT_EQ(::write(ends[1], "three", 5), 5);
  char text[32] = {};
  EXPECT_GT(::read(ends[0], text, sizeof text), 0);
  EXPECT_STREQ(text, "one two three");
  close(ends[0]);
  close(ends[1]);

  EXPECT_EQ(Vfd_Adopt(-1), -1);
  EXPECT_EQ(errno, EINVAL);
}

TEST_F(VfdTest, AFileWithoutPositionsIsNoVictim) {
  ASSERT_EQ(mkfifo(path("fifo").c_str(), 0600), 0);
  const int fifo = open("fifo", O_RDWR);
  write(fifo, "in flight");
  evictAll();
  EXPECT_EQ(read(fifo, 9), "in flight");
  EXPECT_EQ(Vfd_Close(fifo), 0);
}

TEST_F(VfdTest, ADuplicateCostsNothingUntilUsedAndSharesThePosition) {
  Vfd_systemCalls.open = [](const char* name, int flags, mode_t mode) {
    ++calls.opens;
    return Vfd_osCalls.open(name, flags, mode);
  };
  Vfd_systemCalls.dup = [](int fd) {
    ++calls.dups;
    return Vfd_osCalls.dup(fd);
  };
  std::ofstream(path("f")) << "0123456789";
  const int file = open("f", O_RDONLY);
  EXPECT_EQ(read(file, 2), "01");
  const int twin = Vfd_Dup(file);
  EXPECT_EQ(calls.opens + calls.dups, 1);
  EXPECT_EQ(read(twin, 2), "23");
  EXPECT_EQ(calls.dups, 1);
  EXPECT_EQ(read(file, 2), "45");
  // Both closed at 6. Whichever opens first does so there, and the other joins it.
  evictAll();
  EXPECT_EQ(read(twin, 2), "67");
  EXPECT_EQ(read(file, 2), "89");
  EXPECT_EQ(calls.opens, 2);
  EXPECT_EQ(calls.dups, 2);
  // The file is known until its last descriptor goes.
  EXPECT_EQ(Vfd_Close(file), 0);
  evictAll();
  EXPECT_EQ(Vfd_Seek(twin, 1, SEEK_SET), 1);
  EXPECT_EQ(read(twin, 1), "1");
  EXPECT_EQ(Vfd_Close(twin), 0);
}

TEST_F(VfdTest, AClosedNumberIsUnknownAndThenTheNextHandedOut) {
  const int a = open("a");
  const int b = open("b");
  EXPECT_EQ(Vfd_Close(a), 0);
  EXPECT_EQ(Vfd_Close(b), 0);
  char byte = 0;
  for (const int unknown : {a, b, -1, 1 << 30}) {
    errno = 0;
    EXPECT_EQ(Vfd_Read(unknown, &byte, 1), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(Vfd_Seek(unknown, 0, SEEK_SET), -1);
    EXPECT_EQ(Vfd_Pin(unknown, 1), -1);
    EXPECT_EQ(Vfd_Dup(unknown), -1);
    EXPECT_EQ(Vfd_Close(unknown), -1);
    EXPECT_EQ(errno, EBADF);
  }
  EXPECT_EQ(open("c"), b);
  EXPECT_EQ(open("d"), a);
  EXPECT_EQ(Vfd_Close(a), 0);
  EXPECT_EQ(Vfd_Close(b), 0);
}

TEST_F(VfdTest, UnpinningBelowZeroOwesNothing) {
  const int file = open("f");
  EXPECT_EQ(Vfd_Pin(file, 0), 0);
  EXPECT_EQ(Vfd_Pin(file, 0), 0);
  EXPECT_EQ(Vfd_Pin(file, 1), 0);
  Vfd_systemCalls.close = [](int fd) {
    ++calls.closes;
    return Vfd_osCalls.close(fd);
  };
  evictAll();
  EXPECT_EQ(calls.closes, 0);
  EXPECT_EQ(Vfd_Pin(file, 0), 0);
  evictAll();
  EXPECT_EQ(calls.closes, 1);
  EXPECT_EQ(Vfd_Close(file), 0);
}

TEST_F(VfdTest, AnErrorOfClosingToMakeRoomIsToldOnceByTheNextCall) {
  const int file = open("f");
  write(file, "abc");
  const auto evictWithError = [] {
    Vfd_systemCalls.close = [](int fd) {
      Vfd_osCalls.close(fd);
      errno = EDQUOT;
      return -1;
    };
    evictAll();
    Vfd_systemCalls.close = Vfd_osCalls.close;
  };
  evictWithError();
  EXPECT_EQ(Vfd_Write(file, "d", 1), -1);
  EXPECT_EQ(errno, EDQUOT);
  write(file, "d");
  evictWithError();
  EXPECT_EQ(Vfd_Close(file), -1);
  EXPECT_EQ(errno, EDQUOT);
  EXPECT_EQ(contents(path("f")), "abcd");
}

TEST_F(VfdTest, AFileThatWentAwayMeanwhileIsMissedAtItsNextUse) {
  const int file = open("f");
  const int other = open("other");
  evictAll();
  std::filesystem::remove(path("f"));
  errno = 0;
  write(other, "unconcerned");
  EXPECT_EQ(errno, 0);
  EXPECT_EQ(Vfd_Write(file, "x", 1), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_FALSE(std::filesystem::exists(path("f")));
  EXPECT_EQ(Vfd_Close(file), 0);
  EXPECT_EQ(Vfd_Close(other), 0);
}

TEST_F(VfdTest, SuccessLeavesErrnoAlone) {
  inChild([&] {
    limitDescriptors(16);
    errno = E2BIG;
    for (int i = 0; i < 40; ++i) {
      ASSERT_GE(open(std::to_string(i)), 0);
      ASSERT_EQ(errno, E2BIG);
    }
  });
}

// Every second call is interrupted, and no call takes more than three bytes.
ssize_t hesitate(size_t bytes, ssize_t (*transfer)(size_t)) {
  if (++calls.transfers % 2 != 0) {
    errno = EINTR;
    return -1;
  }
  return transfer(std::min<size_t>(bytes, 3));
}

TEST_F(VfdTest, FullTransfersGoOnAfterSignalsAndShortCounts) {
  static int osFile;
  static void* target;
  static const void* source;
  static off_t place;
  Vfd_systemCalls.write = [](int fd, const void* buffer, size_t bytes) {
    osFile = fd, source = buffer;
    return hesitate(bytes, [](size_t n) { return ::write(osFile, source, n); });
  };
  Vfd_systemCalls.pwrite = [](int fd, const void* buffer, size_t bytes, off_t offset) {
    osFile = fd, source = buffer, place = offset;
    return hesitate(bytes, [](size_t n) { return ::pwrite(osFile, source, n, place); });
  };
  Vfd_systemCalls.pread = [](int fd, void* buffer, size_t bytes, off_t offset) {
    osFile = fd, target = buffer, place = offset;
    return hesitate(bytes, [](size_t n) { return ::pread(osFile, target, n, place); });
  };
  const int file = open("f");
  errno = 0;
  EXPECT_EQ(Vfd_WriteFully(file, "0123456789", 10), 10U);
  EXPECT_EQ(Vfd_PWriteFully(file, "abcdefg", 7, 2), 7U);
  EXPECT_EQ(errno, 0);
  char text[16] = {};
  EXPECT_EQ(Vfd_PReadFully(file, text, sizeof text, 1), 9U);
  EXPECT_EQ(errno, 0);
  EXPECT_STREQ(text, "1abcdefg9");

  Vfd_systemCalls.write = [](int, const void*, size_t) { return ssize_t{0}; };
  EXPECT_EQ(Vfd_WriteFully(file, "x", 1), 0U);
  EXPECT_NE(errno, 0);
  EXPECT_EQ(Vfd_Close(file), 0);
}

TEST_F(VfdTest, AFullPipeThatDoesNotBlockIsWaitedFor) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_NONBLOCK | O_CLOEXEC), 0);
  const std::string text(1 << 20, 'x');  // far more than a pipe holds
  std::string read;
  std::thread reader([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    std::vector<char> buffer(4096);
    while (read.size() < text.size()) {
      const ssize_t count = ::read(ends[0], buffer.data(), buffer.size());
      if (count > 0) read.append(buffer.data(), static_cast<size_t>(count));
    }
  });
  const int descriptor = Vfd_Adopt(ends[1]);
  EXPECT_EQ(Vfd_WriteFully(descriptor, text.data(), text.size()), text.size());
  reader.join();
  EXPECT_EQ(read, text);
  EXPECT_EQ(Vfd_Close(descriptor), 0);
  close(ends[0]);
  close(ends[1]);
}

TEST_F(VfdTest, ThreadsMayUseTheTableAtOnceUnderALowLimit) {
  constexpr int kThreads = 4;
  constexpr int kFiles = 20;
  constexpr int kRounds = 50;
  inChild([&] {
    limitDescriptors(16);
    const auto work = [&](int thread) {
      const std::string prefix = std::to_string(thread) + ".";
      std::vector<int> files;
      for (int i = 0; i < kFiles; ++i) files.push_back(open(prefix + std::to_string(i)));
      for (int round = 0; round < kRounds; ++round) {
        for (const int file : files) write(file, std::to_string(round) + ",");
      }
      for (const int file : files) EXPECT_EQ(Vfd_Close(file), 0);
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) threads.emplace_back(work, i);
    for (std::thread& thread : threads) thread.join();
  });
  std::string expected;
  for (int round = 0; round < kRounds; ++round) expected += std::to_string(round) + ",";
  for (int thread = 0; thread < kThreads; ++thread) {
    for (int i = 0; i < kFiles; ++i) {
      EXPECT_EQ(contents(path(std::to_string(thread) + "." + std::to_string(i))), expected);
    }
  }
}

}  // namespace
