// Trace storage: a model of what is done to containers, the bytes of the forms, and containers that
// lie.
#include "klt/storage/klt_io.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "tests/builder/trace_files.h"
#include "tests/unit/klt_reading.h"
#include "util/vfd.h"

namespace {

constexpr size_t kExtent = 65536;

std::string big(uint64_t value, int bytes) {
  std::string text;
  while (bytes-- > 0) text += static_cast<char>(value >> 8 * bytes & 0xff);
  return text;
}

const std::string kHeader = "SKLT" + big(1, 8);

using Extents = std::vector<std::pair<uint64_t, uint64_t>>;  // offsets and lengths

std::string dirEntry(const std::string& key, uint64_t lastUsed, const Extents& extents) {
  std::string text = big(key.size(), 4) + key + big(lastUsed, 8) + big(extents.size(), 4);
  for (const auto& extent : extents) text += big(extent.first, 8);
  for (const auto& extent : extents) text += big(extent.second, 8);
  return text;
}

// How many bytes may still be written: the disk is full then.
size_t room = ~size_t{0};
bool isFull(size_t& bytes) {
  if (room == 0) errno = ENOSPC;
  bytes = std::min(bytes, room);
  room -= bytes;
  return bytes == 0;
}

class KltIo : public testing::Test {
 protected:
  ~KltIo() override { Vfd_systemCalls = Vfd_osCalls; }

  [[nodiscard]] std::string path(const std::string& suffix = "") const {
    return directory_ / ("t.klt" + suffix);
  }
  // A container file of extents, directory and trailer.
  void put(const std::string& data, const std::string& entries) const {
    tb::writeFile(path(), kHeader + data + entries + big(12 + data.size(), 8));
  }
  // What is written in sequence can't be read meanwhile.
  [[nodiscard]] KLT_Container* create(int form, const char* name = "t.klt") const {
    const int flags = (form == KLT_FORM_SERIAL ? O_WRONLY : O_RDWR) | O_CREAT | O_TRUNC;
    return KLT_ContainerCreate(directory_.path().c_str(), flags, 0666, form, name);
  }
  [[nodiscard]] KLT_Container* open(int flags = O_RDONLY) const {
    return KLT_ContainerOpen(directory_.path().c_str(), "t.klt", flags, 0666);
  }
  static std::string read(KLT_IoFile* file, size_t bytes) {
    std::string text(bytes, '\0');
    const int64_t count = KLT_IoRead(file, text.data(), bytes);
    text.resize(count < 0 ? 0 : static_cast<size_t>(count));
    return text;
  }
  static void write(KLT_Container* trace, const std::string& name, const std::string& text) {
    KLT_IoFile* file = KLT_IoOpen(trace, name.c_str());
    EXPECT_EQ(KLT_IoWrite(file, text.data(), text.size()), static_cast<int64_t>(text.size()));
    EXPECT_EQ(KLT_IoClose(file), 0);
  }
  // All that the trace on disk holds of a component.
  [[nodiscard]] std::string content(const std::string& name) const {
    KLT_Container* const trace = open();
    if (trace == nullptr) return "(no trace)";
    KLT_IoFile* file = KLT_IoOpen(trace, name.c_str());
    std::string text = "(none)";
    if (file != nullptr) {
      text = read(file, static_cast<size_t>(KLT_IoSize(file)) + 1);
      EXPECT_EQ(KLT_IoClose(file), 0);
    }
    EXPECT_EQ(KLT_ContainerClose(trace), 0);
    return text;
  }
  void compareWithTexts(int form, unsigned seed);

  tb::TempDir directory_;
};

constexpr int kVersion0 = KLT_FORM_SERIAL + 1;  // a container that is there, with many extents

// Random operations on components and on texts. Some writes meet a full disk, files are closed
// behind descriptors, and the trace is closed and opened again for more.
void KltIo::compareWithTexts(int form, unsigned seed) {
  std::mt19937 random(seed);
  const auto below = [&](size_t n) { return static_cast<size_t>(random() % n); };
  Vfd_systemCalls.write = [](int fd, const void* from, size_t n) {
    return isFull(n) ? -1 : Vfd_osCalls.write(fd, from, n);
  };
  Vfd_systemCalls.pwrite = [](int fd, const void* from, size_t n, off_t at) {
    return isFull(n) ? -1 : Vfd_osCalls.pwrite(fd, from, n, at);
  };
  std::map<std::string, std::string> texts{{"t.klt", ""}};
  bool cuts = form != kVersion0;
  KLT_Container* trace = nullptr;
  if (cuts) {
    trace = create(form);
    write(trace, "t.klt", "");
  } else {
    tb::TraceFiles files;
    files.add(" ", texts["t.klt"] = std::string(5000, 'i'));
    files.add(".a", texts["t.klt.a"] = "a");
    files.writeContainer(directory_, {.version = 0, .extent = 1000, .padded = true});
    trace = open(O_RDWR);
  }
  bool appends = false;
  for (int round = 0; round < 4; ++round) {
    ASSERT_NE(trace, nullptr);
    const bool inSequence = form == KLT_FORM_SERIAL && round == 0;
    std::map<std::string, std::pair<KLT_IoFile*, size_t>> files;  // with their positions
    for (int i = 0; i < 50; ++i) {
      const char* const suffixes[] = {"", ".a", ".b", ".c"};
      const std::string name = std::string("t.klt") + suffixes[below(4)];
      auto& [file, at] = files[name];
      std::string& text = texts[name];
      if (file == nullptr || below(12) == 0) {
        if (file != nullptr) KLT_IoClose(file);
        file = KLT_IoOpen(trace, name.c_str());
        ASSERT_NE(file, nullptr);
        if (cuts) text.clear();
        at = appends ? text.size() : 0;
      }
      if (below(8) == 0) {  // every file is closed, and must come back
        Vfd_systemCalls.open = [](const char*, int, mode_t) { return errno = EMFILE, -1; };
        EXPECT_EQ(Vfd_Open("/dev/null", O_RDONLY, 0), -1);
        Vfd_systemCalls.open = Vfd_osCalls.open;
      }
      const size_t n = below(3) * kExtent / (1 + below(9)) + below(5);
      if (below(2) == 0) {
        const std::string piece(n, static_cast<char>('a' + below(26)));
        if (below(6) == 0) room = below(n + 1);
        size_t taken = std::min(n, room);
        const bool isBack = inSequence && at != text.size();
        if (isBack) taken = 0;
        EXPECT_EQ(KLT_IoWrite(file, piece.data(), n), static_cast<int64_t>(taken));
        EXPECT_TRUE(taken == n || errno == (isBack ? ESPIPE : ENOSPC));
        room = ~size_t{0};
        text.replace(at, taken, piece, 0, taken);
        at += taken;
      } else if (!inSequence && below(2) == 0) {
        ASSERT_TRUE(read(file, n) == text.substr(at, n));
        at = std::min(at + n, text.size());
      } else {
        const size_t bases[] = {0, at, text.size()};  // of SEEK_SET, SEEK_CUR and SEEK_END
        const int whence = static_cast<int>(below(3));
        const auto to =
            static_cast<int64_t>(below(text.size() * (form == KLT_FORM_PLAIN ? 1 : 2) + 1));
        at = std::min(static_cast<size_t>(to), text.size());
        EXPECT_EQ(KLT_IoSeek(file, to - static_cast<int64_t>(bases[whence]), whence),
                  static_cast<int64_t>(at));
      }
    }
    for (auto& [name, open] : files) EXPECT_EQ(KLT_IoClose(open.first), 0);
    if (form != KLT_FORM_PLAIN && !inSequence && below(2) == 0) {
      // The directory moves up to the end of a file that is longer than it should be.
      tb::writeFile(path(), tb::readFile(path()) + std::string(below(3 * kExtent), 'z'));
    }
    EXPECT_EQ(KLT_ContainerClose(trace), 0);
    for (const auto& [name, text] : texts) ASSERT_TRUE(content(name) == text) << name;
    appends = form != KLT_FORM_PLAIN && below(2) == 0;
    trace = open(O_RDWR | O_CREAT | (appends ? O_APPEND : 0));
    cuts = false;
  }
  EXPECT_EQ(KLT_ContainerClose(trace), 0);
}

TEST_F(KltIo, EveryFormHoldsWhatTextsDo) {
  for (int form = KLT_FORM_PLAIN; form <= kVersion0; ++form) {
    for (unsigned seed = 0; seed < 10 && !HasFatalFailure(); ++seed) {
      SCOPED_TRACE(testing::Message() << "form " << form << ", seed " << seed);
      for (const char* suffix : {"", ".a", ".b", ".c"}) std::filesystem::remove(path(suffix));
      compareWithTexts(form, seed);
    }
  }
}

// A component that is cut gets its extents back. Nothing goes back in what is written in sequence.
TEST_F(KltIo, ComponentsTakeExtentsInTurn) {
  const auto fill = [](KLT_Container* trace, const std::string& name) {
    KLT_IoFile* file = KLT_IoOpen(trace, (name + ".a").c_str());
    for (const std::string& text : {std::string(kExtent, 'a'), std::string("b")}) {
      EXPECT_EQ(KLT_IoWrite(file, text.data(), text.size()), static_cast<int64_t>(text.size()));
    }
    EXPECT_EQ(KLT_IoClose(file), 0);
    write(trace, name, "index");
    write(trace, name + ".a", "c");
    EXPECT_EQ(KLT_ContainerClose(trace), 0);
  };
  fill(create(KLT_FORM_SINGLE), "t.klt");
  std::string data =
      "c" + std::string(kExtent - 1, 'a') + "b" + std::string(kExtent - 1, '\0') + "index";
  data.resize(3 * kExtent);
  EXPECT_TRUE(tb::readFile(path()) ==
              kHeader + data + dirEntry(" ", 5, {{12 + 2 * kExtent, kExtent}}) +
                  dirEntry(".a", 1, {{12, kExtent}}) + big(12 + data.size(), 8));

  testing::internal::CaptureStdout();
  fill(create(KLT_FORM_SERIAL, "-"), "-");
  data = std::string(kExtent, 'a') + "bindexc";
  EXPECT_TRUE(testing::internal::GetCapturedStdout() ==
              kHeader + data + dirEntry(" ", 5, {{13 + kExtent, 5}}) +
                  dirEntry(".a", 1, {{18 + kExtent, 1}}) + big(12 + data.size(), 8));
}

// Within a bucket (.sts and .err; .cop, .ä and .f.17; .dcl and .cop.anc; .msg and .f.0.anc) they
// are in the order of arrival.
TEST_F(KltIo, TheDirectoryIsInTheOrderOfItsBuckets) {
  KLT_Container* trace = create(KLT_FORM_SERIAL);
  for (const char* suffix :
       {"", ".dcl", ".sts", ".msg", ".err", ".fsc.12", ".x.131074", ".cop", ".f.0", ".f.0.anc",
        ".\xc3\xa4", ".cop.anc", "\xffz", ".msg.anc", ".f.17"}) {
    write(trace, std::string("t.klt") + suffix, "x");
  }
  std::string names;
  for (const std::string& key : KLT_ContainerKeys(trace)) names += key + ",";
  EXPECT_EQ(names,
            ".msg.anc,.sts,.err,.fsc.12,\xffz,.f.0,.x.131074, "
            ",.cop,.\xc3\xa4,.f.17,.dcl,.cop.anc,.msg,.f.0.anc,");
  EXPECT_EQ(KLT_ContainerClose(trace), 0);
}

TEST_F(KltIo, RefusesDirectoriesThatMakeNoSense) {
  const std::string data(100, 'd');  // extents may lie in 12..112
  const auto entry = [](uint64_t lastUsed, const Extents& extents) {
    return dirEntry(".a", lastUsed, extents);
  };
  const uint64_t last = ~uint64_t{0};
  const std::string good = entry(100, {{12, 100}});
  const std::pair<const char*, std::string> cases[] = {
      {"extent inside the header", entry(1, {{11, 1}})},
      {"extent past the directory's start", entry(1, {{112, 1}})},
      {"extent running into the directory", entry(1, {{12, 101}})},
      {"end of the extent overflows", entry(1, {{13, last}})},
      {"offset beyond the file", entry(0, {{last / 2 + 1, 0}})},
      {"more used than there is", entry(11, {{12, 10}})},
      {"more used than an empty extent", entry(1, {{12, 10}, {12, 0}})},
      {"lengths whose sum overflows", entry(1, {{12, 1}, {13, last}})},
      {"extents that overlap", entry(60, {{12, 60}, {12, 60}})},
      {"components that overlap", good + dirEntry(".b", 1, {{12, 1}})},
      {"empty key", dirEntry("", 0, {})},
      {"NUL in the key", dirEntry(std::string("a\0b", 3), 0, {})},
      {"key of 65,536 bytes", dirEntry(std::string(65536, 'k'), 0, {})},
      {"key longer than the directory", big(30, 4) + ".a" + std::string(12, '\0')},
      {"length of the key cut", good + big(0, 3)},
      {"entry cut behind its key", good + big(1, 4) + "k"},
      {"extents cut", good.substr(0, good.size() - 1)},
      {"count that nothing backs", big(1, 4) + "k" + big(0, 8) + big(last, 4)},
  };
  put(data, good + dirEntry(".none", 77, {}) + entry(1, {{12, 1}}));  // the first entry wins
  EXPECT_EQ(content("t.klt.a") + content("t.klt.none"), data);
  reading::Messages messages;
  for (const auto& [fault, entries] : cases) {
    put(data, entries);
    EXPECT_EQ(open(), nullptr) << fault;
  }
  const std::string file = kHeader + data + good;
  for (const uint64_t offset : {uint64_t{0}, uint64_t{11}, file.size() + 1, last / 2 + 1, last}) {
    tb::writeFile(path(), file + big(offset, 8));
    EXPECT_EQ(open(), nullptr) << "directory at " << offset;
  }
  tb::writeFile(path(), file + big(file.size(), 8));  // an empty directory is one
  EXPECT_EQ(content("t.klt.a"), "(none)");
  tb::writeFile(path(), kHeader + big(12, 7));  // no room for a trailer
  EXPECT_EQ(open(), nullptr);
  EXPECT_EQ(messages.take(), "");
}

// What fails, with errno and what is told of it.
TEST_F(KltIo, FailuresAreTold) {
  put("0123456789", dirEntry(".a", 6, {{12, 4}, {16, 6}}));
  KLT_Container* const trace = open();
  ASSERT_NE(trace, nullptr);
  KLT_IoFile* file = KLT_IoOpen(trace, "t.klt.a");
  std::filesystem::resize_file(path(), 12 + 7);
  KLT_IoFile* none = nullptr;
  char byte = 0;
  const std::string null = "ERROR: Illegal file descriptor: NULL\n";
  struct Case {
    std::function<int64_t()> call;
    int64_t result;
    int error;
    std::string told;
  };
  const auto isOpen = [](KLT_Container* container, const char* name) {
    return container != nullptr && KLT_IoOpen(container, name) != nullptr ? 1 : 0;
  };
  const Case cases[] = {
      {[&] { return KLT_IoSeek(file, INT64_MAX, SEEK_CUR); }, 10, 0, ""},
      {[&] { return KLT_IoSeek(file, -11, SEEK_END); }, -1, EINVAL, ""},
      {[&] { return KLT_IoSeek(file, INT64_MIN, SEEK_END); }, -1, EINVAL, ""},
      {[&] { return KLT_IoSeek(file, 0, 99); }, -1, EINVAL, ""},
      {[&] { return KLT_IoSeek(file, 2, SEEK_SET); }, 2, 0, ""},
      {[&] { return int64_t(read(file, 100).size()); }, 5, EIO, ".a: Input/output error\n"},
      {[&] { return int64_t(read(file, 100).size()); }, 0, EIO, ""},  // told once
      {[&] { return KLT_IoRead(none, &byte, 1); }, 0, EBADF, null},
      {[&] { return KLT_IoWrite(none, &byte, 1); }, 0, EBADF, null},
      {[&] { return KLT_IoSeek(none, 5, SEEK_SET); }, 0, EBADF, null},
      {[&] { return KLT_IoClose(none); }, 0, EBADF, null},
      {[&] { return isOpen(trace, "t.klt.none"); }, 0, ENOENT, ""},
      {[&] { return isOpen(trace, "other.a"); }, 0, EINVAL,
       "ERROR: Cannot open file which does not contain basename t.klt\n"},
  };
  for (const Case& c : cases) {
    reading::Messages messages;
    errno = 0;
    EXPECT_EQ(c.call(), c.result);
    EXPECT_EQ(errno, c.error);
    EXPECT_EQ(messages.take(), c.told) << &c - cases;
  }
  KLT_IoClose(file);
  KLT_ContainerClose(trace);
}

}  // namespace
