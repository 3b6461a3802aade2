// Summary data: five files that show a whole run at a glance.
//
// The run is cut into bins of equal width; for each bin the files hold what the threads did in it:
// call trees (.fnc), collective operations (.cop), messages (.msg), counters (.cnt). Reports (.rep)
// are stored as they come. Memory is bounded by one bin, the call trees and a buffer for each file.
// Times and differences are given as they stand in the trace's records, and shifted here.
#pragma once

#include <cstdint>
#include <span>

#include "generic/summary/kltt_summary_events.h"

struct KLT_FileHandle;

// A summary: a table of six operations, each for one kind of record. Owned by the caller, freed by
// KLTT_SumClose.
struct KLTT_Summary {
  virtual ~KLTT_Summary() = default;

  // A call begins (`entering`) or ends; `function` is only looked at where it begins.
  virtual void function_event(uint64_t time, uint32_t thread, uint32_t function, uint32_t scl,
                              bool entering) = 0;
  // `root` is klt::kNoRoot where there is none.
  virtual void collective_event(uint64_t time, uint32_t root, uint32_t communicator, uint32_t type,
                                const KLTT_SumMembers& members) = 0;
  virtual void message_event(const KLTT_SumMessage& message) = 0;
  // `type` as the record has it: bit 0 tells integers from floating point.
  virtual void counter_definition(uint32_t id, uint32_t type) = 0;
  // `values` are the samples' 8 bytes as read, in the byte order of the record's handler.
  virtual void counter_event(uint64_t time, uint32_t thread, uint32_t n, const uint32_t* counters,
                             const uint64_t* values) = 0;
  virtual void report_event(const KLTT_SumReport& report) = 0;
};

// The number of events that `input` declares, cut to what its files can hold: with a number out of
// thin air there would be more bins than any disk has room for. A trace with compressed components
// is believed.
[[nodiscard]] uint64_t KLTT_SumEventLimit(const KLT_FileHandle* input, uint64_t events);

// Creates `target`.sum.fnc and its four companions and returns the handle, never null. `start` and
// `span` are the run's first time and its length in trace times, `eventBits` the bits by which
// times are shifted right, `events` the declared number of events (the number of bins follows from
// it), `threads` the declared threads in the order in which they are written. A file that exists or
// can't be created is left alone and reported at once; the other files go on.
[[nodiscard]] KLTT_Summary* KLTT_SumOpen(const char* target, uint64_t start, uint64_t span,
                                         int32_t eventBits, uint64_t events,
                                         std::span<const uint32_t> threads);

// Writes what is open, frees `summary`, and returns true if every file was created and holds all.
[[nodiscard]] bool KLTT_SumClose(KLTT_Summary* summary);
