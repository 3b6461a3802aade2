// Trace storage: comparison with a model, the order in containers, and invalid containers.
#include "klt/storage/klt_io.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "tests/unit/klt_reading.h"

namespace {

class KltIo : public testing::Test {
 protected:
  [[nodiscard]] KLT_Container* create(int form, const char* name) const {
    return KLT_ContainerCreate(directory_.path().c_str(), O_RDWR | O_CREAT | O_TRUNC, 0666, form,
                               name);
  }
  [[nodiscard]] KLT_Container* open(int flags = O_RDONLY) const {
    return KLT_ContainerOpen(directory_.path().c_str(), "t.klt", flags, 0666);
  }
  static std::string read(KLT_IoFile* file, size_t bytes) {
    std::string text(bytes, ' ');
    text.resize(static_cast<size_t>(KLT_IoRead(file, text.data(), bytes)));
    return text;
  }
  // All bytes of a component of the trace on disk.
  [[nodiscard]] std::string content(const std::string& name) const {
    KLT_Container* const trace = open();
    KLT_IoFile* file = trace == nullptr ? nullptr : KLT_IoOpen(trace, name.c_str());
    if (file == nullptr) return "(none)";
    std::string text = read(file, static_cast<size_t>(KLT_IoSize(file)) + 1);
    EXPECT_EQ(KLT_IoClose(file) + KLT_ContainerClose(trace), 0);
    return text;
  }

  tb::TempDir directory_;
  const std::string path_ = directory_ / "t.klt";
};

// Random operations on components and, as a model, on texts. Some writes exceed a limit, and the
// trace is closed and opened again for more. A fourth form is an existing container.
TEST_F(KltIo, EveryFormBehavesLikeTexts) {
  std::signal(SIGXFSZ, SIG_IGN);
  const auto limitFiles = [](rlim_t bytes) {
    const rlimit limit{bytes, RLIM_INFINITY};
    setrlimit(RLIMIT_FSIZE, &limit);
  };
  for (unsigned seed = 0; seed < 40 && !HasFatalFailure(); ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    const auto below = [&](size_t n) { return static_cast<size_t>(random() % n); };
    const int form = static_cast<int>(seed % 4);
    const bool isPlain = form == KLT_FORM_PLAIN;
    bool truncates = form <= KLT_FORM_SERIAL, appends = false;
    std::map<std::string, std::string> texts{{"t.klt", std::string(5000, 'i')}, {"t.klt.a", "a"}};
    tb::TraceFiles old;
    for (const auto& [name, text] : texts) old.add(name == "t.klt" ? " " : ".a", text);
    old.writeContainer(directory_, {.version = 0, .extent = 1000, .padded = true});
    KLT_Container* trace = truncates ? create(form, "t.klt") : open(O_RDWR);
    for (int round = 0; round < 4; ++round) {
      const bool inSequence = form == KLT_FORM_SERIAL && round == 0;
      std::map<std::string, std::pair<KLT_IoFile*, size_t>> files;  // with their positions
      for (int i = 0; i < 50; ++i) {
        const char* const names[] = {"t.klt", "t.klt.a", "t.klt.b", "t.klt.c"};
        const char* const name = names[below(4)];
        auto& [file, at] = files[name];
        std::string& text = texts[name];
        if (file == nullptr || below(12) == 0) {
          if (file != nullptr) KLT_IoClose(file);
          file = KLT_IoOpen(trace, name);
          if (truncates) text.clear();
          at = appends ? text.size() : 0;
        }
        const size_t n = below(3) * 65536 / (1 + below(9)) + below(5);
        if (below(2) == 0) {
          const std::string piece(n, static_cast<char>('a' + below(26)));
          const bool isBack = inSequence && at != text.size();
          limitFiles(below(6) == 0 ? below(400000) : RLIM_INFINITY);
          errno = 0;
          const auto taken = static_cast<size_t>(KLT_IoWrite(file, piece.data(), n));
          EXPECT_TRUE(taken == n || errno == (isBack ? ESPIPE : EFBIG));
          EXPECT_TRUE(!isBack || taken == 0);
          limitFiles(RLIM_INFINITY);
          text.replace(at, taken, piece, 0, taken);
          at += taken;
        } else if (!inSequence && below(2) == 0) {
          ASSERT_TRUE(read(file, n) == text.substr(at, n));
          at = std::min(at + n, text.size());
        } else {
          const size_t bases[] = {0, at, text.size()};  // of SEEK_SET, SEEK_CUR and SEEK_END
          const size_t whence = below(3);
          const auto base = static_cast<int64_t>(bases[whence]);
          at = below(4) == 0 ? 0 : below(text.size() + 1);
          auto offset = static_cast<int64_t>(at) - base, place = static_cast<int64_t>(at);
          if (!isPlain && !text.empty() && below(9) == 0) {  // outside the component
            const int64_t beyond[] = {INT64_MAX, INT64_MIN, -1 - base};
            offset = beyond[below(3)];
            at = offset > 0 ? text.size() : bases[1];
            place = offset > 0 ? static_cast<int64_t>(at) : -1;
          }
          EXPECT_EQ(KLT_IoSeek(file, offset, static_cast<int>(whence)), place);
          EXPECT_EQ(errno, place < 0 ? EINVAL : 0);
        }
      }
      for (auto& [name, file] : files) EXPECT_EQ(KLT_IoClose(file.first), 0);
      if (!isPlain && !inSequence && below(2) == 0) {
        // If the file is longer, the directory is written at its end.
        tb::writeFile(path_, tb::readFile(path_) + std::string(below(200000), 'z'));
      }
      EXPECT_EQ(KLT_ContainerClose(trace), 0);
      for (const auto& [name, text] : texts) ASSERT_TRUE(content(name) == text) << name;
      appends = !isPlain && below(2) == 0;
      trace = open(O_RDWR | O_CREAT | (appends ? O_APPEND : 0));
      truncates = false;
    }
    EXPECT_EQ(KLT_ContainerClose(trace), 0);
  }
}

// A truncated component uses its extents again, unless written in sequence. Keys in one bucket of
// the directory (the first two; the middle three; the last two) are in order of insertion.
TEST_F(KltIo, ExtentsAndDirectoryHaveTheirOrder) {
  const std::vector<std::string> keys{".sts",      ".err",  "\xffz", ".x.131074", ".cop",
                                      ".\xc3\xa4", ".f.17", ".msg",  ".f.0.anc"};
  for (const auto& [form, size] :
       {std::pair{KLT_FORM_SINGLE, 1180152}, {KLT_FORM_SERIAL, 590193}}) {
    const std::string name = form == KLT_FORM_SINGLE ? "t.klt" : "-";
    testing::internal::CaptureStdout();
    KLT_Container* trace = create(form, name.c_str());
    for (const std::string& text : {std::string("x"), std::string(65537, 'y')}) {
      for (const size_t i : {7U, 4U, 0U, 5U, 8U, 1U, 6U, 2U, 3U}) {
        KLT_IoFile* file = KLT_IoOpen(trace, (name + keys[i]).c_str());
        EXPECT_EQ(KLT_IoWrite(file, text.data(), text.size()), static_cast<int64_t>(text.size()));
        EXPECT_EQ(KLT_IoClose(file), 0);
      }
    }
    EXPECT_EQ(KLT_ContainerKeys(trace), keys);
    EXPECT_EQ(KLT_ContainerClose(trace), 0);
    const std::string out = testing::internal::GetCapturedStdout();
    if (form == KLT_FORM_SERIAL) tb::writeFile(path_, out);
    EXPECT_EQ(std::filesystem::file_size(path_), size);
    EXPECT_EQ(content("t.klt.msg"), std::string(65537, 'y'));
  }
}

TEST_F(KltIo, InvalidContainersAndFailuresAreFound) {
  // Two components of two extents each, between 12 and 112. Their entries are at 112 and 162: key,
  // bytes used of the last extent, offsets and lengths of the extents. The trailer is at 212.
  tb::TraceFiles files;
  files.add(".a", std::string(60, 'a'));
  files.add(".b", std::string(40, 'b'));
  const auto big = [](uint64_t value, unsigned bytes) {
    std::string text;
    tb::put(text, value, bytes);
    return text;
  };
  const auto change = [&](size_t at, size_t count, const std::string& bytes) {
    std::string file = files.container({.extent = 30});
    tb::writeFile(path_, file.replace(at, count, bytes));
  };
  reading::Messages messages;
  for (const auto& [at, count, bytes] :
       std::initializer_list<std::tuple<size_t, size_t, std::string>>{
           {130, 8, big(11, 8)},         // an extent inside the header
           {188, 8, big(103, 8)},        // an extent that ends in the directory
           {130, 8, big(INT64_MAX, 8)},  // an extent beyond the file
           {168, 8, big(11, 8)},         // more bytes used than it has
           {146, 8, big(31, 8)},         // extents overlap
           {112, 6, big(0, 4)},          // an empty key
           {117, 1, big(0, 1)},          // NUL in a key
           {112, 4, big(200, 4)},        // a key longer than the directory
       }) {
    change(at, count, bytes);
    EXPECT_EQ(open(), nullptr) << at << ' ' << testing::PrintToString(bytes);
  }
  // The first entry with a name is used.
  change(212, 0, big(2, 4) + ".a" + big(1, 8) + big(1, 4) + big(12, 8) + big(1, 8));
  EXPECT_EQ(content("t.klt.a"), files[".a"]);
  change(0, 0, "");
  KLT_Container* const trace = open();
  KLT_IoFile* file = KLT_IoOpen(trace, "t.klt.a");
  std::filesystem::resize_file(path_, 80);
  EXPECT_EQ(read(file, 100) + read(file, 100), std::string(38, 'a'));  // reported once
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(KLT_IoOpen(trace, "t.klt.none"), nullptr);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(KLT_IoClose(file) + KLT_ContainerClose(trace), 0);
  EXPECT_EQ(messages.take(), ".a: Input/output error\n");
}

}  // namespace
