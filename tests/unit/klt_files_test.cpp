// Traces as the files that they are: listed, moved, removed and copied.
#include "klt/klt_files.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "generic/kltt_guard.h"
#include "klt/klt.h"
#include "klt/klt_write_context.h"
#include "tests/builder/trace_builder.h"
#include "util/vfd.h"

namespace {

namespace fs = std::filesystem;

struct CloseTrace {
  void operator()(KLT_FileHandle* handle) const { KLT_Close(handle); }
};
using Handle = std::unique_ptr<KLT_FileHandle, CloseTrace>;

// File names below a directory with what the files hold.
std::map<std::string, std::string> contentsOf(const std::string& directory) {
  std::map<std::string, std::string> files;
  for (const auto& entry : fs::recursive_directory_iterator(directory)) {
    if (!entry.is_regular_file()) continue;
    files[fs::relative(entry.path(), directory).string()] = tb::readFile(entry.path().string());
  }
  return files;
}

std::vector<std::string> namesOf(const std::string& directory) {
  std::vector<std::string> names;
  for (const auto& file : contentsOf(directory)) names.push_back(file.first);
  return names;
}

std::string inLines(const std::vector<std::string>& names) {
  std::string text;
  for (const std::string& name : names) text += name + '\n';
  return text;
}

class KltFiles : public testing::Test {
 protected:
  KltFiles() {
    trace_.clock(1e-6, 0).processes({1, 1}).defineClass(1, "App").function(7, "main", 1);
    first_ = &trace_.stream("f.0", tb::FUNCTIONS, {0});
    second_ = &trace_.stream("f.1", tb::FUNCTIONS, {1});
    for (uint64_t time = 1; time < 2000; time += 2) {
      first_->at(time).enter(0, 7).at(time + 1).leave(0);
      second_->at(time).enter(1, 7).at(time + 1).leave(1);
    }
  }

  std::string plain(const std::string& base = "t.klt") {
    return trace_.files().writePlain(directory_, base);
  }
  std::string single(const std::string& base = "t.klt") {
    return trace_.files().writeContainer(directory_, {}, base);
  }
  static Handle open(const std::string& name) { return Handle(KLT_Open(name.c_str())); }
  [[nodiscard]] std::string path(const std::string& name) const { return directory_ / name; }
  [[nodiscard]] std::map<std::string, std::string> contents() const {
    return contentsOf(directory_.path());
  }

  static int move(const std::string& from, const std::string& target) {
    const Handle handle = open(from);
    return KLT_Move(handle.get(), target.c_str(), KLTT_InputFiles(handle.get()));
  }
  static int remove(const std::string& name) { return KLT_Remove(open(name).get()); }
  static int convert(const std::string& from, const std::string& target, bool toSingle) {
    const Handle handle = open(from);
    return KLT_Convert(handle.get(), nullptr, target.c_str(), toSingle ? 1 : 0,
                       KLTT_InputFiles(handle.get()));
  }

  tb::TempDir directory_;
  tb::Trace trace_;
  tb::Stream* first_;
  tb::Stream* second_;
};

TEST_F(KltFiles, ListsTheSameComponentsInEveryForm) {
  const std::string plainName = plain();
  const std::string singleName = single("s.klt");
  std::vector<std::string> names;
  std::vector<uint64_t> sizes;
  const size_t count = KLT_FileList(open(plainName).get(), &names, &sizes);
  ASSERT_EQ(names.size(), count);
  ASSERT_EQ(sizes.size(), count);
  EXPECT_EQ(names.front(), "t.klt");
  for (size_t i = 0; i < names.size(); ++i) {
    EXPECT_EQ(sizes[i], fs::file_size(path(names[i]))) << names[i];
  }

  std::vector<std::string> inside;
  std::vector<uint64_t> sizesInside;
  KLT_FileList(open(singleName).get(), &inside, &sizesInside);
  for (std::string& name : inside) name.front() = 't';
  EXPECT_EQ(inside, names);
  EXPECT_EQ(sizesInside, sizes);
  EXPECT_EQ(KLT_FileList(open(singleName).get(), nullptr, nullptr), count);
}

// The order of the file table: 31 buckets by number, numbers in one bucket as they arrived.
TEST_F(KltFiles, ListsByBucketThenArrival) {
  std::vector<const tb::Stream*> streams{first_, second_};
  for (int i = 0; i < 40; ++i) {
    streams.push_back(&trace_.stream("x." + std::to_string(i), tb::ANY));
  }
  // The index declares the data files first.
  std::vector<std::pair<uint32_t, std::string>> numbered;
  numbered.emplace_back(trace_.declarations().fileId(), "t.klt.dcl");
  for (const auto* stream : streams) {
    numbered.emplace_back(stream->fileId(), "t.klt." + stream->suffix());
  }
  for (const auto* stream : streams) {
    numbered.emplace_back(stream->fileId() + 1, "t.klt." + stream->suffix() + ".anc");
  }

  std::vector<std::string> expected{"t.klt"};
  for (uint32_t bucket = 0; bucket < 31; ++bucket) {
    for (const auto& [number, name] : numbered) {
      if (((number >> 16) + (number & 0xffff)) % 31 == bucket) expected.push_back(name);
    }
  }
  std::vector<std::string> names;
  KLT_FileList(open(plain()).get(), &names, nullptr);
  EXPECT_EQ(names, expected);
}

TEST_F(KltFiles, AMissingComponentIsListedWithoutBytes) {
  const std::string name = plain();
  fs::remove(path("t.klt.f.1"));
  std::vector<std::string> names;
  std::vector<uint64_t> sizes;
  KLT_FileList(open(name).get(), &names, &sizes);
  for (size_t i = 0; i < names.size(); ++i) {
    EXPECT_EQ(sizes[i] > 0, names[i] != "t.klt.f.1" && !names[i].ends_with(".anc")) << names[i];
  }
}

// Every way to a place changes the base name only, or the directory only, and no byte.
TEST_F(KltFiles, MovesKeepEveryByte) {
  const std::string name = plain("a.klt");
  const auto before = contents();
  ASSERT_EQ(move(name, path("b.klt")), 0);
  const auto renamed = contents();
  ASSERT_EQ(renamed.size(), before.size());
  for (const auto& [file, bytes] : before) EXPECT_EQ(renamed.at("b" + file.substr(1)), bytes);

  fs::create_directory(path("dir"));
  fs::create_directory_symlink("dir", path("link"));
  ASSERT_EQ(move(path("b.klt"), path("link")), 0);
  const auto moved = contents();
  ASSERT_EQ(moved.size(), before.size());
  for (const auto& [file, bytes] : renamed) EXPECT_EQ(moved.at("dir/" + file), bytes);
  EXPECT_TRUE(fs::is_symlink(path("link")));
}

TEST_F(KltFiles, MovesASingleFile) {
  const std::string name = single("a.klt");
  fs::create_directory(path("dir"));
  ASSERT_EQ(move(name, path("b.klt")), 0);
  EXPECT_EQ(inLines(namesOf(directory_.path())), "b.klt\n");
  ASSERT_EQ(move(path("b.klt"), path("dir")), 0);
  EXPECT_EQ(inLines(namesOf(directory_.path())), "dir/b.klt\n");
  EXPECT_NE(move(path("dir/b.klt"), path("nowhere/b.klt")), 0);
  EXPECT_TRUE(fs::exists(path("dir/b.klt")));
}

// To the system's rename names are just bytes; this takes the road through the shell.
TEST_F(KltFiles, MovesAcrossFileSystemsUnderNamesThatTheShellWouldRead) {
  struct stat here {};
  struct stat there {};
  char other[] = "/dev/shm/klt_files.XXXXXX";
  if (stat(directory_.path().c_str(), &here) != 0 || mkdtemp(other) == nullptr ||
      stat(other, &there) != 0 || here.st_dev == there.st_dev) {
    rmdir(other);
    GTEST_SKIP() << "needs a second file system";
  }
  const std::string name = plain("it's $(a) \"trace\";.klt");
  const auto before = contents();
  const std::string target = std::string(other) + "/d'ir";
  fs::create_directory(target);
  EXPECT_EQ(move(name, target), 0);
  EXPECT_EQ(contentsOf(target), before);
  EXPECT_TRUE(contents().empty());
  fs::remove_all(other);
}

TEST_F(KltFiles, ANameThatBeginsLikeAnOptionIsAName) {
  const fs::path working = fs::current_path();
  plain("-v.klt");
  fs::current_path(directory_.path());
  const int status = move("-v.klt", "-n");
  fs::current_path(working);
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(fs::exists(path("-n")));
  EXPECT_TRUE(fs::exists(path("-n.f.1")));
}

TEST_F(KltFiles, NothingIsMovedUnlessAllCanBe) {
  const std::string name = plain();
  fs::create_directories(path("u.klt.f.1"));
  fs::create_directories(path("dir/t.klt"));
  auto before = contents();
  for (const char* target : {"nowhere/t.klt", "u.klt", "dir"}) {
    EXPECT_EQ(move(name, path(target)), 1) << target;
    EXPECT_EQ(contents(), before) << target;
  }
  EXPECT_EQ(move(name, path("t.klt.dcl/t.klt")), ENOTDIR);
  fs::remove(path("t.klt.f.1"));
  fs::remove(path("t.klt.f.0"));
  before = contents();
  testing::internal::CaptureStderr();
  EXPECT_EQ(move(name, path("v.klt")), 1);
  const std::string said = testing::internal::GetCapturedStderr();
  EXPECT_NE(said.find("t.klt.f.0: No such file or directory\n"), std::string::npos);
  EXPECT_NE(said.find("t.klt.f.1: No such file or directory\n"), std::string::npos);
  EXPECT_EQ(contents(), before);
}

TEST_F(KltFiles, MovesWithoutAnchors) {
  const std::string name = plain();
  fs::remove(path("t.klt.f.0.anc"));
  tb::writeFile(path("u.klt.f.0.anc"), "of an earlier trace");
  EXPECT_EQ(move(name, path("u.klt")), 0);
  EXPECT_EQ(inLines(namesOf(directory_.path())),
            "u.klt\nu.klt.dcl\nu.klt.f.0\nu.klt.f.1\nu.klt.f.1.anc\n");
}

TEST_F(KltFiles, AMoveThatStopsTellsWhereTheFilesAre) {
  const std::string name = plain();
  fs::remove(path("t.klt.f.1"));
  fs::create_directory(path("t.klt.f.1"));  // doesn't replace a file
  tb::writeFile(path("u.klt.f.1"), "");
  testing::internal::CaptureStderr();
  EXPECT_EQ(move(name, path("u.klt")), 1);
  const std::string said = testing::internal::GetCapturedStderr();
  const size_t moved = said.find("Files that have been moved:");
  ASSERT_NE(moved, std::string::npos) << said;
  for (const char* file : {"", ".dcl", ".f.0", ".f.1", ".f.0.anc", ".f.1.anc"}) {
    const bool isOld = fs::exists(path("t.klt") + file);
    const std::string place = path(isOld ? "t.klt" : "u.klt") + file;
    EXPECT_EQ(said.find("  " + place + "\n") < moved, isOld) << place << '\n' << said;
    EXPECT_NE(said.find("  " + place + "\n"), std::string::npos) << place << '\n' << said;
  }
  EXPECT_TRUE(fs::exists(name));
  EXPECT_FALSE(fs::exists(path("u.klt")));
}

TEST_F(KltFiles, TheInputIsNoPlaceToMoveOrCopyTo) {
  const std::string name = plain();
  fs::create_directory(path("dir"));
  fs::create_symlink("t.klt", path("symbolic"));
  fs::create_hard_link(path("t.klt.f.1"), path("other.f.1"));
  fs::create_hard_link(path("t.klt"), path("dir/t.klt"));
  const auto before = contents();
  for (const char* target : {"t.klt", "symbolic", "other", "t.klt.f.0", "dir/t.klt"}) {
    EXPECT_EQ(move(name, path(target)), 1) << target;
    EXPECT_EQ(convert(name, path(target), false), 1) << target;
    EXPECT_EQ(contents(), before) << target;
  }
  for (const char* target : {"", ".", "dir"}) {
    EXPECT_EQ(move(name, path(target)), 1) << target;
    EXPECT_EQ(contents(), before) << target;
  }
  for (const char* target : {"t.klt", "symbolic", "t.klt.f.0", "other.f.1"}) {
    EXPECT_EQ(convert(name, path(target), true), 1) << target;
    EXPECT_EQ(contents(), before) << target;
  }
}

TEST_F(KltFiles, RemovesEveryFile) {
  const std::string name = plain();
  fs::remove(path("t.klt.f.0.anc"));
  tb::writeFile(path("t.klt.notes"), "not of the trace");
  EXPECT_EQ(remove(name), 0);
  EXPECT_EQ(inLines(namesOf(directory_.path())), "t.klt.notes\n");
  EXPECT_EQ(remove(single()), 0);
  EXPECT_EQ(inLines(namesOf(directory_.path())), "t.klt.notes\n");
}

TEST_F(KltFiles, ARemovalThatFailsLeavesTheIndex) {
  const std::string name = plain();
  fs::remove(path("t.klt.f.1"));
  fs::create_directory(path("t.klt.f.1"));
  EXPECT_EQ(remove(name), -1);
  EXPECT_TRUE(fs::exists(name));
  fs::remove(path("t.klt.f.1"));
  testing::internal::CaptureStderr();
  EXPECT_EQ(remove(name), 0);
  const std::string said = testing::internal::GetCapturedStderr();
  EXPECT_NE(said.find("t.klt.f.1\n"), std::string::npos) << said;
  EXPECT_EQ(inLines(namesOf(directory_.path())), "");
}

TEST_F(KltFiles, CopiesBetweenFormsAreByteForByte) {
  fs::create_directory(path("a"));
  fs::create_directory(path("b"));
  trace_.files().writePlain(directory_, "a/t.klt");
  tb::writeFile(path("b/t.klt.f.1"), std::string(1 << 20, 'x'));
  ASSERT_EQ(convert(path("a/t.klt"), path("s.klt"), true), 0);
  ASSERT_EQ(convert(path("s.klt"), path("b/t.klt"), false), 0);
  EXPECT_EQ(contentsOf(path("b")), contentsOf(path("a")));
  ASSERT_EQ(convert(path("b/t.klt"), path("s2.klt"), true), 0);
  EXPECT_EQ(tb::readFile(path("s2.klt")), tb::readFile(path("s.klt")));
}

TEST_F(KltFiles, NamesOfACopyCountFromItsDirectory) {
  const Handle handle = open(plain());
  fs::create_directory(path("dir"));
  EXPECT_EQ(
      KLT_Convert(handle.get(), path("dir").c_str(), "t.klt", 0, KLTT_InputFiles(handle.get())), 0);
  EXPECT_EQ(tb::readFile(path("dir/t.klt")), tb::readFile(path("t.klt")));
  EXPECT_EQ(KLT_Convert(handle.get(), directory_.path().c_str(), "./t.klt", 0,
                        KLTT_InputFiles(handle.get())),
            1);
}

TEST_F(KltFiles, ACopyHasNoAnchorsOfAnotherTrace) {
  const std::string name = plain();
  fs::remove(path("t.klt.f.0.anc"));
  tb::writeFile(path("u.klt.f.0.anc"), "of an earlier trace");
  EXPECT_EQ(convert(name, path("u.klt"), false), 0);
  EXPECT_FALSE(fs::exists(path("u.klt.f.0.anc")));
  EXPECT_EQ(tb::readFile(path("u.klt.f.0")), tb::readFile(path("t.klt.f.0")));
}

TEST_F(KltFiles, APartOfACopyIsNoTrace) {
  const std::string name = plain();
  tb::writeFile(path("u.klt"), tb::readFile(name));
  fs::remove(path("t.klt.f.1"));
  EXPECT_EQ(convert(name, path("u.klt"), false), 1);
  EXPECT_EQ(fs::file_size(path("u.klt")), 0U);
  EXPECT_EQ(convert(name, path("s.klt"), true), 1);
  EXPECT_EQ(open(path("s.klt")), nullptr);
  EXPECT_EQ(convert(name, path("nowhere/u.klt"), false), 1);
  EXPECT_EQ(convert(name, path("nowhere/u.klt"), true), 1);
}

// The write that is to fail, counted down.
int writesLeft = 0;
ssize_t failingWrite(int fd, const void* buffer, size_t bytes) {
  if (writesLeft-- > 0) return Vfd_osCalls.write(fd, buffer, bytes);
  errno = ENOSPC;
  return -1;
}

// Every write of a copy fails once, and all behind it: no copy passes for one.
TEST_F(KltFiles, ACopyOnAFullDiskFails) {
  const std::string name = plain();
  for (const bool toSingle : {false, true}) {
    int failures = 0;
    for (int good = 0;; ++good) {
      writesLeft = good;
      Vfd_systemCalls.write = &failingWrite;
      const int status = convert(name, path("u.klt"), toSingle);
      Vfd_systemCalls = Vfd_osCalls;
      if (status == 0) break;
      ++failures;
      ASSERT_EQ(status, 1);
      EXPECT_EQ(open(path("u.klt")), nullptr) << "after " << good << " writes";
    }
    EXPECT_GE(failures, 4);
    EXPECT_NE(open(path("u.klt")), nullptr);
  }
}

}  // namespace
