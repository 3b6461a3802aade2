// Trace storage: the three forms written and read back, containers put together byte by byte, and
// containers that lie.
#include "klt/klt_io.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "util/vfd.h"

namespace {

constexpr int kWrite = O_WRONLY | O_CREAT | O_TRUNC;
constexpr size_t kExtentBytes = 65536;

// The big-endian form of a number, spelled without the code under test.
std::string big(uint64_t value, int bytes) {
  std::string text;
  for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8) {
    text += static_cast<char>(value >> shift & 0xff);
  }
  return text;
}

struct Extent {
  uint64_t offset, length;
};

std::string header(uint64_t version) { return "SKLT" + big(version, 8); }

std::string dirEntry(uint64_t version, const std::string& key, uint64_t lastUsed,
                     const std::vector<Extent>& extents) {
  const int bytes = version != 0 ? 4 : 2;
  std::string text = big(key.size(), bytes) + key + big(lastUsed, 8) + big(extents.size(), bytes);
  for (const Extent& extent : extents) text += big(extent.offset, 8);
  for (const Extent& extent : extents) text += big(extent.length, 8);
  return text;
}

class KltIoTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = testing::TempDir() + "klt_io.XXXXXX";
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    directory_ = pattern;
  }
  void TearDown() override {
    Vfd_systemCalls = Vfd_osCalls;
    std::filesystem::remove_all(directory_);
  }

  [[nodiscard]] const std::string& directory() const { return directory_; }
  [[nodiscard]] std::string path(const std::string& name) const { return directory_ + "/" + name; }

  [[nodiscard]] std::string bytesOf(const std::string& name) const {
    std::ifstream in(path(name), std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }

  void putFile(const std::string& name, const std::string& bytes) const {
    std::ofstream(path(name), std::ios::binary) << bytes;
  }

  // A container file of extents, directory and trailer.
  void putContainer(uint64_t version, const std::string& data, const std::string& entries) const {
    const std::string front = header(version) + data;
    putFile("t.klt", front + entries + big(front.size(), 8));
  }

  [[nodiscard]] KLT_Container* create(int form, int flags = kWrite) const {
    return KLT_ContainerCreate(nullptr, flags, 0666, form, path("t.klt").c_str());
  }
  [[nodiscard]] KLT_Container* openTrace(int flags = O_RDONLY) const {
    return KLT_ContainerOpen(nullptr, path("t.klt").c_str(), flags, 0666);
  }
  [[nodiscard]] KLT_IoFile* openPart(KLT_Container* trace, const std::string& suffix) const {
    return KLT_IoOpen(trace, path("t.klt" + suffix).c_str());
  }

  static void write(KLT_IoFile* file, const std::string& text) {
    EXPECT_EQ(KLT_IoWrite(file, text.data(), text.size()), static_cast<int64_t>(text.size()));
  }

  static std::string read(KLT_IoFile* file, size_t bytes) {
    std::string text(bytes, '\0');
    const int64_t count = KLT_IoRead(file, text.data(), bytes);
    text.resize(count < 0 ? 0 : static_cast<size_t>(count));
    return text;
  }

  void writePart(KLT_Container* trace, const std::string& suffix, const std::string& text) const {
    KLT_IoFile* file = openPart(trace, suffix);
    ASSERT_NE(file, nullptr);
    write(file, text);
    EXPECT_EQ(KLT_IoClose(file), 0);
    EXPECT_EQ(file, nullptr);
  }

  [[nodiscard]] std::string readPart(KLT_Container* trace, const std::string& suffix) const {
    KLT_IoFile* file = openPart(trace, suffix);
    if (file == nullptr) return "(none)";
    const int64_t length = KLT_IoSeek(file, 0, SEEK_END);
    EXPECT_EQ(KLT_IoSeek(file, 0, SEEK_SET), 0);
    std::string text = read(file, static_cast<size_t>(length) + 1);
    EXPECT_EQ(KLT_IoClose(file), 0);
    return text;
  }

  [[nodiscard]] std::string readTracePart(const std::string& suffix) const {
    KLT_Container* const trace = openTrace();
    if (trace == nullptr) return "(no trace)";
    std::string text = readPart(trace, suffix);
    EXPECT_EQ(KLT_ContainerClose(trace), 0);
    return text;
  }

  // Closes every file behind a descriptor, so that each must come back.
  static void evictAll() {
    Vfd_systemCalls.open = [](const char*, int, mode_t) {
      errno = EMFILE;
      return -1;
    };
    EXPECT_EQ(Vfd_Open("/dev/null", O_RDONLY, 0), -1);
    Vfd_systemCalls.open = Vfd_osCalls.open;
  }

 private:
  std::string directory_;
};

TEST_F(KltIoTest, EveryFormGivesBackWhatWasWrittenInTurns) {
  for (const int form : {KLT_FORM_PLAIN, KLT_FORM_SINGLE, KLT_FORM_SERIAL}) {
    SCOPED_TRACE(form);
    std::string index;
    std::string data;
    KLT_Container* trace = create(form);
    ASSERT_NE(trace, nullptr);
    EXPECT_EQ(KLT_ContainerForm(trace), form);
    KLT_IoFile* indexFile = openPart(trace, "");
    KLT_IoFile* dataFile = openPart(trace, ".f.0");
    for (int i = 0; i < 40; ++i) {
      const std::string indexPiece(static_cast<size_t>(i), static_cast<char>('a' + i % 26));
      const std::string dataPiece(5000 + static_cast<size_t>(i), static_cast<char>('A' + i % 26));
      write(indexFile, indexPiece);
      write(dataFile, dataPiece);
      if (i % 8 == 0) evictAll();
      index += indexPiece;
      data += dataPiece;
    }
    EXPECT_EQ(KLT_IoClose(indexFile), 0);
    EXPECT_EQ(KLT_IoClose(dataFile), 0);
    writePart(trace, ".f.0.anc", "");
    EXPECT_EQ(KLT_ContainerClose(trace), 0);

    trace = openTrace();
    ASSERT_NE(trace, nullptr);
    EXPECT_EQ(KLT_ContainerForm(trace), form == KLT_FORM_PLAIN ? form : KLT_FORM_SINGLE);
    EXPECT_EQ(readPart(trace, ""), index);
    EXPECT_EQ(readPart(trace, ".f.0"), data);
    EXPECT_EQ(readPart(trace, ".f.0.anc"), "");
    errno = 0;
    EXPECT_EQ(readPart(trace, ".none"), "(none)");
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(KLT_ContainerClose(trace), 0);
  }
}

TEST_F(KltIoTest, TheSingleFormAllocatesAtLeast64KiB) {
  KLT_Container* const trace = create(KLT_FORM_SINGLE);
  writePart(trace, ".dcl", "0123456789");
  EXPECT_EQ(KLT_ContainerClose(trace), 0);
  const size_t end = 12 + kExtentBytes;
  EXPECT_EQ(bytesOf("t.klt"), header(1) + "0123456789" + std::string(kExtentBytes - 10, '\0') +
                                  dirEntry(1, ".dcl", 10, {{12, kExtentBytes}}) + big(end, 8));
}

TEST_F(KltIoTest, AWriteBeyondTheExtentTakesAnotherOne) {
  KLT_Container* const trace = create(KLT_FORM_SINGLE);
  KLT_IoFile* file = openPart(trace, ".dcl");
  write(file, std::string(kExtentBytes, 'a'));
  write(file, "b");
  EXPECT_EQ(KLT_IoSeek(file, 0, SEEK_END), static_cast<int64_t>(kExtentBytes) + 1);
  EXPECT_EQ(KLT_IoSeek(file, static_cast<int64_t>(kExtentBytes) - 1, SEEK_SET),
            static_cast<int64_t>(kExtentBytes) - 1);
  write(file, "XYZ");  // over the seam; the length grows by one
  EXPECT_EQ(KLT_IoClose(file), 0);
  EXPECT_EQ(KLT_ContainerClose(trace), 0);
  const std::string end = big(12 + 2 * kExtentBytes, 8);
  const std::vector<Extent> extents = {{12, kExtentBytes}, {12 + kExtentBytes, kExtentBytes}};
  const std::string directory = dirEntry(1, ".dcl", 2, extents);
  EXPECT_EQ(bytesOf("t.klt").substr(12 + 2 * kExtentBytes), directory + end);
  EXPECT_EQ(readTracePart(".dcl"), std::string(kExtentBytes - 1, 'a') + "XYZ");
}

TEST_F(KltIoTest, TheSerialFormGoesThroughAPipeInOneSequence) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  std::fflush(nullptr);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    dup2(ends[1], STDOUT_FILENO);
    KLT_Container* const trace = KLT_ContainerCreate(nullptr, kWrite, 0666, KLT_FORM_SERIAL, "-");
    bool good = trace != nullptr;
    KLT_IoFile* data = good ? KLT_IoOpen(trace, "-.f.0") : nullptr;
    KLT_IoFile* index = good ? KLT_IoOpen(trace, "-") : nullptr;
    good = good && KLT_IoWrite(data, "one", 3) == 3 && KLT_IoWrite(index, "index", 5) == 5 &&
           KLT_IoWrite(data, "three", 5) == 5 && KLT_IoClose(data) == 0 &&
           KLT_IoClose(index) == 0 && KLT_ContainerClose(trace) == 0;
    _exit(good ? 0 : 1);
  }
  close(ends[1]);
  std::string bytes;
  char block[4096];
  for (ssize_t n = 0; (n = ::read(ends[0], block, sizeof block)) > 0;) {
    bytes.append(block, static_cast<size_t>(n));
  }
  close(ends[0]);
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(bytes, header(1) + "oneindexthree" + dirEntry(1, ".f.0", 5, {{12, 3}, {20, 5}}) +
                       dirEntry(1, " ", 5, {{15, 5}}) + big(25, 8));
  putFile("t.klt", bytes);
  EXPECT_EQ(readTracePart(".f.0"), "onethree");
  EXPECT_EQ(readTracePart(""), "index");
}

TEST_F(KltIoTest, TheSerialFormCannotGoBack) {
  KLT_Container* const trace = create(KLT_FORM_SERIAL);
  KLT_IoFile* file = openPart(trace, ".a");
  write(file, "abc");
  EXPECT_EQ(KLT_IoSeek(file, 1, SEEK_SET), 1);
  EXPECT_EQ(KLT_IoWrite(file, "X", 1), 0);
  EXPECT_EQ(errno, ESPIPE);
  EXPECT_EQ(KLT_IoSeek(file, 0, SEEK_END), 3);
  write(file, "d");
  EXPECT_EQ(KLT_IoClose(file), 0);
  writePart(trace, ".a", "again");  // cut to nothing, written behind what went before
  EXPECT_EQ(KLT_ContainerClose(trace), 0);
  EXPECT_EQ(readTracePart(".a"), "again");
  EXPECT_EQ(bytesOf("t.klt").substr(12, 9), "abcdagain");
}

TEST_F(KltIoTest, ARewrittenComponentGetsItsOldExtentsBackFirst) {
  KLT_Container* const trace = create(KLT_FORM_SINGLE);
  KLT_IoFile* file = openPart(trace, ".a");
  for (const char c : {'1', '2', '3'}) write(file, std::string(kExtentBytes, c));  // an extent each
  EXPECT_EQ(KLT_IoClose(file), 0);
  writePart(trace, ".b", "b");
  const std::string again(2 * kExtentBytes + 7, 'c');
  writePart(trace, ".a", again);
  EXPECT_EQ(KLT_ContainerClose(trace), 0);
  const std::string bytes = bytesOf("t.klt");
  EXPECT_EQ(bytes.substr(bytes.size() - 8), big(12 + 4 * kExtentBytes, 8));
  EXPECT_EQ(readTracePart(".a"), again);
  EXPECT_EQ(readTracePart(".b"), "b");
}

TEST_F(KltIoTest, ReadsVersions0And1AcrossSeveralExtents) {
  for (const uint64_t version : {uint64_t{0}, uint64_t{1}, uint64_t{7}}) {
    SCOPED_TRACE(version);
    putContainer(version, "cdefXXab__gh",
                 dirEntry(version, ".a", 2, {{18, 2}, {12, 4}, {18, 0}, {22, 2}}) +
                     dirEntry(version, ".none", 77, {}) + dirEntry(version, ".b", 1, {{16, 2}}) +
                     dirEntry(version, ".a", 1, {{16, 2}}));  // a second one of that name
    KLT_Container* const trace = openTrace();
    ASSERT_NE(trace, nullptr);
    EXPECT_EQ(KLT_ContainerKeys(trace).size(), 3U);
    EXPECT_EQ(readPart(trace, ".a"), "abcdefgh");
    EXPECT_EQ(readPart(trace, ".b"), "X");
    EXPECT_EQ(readPart(trace, ".none"), "");

    KLT_IoFile* file = openPart(trace, ".a");
    EXPECT_EQ(read(file, 3), "abc");
    EXPECT_EQ(KLT_IoSeek(file, 0, SEEK_CUR), 3);
    EXPECT_EQ(KLT_IoSeek(file, 3, SEEK_CUR), 6);
    EXPECT_EQ(read(file, 1), "g");
    EXPECT_EQ(KLT_IoSeek(file, -6, SEEK_END), 2);  // the end of the first extent
    EXPECT_EQ(read(file, 2), "cd");
    EXPECT_EQ(KLT_IoSeek(file, 9, SEEK_SET), 8);
    EXPECT_EQ(KLT_IoSeek(file, INT64_MAX, SEEK_CUR), 8);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(read(file, 1), "");
    for (const int64_t before : {int64_t{-9}, INT64_MIN}) {
      EXPECT_EQ(KLT_IoSeek(file, before, SEEK_END), -1);
      EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_EQ(KLT_IoSeek(file, 0, 99), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(KLT_IoClose(file), 0);
    EXPECT_EQ(KLT_ContainerClose(trace), 0);
  }
}

TEST_F(KltIoTest, RefusesDirectoriesThatMakeNoSense) {
  const std::string data(100, 'd');  // extents may lie in 12..112
  const auto entry = [](uint64_t lastUsed, const std::vector<Extent>& extents) {
    return dirEntry(1, ".a", lastUsed, extents);
  };
  const std::string wellFormed = entry(100, {{12, 100}});
  const struct {
    const char* fault;
    std::string entries;
  } cases[] = {
      {"extent inside the header", entry(1, {{11, 1}})},
      {"extent past the directory's start", entry(1, {{112, 1}})},
      {"extent running into the directory", entry(1, {{12, 101}})},
      {"end of the extent overflows", entry(1, {{13, ~uint64_t{0}}})},
      {"offset beyond the file", entry(0, {{uint64_t{1} << 63, 0}})},
      {"more used than there is", entry(11, {{12, 10}})},
      {"more used than an empty extent", entry(1, {{12, 10}, {12, 0}})},
      {"lengths whose sum overflows", entry(1, {{12, 1}, {13, ~uint64_t{0}}})},
      {"extents that overlap", entry(60, {{12, 60}, {12, 60}})},
      {"components that overlap", wellFormed + dirEntry(1, ".b", 1, {{12, 1}})},
      {"empty key", dirEntry(1, "", 0, {})},
      {"NUL in the key", dirEntry(1, std::string("a\0b", 3), 0, {})},
      {"key of 65,536 bytes", dirEntry(1, std::string(65536, 'k'), 0, {})},
      {"key longer than the directory", big(30, 4) + ".a" + std::string(12, '\0')},
      {"length of the key cut", wellFormed + big(0, 3)},
      {"entry cut behind its key", wellFormed + big(1, 4) + "k"},
      {"extents cut", wellFormed.substr(0, wellFormed.size() - 1)},
      {"count that nothing backs", big(1, 4) + "k" + big(0, 8) + big(~uint64_t{0}, 4)},
      {"zeros", std::string(64, '\0')},
  };
  putContainer(1, data, wellFormed);
  EXPECT_EQ(readTracePart(".a"), data);
  for (const auto& [fault, entries] : cases) {
    putContainer(1, data, entries);
    testing::internal::CaptureStderr();
    EXPECT_EQ(openTrace(), nullptr) << fault;
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << fault;
  }
}

TEST_F(KltIoTest, RefusesTrailersThatPointNowhere) {
  const std::string front = header(1) + "data";
  const std::string entry = dirEntry(1, ".a", 4, {{12, 4}});
  const uint64_t limit = front.size() + entry.size();
  for (const uint64_t offset :
       {uint64_t{0}, uint64_t{11}, limit + 1, limit + 8, uint64_t{1} << 63, ~uint64_t{0}}) {
    putFile("t.klt", front + entry + big(offset, 8));
    EXPECT_EQ(openTrace(), nullptr) << offset;
  }
  putFile("t.klt", front + entry + big(limit, 8));  // an empty directory is one
  EXPECT_EQ(readTracePart(".a"), "(none)");
  putFile("t.klt", header(1) + big(12, 7));  // no room for a trailer
  EXPECT_EQ(openTrace(), nullptr);
}

TEST_F(KltIoTest, ASparseGiantOfADirectoryTakesNoMemory) {
  putFile("t.klt", header(1) + big(1, 4) + "a" + big(0, 8) + big(~uint64_t{0}, 4));
  const uint64_t size = uint64_t{1} << 42;
  std::error_code unsupported;
  std::filesystem::resize_file(path("t.klt"), size, unsupported);
  if (unsupported) GTEST_SKIP() << "no sparse files of 4 TiB here";
  std::fstream(path("t.klt"), std::ios::in | std::ios::out).seekp(size - 8) << big(12, 8);
  EXPECT_EQ(openTrace(), nullptr);
}

TEST_F(KltIoTest, AMillionExtentsLoadAndSeek) {
  constexpr uint64_t kExtents = 1000000;
  std::string data;
  std::vector<Extent> extents;
  for (uint64_t i = 0; i < kExtents; ++i) {
    data += static_cast<char>('a' + i % 26);
    extents.push_back({12 + kExtents - 1 - i, 1});  // stored back to front
  }
  putContainer(1, data, dirEntry(1, ".a", 1, extents));
  KLT_Container* const trace = openTrace();
  ASSERT_NE(trace, nullptr);
  KLT_IoFile* file = openPart(trace, ".a");
  for (uint64_t i = 0; i < kExtents; i += 997) {
    const uint64_t at = i * 7919 % kExtents;
    ASSERT_EQ(KLT_IoSeek(file, static_cast<int64_t>(at), SEEK_SET), static_cast<int64_t>(at));
    ASSERT_EQ(read(file, 1)[0], data[kExtents - 1 - at]);
  }
  EXPECT_EQ(KLT_IoClose(file), 0);
  EXPECT_EQ(KLT_ContainerClose(trace), 0);
}

TEST_F(KltIoTest, TheDirectoryStandsInTheOrderOfItsBuckets) {
  const std::vector<std::string> arrival = {
      "",     ".dcl",     ".sts",      ".msg",     ".err",  ".fsc.12",  ".x.131074", ".cop",
      ".f.0", ".f.0.anc", ".\xc3\xa4", ".cop.anc", "\xffz", ".msg.anc", ".f.17"};
  // Within a bucket (.sts and .err; .cop, .ä and .f.17; .dcl and .cop.anc; .msg and .f.0.anc) they
  // stand as they came.
  const std::vector<std::string> expected = {
      ".msg.anc", ".sts",      ".err",  ".fsc.12", "\xffz",    ".f.0", ".x.131074", " ",
      ".cop",     ".\xc3\xa4", ".f.17", ".dcl",    ".cop.anc", ".msg", ".f.0.anc"};
  KLT_Container* trace = create(KLT_FORM_SERIAL);
  for (const std::string& suffix : arrival) writePart(trace, suffix, "x" + suffix);
  EXPECT_EQ(KLT_ContainerKeys(trace), expected);
  EXPECT_EQ(KLT_ContainerClose(trace), 0);
  const std::string bytes = bytesOf("t.klt");
  size_t at = 0;
  for (const std::string& key : expected) {
    at = bytes.find(big(key.size(), 4) + key + big(key == " " ? 1 : key.size() + 1, 8), at);
    ASSERT_NE(at, std::string::npos) << key;
  }
}

TEST_F(KltIoTest, ReopeningForWritingKeepsWhatIsThere) {
  putContainer(1, "0123kept", dirEntry(1, ".b", 4, {{16, 4}}) + dirEntry(1, ".a", 2, {{12, 4}}));
  const std::string before = bytesOf("t.klt");
  EXPECT_EQ(KLT_ContainerClose(openTrace(O_RDWR)), 0);
  EXPECT_EQ(bytesOf("t.klt").size(), before.size());
  EXPECT_EQ(readTracePart(".a"), "01");

  KLT_Container* const trace = openTrace(O_RDWR);
  ASSERT_NE(trace, nullptr);
  writePart(trace, ".new", "new");  // over the old directory
  KLT_IoFile* file = openPart(trace, ".a");
  EXPECT_EQ(KLT_IoSeek(file, 0, SEEK_END), 2);
  write(file, "abc");  // fills its extent and goes on in another
  EXPECT_EQ(KLT_IoSeek(file, 1, SEEK_SET), 1);
  EXPECT_EQ(read(file, 9), "1abc");
  EXPECT_EQ(KLT_IoClose(file), 0);
  EXPECT_EQ(KLT_ContainerClose(trace), 0);
  EXPECT_EQ(readTracePart(".a"), "01abc");
  EXPECT_EQ(readTracePart(".b"), "kept");
  EXPECT_EQ(readTracePart(".new"), "new");
}

TEST_F(KltIoTest, ADirectoryMovesUpToTheEndOfALongerFile) {
  KLT_Container* const trace = create(KLT_FORM_SINGLE);
  writePart(trace, ".a", "text");
  const std::string tail(3 * kExtentBytes, 'z');
  std::ofstream(path("t.klt"), std::ios::app | std::ios::binary) << tail;
  EXPECT_EQ(KLT_ContainerClose(trace), 0);
  const std::string directory = dirEntry(1, ".a", 4, {{12, kExtentBytes}});
  const size_t size = 12 + 4 + tail.size();
  const size_t at = size - directory.size() - 8;
  const std::string bytes = bytesOf("t.klt");
  EXPECT_EQ(bytes.size(), size);
  EXPECT_EQ(bytes.substr(at), directory + big(at, 8));
  EXPECT_EQ(readTracePart(".a"), "text");
}

TEST_F(KltIoTest, AVersion0ContainerThatIsWrittenBecomesVersion1) {
  putContainer(0, "old", dirEntry(0, ".a", 3, {{12, 3}}));
  KLT_Container* const trace = openTrace(O_RDWR);
  ASSERT_NE(trace, nullptr);
  writePart(trace, ".b", "new");
  EXPECT_EQ(KLT_ContainerClose(trace), 0);
  EXPECT_EQ(bytesOf("t.klt").substr(0, 12), header(1));
  EXPECT_EQ(readTracePart(".a"), "old");
  EXPECT_EQ(readTracePart(".b"), "new");
}

TEST_F(KltIoTest, AppendingGoesOnBehindTheLastByteUsed) {
  putContainer(1, "abcXX", dirEntry(1, ".a", 3, {{12, 5}}));
  KLT_Container* const trace = openTrace(O_RDWR | O_APPEND);
  ASSERT_NE(trace, nullptr);
  writePart(trace, ".a", "defg");
  EXPECT_EQ(KLT_ContainerClose(trace), 0);
  EXPECT_EQ(readTracePart(".a"), "abcdefg");
}

TEST_F(KltIoTest, AContainerCutWhileOpenEndsTheReadWithOneMessage) {
  putContainer(1, "0123456789", dirEntry(1, ".a", 6, {{12, 4}, {16, 6}}));
  KLT_Container* const trace = openTrace();
  ASSERT_NE(trace, nullptr);
  std::filesystem::resize_file(path("t.klt"), 12 + 7);
  KLT_IoFile* file = openPart(trace, ".a");
  testing::internal::CaptureStderr();
  EXPECT_EQ(read(file, 100), "0123456");
  EXPECT_EQ(read(file, 100), "");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), ".a: Input/output error\n");
  EXPECT_EQ(KLT_IoClose(file), 0);
  EXPECT_EQ(KLT_ContainerClose(trace), 0);
}

TEST_F(KltIoTest, NamesWithoutTheBaseNameAndWithItTwice) {
  KLT_Container* trace = create(KLT_FORM_SERIAL);
  writePart(trace, ".x" + path("t.klt") + ".y", "twice");
  testing::internal::CaptureStderr();
  EXPECT_EQ(KLT_IoOpen(trace, "elsewhere.dcl"), nullptr);
  EXPECT_NE(testing::internal::GetCapturedStderr().find(
                "Cannot open file which does not contain basename " + path("t.klt") + "\n"),
            std::string::npos);
  EXPECT_EQ(KLT_ContainerKeys(trace), std::vector<std::string>{".x" + path("t.klt") + ".y"});
  EXPECT_EQ(openPart(trace, std::string(65536, 'k')), nullptr);
  EXPECT_EQ(KLT_ContainerClose(trace), 0);
}

TEST_F(KltIoTest, TheDashIsAnOrdinaryNameOutsideTheSerialForm) {
  testing::internal::CaptureStderr();
  KLT_Container* const trace =
      KLT_ContainerCreate(directory().c_str(), kWrite, 0666, KLT_FORM_PLAIN, "-");
  EXPECT_NE(testing::internal::GetCapturedStderr().find("STDOUT only available in SERIAL mode.\n"),
            std::string::npos);
  KLT_IoFile* file = KLT_IoOpen(trace, "-.dcl");
  ASSERT_NE(file, nullptr);
  write(file, "x");
  EXPECT_EQ(KLT_IoClose(file), 0);
  EXPECT_EQ(KLT_ContainerClose(trace), 0);
  EXPECT_EQ(bytesOf("-.dcl"), "x");
}

TEST_F(KltIoTest, NamesCountFromTheDirectoryGivenAlsoAfterAnEviction) {
  for (const int form : {KLT_FORM_PLAIN, KLT_FORM_SERIAL}) {
    KLT_Container* trace = KLT_ContainerCreate(directory().c_str(), kWrite, 0666, form, "t.klt");
    ASSERT_NE(trace, nullptr);
    KLT_IoFile* file = KLT_IoOpen(trace, "t.klt.dcl");
    write(file, "one");
    evictAll();
    write(file, "two");
    EXPECT_EQ(KLT_IoClose(file), 0);
    file = KLT_IoOpen(trace, "t.klt");
    write(file, "index");
    EXPECT_EQ(KLT_IoClose(file), 0);
    EXPECT_EQ(KLT_ContainerClose(trace), 0);
    EXPECT_EQ(readTracePart(".dcl"), "onetwo");
    trace = KLT_ContainerOpen(directory().c_str(), "t.klt", O_RDONLY, 0);
    ASSERT_NE(trace, nullptr);
    file = KLT_IoOpen(trace, "t.klt.dcl");
    ASSERT_NE(file, nullptr);
    evictAll();
    EXPECT_EQ(read(file, 100), "onetwo");
    EXPECT_EQ(KLT_IoClose(file), 0);
    EXPECT_EQ(KLT_ContainerClose(trace), 0);
  }
}

TEST_F(KltIoTest, WhatIsNoContainerIsTheIndexOfAPlainTrace) {
  for (const std::string& bytes :
       {std::string(), std::string("KLT trace index"), std::string("SKLT\0\0\0", 7)}) {
    putFile("t.klt", bytes);
    EXPECT_EQ(readTracePart(""), bytes);
  }
  putFile("t.klt", "SKLT" + big(uint64_t{1} << 32, 8) + big(12, 8));
  testing::internal::CaptureStderr();
  KLT_Container* const trace = openTrace();
  EXPECT_NE(
      testing::internal::GetCapturedStderr().find("Too new a SINGLEKLT file " + path("t.klt") +
                                                  ". Please use an updated KLT reading tool.\n"),
      std::string::npos);
  ASSERT_NE(trace, nullptr);
  EXPECT_EQ(KLT_ContainerForm(trace), KLT_FORM_PLAIN);
  EXPECT_EQ(KLT_ContainerClose(trace), 0);
}

TEST_F(KltIoTest, FifosAndDirectoriesAreRefused) {
  ASSERT_EQ(mkfifo(path("t.klt").c_str(), 0600), 0);
  ASSERT_EQ(mkfifo(path("t.klt.fifo").c_str(), 0600), 0);
  std::filesystem::create_directory(path("t.klt.dir"));
  KLT_Container* const trace = openTrace();
  ASSERT_NE(trace, nullptr);
  EXPECT_EQ(KLT_ContainerForm(trace), KLT_FORM_PLAIN);
  // The index reads like one that can't be read; a component can't be opened.
  KLT_IoFile* index = openPart(trace, "");
  ASSERT_NE(index, nullptr);
  EXPECT_EQ(KLT_IoSeek(index, 0, SEEK_END), 0);
  char byte = 0;
  EXPECT_EQ(KLT_IoRead(index, &byte, 1), -1);
  EXPECT_EQ(errno, ESPIPE);
  struct stat info;
  EXPECT_EQ(KLT_IoStat(index, &info), 0);
  EXPECT_TRUE(S_ISFIFO(info.st_mode));
  EXPECT_EQ(KLT_IoClose(index), 0);
  EXPECT_EQ(openPart(trace, ".fifo"), nullptr);
  EXPECT_EQ(errno, ESPIPE);
  EXPECT_EQ(openPart(trace, ".dir"), nullptr);
  EXPECT_EQ(errno, EISDIR);
  EXPECT_EQ(KLT_ContainerClose(trace), 0);
}

TEST_F(KltIoTest, MissingFilesAreReportedByName) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(openTrace(), nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            path("t.klt") + ": No such file or directory\n");
  testing::internal::CaptureStderr();
  const std::string unreachable = path("missing/t.klt");
  EXPECT_EQ(KLT_ContainerCreate(nullptr, kWrite, 0666, KLT_FORM_SINGLE, unreachable.c_str()),
            nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), unreachable + ": No such file or directory\n");
}

TEST_F(KltIoTest, OperationsOnNoComponentSaySo) {
  KLT_IoFile* none = nullptr;
  struct stat info;
  char byte = 0;
  testing::internal::CaptureStderr();
  errno = 0;
  EXPECT_EQ(KLT_IoRead(none, &byte, 1), 0);
  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(KLT_IoWrite(none, &byte, 1), 0);
  EXPECT_EQ(KLT_IoSeek(none, 5, SEEK_SET), 0);
  EXPECT_EQ(KLT_IoStat(none, &info), 0);
  EXPECT_EQ(KLT_IoClose(none), 0);
  const std::string told = testing::internal::GetCapturedStderr();
  size_t count = 0;
  for (size_t at = 0; (at = told.find("Illegal file descriptor: NULL\n", at)) != std::string::npos;
       ++at) {
    ++count;
  }
  EXPECT_EQ(count, 5U);
}

TEST_F(KltIoTest, AFailedSerialWriteLeavesTheOtherComponentsRight) {
  KLT_Container* const trace = create(KLT_FORM_SERIAL);
  KLT_IoFile* failing = openPart(trace, ".a");
  write(failing, "aaa");
  static int shortWrites;
  shortWrites = 1;
  Vfd_systemCalls.write = [](int fd, const void* buffer, size_t) -> ssize_t {
    if (shortWrites-- > 0) return ::write(fd, buffer, 2);
    errno = ENOSPC;
    return -1;
  };
  EXPECT_EQ(KLT_IoWrite(failing, "lost", 4), 2);
  EXPECT_EQ(errno, ENOSPC);
  Vfd_systemCalls.write = Vfd_osCalls.write;
  EXPECT_EQ(KLT_IoClose(failing), 0);
  writePart(trace, ".b", "whole");
  EXPECT_EQ(KLT_ContainerClose(trace), 0);
  EXPECT_EQ(readTracePart(".a"), "aaalo");
  EXPECT_EQ(readTracePart(".b"), "whole");
}

// Fails the n-th call of any kind that writes, opens or closes.
int countdown;
bool fails() {
  if (--countdown != 0) return false;
  errno = EIO;
  return true;
}

TEST_F(KltIoTest, NoFailureOfTheSystemPassesInSilence) {
  const std::string text(kExtentBytes + 5, 't');
  const auto writeTrace = [&](int form) {
    KLT_Container* const trace = create(form);
    if (trace == nullptr) return false;
    bool good = true;
    for (const char* const suffix : {"", ".a"}) {
      KLT_IoFile* file = openPart(trace, suffix);
      if (file == nullptr) {
        good = false;
        continue;
      }
      good = KLT_IoWrite(file, text.data(), text.size()) == static_cast<int64_t>(text.size()) &&
             KLT_IoSeek(file, 0, SEEK_END) == static_cast<int64_t>(text.size()) && good;
      evictAll();
      Vfd_systemCalls.open = [](const char* name, int flags, mode_t mode) {
        return fails() ? -1 : Vfd_osCalls.open(name, flags, mode);
      };
      good = KLT_IoWrite(file, "end", 3) == 3 && good;
      good = KLT_IoClose(file) == 0 && good;
    }
    return KLT_ContainerClose(trace) == 0 && good;
  };
  for (const int form : {KLT_FORM_PLAIN, KLT_FORM_SINGLE, KLT_FORM_SERIAL}) {
    int n = 0;
    for (bool failed = true; failed; ++n) {
      ASSERT_LT(n, 1000);
      countdown = n + 1;
      Vfd_systemCalls.open = [](const char* name, int flags, mode_t mode) {
        return fails() ? -1 : Vfd_osCalls.open(name, flags, mode);
      };
      Vfd_systemCalls.write = [](int fd, const void* buffer, size_t bytes) {
        return fails() ? -1 : Vfd_osCalls.write(fd, buffer, bytes);
      };
      Vfd_systemCalls.pwrite = [](int fd, const void* buffer, size_t bytes, off_t offset) {
        return fails() ? -1 : Vfd_osCalls.pwrite(fd, buffer, bytes, offset);
      };
      Vfd_systemCalls.close = [](int fd) {
        const int result = Vfd_osCalls.close(fd);
        return fails() ? -1 : result;
      };
      testing::internal::CaptureStderr();
      const bool good = writeTrace(form);
      testing::internal::GetCapturedStderr();
      Vfd_systemCalls = Vfd_osCalls;
      failed = countdown <= 0;
      EXPECT_EQ(good, !failed) << "form " << form << ", call " << n + 1;
    }
    EXPECT_GE(n, 6) << "form " << form;
    EXPECT_EQ(readTracePart(""), text + "end");
    EXPECT_EQ(readTracePart(".a"), text + "end");
  }
}

}  // namespace
