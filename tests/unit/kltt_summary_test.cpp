// Summary data of events that a test states: where bins end, what only odd events show, and files
// that fail. The files of whole traces are compared end to end.
#include "generic/summary/kltt_summary.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <map>
#include <sstream>
#include <string>
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
  void sample(uint64_t time, uint32_t counter, uint64_t bits) {
    summary_->counter_event(time, 2, 1, &counter, &bits);
  }

  // A file: version, width of bins and number of records, then a line for each record. I and Q are
  // 4 and 8 bytes, d is a real number, s a text; what is behind the bar comes # times.
  std::string contents(const std::string& kind) {
    static const std::map<std::string, std::string> kFields = {{"fnc", "QQII#I|IIQQIIIIII"},
                                                               {"cop", "QIIII#I|IIQQQQQddIIIIII"},
                                                               {"msg", "IQQQQIIIIIIIIII"},
                                                               {"cnt", "IQQIIdddddd"},
                                                               {"rep", "QI#sss|QIsIsI"}};
    std::istringstream file(tb::readFile(base_ + ".sum." + kind));
    std::ostringstream lines;
    uint32_t count = 0;
    const auto take = [&](auto value) {
      file.read(reinterpret_cast<char*>(&value), sizeof value);
      (std::isnan(static_cast<double>(value)) ? lines << "nan" : lines << value) << ' ';
      return value;
    };
    const auto put = [&](char field) {
      if (field == '|') lines << "| ";
      if (field == 'd') take(double{});
      if (field == 'Q') take(int64_t{});
      if (field == 'I') take(uint32_t{});
      if (field == '#') count = take(uint32_t{});
      if (field != 's') return;
      std::string text(take(uint32_t{}), '?');
      lines << (file.read(text.data(), static_cast<std::streamsize>(text.size())), text) << ' ';
    };
    for (int i = 0; i < 3; ++i) put('Q');
    const std::string& fields = kFields.at(kind);
    const auto group = std::find(fields.begin(), fields.end(), '|');
    while (file.peek() != EOF) {
      lines << '\n';
      std::for_each(fields.begin(), group, put);
      for (; count > 0; --count) std::for_each(group, fields.end(), put);
    }
    return lines.str();
  }

  tb::TempDir directory_;
  std::string base_;
  int runs_ = 0;
  KLTT_Summary* summary_ = nullptr;
};

TEST_F(KlttSummary, BinsFollowFromTheNumberOfEventsAndGoOnToTheDeclaredEnd) {
  const struct {
    uint64_t start, span, events, last, bins, width;
    int32_t eventBits = 0;
  } rows[] = {
      {0, 6400, 2, 1000000, 2, 3200},
      {0, 6400, 961, 1000000, 60, 106},
      {0, 6400, 962, 1000000, 62, 103},
      // A time at the end of a bin belongs to it. After the 62 bins of one tick 38 ticks remain,
      // whose last bin isn't written, for calls.
      {0, 100, 1000, 61, 61, 1},
      {0, 100, 1000, 63, 62, 1},
      {0, 100, 1000, 1000000, 99, 1},
      {0, 0, 1000, kEndOfTime, 1, 1},
      {kEndOfTime - 3, 100, 1000, kEndOfTime, 3, 1},
      {(100 << 4) + 15, (500 << 4) + 1, 0, 601 << 4, 1, 501, 4},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(std::to_string(row.events) + " events to " + std::to_string(row.last));
    open(row.start, row.span, row.eventBits, row.events);
    for (const uint64_t time : {row.last, uint64_t{1}}) {  // the second one comes too late
      call(time, 1);
      message({.time = time});
    }
    EXPECT_TRUE(KLTT_SumClose(summary_));
    const std::string head = "1 " + std::to_string(row.width) + ' ';
    EXPECT_TRUE(contents("fnc").starts_with(head + std::to_string(row.bins) + ' '));
    EXPECT_TRUE(contents("msg").starts_with(head + "1 \n2 "));  // of both
  }
}

// After the times, the thread and its events: function, own time and all of it, calls, location,
// children, distance of the first, whether a sibling follows, distance of the parent.
TEST_F(KlttSummary, TreesOfCalls) {
  open();
  leave(1);                                       // of no call
  for (const uint32_t function : {6U, 4U, 5U}) {  // the lowest of several outermost calls is shown
    call(1, function);
    for (const uint32_t scl : {9U, 8U}) {  // the first location in a bin counts
      call(1, scl - 7, scl);
      leave(3);
      call(1, 1, scl);
      leave(3);
    }
    leave(3);
  }
  call(12, 6);  // an open call is in each bin with its part, one that was hidden counts anew
  call(14, 1);
  leave(3);  // time that goes backwards adds nothing
  EXPECT_TRUE(KLTT_SumClose(summary_));
  EXPECT_EQ(contents("fnc"),
            "1 10 2 \n0 10 0 31 4 0 | 0 0 0 2 0 0 1 1 1 0 | 0 4 0 2 1 0 2 1 0 1 "
            "| 0 1 6 6 3 9 0 0 1 1 | 0 2 2 2 1 9 0 0 0 2 "
            "\n10 10 0 3 3 0 | 0 0 0 8 0 0 1 1 1 0 | 0 6 19 8 1 0 1 1 0 1 | 0 1 0 0 1 0 0 0 0 1 ");
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
  EXPECT_TRUE(contents("fnc").starts_with("1 1000 1 \n0 1000 0 40001 20002 0 "));
  EXPECT_TRUE(contents("msg").starts_with("1 1000 20000 \n2 "));
}

TEST_F(KlttSummary, MessagesOperationsCountersAndReportsAddUp) {
  const uint64_t starts[] = {0, 8, 4}, deltas[] = {8, 0, 40};
  const uint32_t sizes[] = {10, 0, 0xffffffff}, places[] = {0, 3, 0};
  const reading::Messages told;
  open(0, 623 << 2, 2);
  message({.time = 20, .duration = 20, .sender = 40, .size = 2});
  message({.time = 20, .duration = -1, .sender = 40, .size = 2, .senderScl = 11});
  message({.time = 36, .sender = 40, .size = 2, .senderScl = 12, .receiverScl = 13});
  for (int i = 0; i < 5; ++i) message({.size = 0x80000001});
  summary_->collective_event(16, 2, 1, 9, {2, starts, deltas, sizes, nullptr, places});
  summary_->collective_event(12, 2, 1, 9, {3, starts, starts, nullptr, sizes, nullptr});
  summary_->collective_event(20, 2, 1, 9, {});
  summary_->counter_definition(4, 0);
  summary_->counter_definition(4, 0x101);  // integers
  sample(4, 4, 10);
  sample(8, 4, ~uint64_t{3});
  sample(16, 4, 6);
  sample(14, 9, std::bit_cast<uint64_t>(2.5));  // not defined
  const std::string longText(200'000, 'x');     // more than is buffered
  const char* texts[] = {longText.c_str()};
  summary_->report_event({16, 5, "A", nullptr, "d", 1, deltas, sizes, texts, sizes, texts, sizes});
  EXPECT_TRUE(contents("rep") == "1 10 1 \n4 5 1 1 A 0  1 d | 2 10 200000 " + longText +
                                     " 10 200000 " + longText + " 10 ");  // at once
  EXPECT_TRUE(KLTT_SumClose(summary_));
  EXPECT_EQ(contents("msg"),
            "1 10 2 \n3 19 4 -1 5 40 0 0 0 2 6 0 0 11 13 "
            "\n5 0 0 0 0 0 0 0 0 2147483649 2147483653 0 0 0 0 ");
  // The first rate of the second member is no number, which no other replaces.
  EXPECT_EQ(contents("cop"),
            "1 10 1 \n3 1 9 2 3 2 0 | 0 0 3 6 2 0 2 5 inf 10 0 10 10 0 10 "
            "| 0 3 5 7 2 0 2 nan nan 0 0 0 0 0 0 ");
  EXPECT_EQ(contents("cnt"),
            "1 10 2 \n4 1 4 2 3 -4 10 4 -14 5 -4.5 \n9 3 3 2 1 2.5 2.5 2.5 0 0 0 ");
}

TEST_F(KlttSummary, AFileThatIsThereStaysAndHarmsNoOther) {
  tb::writeFile(directory_ / "1.sum.msg", "precious");
  reading::Messages told;
  open();
  call(1, 1);
  message({});
  EXPECT_FALSE(KLTT_SumClose(summary_));
  EXPECT_EQ(tb::readFile(directory_ / "1.sum.msg"), "precious");
  EXPECT_TRUE(contents("fnc").starts_with("1 10 1 "));
  EXPECT_EQ(told.take(),
            "ERROR: could not create summary file " + base_ + ".sum.msg: File exists\n");
}

TEST_F(KlttSummary, NoMoreEventsAreBelievedThanTheFilesCanHold) {
  for (const unsigned flags : {0U, 3U}) {  // 3: with compressed components
    tb::Trace trace(flags);
    const reading::OpenTrace open(trace);
    const uint64_t limit = KLTT_SumEventLimit(open.handle(), 1U << 20);
    EXPECT_EQ(limit < 1U << 14, flags == 0) << limit;
  }
}

}  // namespace
