// Whole merges: the counts of events, the removal of the input, large communicators.
#include "generic/merge/kltt_merge.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>

#include "tests/unit/klt_reading.h"

namespace {

using reading::Lines;
namespace fs = std::filesystem;

class KlttMerge : public testing::Test {
 protected:
  int merge(const std::string& input, int flags = KLTM_MERGE) {
    percentages_ = 0;
    return KLTM_Merge(nullptr, output_.c_str(), KLT_Open(input.c_str()), flags, count, RK_Stdout());
  }
  int merge(const tb::Trace& trace) { return merge(trace.files().writePlain(directory_)); }

  static void count(RK_Output*, int state, int) { percentages_ += state == 0 ? 1 : 0; }

  // All definitions and events, sorted, since components may be in another order.
  static Lines linesOf(const std::string& name) {
    Lines lines = reading::linesOf(name);
    std::sort(lines.begin(), lines.end());
    return lines;
  }

  tb::TempDir directory_;
  std::string output_ = directory_ / "m.klt";
  reading::Messages messages_;
  inline static int percentages_;  // that the last merge reported
};

// A message and an operation, with a communicator of `n` members.
void fill(tb::Trace& trace, int32_t n) {
  trace.clock(1, 0).processes({1, 1}).communicator(1, "", {{0, n - 1, 1}}).defineClass(3, "A");
  tb::Stream& raw = trace.stream("r.0", tb::RAW_EVENTS, {0});
  raw.at(1).rawMessage({.kind = 7, .other = 1, .communicator = 1});
  raw.at(2).rawMessage({.kind = 8 | 1 << 6, .other = 0, .communicator = 1});
  raw.at(3).rawMessage({.kind = 7, .other = 1, .tag = 0x10000, .communicator = 1});
  raw.at(4).rawCollective({.kind = 10, .operation = 1, .communicator = 1, .end = 7});
}

// Events that are neither sends nor receives count as receives.
TEST_F(KlttMerge, CountsOfEventsGrowByWhatWasMatched) {
  tb::Trace trace(1);
  fill(trace, 2);
  trace.stream("r.1", tb::RAW_EVENTS, {1})
      .at(4)
      .rawMessage({.kind = 9 | 1 << 6, .other = 0, .tag = 0x10000, .communicator = 1});
  trace.stream("msg", tb::MESSAGES).at(5).message({.receiver = 1, .tag = 0x10000});  // is copied
  trace.declarations().record(
      47, {{"info_class", 3},
           {"info",
            "number of events:4 functions,\t 1 onetoones, 2  collectives, 5 scopes, 6 "
            "counters"}});
  ASSERT_EQ(merge(trace), KLTM_DONE);
  EXPECT_GT(percentages_, 0);
  EXPECT_EQ(reading::only(linesOf(output_), {"info"}),
            Lines{"info 3 'number of events: 4 functions, 3 onetoones, 3 collectives, 5 scopes, "
                  "6 counters'"});
  const Lines messages = reading::only(linesOf(output_), {"one_to_one_communication"});
  EXPECT_EQ(
      std::count_if(messages.begin(), messages.end(),
                    [](const std::string& line) { return line.find(" 65536 ") != line.npos; }),
      2)  // the tags
      << messages.back();
  EXPECT_EQ(messages_.take(),
            "WARNING: 1 raw message events are neither sends nor receives, taken for receives.\n");
}

// The text of the counts needs a class, which a trace without such a text doesn't name.
TEST_F(KlttMerge, CountsWithoutAClassGetNoText) {
  tb::Trace trace(1);
  fill(trace, 2);
  trace.declarations().record("event_summary", {});
  ASSERT_EQ(merge(trace), KLTM_DONE);
  EXPECT_EQ(reading::only(linesOf(output_), {"info"}), Lines{});
  messages_.take();
}

TEST_F(KlttMerge, TheInputIsRemovedOnlyAfterASuccess) {
  tb::Trace trace(1);
  fill(trace, 2);
  const std::string input = trace.files().truncate(".r.0", 1).writePlain(directory_);
  EXPECT_EQ(merge(input, KLTM_DELETE_INPUT), KLTM_WRONG_OPERATION);
  EXPECT_EQ(merge(input, KLTM_MERGE | KLTM_DELETE_INPUT), KLTM_INCOMPLETE);
  EXPECT_TRUE(fs::exists(input) && fs::exists(input + ".r.0"));
  (void)trace.files().writePlain(directory_);
  EXPECT_EQ(merge(input, KLTM_MERGE | KLTM_DELETE_INPUT), KLTM_DONE);
  EXPECT_FALSE(fs::exists(input) || fs::exists(input + ".r.0"));
  // Operations that no record can hold, or that a reader would refuse.
  for (const auto& [operation, communicator] :
       {std::pair(46U, 1U), {0U, 1U}, {1U, 0U}, {13U, 9U}}) {
    tb::Trace odd(1);
    fill(odd, 2);
    odd.stream("r.1", tb::RAW_EVENTS, {1})
        .at(5)
        .rawCollective(
            {.kind = 10, .operation = operation, .communicator = communicator, .end = 7});
    EXPECT_EQ(merge(odd.files().writePlain(directory_), KLTM_MERGE | KLTM_DELETE_INPUT),
              KLTM_INCOMPLETE);
    EXPECT_TRUE(fs::exists(input + ".r.0"));
    EXPECT_EQ(reading::only(linesOf(output_), {"all_communication"}).size(), 1U);
  }
  const std::string text = messages_.take();
  size_t reports = 0;
  for (size_t at = 0; (at = text.find("ERROR: 1 events of coll", at)) != std::string::npos; ++at)
    ++reports;
  EXPECT_EQ(reports, 4U) << text;
}

TEST_F(KlttMerge, CommunicatorsAreCutToWhatARecordHolds) {
  for (const int32_t n : {65535, 65536}) {
    tb::Trace trace(1);
    fill(trace, n);
    ASSERT_EQ(merge(trace), KLTM_DONE);
    const Lines lines = reading::only(linesOf(output_), {"all_communication", "info"});
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_TRUE(lines[0].starts_with("all_communication 4 1 1 65535 [0 "));
  }
  EXPECT_EQ(messages_.take(),
            "ERROR: communicator 1 has 65536 members, all above 65535 are left out\n");
}

}  // namespace
