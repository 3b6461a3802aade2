// Converts the ticks of the processes to one clock, in nanoseconds since the start of the run.
//
// The processes of one host have one clock, so they share one conversion. The clocks of other hosts
// than that of process 0 are corrected by the offsets that have been measured at the start and the
// end of the run; in between the drift is taken as constant.
#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <vector>

#include "record/convert/klt_spool_reader.h"

namespace record {

// A line: time = base + (ticks - ticks0) * slope.
struct TimeLine {
  uint64_t ticks0 = 0;
  double base = 0;
  double slope = 1;

  [[nodiscard]] double at(uint64_t ticks) const {
    return base + static_cast<double>(static_cast<int64_t>(ticks - ticks0)) * slope;
  }
};

class RunClock {
 public:
  explicit RunClock(std::span<const Process> processes);

  // The line of the host of a process.
  [[nodiscard]] const TimeLine& lineOf(const Process& process) const;

 private:
  std::map<uint64_t, TimeLine> lines_;  // by host
};

}  // namespace record
