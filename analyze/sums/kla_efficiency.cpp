// Computes efficiencies. See kla_efficiency.h.
#include "analyze/sums/kla_efficiency.h"

#include <algorithm>

namespace kla {

Time MpiBins::edge(uint32_t bin) const { return edgeOf(span_, bin, bins_); }

void MpiBins::add(uint32_t process, Time from, Time to) {
  from = std::max(from, span_.start);
  to = std::min(to, span_.end);
  if (from >= to) return;
  if (times_.size() <= process) times_.resize(process + 1);
  std::vector<Time>& times = times_[process];
  if (times.empty()) times.resize(bins_);
  auto bin = static_cast<uint32_t>(Sum{from - span_.start} * bins_ / (span_.end - span_.start));
  while (bin + 1 < bins_ && edge(bin + 1) <= from) ++bin;
  for (; bin < bins_ && from < to; ++bin) {
    const Time until = std::min(to, edge(bin + 1));
    times[bin] += until - from;
    from = until;
  }
}

std::vector<EfficiencyRow> MpiBins::rows(const std::vector<uint32_t>& processes) const {
  std::vector<EfficiencyRow> rows;
  std::vector<Time> mpi(processes.size());
  for (uint32_t bin = 0; bin < bins_; ++bin) {
    for (size_t i = 0; i < processes.size(); ++i) {
      const bool hasCalls = processes[i] < times_.size() && !times_[processes[i]].empty();
      mpi[i] = hasCalls ? times_[processes[i]][bin] : 0;
    }
    rows.push_back(efficiencyOf({edge(bin), edge(bin + 1)}, mpi));
  }
  return rows;
}

EfficiencyRow efficiencyOf(Window window, const std::vector<Time>& mpi) {
  EfficiencyRow row{window.start, window.end, 0, 0, 0};
  const Time length = window.end - window.start;
  if (mpi.empty() || length == 0) return row;
  Sum sum = 0;
  Time longest = 0;
  for (const Time time : mpi) {
    const Time outside = length - std::min(length, time);
    sum += outside;
    longest = std::max(longest, outside);
  }
  const double mean = static_cast<double>(sum) / static_cast<double>(mpi.size());
  row.parallel = mean / static_cast<double>(length);
  row.communication = static_cast<double>(longest) / static_cast<double>(length);
  row.loadBalance = longest == 0 ? 1 : mean / static_cast<double>(longest);
  return row;
}

}  // namespace kla
