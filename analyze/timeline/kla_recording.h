// What a page contains, collected during a pass: the longest calls, messages, operations, waits,
// scopes and file operations, the density of functions, and the tracks of counters.
#pragma once

#include <cstdint>
#include <map>
#include <utility>
#include <vector>

#include "analyze/pass/kla_pass.h"
#include "analyze/timeline/kla_density.h"
#include "analyze/timeline/kla_longest.h"

namespace kla {

// A call, a scope or a file operation. `what` is the function, the scope or the file.
struct Bar {
  uint32_t thread, what, depth, number;
  Time from, to;
  [[nodiscard]] Time length() const { return to - from; }
};
struct Line {
  uint32_t sender, receiver, bytes, tag, communicator;
  Time sent, received;
  [[nodiscard]] Time length() const { return sent < received ? received - sent : sent - received; }
};
struct Operation {
  uint32_t operation, communicator;
  std::vector<Part> parts;
  Time from, to;
  [[nodiscard]] Time length() const { return to - from; }
};
struct WaitBar {
  Wait wait;
  [[nodiscard]] Time length() const { return wait.to - wait.from; }
};
// The lowest and the highest value of a counter in each part of the time.
struct Track {
  struct Point {
    Time time = 0;
    double low = 0, high = 0;
  };
  std::vector<Point> points;
};

class Recording : public Listener {
 public:
  // `analysis` will run the pass.
  explicit Recording(Analysis& analysis);

  void begin(Window span) override;
  void enter(uint32_t thread, Time time, uint32_t function) override;
  void leave(uint32_t thread, Time time) override;
  void message(uint32_t sender, Time sent, uint32_t receiver, Time received, uint32_t bytes,
               uint32_t tag, uint32_t communicator) override;
  void scope(uint32_t thread, Time time, uint32_t scope, uint32_t number, bool begins) override;
  void sample(uint32_t thread, Time time, uint32_t counter, double value) override;
  void file(uint32_t thread, Time from, Time to, uint32_t file, uint32_t type,
            uint32_t bytes) override;
  // After the pass.
  void finish();

  Longest<Bar> calls, scopes, files;
  Longest<Line> messages;
  Longest<Operation> operations;
  Longest<WaitBar> waits;
  Density density;
  std::map<std::pair<uint32_t, uint32_t>, Track> tracks;  // by thread and counter

 private:
  struct Frame {
    uint32_t function;
    Time enter;
  };
  std::vector<Frame>& stackOf(uint32_t thread);
  void stackScopes();

  Analysis& analysis_;
  Window span_;
  std::vector<std::vector<Frame>> stacks_;
  std::map<std::pair<uint64_t, uint32_t>, Time> openScopes_;  // by thread and scope, and number
};

}  // namespace kla
