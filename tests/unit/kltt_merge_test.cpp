// Whole merges: what is copied, counted and told, and when the input may go.
#include "generic/kltt_merge.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "tests/unit/klt_reading.h"

namespace {

using reading::Lines;
using reading::Messages;

constexpr unsigned kRaw = 1;

// The lines of all definitions and events, sorted: components come in another order.
Lines linesOf(const std::string& name) {
  KLT_FileHandle* handle = KLT_Open(name.c_str());
  EXPECT_NE(handle, nullptr);
  if (handle == nullptr) return {};
  Lines lines;
  for (const int mode : {KLT_MODE_DEFINITIONS, KLT_MODE_EVENTS}) {
    reading::Recorder recorder;
    recorder.table.end_of_filter = nullptr;
    const reading::Reader reader(KLT_OpenReader(handle, mode, 0, nullptr, &recorder.table, 1));
    (void)KLT_ReadEvents(reader.get(), -1);
    lines.insert(lines.end(), recorder.lines.begin(), recorder.lines.end());
  }
  KLT_Close(handle);
  std::sort(lines.begin(), lines.end());
  return lines;
}

// A raw trace with records of every kind that a merge copies.
void fill(tb::Trace& trace) {
  trace.clock(0.25, 4).duration(1, 99).processes({2, 1}).defineClass(3, "A:B", 2);
  trace.function(7, "main", 3).operation(9, "Barrier", 2).scope(4, "loop", 3);
  trace.communicator(5, "world", {{0, 1, 1}, {9, 9, 1}}, 3).group(6, "g", {0, 1});
  trace.counter(8, "flops", {.type = 1, .low = 2, .high = ~uint64_t{0}, .thread = 1, .unit = "x"});
  trace.counter(9, "rate", {.type = 0x80, .unit = ""});
  trace.sourceFile(2, "a.c").scl(1, {{2, 10}, {2, 20}}).ioFile(3, "out", 5).willyName(1, "one");
  trace.declarations()
      .record(71, {{"willy_gtp", 1},
                   {"hostname", trace.text("host")},
                   {"ip", trace.text("1.2.3.4")},
                   {"pid", 12},
                   {"tid", uint64_t{1} << 40},
                   {"offset", 0.5}})
      .record(24, {{"id", 3},
                   {"name", trace.text("stat")},
                   {"label", std::vector<uint32_t>{trace.text("l")}},
                   {"unit", std::vector<uint32_t>{trace.text("u")}}})
      .record(47, {{"info_class", 3}, {"info", "anything"}});
  tb::Stream& e = trace.stream("e", 0x1ef, {0, 1});
  e.at(10).enter(0, 7).at(12).enter(1, 7, 1).comment(0, "here").opaque(1, "\xff\x01", 1);
  e.at(0x20000).enterScope(0, 4, 1).enterScope(1, 4, 2, 1).ioBegin(0, 2, 3, 100, 1);
  e.ioBegin(0, 2, 3, 100).ioEnd(0, 2, 3, 100, 1);
  e.at(0x20001)
      .ioEnd(0, 2, 3, 100)
      .counters(1, {{8, 0x0102030405060708}, {9, 2}})
      .leaveScope(0, 4, 1)
      .leaveScope(1, 4, 2, 1);
  for (const uint32_t tag : {7U, 0x10000U}) {
    e.message({.sender = 0, .receiver = 1, .receiveTime = -3, .communicator = 5, .tag = tag});
    e.message({.sender = 1, .receiveTime = tb::NO_RECEIVE, .tag = tag, .senderScl = 1});
    e.message({.sender = 1, .tag = tag, .senderChecksum = 9, .receiverFunction = 7});
  }
  using tb::Shape;
  for (const Shape shape : {Shape::All, Shape::AllToAll, Shape::AllToOne, Shape::OneToAll}) {
    tb::Collective collective{.shape = shape,
                              .communicator = 5,
                              .operation = 9,
                              .root = 1,
                              .rootBytes = 2,
                              .start = {0, tb::NOT_STARTED, 2},
                              .duration = {3, 4, 5}};
    if (shape != Shape::All && shape != Shape::OneToAll) collective.sent = {5, 6, 7};
    if (shape != Shape::All && shape != Shape::AllToOne) collective.received = {7, 8, 9};
    e.collective(collective);
    collective.scl = {0, 1, 0};
    e.collective(collective);
  }
  e.at(uint64_t{1} << 40).leave(0).leave(1, 1);
  trace.stream("err", tb::ERRORS)
      .record(66, {{"willy_gtp", 1},
                   {"type", trace.text("type")},
                   {"times", std::vector<uint64_t>{1, 2}},
                   {"headers", std::vector<uint32_t>{1, 99}}});
}

class KlttMerge : public testing::Test {
 protected:
  // Merges the trace `files`, written as t.klt, into m.klt.
  int merge(const tb::TraceFiles& files, int flags = KLTM_MERGE) {
    input_ = files.writePlain(directory_);
    const std::string target = output();
    return KLTM_Merge(nullptr, target.c_str(), KLT_Open(input_.c_str()), flags, nullptr,
                      RK_Stdout());
  }
  [[nodiscard]] std::string output() const { return directory_ / "m.klt"; }
  [[nodiscard]] std::string input() const { return input_; }
  [[nodiscard]] bool outputIsTrace() const {
    KLT_FileHandle* handle = KLT_Open(output().c_str());
    KLT_Close(handle);
    return handle != nullptr;
  }
  tb::TempDir directory_;

 private:
  std::string input_;
};

// A communicator of `n` members and a barrier on it.
void bigCommunicator(tb::Trace& trace, int32_t n) {
  trace.clock(1, 0).processes({1, 1}).communicator(1, "big", {{0, n - 1, 1}});
  tb::Stream& raw = trace.stream("r.0", tb::RAW_EVENTS, {0});
  raw.at(5).rawCollective({.kind = 10, .operation = 1, .communicator = 1, .end = 7});
  raw.at(6).rawMessage({.kind = 7, .other = 1});
}

}  // namespace

TEST_F(KlttMerge, RecordsThatNeedNoMatchAreCopied) {
  tb::Trace trace(kRaw);
  fill(trace);
  ASSERT_EQ(merge(trace.files()), KLTM_DONE);
  const Lines before = linesOf(input());
  EXPECT_GT(before.size(), 40U);
  const Lines after = reading::without(linesOf(output()),
                                       {"function_profile", "onetoone_profile", "collop_profile"});
  EXPECT_EQ(reading::difference(before, after), "");
}

TEST_F(KlttMerge, CountsOfEventsGrowByWhatWasMatched) {
  const auto filled = [](bool counted) {
    tb::Trace trace(kRaw);
    trace.clock(1, 0).processes({1, 1}).defineClass(3, "A").communicator(1, "w", {{0, 1, 1}});
    if (counted) {
      trace.declarations().record(
          47, {{"info_class", 3},
               {"info",
                "number of events:4 functions,\t 1 onetoones, 2  collectives, 5 scopes, 6 "
                "counters"}});
    }
    tb::Stream& raw = trace.stream("r.0", tb::RAW_EVENTS);
    raw.at(1).rawMessage({.kind = 7, .other = 1, .communicator = 1});
    raw.at(2).rawMessage({.kind = 8 | 1 << 6, .other = 0, .communicator = 1});
    raw.at(3).rawMessage({.kind = 7, .other = 1, .tag = 9, .communicator = 1});
    raw.at(4).rawCollective({.kind = 10, .operation = 1, .communicator = 1, .end = 7});
    return trace.files();
  };
  ASSERT_EQ(merge(filled(true)), KLTM_DONE);
  EXPECT_EQ(reading::only(linesOf(output()), {"info"}),
            Lines{"info 3 'number of events: 4 functions, 3 onetoones, 3 collectives, 5 scopes, "
                  "6 counters'"});
  ASSERT_EQ(merge(filled(false)), KLTM_DONE);
  EXPECT_EQ(reading::only(linesOf(output()), {"info"}), Lines{});
}

TEST_F(KlttMerge, WhatCantBeDoneTouchesNothing) {
  tb::Trace raw(kRaw), merged;
  bigCommunicator(raw, 2);
  merged.clock(1, 0);
  EXPECT_EQ(merge(raw.files(), 0), KLTM_WRONG_OPERATION);
  EXPECT_EQ(merge(raw.files(), KLTM_SUMMARY), KLTM_WRONG_TRACE);
  EXPECT_EQ(merge(merged.files(), KLTM_MERGE), KLTM_WRONG_TRACE);
  EXPECT_EQ(merge(merged.files(), KLTM_MERGE | KLTM_SUMMARY | KLTM_DELETE_INPUT), KLTM_WRONG_TRACE);
  std::filesystem::create_directory(output());
  const Messages told;
  EXPECT_EQ(merge(raw.files(), KLTM_MERGE | KLTM_DELETE_INPUT), KLTM_NO_OUTPUT);
  EXPECT_TRUE(KLT_IsTrace(input().c_str()));
}

TEST_F(KlttMerge, TheInputGoesOnlyAfterASuccess) {
  tb::Trace trace(kRaw);
  fill(trace);
  const auto left = [&] {
    size_t n = 0;
    for (const auto& file : std::filesystem::directory_iterator(directory_.path())) {
      n += file.path().filename().string().starts_with("t.klt") ? 1 : 0;
    }
    return n;
  };
  constexpr int kFlags = KLTM_MERGE | KLTM_DELETE_INPUT;
  tb::TraceFiles cut = trace.files();
  cut.truncate(".e", 1);
  Messages messages;
  EXPECT_EQ(merge(cut, kFlags), KLTM_INCOMPLETE);
  EXPECT_EQ(left(), cut.parts().size());
  EXPECT_TRUE(outputIsTrace());
  EXPECT_EQ(merge(trace.files(), kFlags), KLTM_DONE);
  EXPECT_EQ(left(), 0U);
  EXPECT_TRUE(outputIsTrace());
  const std::string told = messages.take();
  EXPECT_NE(told.find("truncated file"), std::string::npos) << told;
}

TEST_F(KlttMerge, WhatLacksAStreamIsATraceWhatEndsInTheMiddleIsNot) {
  tb::Trace trace(kRaw);
  fill(trace);
  std::filesystem::create_directories(output() + ".cop/x");  // in the way of a component
  Messages messages;
  EXPECT_EQ(merge(trace.files(), KLTM_MERGE | KLTM_DELETE_INPUT), KLTM_NOT_WRITTEN);
  EXPECT_TRUE(messages.take().ends_with("callback returned error code.\n"));
  EXPECT_FALSE(outputIsTrace());
  EXPECT_TRUE(KLT_IsTrace(input().c_str()));

  // Written by the matching, which goes on without it.
  std::filesystem::remove_all(output() + ".cop");
  std::filesystem::remove(output() + ".msg");
  std::filesystem::create_directories(output() + ".msg/x");
  tb::Trace matched(kRaw);
  bigCommunicator(matched, 2);
  EXPECT_EQ(merge(matched.files(), KLTM_MERGE | KLTM_DELETE_INPUT), KLTM_NOT_WRITTEN);
  EXPECT_TRUE(outputIsTrace());
  EXPECT_TRUE(KLT_IsTrace(input().c_str()));
}

TEST_F(KlttMerge, CommunicatorsAreCutToWhatARecordHolds) {
  tb::Trace trace(kRaw);
  bigCommunicator(trace, 70000);
  Messages messages;
  ASSERT_EQ(merge(trace.files()), KLTM_DONE);
  EXPECT_EQ(messages.take(),
            "ERROR: communicator 1 has 70000 members, all above 65535 are left out\n");
  const Lines lines = reading::only(linesOf(output()), {"all_communication"});
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_TRUE(lines[0].starts_with("all_communication 5 1 1 65535 [0 ")) << lines[0].substr(0, 80);
}

// Whatever a raw trace claims, its merge ends and can be read.
TEST_F(KlttMerge, ImpossibleRawEvents) {
  tb::Trace trace(kRaw);
  trace.clock(1, 0).communicator(1, "w", {{0, 3, 1}}).communicator(2, "none", {{5, 4, 1}});
  tb::Stream& raw = trace.stream("r.0", tb::RAW_EVENTS);
  for (const uint32_t kind : {0U, 7U, 0xffffffffU, 0xffffffc7U}) {
    for (const uint32_t comm : {0U, 1U, 2U, 65535U}) {
      for (const uint64_t time : {uint64_t{50}, uint64_t{1} << 63, ~uint64_t{0}}) {
        raw.at(time).rawMessage(
            {.kind = kind, .other = 0xffffffff, .tag = ~0U, .communicator = comm});
        for (const int64_t end : {int64_t{-1}, int64_t{0}, INT64_MAX}) {
          raw.rawCollective({.kind = kind,
                             .operation = kind % 50 == 0 ? 1 : 36U,
                             .communicator = comm,
                             .counter = kind & 1,
                             .root = ~0U,
                             .end = end});
        }
      }
    }
  }
  const Messages quiet;
  ASSERT_EQ(merge(trace.files()), KLTM_DONE);
  EXPECT_GT(linesOf(output()).size(), 40U);
}
