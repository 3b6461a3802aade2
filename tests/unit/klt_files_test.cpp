// Traces as the files that they are: listed, moved, removed and copied.
#include "klt/index/klt_files.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "generic/text/kltt_guard.h"
#include "tests/unit/klt_reading.h"

namespace {

namespace fs = std::filesystem;

enum class What { kMove, kRemove, kCopy };

// What to do with the trace t.klt, of which some files are changed before.
struct Case {
  const char* about;
  What what;
  const char* target;
  int status;
  std::string said = "";  // part of the message; empty for none
  std::function<void()> prepare = [] {};
};

class KltFiles : public testing::Test {
 protected:
  KltFiles() : before_(fs::current_path()) {
    for (const char* suffix : {"f.0", "f.1"})
      trace_.stream(suffix, tb::FUNCTIONS).at(5).enter(0, 7);
  }
  ~KltFiles() override { fs::current_path(before_); }

  // Bytes of the files of a directory by name.
  static std::map<std::string, std::string> contents(const fs::path& directory = ".") {
    std::map<std::string, std::string> files;
    for (const auto& entry : fs::recursive_directory_iterator(directory)) {
      if (!entry.is_regular_file() || entry.is_symlink()) continue;
      files[fs::relative(entry.path(), directory).string()] = tb::readFile(entry.path().string());
    }
    return files;
  }
  static int run(What what, const char* name, const char* target) {
    KLT_FileHandle* handle = KLT_Open(name);
    const KLT_FileSet input = KLTT_InputFiles(handle);
    const int status = what == What::kMove     ? KLT_Move(handle, target, input)
                       : what == What::kRemove ? KLT_Remove(handle)
                                               : KLT_Convert(handle, nullptr, target, 0, input);
    KLT_Close(handle);
    return status;
  }
  void expect(const Case& c);

  fs::path before_;
  tb::Trace trace_;
};

// After a success all files of the trace are under the new name and nothing of an older trace is;
// after a failure everything is as it was.
void KltFiles::expect(const Case& c) {
  SCOPED_TRACE(c.about);
  const tb::TempDir directory;
  fs::current_path(directory.path());
  trace_.files().writePlain(directory);
  fs::create_directories("dir");
  c.prepare();
  const auto before = contents();
  auto expected = before;
  if (c.status == 0) {
    if (c.what != What::kRemove) expected.erase("u.klt.f.0.anc");
    const std::string place = std::string(c.target) == "dir" ? "dir/t.klt" : c.target;
    for (const auto& [name, bytes] : before) {
      if (!name.starts_with("t.klt") || name == "t.klt.notes") continue;
      if (c.what != What::kCopy) expected.erase(name);
      if (c.what != What::kRemove) expected[place + name.substr(5)] = bytes;
    }
  }
  reading::Messages messages;
  EXPECT_EQ(run(c.what, "t.klt", c.target), c.status);
  const std::string said = messages.take();
  EXPECT_NE(said.find(c.said), std::string::npos) << said;
  EXPECT_EQ(said.empty(), c.said.empty()) << said;
  EXPECT_TRUE(contents() == expected);
}

TEST_F(KltFiles, AllOfATraceGoesOrNothing) {
  const auto noAnchors = [] {
    fs::remove("t.klt.f.0.anc");
    tb::writeFile("u.klt.f.0.anc", "of an earlier trace");
    tb::writeFile("t.klt.notes", "not of the trace");
  };
  const auto links = [] {
    fs::create_symlink("t.klt", "symbolic");
    fs::create_hard_link("t.klt.f.1", "other.f.1");
    fs::create_hard_link("t.klt", "dir/t.klt");
  };
  const auto directories = [] {
    fs::create_directories("u.klt.f.1");
    fs::create_directories("dir/t.klt.dcl");
  };
  const auto noFiles = [] {
    fs::remove("t.klt.f.0");
    fs::remove("t.klt.f.1");
  };
  const std::string input = "Could not open file ";
  const std::string directory = ": Is a directory\n";
  for (const Case& c : {
           Case{"another name", What::kMove, "u.klt", 0},
           {"another directory", What::kMove, "dir", 0},
           {"no anchors", What::kMove, "u.klt", 0, "", noAnchors},
           {"no such directory", What::kMove, "no/u.klt", 1, "no/: No such file"},
           {"a directory in the way", What::kMove, "u.klt", 1, "u.klt.f.1" + directory,
            directories},
           {"one there", What::kMove, "dir", 1, "dir/t.klt.dcl" + directory, directories},
           {"a file for a directory", What::kMove, "t.klt.dcl/u", ENOTDIR, ": Not a directory"},
           {"missing files", What::kMove, "u.klt", 1, "t.klt.f.1: No such file", noFiles},
           {"the input", What::kMove, "t.klt", 1, input},
           {"its directory", What::kMove, ".", 1, input + "./t.klt.dcl for writing.\n"},
           {"a link", What::kMove, "symbolic", 1, input + "symbolic for", links},
           {"a link to a component", What::kMove, "other", 1, input + "other.f.1 for", links},
           {"a link in a directory", What::kMove, "dir", 1, input + "dir/t.klt for", links},
           {"removal", What::kRemove, "", 0, "", noAnchors},
           {"removal of what is there", What::kRemove, "", 0, "  t.klt.f.1\n", noFiles},
           {"a copy", What::kCopy, "u.klt", 0},
           {"a copy without anchors", What::kCopy, "u.klt", 0, "skipping it.", noAnchors},
           {"a copy onto a link", What::kCopy, "other", 1, "Could not create other: ", links},
       }) {
    expect(c);
  }
}

// A directory doesn't replace a file, and can't be removed as one.
TEST_F(KltFiles, WhatStopsHalfwayTellsWhereTheFilesAre) {
  const tb::TempDir directory;
  fs::current_path(directory.path());
  trace_.files().writePlain(directory);
  fs::remove("t.klt.f.1");
  fs::create_directory("t.klt.f.1");
  tb::writeFile("u.klt.f.1", "");
  reading::Messages messages;
  EXPECT_EQ(run(What::kMove, "t.klt", "u.klt"), 1);
  const std::string said = messages.take();
  for (const char* file : {"", ".dcl", ".f.0", ".f.1", ".f.0.anc", ".f.1.anc"}) {
    const bool isOld = fs::exists(std::string("t.klt") + file);
    const size_t told = said.find("  " + std::string(isOld ? "t.klt" : "u.klt") + file + "\n");
    EXPECT_NE(told, std::string::npos) << said;
    EXPECT_EQ(told < said.find("Files that have been moved:"), isOld) << said;
  }
  EXPECT_EQ(run(What::kCopy, "t.klt", "v.klt"), 1);
  EXPECT_EQ(fs::file_size("v.klt"), 0U);  // a part of a copy is no trace
  EXPECT_EQ(run(What::kRemove, "t.klt", ""), -1);
  EXPECT_TRUE(fs::exists("t.klt"));  // the index goes last
}

// To the system's rename names are just bytes; another file system takes the road through the
// shell.
TEST_F(KltFiles, MovesAcrossFileSystemsUnderNamesThatTheShellWouldRead) {
  const tb::TempDir directory;
  fs::current_path(directory.path());
  trace_.files().writePlain(directory, "-it's $(a) \"trace\";.klt");
  const auto before = contents();
  char other[] = "/dev/shm/klt_files.XXXXXX";
  if (mkdtemp(other) == nullptr) GTEST_SKIP() << "needs a second file system";
  EXPECT_EQ(run(What::kMove, "-it's $(a) \"trace\";.klt", other), 0);
  EXPECT_TRUE(contents(other) == before && contents().empty());
  fs::remove_all(other);
}

// 31 buckets by number, numbers in one bucket as they arrived: anchors after all data.
TEST(KltFileList, IsInTheOrderOfBucketsThenArrival) {
  const tb::TempDir directory;
  tb::Trace trace;
  std::vector<std::pair<uint32_t, std::string>> numbered{{trace.declarations().fileId(), "dcl"}};
  for (int i = 0; i < 40; ++i) {
    const tb::Stream& stream = trace.stream("x." + std::to_string(i), tb::ANY);
    numbered.emplace_back(stream.fileId(), stream.suffix());
    numbered.emplace_back(stream.fileId() + 1, stream.suffix() + ".anc");
  }
  const auto order = [](const auto& file) {
    const uint32_t bucket = (file.first / 0x10000 + file.first % 0x10000) % 31;
    return std::pair(bucket, file.second.ends_with(".anc"));
  };
  std::stable_sort(numbered.begin(), numbered.end(),
                   [&](const auto& a, const auto& b) { return order(a) < order(b); });
  KLT_FileHandle* handle = KLT_Open(trace.files().writePlain(directory).c_str());
  fs::remove(directory / "t.klt.x.1");  // has no bytes then
  std::vector<std::string> names;
  std::vector<uint64_t> sizes;
  ASSERT_EQ(KLT_FileList(handle, &names, &sizes), 1 + numbered.size());
  for (size_t i = 0; i < names.size(); ++i) {
    EXPECT_EQ(names[i], i == 0 ? "t.klt" : "t.klt." + numbered[i - 1].second);
    const fs::path file = directory / names[i];
    EXPECT_EQ(sizes[i], fs::exists(file) ? fs::file_size(file) : 0) << names[i];
  }
  KLT_Close(handle);
}

}  // namespace
