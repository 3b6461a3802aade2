// Converts ticks to nanoseconds. See klt_time.h.
#include "record/convert/klt_time.h"

#include <algorithm>
#include <ctime>
#if defined(__x86_64__)
#include <x86intrin.h>
#endif

namespace record {
namespace {

// The rate of a host's clock from the widest pair of readings of its processes. A process that was
// killed soon after its start has one reading only; then one of now helps if this is its host.
TimeLine calibrate(std::span<const Process* const> processes) {
  klt_clock_pair first = processes.front()->header.first;
  klt_clock_pair last = processes.front()->header.last;
  for (const Process* process : processes) {
    if (process->header.first.ticks < first.ticks) first = process->header.first;
    if (process->header.last.ticks > last.ticks) last = process->header.last;
  }
  TimeLine line{first.ticks, static_cast<double>(first.other), 1};
  if ((processes.front()->header.flags & KLT_SPOOL_TSC) == 0) return line;
  constexpr uint64_t kEnough = 1000000;
#if defined(__x86_64__)
  if (last.other < first.other + kEnough) {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    last = {__rdtsc(),
            static_cast<uint64_t>(now.tv_sec) * 1000000000U + static_cast<uint64_t>(now.tv_nsec)};
  }
#endif
  if (last.ticks > first.ticks && last.other > first.other) {
    line.slope = static_cast<double>(last.other - first.other) /
                 static_cast<double>(last.ticks - first.ticks);
  }
  return line;
}

// The line of another host: its own rate and one offset, or two offsets.
TimeLine corrected(const TimeLine& own, const klt_spool_header& leader, const TimeLine& reference) {
  const klt_clock_pair& start = leader.sync[0];
  const klt_clock_pair& end = leader.sync[1];
  if ((leader.flags & KLT_SPOOL_SYNC_START) == 0) return own;
  TimeLine line{start.ticks, reference.at(start.other), own.slope};
  if ((leader.flags & KLT_SPOOL_SYNC_END) != 0 && end.ticks > start.ticks) {
    line.slope = (reference.at(end.other) - reference.at(start.other)) /
                 static_cast<double>(end.ticks - start.ticks);
  }
  return line;
}

}  // namespace

RunClock::RunClock(std::span<const Process> processes) {
  std::map<uint64_t, std::vector<const Process*>> hosts;
  for (const Process& process : processes) hosts[process.header.host_hash].push_back(&process);
  std::map<uint64_t, TimeLine> own;
  for (const auto& [host, members] : hosts) own[host] = calibrate(members);
  const auto zero = std::find_if(processes.begin(), processes.end(),
                                 [](const Process& process) { return process.header.rank == 0; });
  const uint64_t home =
      zero == processes.end() ? processes.front().header.host_hash : zero->header.host_hash;
  for (const auto& [host, members] : hosts) {
    const auto leader = std::find_if(members.begin(), members.end(), [](const Process* process) {
      return (process->header.flags & KLT_SPOOL_SYNC_START) != 0;
    });
    lines_[host] = host == home || leader == members.end()
                       ? own[host]
                       : corrected(own[host], (*leader)->header, own[home]);
  }
  double start = lineOf(processes.front()).at(processes.front().header.start);
  for (const Process& process : processes)
    start = std::min(start, lineOf(process).at(process.header.start));
  for (auto& [host, line] : lines_) line.base -= start;
}

const TimeLine& RunClock::lineOf(const Process& process) const {
  return lines_.at(process.header.host_hash);
}

}  // namespace record
