// The public writer: its failures are return values and texts, and nothing is printed where the
// caller receives the messages.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "klt/klt.h"
#include "klt/klt_writer.h"

namespace {

struct Received {
  std::string text;
  static void take(void* user, const char* text, size_t length) {
    static_cast<Received*>(user)->text.append(text, length);
  }
};

class KltTraceWriter : public testing::Test {
 protected:
  void SetUp() override { KLT_SetMessageCallback(&Received::take, &received_); }
  void TearDown() override {
    KLT_SetMessageCallback(nullptr, nullptr);
    std::filesystem::remove_all(directory_);
  }

  // The text of the failure of a trace with two processes that `write` writes.
  template <class Write>
  std::string failureOf(const Write& write) {
    std::string error;
    std::filesystem::create_directory(directory_);
    const KLT_OwnedWriter writer(KLT_CreateTrace(directory_ + "/t.klt", {.raw = true}, error));
    EXPECT_EQ(error, "");
    KLT_DefineProcesses(writer.get(), {1, 1});
    write(writer.get());
    return KLT_FinishTrace(writer.get());
  }

  Received received_;
  std::string directory_ = testing::TempDir() + "klt_trace_writer";
};

TEST_F(KltTraceWriter, ReportsEachMisuseAsText) {
  const std::vector<KLT_CollectivePart> none;
  EXPECT_EQ(failureOf([](KLT_TraceWriter* w) { EXPECT_TRUE(KLT_PutEnter(w, 1, 1, 1)); }), "");
  EXPECT_EQ(failureOf([](KLT_TraceWriter* w) { EXPECT_FALSE(KLT_DefineProcesses(w, {1})); }),
            "the processes are defined already");
  EXPECT_EQ(failureOf([](KLT_TraceWriter* w) {
              EXPECT_FALSE(KLT_DefineCommunicator(w, 70000, "", std::vector<uint32_t>{0}));
            }),
            "communicators have ids from 1 to 65535");
  EXPECT_EQ(failureOf([](KLT_TraceWriter* w) {
              EXPECT_FALSE(KLT_PutRawCollective(w, 0, 46, 1, 0, 1, {}));
            }),
            "there is no such collective operation");
  EXPECT_EQ(failureOf([&](KLT_TraceWriter* w) {
              EXPECT_FALSE(KLT_PutCollective(w, 1, 1, 0, none));
              // The first failure counts.
              EXPECT_FALSE(KLT_DefineClass(w, 1, "again"));
            }),
            "a collective operation has no members");
  EXPECT_EQ(received_.text, "");
}

TEST_F(KltTraceWriter, AFileThatCantBeCreatedIsATextAndAMessage) {
  std::string error;
  EXPECT_EQ(KLT_CreateTrace(directory_ + "/none/t.klt", {}, error), nullptr);
  EXPECT_EQ(error, "No such file or directory");
  EXPECT_NE(received_.text.find("No such file or directory"), std::string::npos);
  EXPECT_EQ(KLT_Open((directory_ + "/none").c_str()), nullptr);
}

}  // namespace
