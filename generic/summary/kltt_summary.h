// KLTT_Summary writes the summary of a run: five files with statistics over time.
//
// The run is divided into bins of equal width. For each bin the files contain the call trees of the
// threads (.fnc), the collective operations (.cop), the messages (.msg) and the counters (.cnt).
// Reports (.rep) are written in order of arrival. Memory holds one bin, the call trees and a buffer
// for each file. The arguments are raw times and differences of raw times; the summary shifts them
// right by the event bits.
#pragma once

#include <cstdint>
#include <span>

#include "generic/summary/kltt_summary_events.h"

struct KLT_FileHandle;

// A summary: an interface of six operations, each for one kind of record. Owned by the caller,
// freed by KLTT_SumClose.
struct KLTT_Summary {
  virtual ~KLTT_Summary() = default;

  // A call begins (`entering`) or ends; `function` and `scl` are ignored if it ends.
  virtual void function_event(uint64_t time, uint32_t thread, uint32_t function, uint32_t scl,
                              bool entering) = 0;
  // `root` is klt::kNoRoot if there is none.
  virtual void collective_event(uint64_t time, uint32_t root, uint32_t communicator, uint32_t type,
                                const KLTT_SumMembers& members) = 0;
  virtual void message_event(const KLTT_SumMessage& message) = 0;
  // `type` is that of the record: bit 0 is set for integers, clear for floating point.
  virtual void counter_definition(uint32_t id, uint32_t type) = 0;
  // `values` are the samples as the record's handler receives them: in host order, a double as its
  // bits.
  virtual void counter_event(uint64_t time, uint32_t thread, uint32_t n, const uint32_t* counters,
                             const uint64_t* values) = 0;
  virtual void report_event(const KLTT_SumReport& report) = 0;
};

// `events`, the number of events that `input` declares, limited to the number that its files can
// hold: a wrong number could create more bins than fit on a disk.
[[nodiscard]] uint64_t KLTT_SumEventLimit(const KLT_FileHandle* input, uint64_t events);

// The suffixes of the five files' names.
inline constexpr const char* kKlttSumSuffixes[] = {".sum.fnc", ".sum.cop", ".sum.msg", ".sum.cnt",
                                                   ".sum.rep"};

// Creates `target`.sum.fnc and the four other files and returns the handle, never null. `start` and
// `span` are the first raw time of the run and its length, `eventBits` the bits by which raw times
// are shifted right, `events` the declared number of events, which determines the number of bins,
// and `threads` the declared threads. A file that exists or can't be created is reported and not
// written; the other files are.
[[nodiscard]] KLTT_Summary* KLTT_SumOpen(const char* target, uint64_t start, uint64_t span,
                                         int32_t eventBits, uint64_t events,
                                         std::span<const uint32_t> threads);

// Writes the last bin, frees `summary`, and returns true if every file was created and is complete.
[[nodiscard]] bool KLTT_SumClose(KLTT_Summary* summary);
