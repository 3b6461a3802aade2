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
  if (tick >= KLTT_MAX_TICKS)
    reportOnce(&clock.ticksReported, rawTime, "clock ticks", KLTT_MAX_TICKS);
  if (counter >= KLTT_MAX_EVENTS)
    reportOnce(&clock.eventsReported, rawTime, "events per clock tick", KLTT_MAX_EVENTS);
  return std::min(tick, KLTT_MAX_TICKS - 1) << KLTT_INTERNAL_EVENT_BITS |
         std::min(counter, KLTT_MAX_EVENTS - 1);
}
