// Summary data: what the tables of messages, collective operations and counters hold, and reports.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "generic/kltt_summary.h"
#include "tests/unit/kltt_summary_fixture.h"

namespace {

using SummaryTablesTest = SummaryTest;

TEST_F(SummaryTablesTest, MessagesAddUpByKeyInTheOrderOfBuckets) {
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
  SummaryBytes bytes = body("msg", &records);
  ASSERT_EQ(records, 3U);
  // Modulo 31: 40 + 16 * 2 + 65536 gives 12, 1 + 65536 gives 3.
  EXPECT_EQ(bytes.u32(), 1U);
  bytes.skip(32);
  EXPECT_EQ(bytes.u32(), 1U);
  bytes.skip(36);
  EXPECT_EQ(bytes.u32(), 3U);
  EXPECT_EQ(bytes.u64(), 5U + 8 + 8);
  for (const int64_t duration : {2 - 1 + 5, -1, 5}) EXPECT_EQ(bytes.take<int64_t>(), duration);
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

TEST_F(SummaryTablesTest, ManyKeysKeepTheirOrderThroughManyBins) {
  KLTT_Summary& summary = open();
  for (uint64_t bin = 0; bin < 3; ++bin) {
    for (uint32_t tag = 0; tag < 1000; ++tag) {
      KLTT_SumMessageEvent(summary, {.time = bin * 10 + 1, .tag = tag * 31});
      KLTT_SumMessageEvent(summary, {.time = bin * 10 + 1, .tag = tag * 31});
    }
  }
  ASSERT_TRUE(close());
  uint64_t records = 0;
  SummaryBytes bytes = body("msg", &records);
  ASSERT_EQ(records, 3000U);
  for (uint32_t i = 0; i < records; ++i) {
    ASSERT_EQ(bytes.u32(), 2U);
    bytes.skip(44);
    ASSERT_EQ(bytes.u32(), i % 1000 * 31);
    bytes.skip(24);
  }
}

TEST_F(SummaryTablesTest, SumsThatWrapAreToldOnce) {
  KLTT_Summary& summary = open();
  testing::internal::CaptureStderr();
  const KLTT_SumMessage message{.size = 0x80000001};
  for (int i = 0; i < 5; ++i) KLTT_SumMessageEvent(summary, message);
  const std::string told = testing::internal::GetCapturedStderr();
  ASSERT_TRUE(close());
  EXPECT_EQ(told,
            "WARNING: sums of bytes in the summary data have passed 32 bits, they count modulo "
            "2^32\n");
  SummaryBytes bytes = body("msg");
  bytes.skip(56);
  EXPECT_EQ(bytes.u32(), 0x80000005U);
}

TEST_F(SummaryTablesTest, CollectivesFoldMembersAndKeepTheirNumber) {
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
  SummaryBytes bytes = body("cop", &records);
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

TEST_F(SummaryTablesTest, CountersReadTheirValuesAsDefined) {
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
  SummaryBytes bytes = body("cnt", &records);
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

TEST_F(SummaryTablesTest, ReportsAreStoredAtOnce) {
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
  SummaryBytes bytes = body("rep", &records);
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

}  // namespace
