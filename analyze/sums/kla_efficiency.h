// Parallel efficiency over time: the time that the first thread of each process spends outside MPI,
// in bins of the same length.
#pragma once

#include <cstdint>
#include <vector>

#include "analyze/core/kla_types.h"

namespace kla {

struct EfficiencyRow {
  Time from, to;
  double parallel, loadBalance, communication;
};

class MpiBins {
 public:
  // REQUIRES: bins > 0, span.start < span.end.
  MpiBins(Window span, uint32_t bins) : span_(span), bins_(bins) {}

  // An outermost MPI call of a process.
  void add(uint32_t process, Time from, Time to);
  // The efficiencies of the bins, for these processes.
  [[nodiscard]] std::vector<EfficiencyRow> rows(const std::vector<uint32_t>& processes) const;

  [[nodiscard]] Time edge(uint32_t bin) const;

 private:
  Window span_;
  uint32_t bins_;
  std::vector<std::vector<Time>> times_;  // by process and bin; empty if there are no MPI calls
};

// The efficiency of a window of which `mpi` was spent in MPI by each process.
[[nodiscard]] EfficiencyRow efficiencyOf(Window window, const std::vector<Time>& mpi);

}  // namespace kla
