// Summary data of events that a test states: where bins end, what only odd events show, and files
// that fail. The files of whole traces are compared end to end.
#include "generic/summary/kltt_summary.h"

#include <gtest/gtest.h>

#include <bit>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "tests/unit/klt_reading.h"
#include "util/vfd.h"

namespace {

constexpr uint64_t kEndOfTime = ~uint64_t{0};

class KlttSummary : public testing::Test {
 protected:
  // 1,000 events give 62 bins. They are 10 ticks wide here, and 3 ticks remain.
  void open(uint64_t start = 0, uint64_t span = 623, int32_t eventBits = 0, uint64_t events = 1000,
            const std::vector<uint32_t>& threads = {0}) {
    base_ = directory_ / std::to_string(++runs_);
    summary_ = KLTT_SumOpen(base_.c_str(), start, span, eventBits, events, threads);
  }
  void close(bool complete = true) { EXPECT_EQ(KLTT_SumClose(summary_), complete); }
  void call(uint64_t time, uint32_t function, uint32_t scl = 0, uint32_t thread = 0) {
    KLTT_SumFunction(*summary_, time, thread, function, scl, true);
  }
  void leave(uint64_t time, uint32_t thread = 0) {
    KLTT_SumFunction(*summary_, time, thread, 0, 0, false);
  }
  void message(const KLTT_SumMessage& message) { KLTT_SumMessageEvent(*summary_, message); }
  void sample(uint64_t time, uint32_t counter, uint64_t bits) {
    KLTT_SumCounters(*summary_, time, 2, 1, &counter, &bits);
  }

  // The records of a file, a line each, with what is counted in them after bars. I and Q stand for
  // 4 and 8 bytes, d for a real number, s for a text, # for the count of the groups that follow.
  std::string records(const std::string& kind) {
    static const std::map<std::string, std::string> kFields = {{"fnc", "QQII#I |IIQQIIIIII"},
                                                               {"cop", "QIIII#I |IIQQQQQddIIIIII"},
                                                               {"msg", "IQQQQIIIIIIIIII"},
                                                               {"cnt", "IQQIIdddddd"},
                                                               {"rep", "QI#sss |Q |I |s |I |s |I"}};
    std::istringstream file(tb::readFile(base_ + ".sum." + kind));
    std::ostringstream lines;
    uint32_t count = 1;
    const auto take = [&](auto value) {
      EXPECT_TRUE(file.read(reinterpret_cast<char*>(&value), sizeof value)) << kind;
      return value;
    };
    const auto putReal = [&](double value) {
      (std::isnan(value) ? lines << "nan" : lines << value) << ' ';
    };
    const auto put = [&](char field) {
      if (field == '|') lines << "| ";
      if (field == 'd') putReal(take(double{}));
      if (field == 'Q') lines << take(int64_t{}) << ' ';
      if (field == 'I') lines << take(uint32_t{}) << ' ';
      if (field == '#') lines << (count = take(uint32_t{})) << ' ';
      if (field != 's') return;
      std::string text(take(uint32_t{}), '?');
      lines << (file.read(text.data(), static_cast<std::streamsize>(text.size())), text) << ' ';
    };
    EXPECT_EQ(take(uint64_t{}), 1U);
    width_ = take(uint64_t{});
    records_ = take(uint64_t{});
    for (uint64_t i = 0; i < records_; ++i, lines << '\n') {
      uint32_t times = 1;
      std::istringstream groups(kFields.at(kind));
      for (std::string group; groups >> group; times = count) {
        for (uint32_t k = 0; k < times; ++k) std::for_each(group.begin(), group.end(), put);
      }
    }
    EXPECT_EQ(file.peek(), EOF) << kind;
    return lines.str();
  }
  uint64_t count(const char* kind) { return (void)records(kind), records_; }

  tb::TempDir directory_;
  std::string base_;
  int runs_ = 0;
  KLTT_Summary* summary_ = nullptr;
  uint64_t width_ = 0;    // of a bin, and
  uint64_t records_ = 0;  // how many there are, in the header read last
};

TEST_F(KlttSummary, BinsFollowFromTheNumberOfEventsAndGoOnToTheDeclaredEnd) {
  const struct {
    uint64_t start, span, events, last, bins, width;
    int32_t eventBits = 0;
  } rows[] = {
      {0, 6400, 2, 1000000, 2, 3200},
      {0, 6400, 5, 1000000, 4, 1600},
      {0, 6400, 961, 1000000, 60, 106},
      {0, 6400, 962, 1000000, 62, 103},
      // A time at the end of a bin belongs to it. After the 62 bins of one tick 38 ticks remain,
      // whose last bin isn't written, for calls.
      {0, 100, 1000, 61, 61, 1},
      {0, 100, 1000, 63, 62, 1},
      {0, 100, 1000, 80, 79, 1},
      {0, 100, 1000, 1000000, 99, 1},
      {0, 623, 1000, kEndOfTime, 62, 10},
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
      KLTT_SumCollective(*summary_, time, 0, 1, 1, {});
      sample(time, 1, 0);
    }
    close();
    EXPECT_EQ(count("fnc"), row.bins);
    EXPECT_EQ(width_, row.width);
    // There is one record, of both events.
    EXPECT_EQ(records("msg").substr(0, 2), "2 ");
    EXPECT_EQ(records("cop").substr(records("cop").find(" 1 1 0 ")), " 1 1 0 2 0 0 \n");
    EXPECT_NE(records("cnt").find(" 2 2 "), std::string::npos);
    for (const char* kind : {"msg", "cop", "cnt"}) EXPECT_EQ(count(kind), 1U);
  }
}

// After the times, the thread and its events: function, own time and all of it, calls, location,
// children, distance of the first, whether a sibling follows, distance of the parent.
TEST_F(KlttSummary, TreesOfCalls) {
  open(0, 623, 0, 1000, {0, 31, 62, 33, 2, 33});  // the order is by the remainder of 31
  call(0, 5);
  for (const uint32_t scl : {9U, 8U, 7U}) {  // the first location in a bin counts
    call(1, 12 - scl % 2, scl);
    leave(4);
  }
  // An open call is in each bin with its part, but for its location. One below the top counts the
  // time since it last went on.
  call(4, 1, 8, 31);
  call(6, 2, 0, 31);
  // Of several outermost calls the lowest is shown.
  for (const uint32_t function : {6U, 4U, 5U}) {
    call(1, function, 0, 62);
    call(1, 1, 0, 62);
    leave(3, 62);
    leave(3, 62);
  }
  leave(1, 95);  // a thread that isn't declared, with no call open
  call(12, 6, 0, 62);
  leave(3, 62);  // time that goes backwards adds nothing
  close();
  const std::string idle = " 0 1 0 | 0 0 0 0 0 0 0 0 1 0 \n";
  EXPECT_EQ(records("fnc"),
            "0 10 0 7 4 0 | 0 0 0 10 0 0 1 1 1 0 | 0 5 7 10 1 0 2 1 0 1 "
            "| 0 11 6 6 2 9 0 0 1 1 | 0 12 3 3 1 8 0 0 0 2 \n"
            "0 10 31 2 3 0 | 0 0 0 6 0 0 1 1 1 0 | 0 1 8 6 1 8 1 1 0 1 | 0 2 4 4 1 0 0 0 0 1 \n"
            "0 10 62 12 3 0 | 0 0 0 2 0 0 1 1 1 0 | 0 4 0 2 1 0 1 1 0 1 | 0 1 2 2 1 0 0 0 0 1 \n"
            "0 10 33" +
                idle + "0 10 2" + idle +
                "0 10 95 1 1 0 | 0 0 0 0 0 0 0 0 1 0 \n"
                "10 10 0 0 2 0 | 0 0 0 10 0 0 1 1 1 0 | 0 5 10 10 0 0 0 0 0 1 \n"
                "10 10 31 0 3 0 | 0 0 0 10 0 0 1 1 1 0 | 0 1 10 10 0 0 1 1 0 1 "
                "| 0 2 10 10 0 0 0 0 0 1 \n"
                "10 10 62 2 2 0 | 0 0 0 0 0 0 1 1 1 0 | 0 6 0 0 1 0 0 0 0 1 \n"
                "10 10 33" +
                idle + "10 10 2" + idle + "10 10 95" + idle);
}

TEST_F(KlttSummary, ManyCallsAndMessagesKeepTheirKeysApart) {
  constexpr uint32_t kMany = 20'000;
  open(0, 1000, 0, 0);
  std::ostringstream tree;
  std::ostringstream sums;
  tree << "0 1000 0 " << 2 * kMany + 1 << ' ' << kMany + 2 << " 0 | 0 0 0 999 0 0 1 1 1 0 "
       << "| 0 1 998 999 1 0 " << kMany << " 1 0 1 ";
  call(1, 1);
  for (uint32_t i = 0; i < kMany; ++i) {
    call(1, (kMany - i) * 7);
    leave(2);
    for (const uint64_t time : {0U, 1U}) message({.time = time, .tag = i * 31});
    tree << "| 0 " << (i + 1) * 7 << " 1 1 1 0 0 0 " << (i < kMany - 1) << ' ' << i + 1 << ' ';
    sums << "2 1 0 0 0 0 0 0 " << i * 31 << " 0 0 0 0 0 0 \n";
  }
  close();
  EXPECT_TRUE(records("fnc") == tree.str() + '\n');
  EXPECT_TRUE(records("msg") == sums.str());
}

TEST_F(KlttSummary, MessagesOperationsCountersAndReportsAddUp) {
  const uint64_t starts[] = {0, 8, 4};
  const uint64_t deltas[] = {8, 0, 40};
  const uint32_t sizes[] = {10, 0, 0xffffffff};
  const uint32_t places[] = {0, 3, 0};
  const std::string longText(200'000, 'x');  // more than is buffered
  const char* texts[] = {longText.c_str(), nullptr};
  reading::Messages told;
  open(0, 623 << 2, 2);
  message({.time = 20, .duration = 20, .sender = 40, .size = 2});
  message({.time = 20, .duration = -1, .sender = 40, .size = 2, .senderScl = 11});
  message({.time = 36, .sender = 40, .size = 2, .senderScl = 12, .receiverScl = 13});
  for (int i = 0; i < 5; ++i) message({.size = 0x80000001});
  KLTT_SumCollective(*summary_, 16, 2, 1, 9, {2, starts, deltas, sizes, nullptr, places});
  KLTT_SumCollective(*summary_, 12, 2, 1, 9, {3, starts, starts, nullptr, sizes, nullptr});
  KLTT_SumCollective(*summary_, 20, 2, 1, 9, {});
  KLTT_SumDefineCounter(*summary_, 4, 0);
  KLTT_SumDefineCounter(*summary_, 4, 0x101);  // integers
  sample(4, 4, 10);
  sample(8, 4, ~uint64_t{3});
  sample(16, 4, 6);
  sample(14, 9, std::bit_cast<uint64_t>(2.5));  // not defined
  KLTT_SumReportEvent(
      *summary_, {16, 5, "GLOBAL", nullptr, "d", 2, deltas, sizes, texts, sizes, texts, places});
  EXPECT_TRUE(records("rep") == "4 5 2 GLOBAL  d | 2 | 0 | 10 | 0 | " + longText +
                                    " |  | 10 | 0 | " + longText + " |  | 0 | 3 \n");  // at once
  close();
  EXPECT_EQ(records("msg"),
            "3 19 4 -1 5 40 0 0 0 2 6 0 0 11 13 \n"
            "5 0 0 0 0 0 0 0 0 2147483649 2147483653 0 0 0 0 \n");
  // The first rate of the second member is no number, which no other replaces.
  EXPECT_EQ(records("cop"),
            "3 1 9 2 3 2 0 | 0 0 3 6 2 0 2 5 inf 10 0 10 10 0 10 "
            "| 0 3 5 7 2 0 2 nan nan 0 0 0 0 0 0 \n");
  EXPECT_EQ(records("cnt"), "4 1 4 2 3 -4 10 4 -14 5 -4.5 \n9 3 3 2 1 2.5 2.5 2.5 0 0 0 \n");
  EXPECT_EQ(
      told.take(),
      "WARNING: sums of bytes in the summary data have passed 32 bits, they count modulo 2^32\n");
}

int failingWrites = 0;

TEST_F(KlttSummary, AFileThatFailsIsReportedOnceAndHarmsNoOther) {
  open();
  const auto messages = [&](uint64_t time) {  // worth a write
    for (uint32_t tag = 0; tag < 1000; ++tag) message({.time = time, .tag = tag});
  };
  call(1, 1);
  messages(1);
  messages(11);
  failingWrites = 1;  // the second block of messages
  Vfd_systemCalls.pwrite = [](int fd, const void* buffer, size_t bytes, off_t offset) -> ssize_t {
    if (failingWrites-- <= 0) return Vfd_osCalls.pwrite(fd, buffer, bytes, offset);
    errno = ENOSPC;
    return -1;
  };
  reading::Messages told;
  messages(21);
  messages(31);
  close(false);
  Vfd_systemCalls = Vfd_osCalls;
  EXPECT_EQ(count("msg"), 1000U);
  EXPECT_EQ(count("fnc"), 4U);

  tb::writeFile(directory_ / "2.sum.msg", "precious");
  open();
  call(1, 1);
  message({});
  close(false);
  EXPECT_EQ(tb::readFile(directory_ / "2.sum.msg"), "precious");
  EXPECT_EQ(count("fnc"), 1U);
  EXPECT_EQ(
      told.take(),
      "ERROR: writing to " + directory_.path() +
          "/1.sum.msg failed: No space left on device\nERROR: could not create summary file " +
          directory_.path() + "/2.sum.msg: File exists\n");
}

TEST_F(KlttSummary, NoMoreEventsAreBelievedThanTheFilesCanHold) {
  constexpr uint64_t kWild = uint64_t{1} << 34;
  for (const unsigned flags : {0U, 3U}) {  // 3: with compressed components
    tb::Trace trace(flags);
    tb::Stream& stream = trace.stream("f.0", tb::FUNCTIONS, {0});
    for (uint64_t i = 0; i < 1000; ++i) stream.at(i).enter(0, 1).leave(0);
    const reading::OpenTrace open(trace);
    EXPECT_EQ(KLTT_SumEventLimit(open.handle(), 2000), 2000U);
    const uint64_t limit = KLTT_SumEventLimit(open.handle(), kWild);
    EXPECT_TRUE(flags == 0 ? limit < 10'000 : limit == kWild) << limit;
  }
}

}  // namespace
