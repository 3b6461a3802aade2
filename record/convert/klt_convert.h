// Makes a raw trace of the spools of a run.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "record/convert/klt_spool_reader.h"

namespace record {

struct ConvertResult {
  std::string error;  // empty: the trace is written
  uint64_t records = 0;
  uint64_t lostCommunicators = 0;
  uint64_t lostThreads = 0;
  bool hasOutsiders = false;         // communicators have processes outside of the run
  std::vector<uint32_t> missing;     // processes without a spool
  std::vector<uint32_t> unfinished;  // that were killed or didn't call MPI_Finalize
  std::vector<uint32_t> stopped;     // whose recording stopped because of an error
};

// REQUIRES: `processes` isn't empty, and all are of one run.
[[nodiscard]] ConvertResult convert(std::span<const Process> processes, const std::string& target);

}  // namespace record
