// Compares the order of streams with a linear search, and the order of records from slices with
// that from turns, for all samples.
#include "klt/read/klt_order.h"

#include <gtest/gtest.h>

#include <filesystem>

#include <random>
#include <string>
#include <vector>

#include "klt/read/klt_reader.h"
#include "tests/unit/klt_reading.h"

namespace {

using namespace reading;

// The first position with the lowest time, except `without`.
size_t lowest(const std::vector<uint64_t>& times, size_t without = KLT_MergeTree::kNone) {
  size_t best = KLT_MergeTree::kNone;
  for (size_t i = 0; i < times.size(); ++i) {
    if (i != without && (best > i || times[i] < times[best])) best = i;
  }
  return best;
}

TEST(KltMergeTree, AgreesWithASearchThroughChangesAndRemovals) {
  std::mt19937_64 random(7);
  KLT_MergeTree tree;
  for (size_t streams = 0; streams <= 40; ++streams) {
    // Many times are equal, also near the largest time. Some streams start at or step to any time.
    const uint64_t start = streams % 3 == 0 ? ~uint64_t{0} - 3 : 100;
    std::vector<uint64_t> times(streams);
    for (uint64_t& time : times) time = streams % 5 == 0 ? random() : start + random() % 4;
    const auto step = [&](size_t i) {
      const bool isAnyTime = streams % 4 == 0 && random() % 16 == 0;
      return times[i] = isAnyTime ? random() >> random() % 64 : times[i] + random() % 3;
    };
    tree.build(streams, [&](size_t i) { return times[i]; });
    while (tree.best() != KLT_MergeTree::kNone || !times.empty()) {
      ASSERT_EQ(tree.best(), lowest(times));
      for (size_t i = 0; i < times.size(); ++i) {  // the runner-up to any stream
        const KLT_NextStream second = tree.second(i);
        ASSERT_EQ(second.position, lowest(times, i));
        ASSERT_TRUE(times.size() == 1 || second.time == times[second.position]);
      }
      const size_t changed = random() % 3 == 0 ? random() % times.size() : lowest(times);
      const size_t other = random() % times.size();
      if (random() % 4 == 0) {  // a stream ends: the last one moves to its position
        times[changed] = times.back();
        tree.update(changed, times.back());
        tree.removeLast();
        times.pop_back();
      } else if (other != changed && random() % 2 == 0) {
        tree.update(changed, step(changed), other, step(other));
      } else {
        tree.update(changed, step(changed));
      }
    }
  }
}

// All events. With slices each call has a time limit of 0. `stopAt` is that of a Recorder.
Lines eventsOf(KLT_FileHandle* trace, bool isSliced, size_t stopAt) {
  PAL_fast = isSliced ? PAL_Fast::kAlways : PAL_Fast::kNever;
  Recorder recorder;
  recorder.stopAt = stopAt;
  const Reader reader = openReader(trace, recorder.table, {}, 1, KLT_MODE_EVENTS);
  int status = KLT_STATUS_BUILT;
  while (status != KLT_STATUS_FINISHED && status != KLT_STATUS_ABORTING) {
    status = KLT_ReadEvents(reader.get(), isSliced ? 0 : -1);
  }
  PAL_fast = PAL_Fast::kIfUseful;
  return std::move(recorder.lines);
}

TEST(KltOrder, SlicesDeliverSamplesInTheOrderOfTurns) {
  const Messages messages;
  size_t samples = 0;
  for (const auto& sample : std::filesystem::directory_iterator(KLT_TEST_DATA)) {
    const std::string name = sample.path() / "t.klt";
    if (!std::filesystem::exists(name)) continue;
    const KLT_OwnedTrace trace(KLT_Open(name.c_str()));
    ASSERT_NE(trace, nullptr) << name;
    const Lines expected = eventsOf(trace.get(), false, 0);
    for (const size_t stopAt : {size_t{0}, expected.size() / 2}) {
      EXPECT_EQ(
          difference(eventsOf(trace.get(), false, stopAt), eventsOf(trace.get(), true, stopAt)), "")
          << name;
    }
    ++samples;
  }
  EXPECT_GT(samples, 10U);
}

}  // namespace
