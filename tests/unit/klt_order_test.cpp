// The order of records from slices against that from turns, in all samples.
#include "klt/read/klt_order.h"

#include <filesystem>
#include <string>

#include "klt/read/klt_reader.h"
#include "tests/unit/klt_reading.h"

namespace {

using namespace reading;

// All events, read in calls that end as soon as they may; `stopAt` as in a Recorder.
Lines eventsOf(KLT_FileHandle* trace, bool isSliced, size_t stopAt) {
  Recorder recorder;
  recorder.stopAt = stopAt;
  const Reader reader = openReader(trace, recorder.table, {}, 1, KLT_MODE_EVENTS);
  if (isSliced) reader->slice.forceSlices();
  int status = KLT_STATUS_BUILT;
  while (status != KLT_STATUS_FINISHED && status != KLT_STATUS_ABORTING) {
    status = KLT_ReadEvents(reader.get(), isSliced ? 0 : -1);
  }
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
