// The pass over a trace: reads the events of a window once and hands them to the parts of the
// analysis that the caller wants.
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "analyze/core/kla_calls.h"
#include "analyze/core/kla_definitions.h"
#include "analyze/core/kla_types.h"
#include "analyze/sums/kla_collectives.h"
#include "analyze/sums/kla_efficiency.h"
#include "analyze/sums/kla_messages.h"
#include "analyze/sums/kla_samples.h"
#include "analyze/sums/kla_waits.h"
#include "klt/klt.h"

namespace kla {

// What a pass computes. Calls are always read.
struct Wanted {
  bool paths = false;  // call paths of the selected threads
  bool messages = false;
  bool collectives = false;
  bool waits = false;  // also reads the threads that aren't selected, because they may be late
  bool scopes = false;
  bool counters = false;
  bool files = false;
  uint32_t bins = 0;  // of the efficiency; 0: only the whole
};

// Receives events while they are read, for programs that draw. Times lie in the window.
class Listener {
 public:
  Listener() = default;
  virtual ~Listener() = default;
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  // Before the first event, if the pass has bins: the span.
  virtual void begin(Window span) = 0;
  virtual void enter(uint32_t thread, Time time, uint32_t function) = 0;
  virtual void leave(uint32_t thread, Time time) = 0;
  // A message with both sides; its receipt may be before its send or after the window.
  virtual void message(uint32_t sender, Time sent, uint32_t receiver, Time received, uint32_t bytes,
                       uint32_t tag, uint32_t communicator) = 0;
  virtual void scope(uint32_t thread, Time time, uint32_t scope, uint32_t number, bool begins) = 0;
  virtual void sample(uint32_t thread, Time time, uint32_t counter, double value) = 0;
  virtual void file(uint32_t thread, Time from, Time to, uint32_t file, uint32_t type,
                    uint32_t bytes) = 0;
};

class Analysis {
 public:
  // The trace must stay open as long as the analysis is used.
  explicit Analysis(KLT_FileHandle* trace) : trace_(trace) {}
  Analysis(const Analysis&) = delete;
  Analysis& operator=(const Analysis&) = delete;

  // Reads the definitions; before everything else. Returns whether anything could be read.
  bool readDefinitions();
  // Selects a window of raw time; the whole trace by default.
  void select(Window window) { window_ = window; }
  // Selects threads for the tables; all by default.
  void select(const PAL_Triplets& threads);
  Listener* listener = nullptr;
  // Reads the events. Returns the reader's last result.
  int run(const Wanted& wanted);

  Definitions definitions;
  Calls calls;
  Waits waits{calls};
  Collectives collectives{definitions, calls};
  Messages messages;
  Samples samples;
  FileOperations files;
  std::unique_ptr<MpiBins> bins;
  uint64_t enters = 0, scopes = 0, rawEvents = 0;
  uint64_t strayLeaves = 0;  // ends of calls without a start
  bool damaged = false;      // parts of the trace couldn't be read

  // From the first to the last call of the selected threads, or the window; without any calls,
  // from the first to the last event.
  [[nodiscard]] Window span() const { return span_; }
  // Whether a thread is selected and has calls.
  [[nodiscard]] bool counts(uint32_t thread) const;
  // The processes with such threads, and the indices of these threads, both ascending.
  struct Process {
    uint32_t process;
    std::vector<uint32_t> threads;
  };
  [[nodiscard]] std::vector<Process> processes() const;
  [[nodiscard]] uint64_t threadCount() const;
  [[nodiscard]] double seconds(Sum ticks) const {
    return static_cast<double>(ticks) * definitions.resolution;
  }

  // For the handlers: the time of a call, not before the span, and the time of another event.
  Time timeOf(Time time, bool selected) {
    if (first_ == kNever && selected) first_ = time;
    if (first_ != kNever) time = std::max(time, first_);
    if (selected) last_ = std::max(last_, time);
    return time;
  }
  void otherEvent(Time time) {
    otherFirst_ = std::min(otherFirst_, time);
    otherLast_ = std::max(otherLast_, time);
  }
  [[nodiscard]] const Wanted& wanted() const { return wanted_; }

 private:
  [[nodiscard]] Time windowEnd() const;
  void finish();
  void addDeclaredThreads();

  KLT_FileHandle* trace_;
  std::optional<Window> window_;
  PAL_Triplets threads_;
  Wanted wanted_;
  Time first_ = kNever, last_ = 0;            // of calls
  Time otherFirst_ = kNever, otherLast_ = 0;  // of other events
  Window span_;
  bool anyCalls_ = false;
};

}  // namespace kla
