// Lists and moves the files of traces.
#include "klt/index/klt_files.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "generic/text/kltt_guard.h"
#include "tests/unit/klt_reading.h"

// The system's call, except that it fails for `unmovable`.
static const char* unmovable = nullptr;
extern "C" int rename(const char* from, const char* to) noexcept {
  if (unmovable == nullptr || std::strcmp(from, unmovable) != 0)
    return renameat(AT_FDCWD, from, AT_FDCWD, to);
  errno = EXDEV;
  return -1;
}

namespace {

namespace fs = std::filesystem;

// A directory with a trace, changed by the shell. The current one while the object exists.
class Place {
 public:
  explicit Place(const char* prepare = "", std::string_view name = "t.klt") {
    tb::Trace trace;
    for (const char* suffix : {"f.0", "f.1"}) trace.stream(suffix, tb::ANY).at(5).enter(0, 7);
    trace.files().writePlain(directory_, name);
    fs::current_path(directory_.path());
    EXPECT_EQ(std::system(("mkdir dir;" + std::string(prepare)).c_str()), 0);
  }
  ~Place() { fs::current_path(before_); }
  Place(const Place&) = delete;
  Place& operator=(const Place&) = delete;

 private:
  fs::path before_ = fs::current_path();
  tb::TempDir directory_;
};

// Bytes of the files of a directory by name.
std::map<std::string, std::string> contents(const fs::path& directory = ".") {
  std::map<std::string, std::string> files;
  for (const auto& entry : fs::recursive_directory_iterator(directory)) {
    if (!entry.is_regular_file() || entry.is_symlink()) continue;
    files[fs::relative(entry.path(), directory).string()] = tb::readFile(entry.path().string());
  }
  return files;
}

// The status of a move, and its messages.
std::pair<int, std::string> move(const char* target, const char* name = "t.klt") {
  reading::Messages messages;
  KLT_FileHandle* handle = KLT_Open(name);
  const int status = KLT_Move(handle, target, KLTT_InputFiles(handle));
  KLT_Close(handle);
  return {status, messages.take()};
}

// After a success all files of the trace have the new name, and no anchors of an older trace are
// left; after a failure nothing has changed.
TEST(KltFiles, MovesAllFilesOrNone) {
  const char* const links = "ln -s t.klt symbolic; ln t.klt.f.1 other.f.1; ln t.klt dir";
  const struct {
    const char* target;
    int status;
    std::string text;  // empty for none
    const char* prepare = "";
  } cases[] = {
      {"dir", 0, ""},
      {"u.klt", 0, "", "rm t.klt.f.0.anc; echo old | tee u.klt.f.0.anc > t.klt.notes"},
      {"no/u.klt", 1, "no/: No such file"},
      {"u.klt", 1, "u.klt.f.1: Is a directory\n", "mkdir u.klt.f.1"},
      {"u.klt", 1, "t.klt.f.1: Is a directory\n", "rm t.klt.f.1; mkdir t.klt.f.1"},
      {"t.klt.dcl/u", ENOTDIR, ": Not a directory"},
      {".", 1, "Could not open file ./t.klt.dcl for writing.\n"},
      {"symbolic", 1, "file symbolic for", links},
      {"other", 1, "file other.f.1 for", links},
      {"dir", 1, "file dir/t.klt for", links},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.target << ", after: " << c.prepare);
    const Place place(c.prepare);
    const auto before = contents();
    auto expected = before;
    if (c.status == 0) expected.erase("u.klt.f.0.anc");
    const std::string base = std::string(c.target) == "dir" ? "dir/t.klt" : c.target;
    for (const auto& [name, bytes] : before) {
      if (c.status != 0 || !name.starts_with("t.klt") || name == "t.klt.notes") continue;
      expected.erase(name);
      expected[base + name.substr(5)] = bytes;
    }
    const auto [status, text] = move(c.target);
    EXPECT_EQ(status, c.status);
    EXPECT_TRUE(text.find(c.text) != std::string::npos && text.empty() == c.text.empty()) << text;
    EXPECT_TRUE(contents() == expected);
  }
}

TEST(KltFiles, AFailedMoveReportsThePlaceOfEachFile) {
  const Place place;
  const std::string path = std::getenv("PATH");
  setenv("PATH", "/none", 1);  // without mv, which is tried next
  unmovable = "t.klt.f.1";
  const auto [status, text] = move("u.klt");
  unmovable = nullptr;
  setenv("PATH", path.c_str(), 1);
  EXPECT_EQ(status, 127);
  for (const char* file : {"", ".dcl", ".f.0", ".f.1", ".f.0.anc", ".f.1.anc"}) {
    const bool isOld = fs::exists(std::string("t.klt") + file);
    const size_t at = text.find("  " + std::string(isOld ? "t.klt" : "u.klt") + file + "\n");
    EXPECT_EQ(at < text.find("Files that have been moved:"), isOld) << text;
    EXPECT_NE(at, std::string::npos) << text;
  }
}

// A move to another file system runs mv in a shell.
TEST(KltFiles, MovesAcrossFileSystemsUnderNamesThatAShellWouldExpand) {
  const char* const name = "-it's $(a) \"trace\";.klt";
  const Place place("", name);
  const auto before = contents();
  char other[] = "/dev/shm/klt_files.XXXXXX";
  if (mkdtemp(other) == nullptr) GTEST_SKIP() << "needs a second file system";
  EXPECT_EQ(move(other, name).first, 0);
  EXPECT_TRUE(contents(other) == before && contents().empty());
  fs::remove_all(other);
}

// 31 buckets by id. The ids of streams begin with 0x10003; the next id is that of the anchors.
TEST(KltFiles, AreListedByBucketThenInOrderOfDeclaration) {
  tb::Trace trace;
  for (int i = 0; i < 15; ++i) trace.stream(std::to_string(i), tb::ANY);
  std::vector<std::string> names;
  const reading::OpenTrace open(trace);
  EXPECT_EQ(KLT_FileList(open.handle(), &names, nullptr), 32U);
  names.resize(6);
  EXPECT_EQ(names, (reading::Lines{"t.klt", "t.klt.13.anc", "t.klt.14", "t.klt.dcl", "t.klt.14.anc",
                                   "t.klt.0"}));
}

}  // namespace
