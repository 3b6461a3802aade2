// Outputs that are the input under another name.
#include "generic/text/kltt_guard.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "klt/index/klt_intern.h"

namespace {

class KlttGuard : public testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::create_directories(directory_);
    for (const char* name : {"t.klt", "t.klt.f.0", "t.klt.f.0.anc", "other.klt"})
      std::ofstream(path(name)) << name;
    handle_.base = path("t.klt");
    handle_.files.insert(1, file("f.0", 0));
    handle_.files.insert(2, file("f.0", 1));
    handle_.files.insert(3, file("missing", 0));
  }
  void TearDown() override { std::filesystem::remove_all(directory_); }

  [[nodiscard]] std::string path(const std::string& name) const { return directory_ + "/" + name; }
  [[nodiscard]] bool refused(const std::string& name) const {
    return KLTT_OutputIsInput(&handle_, path(name).c_str());
  }

  KLT_FileHandle handle_;

 private:
  static std::unique_ptr<KLT_FileEntry> file(const char* suffix, uint32_t type) {
    return std::make_unique<KLT_FileEntry>(KLT_FileEntry{suffix, type});
  }

  std::string directory_ = testing::TempDir() + "kltt_guard_" + std::to_string(getpid());
};

TEST_F(KlttGuard, EveryFileOfTheTraceIsInput) {
  EXPECT_TRUE(refused("t.klt"));
  EXPECT_TRUE(refused(
      "./../" + std::filesystem::path(handle_.base).parent_path().filename().string() + "/t.klt"));
  EXPECT_TRUE(refused("t.klt.f.0"));
  EXPECT_TRUE(refused("t.klt.f.0.anc"));
}

TEST_F(KlttGuard, LinksLeadToTheInput) {
  std::filesystem::create_symlink("t.klt", path("symbolic"));
  std::filesystem::create_hard_link(path("t.klt.f.0"), path("hard"));
  std::filesystem::create_symlink("nowhere", path("dangling"));
  EXPECT_TRUE(refused("symbolic"));
  EXPECT_TRUE(refused("hard"));
  EXPECT_FALSE(refused("dangling"));
}

TEST_F(KlttGuard, OtherFilesAreFree) {
  EXPECT_FALSE(refused("other.klt"));
  EXPECT_FALSE(refused("new.klt"));
  EXPECT_FALSE(refused("t.klt.missing"));
  EXPECT_FALSE(KLTT_OutputIsInput(&handle_, "/dev/null"));
}

TEST_F(KlttGuard, StandardOutputIsWhatItLeadsTo) {
  const int saved = dup(STDOUT_FILENO);
  fflush(stdout);
  ASSERT_NE(freopen(path("t.klt.f.0").c_str(), "a", stdout), nullptr);
  const bool component = KLTT_OutputIsInput(&handle_, "-");
  ASSERT_NE(freopen(path("other.klt").c_str(), "a", stdout), nullptr);
  const bool other = KLTT_OutputIsInput(&handle_, "-");
  fflush(stdout);
  dup2(saved, STDOUT_FILENO);
  close(saved);
  EXPECT_TRUE(component);
  EXPECT_FALSE(other);
}

TEST_F(KlttGuard, RefusalEndsTheProcess) {
  EXPECT_EXIT(KLTT_RefuseInput(&handle_, path("t.klt.f.0").c_str()), testing::ExitedWithCode(1),
              "Could not open file .*/t.klt.f.0 for writing.\n$");
  KLTT_RefuseInput(&handle_, path("new.klt").c_str());
}

}  // namespace
