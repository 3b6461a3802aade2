// KLTT_Clock converts raw time to internal time, and knows whether a history is being read.
//
// Raw time is what the trace stores: tick << eventBits | counter, where `counter` is the number of
// the event within its tick. Internal time is tick << 13 | counter in every trace.
#pragma once

#include <cstdint>

inline constexpr uint32_t kKlttEventBits = 13;
inline constexpr uint64_t kKlttMaxEvents = uint64_t{1} << kKlttEventBits;
inline constexpr uint64_t kKlttMaxTicks = uint64_t{1} << 51;

struct KLTT_Clock {
  uint32_t eventBits = 0;       // at most 63
  uint64_t counterMask = 0;     // the low `eventBits` bits
  bool ticksReported = false;   // a time with too many ticks has been reported
  bool eventsReported = false;  // a time with too many events has been reported

  bool inHistory = false;    // between the start and the end of a history
  uint64_t historyTime = 0;  // raw time at which the window of the history begins
};

// The rare case of KLTT_InternalTime: truncates a time that doesn't fit, and reports the first one.
uint64_t KLTT_TruncatedTime(KLTT_Clock& clock, uint64_t rawTime);

// Raw time as internal time.
[[nodiscard]] inline uint64_t KLTT_InternalTime(KLTT_Clock& clock, uint64_t rawTime) {
  const uint64_t tick = rawTime >> clock.eventBits;
  const uint64_t counter = rawTime & clock.counterMask;
  if (tick >= kKlttMaxTicks || counter >= kKlttMaxEvents) [[unlikely]]
    return KLTT_TruncatedTime(clock, rawTime);
  return tick << kKlttEventBits | counter;
}

// The raw time at which a message or a scope is written: its own time, or the start of the window
// if it is part of a history.
[[nodiscard]] inline uint64_t KLTT_EventTime(const KLTT_Clock& clock, uint64_t rawTime) {
  return clock.inHistory ? clock.historyTime : rawTime;
}
