// Summary data: how bins end, what call trees and tables hold, and that a bad file harms no other.
// The files of whole traces are compared end to end.
#include "generic/kltt_summary.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <bit>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <limits>
#include <string>
#include <vector>

#include "tests/builder/trace_files.h"
#include "util/vfd.h"

namespace {

// A file's bytes, read from front to back.
class Bytes {
 public:
  explicit Bytes(std::string data) : data_(std::move(data)) {}

  template <class T>
  T take() {
    T value{};
    EXPECT_LE(position_ + sizeof value, data_.size());
    if (position_ + sizeof value <= data_.size()) {
      std::memcpy(&value, data_.data() + position_, sizeof value);
    }
    position_ += sizeof value;
    return value;
  }
  uint32_t u32() { return take<uint32_t>(); }
  uint64_t u64() { return take<uint64_t>(); }
  double f64() { return take<double>(); }
  std::string text() {
    const uint32_t length = u32();
    position_ += length;
    return data_.substr(position_ - length, length);
  }
  void skip(size_t bytes) { position_ += bytes; }
  [[nodiscard]] bool atEnd() const { return position_ == data_.size(); }

 private:
  std::string data_;
  size_t position_ = 0;
};

struct CallRecord {
  uint32_t function;
  uint64_t self, inclusive;
  uint32_t calls, scl, children, firstChild, moreSiblings, parent;
};
struct ThreadRecord {
  uint64_t start, width;
  uint32_t thread, events;
  std::vector<CallRecord> calls;
};

class SummaryTest : public testing::Test {
 protected:
  // 1,000 events give 62 bins; with this span they are 10 ticks wide, and 3 ticks remain.
  static constexpr uint64_t kEvents = 1000;
  static constexpr uint64_t kSpan = 623;

  KLTT_Summary& open(uint64_t start, uint64_t span, int32_t eventBits, uint64_t events,
                     const std::vector<uint32_t>& threads = {}) {
    summary_ = KLTT_SumOpen(base_.c_str(), start, span, eventBits, events, threads);
    return *summary_;
  }
  KLTT_Summary& open(const std::vector<uint32_t>& threads = {}) {
    return open(0, kSpan, 0, kEvents, threads);
  }
  bool close() { return KLTT_SumClose(summary_); }
  void removeFiles() const {
    for (const char* kind : {"fnc", "cop", "msg", "cnt", "rep"}) unlink(path(kind).c_str());
  }

  [[nodiscard]] std::string path(const char* kind) const { return base_ + ".sum." + kind; }

  // The records of a file behind its header, whose number goes to `records`.
  Bytes body(const char* kind, uint64_t* records = nullptr) {
    Bytes bytes(tb::readFile(path(kind)));
    EXPECT_EQ(bytes.u64(), 1U);
    width_ = bytes.u64();
    const uint64_t count = bytes.u64();
    if (records != nullptr) *records = count;
    return bytes;
  }

  std::vector<ThreadRecord> threads() {
    uint64_t count = 0;
    Bytes bytes = body("fnc", &count);
    std::vector<ThreadRecord> all;
    for (; count > 0; --count) {
      ThreadRecord& thread = all.emplace_back();
      thread.start = bytes.u64();
      thread.width = bytes.u64();
      thread.thread = bytes.u32();
      thread.events = bytes.u32();
      const uint32_t calls = bytes.u32();
      EXPECT_EQ(bytes.u32(), 0U);
      for (uint32_t i = 0; i < calls; ++i) {
        EXPECT_EQ(bytes.u32(), 0U);
        CallRecord& call = thread.calls.emplace_back();
        call.function = bytes.u32();
        call.self = bytes.u64();
        call.inclusive = bytes.u64();
        for (uint32_t* field : {&call.calls, &call.scl, &call.children, &call.firstChild,
                                &call.moreSiblings, &call.parent}) {
          *field = bytes.u32();
        }
      }
    }
    EXPECT_TRUE(bytes.atEnd());
    return all;
  }

  tb::TempDir directory_;
  std::string base_ = directory_ / "run.klt";
  KLTT_Summary* summary_ = nullptr;
  uint64_t width_ = 0;  // of a bin, in the header read last
};

void call(KLTT_Summary& summary, uint64_t time, uint32_t thread, uint32_t function,
          uint32_t scl = 0) {
  KLTT_SumFunction(summary, time, thread, function, scl, true);
}
void leave(KLTT_Summary& summary, uint64_t time, uint32_t thread) {
  KLTT_SumFunction(summary, time, thread, 0, 0, false);
}

// --- Bins
// -----------------------------------------------------------------------------------------

TEST_F(SummaryTest, ATimeAtTheEndOfABinBelongsToIt) {
  KLTT_Summary& summary = open({7});
  call(summary, 1, 7, 1);
  leave(summary, 10, 7);
  call(summary, 11, 7, 1);
  leave(summary, 12, 7);
  ASSERT_TRUE(close());
  const std::vector<ThreadRecord> bins = threads();
  ASSERT_EQ(bins.size(), 2U);
  EXPECT_EQ(width_, 10U);
  EXPECT_EQ(bins[0].start, 0U);
  EXPECT_EQ(bins[0].events, 2U);
  EXPECT_EQ(bins[1].start, 10U);
  EXPECT_EQ(bins[1].events, 2U);
}

TEST_F(SummaryTest, TheNumberOfBinsFollowsFromTheRootOfTheEvents) {
  const struct {
    uint64_t events, bins;
  } cases[] = {{2, 2}, {4, 2}, {5, 4}, {961, 60}, {962, 62}, {1000, 62}, {1024, 62}, {1025, 64}};
  for (const auto& [events, bins] : cases) {
    KLTT_Summary& summary = open(0, 6400, 0, events, {0});
    call(summary, 1'000'000, 0, 1);  // ends all bins
    ASSERT_TRUE(close());
    EXPECT_EQ(threads().size(), bins) << events;
    EXPECT_EQ(width_, 6400 / bins) << events;
    removeFiles();
  }
}

TEST_F(SummaryTest, WithoutACountOfEventsOneBinSpansTheRun) {
  KLTT_Summary& summary = open(100 << 4, 500 << 4, 4, 0, {3});
  call(summary, 100 << 4, 3, 1);
  leave(summary, (600 << 4) + 15, 3);
  ASSERT_TRUE(close());
  const std::vector<ThreadRecord> bins = threads();
  ASSERT_EQ(bins.size(), 1U);
  EXPECT_EQ(bins[0].start, 100U);
  EXPECT_EQ(bins[0].width, 500U);
  EXPECT_EQ(bins[0].events, 2U);
  EXPECT_EQ(bins[0].calls.at(1).inclusive, 500U);
}

TEST_F(SummaryTest, WildTimesEndNoMoreBinsThanThereAre) {
  KLTT_Summary& summary = open({1, 2});
  const uint64_t last = std::numeric_limits<uint64_t>::max();
  call(summary, last, 1, 1);
  call(summary, 5, 2, 1);  // too late for its bin, and there is no other
  KLTT_SumMessageEvent(summary, {.time = last});
  KLTT_SumReportEvent(summary, {.time = last});
  ASSERT_TRUE(close());
  EXPECT_EQ(threads().size(), 2U * 62);
  EXPECT_TRUE(body("msg").atEnd());
  EXPECT_FALSE(body("rep").atEnd()) << "reports belong to no bin";
}

TEST_F(SummaryTest, BinsAreAtLeastOneTickWideAndEndAtTheEndOfTime) {
  for (const uint64_t start : {uint64_t{0}, std::numeric_limits<uint64_t>::max() - 3}) {
    KLTT_Summary& summary = open(start, 0, 0, kEvents, {0});
    call(summary, start + 2, 0, 1);
    leave(summary, std::numeric_limits<uint64_t>::max(), 0);
    ASSERT_TRUE(close());
    EXPECT_LE(threads().size(), 62U);
    EXPECT_EQ(width_, 1U);
    removeFiles();
  }
}

// --- Call trees
// -----------------------------------------------------------------------------------

TEST_F(SummaryTest, TreesLieLevelByLevelWithChildrenInOrder) {
  KLTT_Summary& summary = open({0});
  call(summary, 0, 0, 5);
  for (const uint32_t function : {9U, 2U, 9U}) {
    call(summary, 1, 0, function, 30 + function);
    call(summary, 2, 0, 5);
    leave(summary, 3, 0);
    leave(summary, 4, 0);
  }
  leave(summary, 6, 0);
  ASSERT_TRUE(close());
  const std::vector<ThreadRecord> bins = threads();
  ASSERT_EQ(bins.size(), 1U);
  EXPECT_EQ(bins[0].events, 14U);
  const std::vector<CallRecord>& calls = bins[0].calls;
  ASSERT_EQ(calls.size(), 6U);
  const auto expectCall = [&](size_t at, const CallRecord& want) {
    const CallRecord& is = calls[at];
    EXPECT_EQ(is.function, want.function) << at;
    EXPECT_EQ(is.self, want.self) << at;
    EXPECT_EQ(is.inclusive, want.inclusive) << at;
    EXPECT_EQ(is.calls, want.calls) << at;
    EXPECT_EQ(is.scl, want.scl) << at;
    EXPECT_EQ(is.children, want.children) << at;
    EXPECT_EQ(is.firstChild, want.firstChild) << at;
    EXPECT_EQ(is.moreSiblings, want.moreSiblings) << at;
    EXPECT_EQ(is.parent, want.parent) << at;
  };
  expectCall(0, {0, 0, 6, 0, 0, 1, 1, 1, 0});
  expectCall(1, {5, 3, 6, 1, 0, 2, 1, 0, 1});
  expectCall(2, {2, 2, 3, 1, 32, 1, 2, 1, 1});
  expectCall(3, {9, 4, 6, 2, 39, 1, 2, 0, 2});
  expectCall(4, {5, 1, 1, 1, 0, 0, 0, 0, 2});
  expectCall(5, {5, 2, 2, 2, 0, 0, 0, 0, 2});
}

TEST_F(SummaryTest, AnOpenCallStandsInEachBinWithItsPart) {
  KLTT_Summary& summary = open({0});
  call(summary, 4, 0, 1, 8);
  call(summary, 6, 0, 2);
  call(summary, 33, 0, 3);
  ASSERT_TRUE(close());
  const std::vector<ThreadRecord> bins = threads();
  ASSERT_EQ(bins.size(), 4U);
  for (size_t i = 0; i < bins.size(); ++i) {
    ASSERT_EQ(bins[i].calls.size(), i < 3 ? 3U : 4U);
    const CallRecord& outer = bins[i].calls[1];
    EXPECT_EQ(outer.inclusive, i == 0 ? 6U : 10U);
    EXPECT_EQ(outer.calls, i == 0 ? 1U : 0U);
    EXPECT_EQ(outer.scl, i == 0 ? 8U : 0U) << "the place belongs to the bin of the call";
  }
  // A call below another one counts the time since it last ran, too.
  EXPECT_EQ(bins[0].calls[1].self, 2U + 6U);
  EXPECT_EQ(bins[3].calls[2].self, 3U + 10U);
}

TEST_F(SummaryTest, OfSeveralOutermostCallsTheLowestIsShown) {
  KLTT_Summary& summary = open({0});
  for (const uint32_t function : {6U, 4U, 5U}) {
    call(summary, 1, 0, function);
    call(summary, 1, 0, 1);
    leave(summary, 3, 0);
    leave(summary, 3, 0);
  }
  call(summary, 12, 0, 6);
  leave(summary, 14, 0);
  ASSERT_TRUE(close());
  const std::vector<ThreadRecord> bins = threads();
  ASSERT_EQ(bins.size(), 2U);
  ASSERT_EQ(bins[0].calls.size(), 3U);
  EXPECT_EQ(bins[0].events, 12U);
  EXPECT_EQ(bins[0].calls[0].children, 1U);
  EXPECT_EQ(bins[0].calls[1].function, 4U);
  EXPECT_EQ(bins[0].calls[1].moreSiblings, 0U);
  // What wasn't shown isn't carried over.
  ASSERT_EQ(bins[1].calls.size(), 2U);
  EXPECT_EQ(bins[1].calls[1].function, 6U);
  EXPECT_EQ(bins[1].calls[1].calls, 1U);
  EXPECT_EQ(bins[1].calls[1].inclusive, 2U);
}

TEST_F(SummaryTest, ThreadsStandByBucketAndArrivalWithUnlistedOnesLast) {
  KLTT_Summary& summary = open({33, 2, 33, 65536});  // 65536 % 31 is 2
  leave(summary, 1, 95);                             // nothing to leave; 95 % 31 is 2
  call(summary, 2, 0xffffffff, 1);                   // modulo 31: 3
  ASSERT_TRUE(close());
  std::vector<uint32_t> order;
  for (const ThreadRecord& thread : threads()) order.push_back(thread.thread);
  EXPECT_EQ(order, (std::vector<uint32_t>{33, 2, 65536, 95, 0xffffffff}));
  EXPECT_EQ(threads()[3].events, 1U);
  EXPECT_EQ(threads()[3].calls.size(), 1U);
  EXPECT_EQ(threads()[0].calls.size(), 1U) << "an idle thread has its root";
}

TEST_F(SummaryTest, DeepAndWideTreesAreWritten) {
  constexpr uint32_t kMany = 100'000;
  KLTT_Summary& summary = open(0, 1000, 0, 0);
  for (uint32_t i = 0; i < kMany; ++i) call(summary, 1, 0, 7);
  call(summary, 1, 1, 1);
  for (uint32_t i = kMany; i > 0; --i) {
    call(summary, 1, 1, i * 7);
    leave(summary, 2, 1);
  }
  ASSERT_TRUE(close());
  const std::vector<ThreadRecord> bins = threads();
  ASSERT_EQ(bins.size(), 2U);
  ASSERT_EQ(bins[0].calls.size(), kMany + 1);
  EXPECT_EQ(bins[0].calls[kMany].parent, 1U);
  EXPECT_EQ(bins[0].calls[kMany].inclusive, 999U);
  ASSERT_EQ(bins[1].calls.size(), kMany + 2);
  EXPECT_EQ(bins[1].calls[2].function, 7U);
  EXPECT_EQ(bins[1].calls[kMany + 1].function, kMany * 7);
  EXPECT_EQ(bins[1].calls[kMany + 1].parent, kMany);
}

TEST_F(SummaryTest, TimeThatGoesBackwardsAddsNothing) {
  KLTT_Summary& summary = open({0});
  call(summary, 25, 0, 1);
  leave(summary, 3, 0);
  ASSERT_TRUE(close());
  const std::vector<ThreadRecord> bins = threads();
  ASSERT_EQ(bins.size(), 3U);
  EXPECT_EQ(bins[2].calls.at(1).self, 0U);
  EXPECT_EQ(bins[2].calls.at(1).inclusive, 0U);
}

// --- Tables
// ---------------------------------------------------------------------------------------

TEST_F(SummaryTest, MessagesAddUpByKeyInTheOrderOfBuckets) {
  KLTT_Summary& summary = open(0, kSpan << 3, 3, kEvents);
  KLTT_SumMessage message{.time = 5 << 3, .duration = 20, .sender = 40, .receiver = 1, .size = 2};
  KLTT_SumMessageEvent(summary, message);
  message.sender = 1;
  message.size = 0;
  KLTT_SumMessageEvent(summary, message);
  message = {
      .time = 8 << 3, .duration = -1, .sender = 40, .receiver = 1, .size = 2, .senderScl = 11};
  KLTT_SumMessageEvent(summary, message);
  message.senderScl = 12;
  message.receiverScl = 13;
  message.duration = 40;
  KLTT_SumMessageEvent(summary, message);
  message.time = 11 << 3;
  KLTT_SumMessageEvent(summary, message);
  ASSERT_TRUE(close());
  uint64_t records = 0;
  Bytes bytes = body("msg", &records);
  ASSERT_EQ(records, 3U);
  // Modulo 31: 40 + 16 * 2 + 65536 gives 12, 1 + 65536 gives 3.
  EXPECT_EQ(bytes.u32(), 1U);
  bytes.skip(32);
  EXPECT_EQ(bytes.u32(), 1U);
  bytes.skip(36);
  EXPECT_EQ(bytes.u32(), 3U);
  EXPECT_EQ(bytes.u64(), 5U + 8 + 8);
  EXPECT_EQ(bytes.u64(), 2U - 1 + 5) << "durations are signed";
  EXPECT_EQ(bytes.u64(), 2U) << "and stored without a sign";
  EXPECT_EQ(bytes.u64(), ~uint64_t{0});
  EXPECT_EQ(bytes.u32(), 40U);
  EXPECT_EQ(bytes.u32(), 1U);
  bytes.skip(8);
  EXPECT_EQ(bytes.u32(), 2U);
  EXPECT_EQ(bytes.u32(), 6U);
  bytes.skip(8);
  EXPECT_EQ(bytes.u32(), 11U) << "the first place counts";
  EXPECT_EQ(bytes.u32(), 13U);
  EXPECT_EQ(bytes.u32(), 1U) << "a new bin begins anew";
}

TEST_F(SummaryTest, ManyKeysKeepTheirOrderThroughManyBins) {
  KLTT_Summary& summary = open();
  for (uint64_t bin = 0; bin < 3; ++bin) {
    for (uint32_t tag = 0; tag < 1000; ++tag) {
      KLTT_SumMessageEvent(summary, {.time = bin * 10 + 1, .tag = tag * 31});
      KLTT_SumMessageEvent(summary, {.time = bin * 10 + 1, .tag = tag * 31});
    }
  }
  ASSERT_TRUE(close());
  uint64_t records = 0;
  Bytes bytes = body("msg", &records);
  ASSERT_EQ(records, 3000U);
  for (uint32_t i = 0; i < records; ++i) {
    ASSERT_EQ(bytes.u32(), 2U);
    bytes.skip(44);
    ASSERT_EQ(bytes.u32(), i % 1000 * 31);
    bytes.skip(24);
  }
}

TEST_F(SummaryTest, SumsThatWrapAreToldOnce) {
  KLTT_Summary& summary = open();
  testing::internal::CaptureStderr();
  const KLTT_SumMessage message{.size = 0x80000001};
  for (int i = 0; i < 5; ++i) KLTT_SumMessageEvent(summary, message);
  const std::string told = testing::internal::GetCapturedStderr();
  ASSERT_TRUE(close());
  EXPECT_EQ(told,
            "WARNING: sums of bytes in the summary data have passed 32 bits, they count modulo "
            "2^32\n");
  Bytes bytes = body("msg");
  bytes.skip(56);
  EXPECT_EQ(bytes.u32(), 0x80000005U);
}

TEST_F(SummaryTest, CollectivesFoldMembersAndKeepTheirNumber) {
  KLTT_Summary& summary = open(0, kSpan << 2, 2, kEvents);
  const uint64_t starts[] = {0, 8, 4};
  const uint64_t deltas[] = {8, 0, 40};
  const uint32_t sent[] = {10, 0, 0xffffffff};
  const uint32_t places[] = {0, 3, 0};
  KLTT_SumCollective(
      summary, 16, 2, 1, 9,
      {.n = 2, .start_time = starts, .delta = deltas, .send_size = sent, .scl = places});
  KLTT_SumCollective(summary, 12, 2, 1, 9,
                     {.n = 3, .start_time = starts, .delta = starts, .receive_size = sent});
  KLTT_SumCollective(summary, 20, 2, 1, 9, {});
  ASSERT_TRUE(close());
  uint64_t records = 0;
  Bytes bytes = body("cop", &records);
  ASSERT_EQ(records, 1U);
  EXPECT_EQ(bytes.u64(), 3U);
  for (const uint32_t word : {1U, 9U, 2U, 3U, 2U, 0U}) EXPECT_EQ(bytes.u32(), word);
  // The first member: durations 2 and 0.
  for (const uint32_t word : {0U, 0U}) EXPECT_EQ(bytes.u32(), word);
  for (const uint64_t time : {3U, 6U, 2U, 0U, 2U}) EXPECT_EQ(bytes.u64(), time);
  EXPECT_EQ(bytes.f64(), 5.0);
  EXPECT_EQ(bytes.f64(), std::numeric_limits<double>::infinity());
  for (const uint32_t word : {10U, 0U, 10U, 10U, 0U, 10U}) EXPECT_EQ(bytes.u32(), word);
  // The second: its first rate is no number, which no other replaces.
  for (const uint32_t word : {0U, 3U}) EXPECT_EQ(bytes.u32(), word);
  for (const uint64_t time : {5U, 7U, 2U, 0U, 2U}) EXPECT_EQ(bytes.u64(), time);
  EXPECT_TRUE(std::isnan(bytes.f64()));
  bytes.skip(8 + 24);
  EXPECT_TRUE(bytes.atEnd());
}

TEST_F(SummaryTest, CountersReadTheirValuesAsDefined) {
  KLTT_Summary& summary = open();
  KLTT_SumDefineCounter(summary, 4, 0);
  KLTT_SumDefineCounter(summary, 4, 0x101);  // integers
  KLTT_SumDefineCounter(summary, 0xffffffff, 1);
  const auto sample = [&](uint64_t time, uint32_t counter, uint64_t bits) {
    KLTT_SumCounters(summary, time, 2, 1, &counter, &bits);
  };
  for (const auto& [time, value] :
       std::vector<std::pair<uint64_t, int64_t>>{{1, 10}, {2, -4}, {4, 6}, {6, 4}, {12, 100}}) {
    sample(time, 4, static_cast<uint64_t>(value));
  }
  sample(13, 0xffffffff, 5);
  sample(14, 9, std::bit_cast<uint64_t>(2.5));  // not defined
  ASSERT_TRUE(close());
  uint64_t records = 0;
  Bytes bytes = body("cnt", &records);
  ASSERT_EQ(records, 4U);
  const auto expectRecord = [&](uint32_t counter, uint64_t first, uint64_t last, uint32_t count,
                                const std::vector<double>& values) {
    EXPECT_EQ(bytes.u32(), counter);
    EXPECT_EQ(bytes.u64(), first);
    EXPECT_EQ(bytes.u64(), last);
    EXPECT_EQ(bytes.u32(), 2U);
    EXPECT_EQ(bytes.u32(), count);
    for (const double value : values) EXPECT_DOUBLE_EQ(bytes.f64(), value) << counter;
  };
  // Rates: -14, 5, -1.
  expectRecord(4, 1, 6, 4, {-4, 10, 4, -14, 5, -10.0 / 3});
  // Modulo 31: 2 + 2 * 4 gives 10, 2 + 2 * 9 gives 20, 2 + 2 * 0xffffffff gives 0.
  expectRecord(0xffffffff, 13, 13, 1, {5, 5, 5, 0, 0, 0});
  expectRecord(4, 12, 12, 1, {100, 100, 100, 0, 0, 0});
  expectRecord(9, 14, 14, 1, {2.5, 2.5, 2.5, 0, 0, 0});
  EXPECT_TRUE(bytes.atEnd());
}

TEST_F(SummaryTest, ReportsAreStoredAtOnce) {
  KLTT_Summary& summary = open(0, kSpan << 1, 1, kEvents);
  const uint64_t times[] = {4, 7};
  const uint32_t words[] = {21, 22};
  const std::string longText(200'000, 'x');
  const char* headers[] = {"a", nullptr};
  const char* calls[] = {longText.c_str(), "bc"};
  KLTT_SumReportEvent(summary, {.time = 9,
                                .thread = 5,
                                .type = "GLOBAL",
                                .description = "d",
                                .n = 2,
                                .times = times,
                                .willys = words,
                                .headers = headers,
                                .functions = words,
                                .calls = calls,
                                .scls = words});
  KLTT_SumReportEvent(summary, {.time = 10});
  uint64_t records = 0;
  Bytes bytes = body("rep", &records);
  EXPECT_EQ(records, 2U);
  EXPECT_EQ(bytes.u64(), 4U);
  EXPECT_EQ(bytes.u32(), 5U);
  EXPECT_EQ(bytes.u32(), 2U);
  for (const char* text : {"GLOBAL", "", "d"}) EXPECT_EQ(bytes.text(), text);
  EXPECT_EQ(bytes.u64(), 2U);
  EXPECT_EQ(bytes.u64(), 3U);
  for (const uint32_t word : words) EXPECT_EQ(bytes.u32(), word);
  for (const char* text : {"a", ""}) EXPECT_EQ(bytes.text(), text);
  for (const uint32_t word : words) EXPECT_EQ(bytes.u32(), word);
  EXPECT_EQ(bytes.text(), longText);
  EXPECT_EQ(bytes.text(), "bc");
  for (const uint32_t word : words) EXPECT_EQ(bytes.u32(), word);
  EXPECT_EQ(bytes.u64(), 5U);
  bytes.skip(8 + 12);
  EXPECT_TRUE(bytes.atEnd());
  ASSERT_TRUE(close());
}

// --- Files that fail
// ------------------------------------------------------------------------------

TEST_F(SummaryTest, AFileThatExistsIsLeftAloneAndTheOthersGoOn) {
  tb::writeFile(path("msg"), "precious");
  testing::internal::CaptureStderr();
  KLTT_Summary& summary = open({0});
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "ERROR: could not create summary file " + path("msg") + ": File exists\n");
  testing::internal::CaptureStderr();
  call(summary, 1, 0, 1);
  KLTT_SumMessageEvent(summary, {});
  EXPECT_FALSE(close());
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(tb::readFile(path("msg")), "precious");
  EXPECT_EQ(threads().size(), 1U);
}

int failingWrites = 0;

TEST_F(SummaryTest, AFailedWriteIsToldOnceAndTheHeaderCountsWhatIsThere) {
  constexpr uint32_t kWorthAWrite = 1000;
  KLTT_Summary& summary = open({0});
  const auto messages = [&](uint64_t time) {
    for (uint32_t tag = 0; tag < kWorthAWrite; ++tag) {
      KLTT_SumMessageEvent(summary, {.time = time, .tag = tag});
    }
  };
  messages(1);
  messages(11);
  failingWrites = 1;  // the second block of messages
  Vfd_systemCalls.pwrite = [](int fd, const void* buffer, size_t bytes, off_t offset) -> ssize_t {
    if (failingWrites-- > 0) {
      errno = ENOSPC;
      return -1;
    }
    return Vfd_osCalls.pwrite(fd, buffer, bytes, offset);
  };
  testing::internal::CaptureStderr();
  messages(21);
  messages(31);
  failingWrites = 1;  // the trees
  const bool complete = close();
  Vfd_systemCalls = Vfd_osCalls;
  EXPECT_FALSE(complete);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "ERROR: writing to " + path("msg") + " failed: No space left on device\n" +
                "ERROR: writing to " + path("fnc") + " failed: No space left on device\n");
  uint64_t records = 0;
  (void)body("msg", &records);
  EXPECT_EQ(records, kWorthAWrite);
  EXPECT_TRUE(threads().empty());
}

TEST_F(SummaryTest, NoDescriptorIsHeldBetweenWrites) {
  const auto openFiles = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                         std::filesystem::directory_iterator());
  };
  const auto before = openFiles();
  KLTT_Summary& summary = open({0});
  EXPECT_EQ(openFiles(), before);
  for (uint32_t i = 0; i < 1500; ++i) {
    KLTT_SumMessageEvent(summary, {.time = i / 500 * 10, .tag = i});
    KLTT_SumReportEvent(summary, {.time = i / 500 * 10});
  }
  EXPECT_EQ(openFiles(), before);
  ASSERT_TRUE(close());
}

}  // namespace
