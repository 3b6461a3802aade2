// Summary data: how bins end, what call trees hold, and that a bad file harms no other. The files
// of whole traces are compared end to end.
#include "generic/kltt_summary.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <iterator>
#include <limits>
#include <string>
#include <vector>

#include "klt/klt.h"
#include "klt/klt_intern.h"
#include "tests/builder/trace_builder.h"
#include "tests/builder/trace_files.h"
#include "tests/unit/kltt_summary_fixture.h"
#include "util/vfd.h"

namespace {

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
  const std::vector<SummaryThread> bins = threads();
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
  KLTT_Summary& summary = open((100 << 4) + 15, (500 << 4) + 1, 4, 0, {3});
  call(summary, 100 << 4, 3, 1);
  leave(summary, 601 << 4, 3);
  ASSERT_TRUE(close());
  const std::vector<SummaryThread> bins = threads();
  ASSERT_EQ(bins.size(), 1U);
  EXPECT_EQ(bins[0].start, 100U);
  EXPECT_EQ(bins[0].width, 501U);
  EXPECT_EQ(bins[0].events, 2U);
  EXPECT_EQ(bins[0].calls.at(1).inclusive, 501U);
}

// The division leaves a remainder of 38 ticks behind 62 bins of one tick.
TEST_F(SummaryTest, BinsGoOnToTheDeclaredEndAndOnlyCallsCanBeMissing) {
  const struct {
    uint64_t last;
    size_t bins;
  } cases[] = {{61, 61}, {62, 62}, {63, 62}, {80, 79}, {100, 99}, {1'000'000, 99}};
  for (const auto& [last, bins] : cases) {
    KLTT_Summary& summary = open(0, 100, 0, kEvents, {0});
    const uint32_t counter = 1;
    const uint64_t value = 2;
    for (const uint64_t time : {last, uint64_t{1}}) {  // the second one is told late
      call(summary, time, 0, 1);
      KLTT_SumMessageEvent(summary, {.time = time});
      KLTT_SumCollective(summary, time, 0, 1, 1, {});
      KLTT_SumCounters(summary, time, 0, 1, &counter, &value);
    }
    ASSERT_TRUE(close());
    EXPECT_EQ(threads().size(), bins) << last;
    EXPECT_EQ(body("msg").u32(), 2U) << last;
    SummaryBytes operations = body("cop");
    operations.skip(20);
    EXPECT_EQ(operations.u32(), 2U) << last;
    SummaryBytes samples = body("cnt");
    samples.skip(24);
    EXPECT_EQ(samples.u32(), 2U) << last;
    removeFiles();
  }
}

TEST_F(SummaryTest, WildTimesMakeNoBins) {
  KLTT_Summary& summary = open({1, 2});
  const uint64_t last = std::numeric_limits<uint64_t>::max();
  call(summary, last, 1, 1);
  call(summary, 5, 2, 1);  // too late for its bin
  KLTT_SumMessageEvent(summary, {.time = last});
  KLTT_SumReportEvent(summary, {.time = last});
  ASSERT_TRUE(close());
  EXPECT_EQ(threads().size(), 2U * 62);
  EXPECT_FALSE(body("msg").atEnd());
  EXPECT_FALSE(body("rep").atEnd());
}

TEST_F(SummaryTest, NoMoreEventsAreBelievedThanTheFilesCanHold) {
  for (const unsigned flags : {0U, 3U}) {
    tb::Trace trace(flags);
    tb::Stream& stream = trace.stream("f.0", tb::FUNCTIONS, {0});
    for (uint64_t i = 0; i < 1000; ++i) stream.at(i).enter(0, 1).leave(0);
    KLT_FileHandle* handle = KLT_Open(trace.files().writePlain(directory_).c_str());
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(KLTT_SumEventLimit(handle, 2000), 2000U);
    if (flags == 0)
      EXPECT_LT(KLTT_SumEventLimit(handle, 1ULL << 34), 10'000U);
    else
      EXPECT_EQ(KLTT_SumEventLimit(handle, 1ULL << 34), 1ULL << 34);
    KLT_Close(handle);
  }
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
  uint32_t places = 0;
  for (const uint32_t function : {9U, 2U, 9U}) {
    // The first place of a function in a bin counts, not that of its next call.
    call(summary, 1, 0, function, 30 + function + 10 * places++);
    call(summary, 2, 0, 5);
    leave(summary, 3, 0);
    leave(summary, 4, 0);
  }
  leave(summary, 6, 0);
  ASSERT_TRUE(close());
  const std::vector<SummaryThread> bins = threads();
  ASSERT_EQ(bins.size(), 1U);
  EXPECT_EQ(bins[0].events, 14U);
  const std::vector<SummaryCall>& calls = bins[0].calls;
  ASSERT_EQ(calls.size(), 6U);
  const auto expectCall = [&](size_t at, const SummaryCall& want) {
    const SummaryCall& is = calls[at];
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
  expectCall(2, {2, 2, 3, 1, 42, 1, 2, 1, 1});
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
  const std::vector<SummaryThread> bins = threads();
  ASSERT_EQ(bins.size(), 4U);
  for (size_t i = 0; i < bins.size(); ++i) {
    ASSERT_EQ(bins[i].calls.size(), i < 3 ? 3U : 4U);
    const SummaryCall& outer = bins[i].calls[1];
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
  const std::vector<SummaryThread> bins = threads();
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
  for (const SummaryThread& thread : threads()) order.push_back(thread.thread);
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
  const std::vector<SummaryThread> bins = threads();
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
  const std::vector<SummaryThread> bins = threads();
  ASSERT_EQ(bins.size(), 3U);
  EXPECT_EQ(bins[2].calls.at(1).self, 0U);
  EXPECT_EQ(bins[2].calls.at(1).inclusive, 0U);
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
