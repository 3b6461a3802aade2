// Summaries of single events: the ends of bins, and unusual events. The files of whole traces are
// compared end to end.
#include "generic/summary/kltt_summary.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "tests/unit/klt_reading.h"

namespace {

constexpr uint64_t kEndOfTime = ~uint64_t{0};

class KlttSummary : public testing::Test {
 protected:
  // 1,000 events give 62 bins. They are 10 ticks wide here, and 3 ticks remain.
  void open(uint64_t start = 0, uint64_t span = 623, int32_t eventBits = 0,
            uint64_t events = 1000) {
    base_ = directory_ / std::to_string(++runs_);
    summary_ = KLTT_SumOpen(base_.c_str(), start, span, eventBits, events, std::vector{0U});
  }
  void call(uint64_t time, uint32_t function, uint32_t scl = 0) {
    summary_->function_event(time, 0, function, scl, true);
  }
  void leave(uint64_t time) { summary_->function_event(time, 0, 0, 0, false); }
  void message(const KLTT_SumMessage& message) { summary_->message_event(message); }

  // The four-byte words of a file; the header has six.
  std::vector<uint32_t> words(const std::string& kind) {
    const std::string file = tb::readFile(base_ + ".sum." + kind);
    std::vector<uint32_t> result(file.size() / sizeof(uint32_t));
    std::memcpy(result.data(), file.data(), result.size() * sizeof(uint32_t));
    return result;
  }
  // Width of bins and number of records.
  std::pair<uint32_t, uint32_t> head(const std::string& kind) {
    const std::vector<uint32_t> all = words(kind);
    return {all[2], all[4]};
  }

  tb::TempDir directory_;
  std::string base_;
  int runs_ = 0;
  KLTT_Summary* summary_ = nullptr;
};

TEST_F(KlttSummary, BinsFollowFromTheNumberOfEventsAndGoOnToTheDeclaredEnd) {
  const struct {
    uint64_t start, span, events, last;
    uint32_t bins, width;
    int32_t eventBits = 0;
  } rows[] = {
      {0, 6400, 2, 1000000, 2, 3200},
      {0, 6400, 961, 1000000, 60, 106},
      {0, 6400, 962, 1000000, 62, 103},
      // A bin contains the time of its end. After the 62 bins of one tick there are 38 additional
      // bins, the last of which has no call trees.
      {0, 100, 1000, 61, 61, 1},
      {0, 100, 1000, 63, 62, 1},
      {0, 100, 1000, 1000000, 99, 1},
      {0, 0, 1000, kEndOfTime, 1, 1},
      {kEndOfTime - 3, 100, 1000, kEndOfTime, 3, 1},
      {(100 << 4) + 15, (500 << 4) + 1, 1, 601 << 4, 1, 501, 4},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(std::to_string(row.events) + " events to " + std::to_string(row.last));
    open(row.start, row.span, row.eventBits, row.events);
    for (const uint64_t time : {row.last, uint64_t{1}}) {  // the second time is before the bin
      call(time, 1);
      message({.time = time});
    }
    EXPECT_TRUE(KLTT_SumClose(summary_));
    EXPECT_EQ(head("fnc"), std::pair(row.width, row.bins));
    EXPECT_EQ(head("msg"), std::pair(row.width, 1U));
    EXPECT_EQ(words("msg")[6], 2U) << "messages";
  }
}

// A thread's words: start and width of the bin (two each), thread, events, nodes, 0. Of a node's 12
// words the second is the function, the third the self time, the seventh the calls.
TEST_F(KlttSummary, OutermostCallsThatAreHiddenCountAnewInTheNextBin) {
  open();
  leave(1);                                 // without an open call
  for (const uint32_t function : {6U, 4U})  // only the lowest is written
    call(1, function), leave(3);
  call(12, 6);
  leave(3);  // time that goes backwards adds nothing
  call(13, 6);
  EXPECT_TRUE(KLTT_SumClose(summary_));
  const std::vector<uint32_t> expected = {
      1,  0, 10, 0, 2, 0,                                                        //
      0,  0, 10, 0, 0, 5, 2, 0,                                                  //
      0,  0, 0,  0, 2, 0, 0, 0, 1, 1, 1, 0, 0, 4, 2, 0, 2, 0, 1, 0, 0, 0, 0, 1,  //
      10, 0, 10, 0, 0, 3, 2, 0,                                                  //
      0,  0, 0,  0, 7, 0, 0, 0, 1, 1, 1, 0, 0, 6, 7, 0, 7, 0, 2, 0, 0, 0, 0, 1};
  EXPECT_EQ(words("fnc"), expected);
}

TEST_F(KlttSummary, ManyCallsAndMessagesKeepTheirKeysApart) {
  open(0, 1000, 0, 0);
  call(1, 1);
  for (uint32_t i = 0; i < 20'000; ++i) {
    call(1, i * 7);
    leave(2);
    for (int twice = 0; twice < 2; ++twice) message({.tag = i * 31});
  }
  EXPECT_TRUE(KLTT_SumClose(summary_));
  const std::vector<uint32_t> calls = words("fnc");
  EXPECT_EQ(calls[11], 40001U) << "events";
  EXPECT_EQ(calls[12], 20002U) << "records";
  EXPECT_EQ(head("msg"), std::pair(1000U, 20000U));
  EXPECT_EQ(words("msg")[6], 2U);
}

TEST_F(KlttSummary, TimesMayGoBackwardsAndMembersDiffer) {
  const uint64_t starts[] = {0, 8, 4}, deltas[] = {8, 0, 40};
  const uint32_t sizes[] = {10, 0, 0xffffffff};
  open(0, 623 << 2, 2);
  summary_->collective_event(16, 2, 1, 9, {2, starts, deltas, nullptr, nullptr, nullptr});
  summary_->collective_event(12, 2, 1, 9, {3, starts, deltas, nullptr, sizes, nullptr});
  summary_->collective_event(20, 2, 1, 9, {});
  const std::string longText(200'000, 'x');  // more than is buffered
  const char* texts[] = {longText.c_str()};
  summary_->report_event({16, 5, "A", nullptr, "d", 1, deltas, sizes, texts, sizes, texts, sizes});
  EXPECT_EQ(words("rep").size(), 6 + (2 * longText.size() + 58) / 4) << "written at once";
  EXPECT_TRUE(KLTT_SumClose(summary_));
  const std::vector<uint32_t> operation = words("cop");
  EXPECT_EQ(operation[6], 3U) << "the earliest time";
  EXPECT_EQ(operation[11], 3U) << "operations";
  EXPECT_EQ(operation[12], 2U) << "members";
  EXPECT_EQ(operation[16], 3U) << "the earliest start";
  EXPECT_EQ(operation[22], 2U) << "the shortest duration, of those that have this member";
  EXPECT_EQ(operation.size(), 14U + 2 * 22);
}

}  // namespace
