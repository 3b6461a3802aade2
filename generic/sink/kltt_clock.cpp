// Truncates times that internal time can't hold. See kltt_clock.h.
#include "generic/sink/kltt_clock.h"

#include <algorithm>
#include <utility>

#include "util/pal_error.h"

namespace {

void reportOnce(bool* reported, uint64_t rawTime, const char* what, uint64_t limit) {
  if (std::exchange(*reported, true)) return;
  PAL_Error("time stamp %llu exceeds maximum number of %s supported (%llu), truncating time",
            static_cast<long long unsigned>(rawTime), what, static_cast<long long unsigned>(limit));
}

}  // namespace

uint64_t KLTT_TruncatedTime(KLTT_Clock& clock, uint64_t rawTime) {
  const uint64_t tick = rawTime >> clock.eventBits;
  const uint64_t counter = rawTime & clock.counterMask;
  if (tick >= kKlttMaxTicks)
    reportOnce(&clock.ticksReported, rawTime, "clock ticks", kKlttMaxTicks);
  if (counter >= kKlttMaxEvents)
    reportOnce(&clock.eventsReported, rawTime, "events per clock tick", kKlttMaxEvents);
  return std::min(tick, kKlttMaxTicks - 1) << kKlttEventBits |
         std::min(counter, kKlttMaxEvents - 1);
}
