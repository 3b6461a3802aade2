// Makes the trace of a synthetic run for measurements.
//
// Usage: make_trace KIND DIRECTORY PROCESSES ITERATIONS
//
// The trace is DIRECTORY/t.klt. In each iteration every process begins two calls, sends a message
// to its right neighbour, receives one from its left, and ends the calls: six lines of text. KIND:
//
//   merged      this
//   raw         each side of a message is an event of its own
//   compressed  raw, with compressed components
//   realistic   each process begins or ends eight calls in an iteration, of 200 functions, up to 12
//               deep, and sends a message to one of 6 others, with one of 8 tags
//   rawevents   realistic, where each side of a message is an event of its own
//   keys        realistic, but nearly every message has its own tag
//   flight      merged, but no message arrives before the end of the run
//   scopes      each process begins a scope in each iteration; they end in the same order after the
//               last one
//   functions   an iteration is the definition of a function and one call of it, on process 0
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tests/builder/trace_builder.h"

namespace {

constexpr uint64_t kStepTicks = 90;
constexpr uint64_t kIterationTicks = 600;
constexpr size_t kAnchorBytes = 0x10000;
constexpr uint32_t kSize = 1024;
constexpr uint32_t kSend = 7;
constexpr uint32_t kReceive = 8;

struct Run {
  uint32_t processes;
  uint64_t iterations;

  [[nodiscard]] uint64_t time(uint64_t iteration, uint32_t process, uint64_t step) const {
    return 1000 + iteration * kIterationTicks + step * kStepTicks + process % 100;
  }
  [[nodiscard]] uint32_t right(uint32_t process) const { return (process + 1) % processes; }
  [[nodiscard]] uint32_t left(uint32_t process) const {
    return (process + processes - 1) % processes;
  }
  [[nodiscard]] unsigned processBits() const {
    unsigned bits = 2;
    while ((processes - 1) >> bits != 0) ++bits;
    return bits;
  }
};

void define(tb::Trace& trace, const Run& run) {
  trace.clock(1e-9, 0)
      .duration(0, run.time(run.iterations, 0, 0))
      .processes(std::vector<uint32_t>(run.processes, 1))
      .defineClass(1, "Application")
      .function(1, "step", 1)
      .function(2, "MPI_Sendrecv", 1)
      .communicator(1, "world", {{0, static_cast<int32_t>(run.processes) - 1, 1}});
  const uint64_t messages = run.iterations * run.processes;
  trace.declarations().record(
      47,
      {{"info_class", 1},
       {"info", "number of events: " + std::to_string(2 * messages) + " functions, " +
                    std::to_string(messages) + " onetoones, 0 collectives, 0 scopes, 0 counters"}});
}

void calls(tb::Trace& trace, const Run& run) {
  for (uint32_t p = 0; p < run.processes; ++p) {
    tb::Stream& s = trace.stream("f." + std::to_string(p), tb::FUNCTIONS, {p});
    s.anchorEvery(kAnchorBytes);
    for (uint64_t i = 0; i < run.iterations; ++i) {
      s.at(run.time(i, p, 0)).enter(p, 1).at(run.time(i, p, 1)).enter(p, 2);
      s.at(run.time(i, p, 4)).leave(p).at(run.time(i, p, 5)).leave(p);
    }
  }
}

void messages(tb::Trace& trace, const Run& run, bool arrive) {
  tb::Stream& s = trace.stream("msg", tb::MESSAGES);
  s.anchorEvery(kAnchorBytes);
  for (uint64_t i = 0; i < run.iterations; ++i) {
    for (uint32_t offset = 0; offset < 100 && offset < run.processes; ++offset) {
      for (uint32_t p = offset; p < run.processes; p += 100) {
        const uint64_t sent = run.time(i, p, 2);
        const uint64_t received = run.time(arrive ? i : run.iterations + i, run.right(p), 3);
        s.at(sent).message({.sender = p,
                            .receiver = run.right(p),
                            .receiveTime = static_cast<int64_t>(received - sent),
                            .communicator = 1,
                            .size = kSize,
                            .tag = 1,
                            .senderFunction = 2,
                            .receiverFunction = 2});
      }
    }
  }
}

// --- realistic runs -----------------------------------------------------------------------------

constexpr uint32_t kFunctions = 200;
constexpr uint32_t kCallsPerIteration = 8;
constexpr uint32_t kDepth = 12;

// Random numbers below a limit, the same in every run.
class Random {
 public:
  explicit Random(uint32_t seed) : engine_(seed) {}
  uint32_t operator()(uint32_t limit) { return static_cast<uint32_t>(engine_() % limit); }

 private:
  std::mt19937 engine_;
};

void nestedCalls(tb::Trace& trace, const Run& run) {
  for (uint32_t f = 1; f <= kFunctions; ++f) trace.function(f, "work" + std::to_string(f), 1);
  for (uint32_t p = 0; p < run.processes; ++p) {
    Random random(p);
    tb::Stream& s = trace.stream("f." + std::to_string(p), tb::FUNCTIONS, {p});
    s.anchorEvery(kAnchorBytes);
    uint32_t depth = 0;
    for (uint64_t i = 0; i < run.iterations; ++i) {
      for (uint32_t k = 0; k < kCallsPerIteration; ++k) {
        const uint64_t time = 1000 + i * kIterationTicks + k * 70 + random(60);
        const bool begins = depth == 0 || (depth < kDepth && random(2) == 0);
        s.at(time);
        begins ? s.enter(p, 1 + random(kFunctions)) : s.leave(p);
        depth += begins ? 1U : ~0U;
      }
    }
    s.at(run.time(run.iterations, 0, 0));
    for (; depth > 0; --depth) s.leave(p);
  }
}

void scatteredMessages(tb::Trace& trace, const Run& run, uint32_t tags) {
  Random random(1);
  tb::Stream& s = trace.stream("msg", tb::MESSAGES);
  s.anchorEvery(kAnchorBytes);
  for (uint64_t i = 0; i < run.iterations; ++i) {
    for (uint32_t k = 0; k < run.processes; ++k) {
      const uint32_t sender = random(run.processes);
      const uint32_t tag = random(tags);
      const uint32_t function = 1 + tag % kFunctions;
      s.at(1000 + i * kIterationTicks + k * kIterationTicks / run.processes)
          .message({.sender = sender,
                    .receiver = (sender + 1 + random(6)) % run.processes,
                    .receiveTime = int64_t{100} + random(1000),
                    .communicator = 1,
                    .size = kSize << tag % 8,
                    .tag = tag,
                    .senderFunction = function,
                    .receiverFunction = function});
    }
  }
}

// The sides of such messages, in the streams of their processes. Two receives with the same key may
// be in another order than their sends.
void scatteredEvents(tb::Trace& trace, const Run& run, uint32_t tags) {
  Random random(1);
  std::vector<std::vector<std::pair<uint64_t, tb::RawMessage>>> events(run.processes);
  const auto add = [&](uint32_t process, uint64_t time, uint32_t kind, uint32_t other,
                       uint32_t tag) {
    events[process].push_back({time,
                               {.thread = process,
                                .kind = kind | process << 6,
                                .other = other,
                                .tag = tag,
                                .size = kSize << tag % 8,
                                .communicator = 1,
                                .function = 1 + tag % kFunctions}});
  };
  for (uint64_t i = 0; i < run.iterations; ++i) {
    for (uint32_t k = 0; k < run.processes; ++k) {
      const uint32_t sender = random(run.processes);
      const uint32_t receiver = (sender + 1 + random(6)) % run.processes;
      const uint32_t tag = random(tags);
      const uint64_t time = 1000 + i * kIterationTicks + k * kIterationTicks / run.processes;
      add(sender, time, kSend, receiver, tag);
      add(receiver, time + 100 + random(1000), kReceive, sender, tag);
    }
  }
  for (uint32_t p = 0; p < run.processes; ++p) {
    tb::Stream& s = trace.stream("r." + std::to_string(p), tb::RAW_EVENTS, {p});
    s.anchorEvery(kAnchorBytes);
    std::stable_sort(events[p].begin(), events[p].end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    for (const auto& [time, event] : events[p]) s.at(time).rawMessage(event);
  }
}

// --- special shapes -----------------------------------------------------------------------------

void openScopes(tb::Trace& trace, const Run& run) {
  trace.scope(1, "s", 1);
  for (uint32_t p = 0; p < run.processes; ++p) {
    tb::Stream& s = trace.stream("s." + std::to_string(p), tb::SCOPES, {p});
    s.anchorEvery(kAnchorBytes);
    const auto count = static_cast<uint32_t>(run.iterations);
    for (uint32_t i = 0; i < count; ++i) s.at(run.time(i, p, 0)).enterScope(p, 1, i);
    for (uint32_t i = 0; i < count; ++i) s.at(run.time(count + i, p, 0)).leaveScope(p, 1, i);
  }
}

void manyFunctions(tb::Trace& trace, const Run& run) {
  tb::Stream& s = trace.stream("f.0", tb::FUNCTIONS, {0});
  for (uint32_t i = 0; i < run.iterations; ++i) {
    trace.function(10 + i, "function_number_" + std::to_string(i), 1);
    s.at(run.time(i, 0, 0)).enter(0, 10 + i).at(run.time(i, 0, 1)).leave(0);
  }
}

void rawEvents(tb::Trace& trace, const Run& run) {
  for (uint32_t p = 0; p < run.processes; ++p) {
    tb::Stream& s = trace.stream("r." + std::to_string(p), tb::RAW_EVENTS, {p});
    s.anchorEvery(kAnchorBytes);
    for (uint64_t i = 0; i < run.iterations; ++i) {
      tb::RawMessage event{.thread = p,
                           .kind = kSend | p << 6,
                           .other = run.right(p),
                           .tag = 1,
                           .size = kSize,
                           .communicator = 1,
                           .function = 2};
      s.at(run.time(i, p, 2)).rawMessage(event);
      event.kind = kReceive | p << 6;
      event.other = run.left(p);
      s.at(run.time(i, p, 3)).rawMessage(event);
    }
  }
}

using Contents = void (*)(tb::Trace&, const Run&);

struct Kind {
  std::string_view name;
  int flags;  // of the index
  Contents contents;
};

constexpr Kind kKinds[] = {
    {"merged", 0, [](auto& t, auto& r) { calls(t, r), messages(t, r, true); }},
    {"raw", 1, [](auto& t, auto& r) { calls(t, r), rawEvents(t, r); }},
    {"compressed", 3, [](auto& t, auto& r) { calls(t, r), rawEvents(t, r); }},
    {"realistic", 0, [](auto& t, auto& r) { nestedCalls(t, r), scatteredMessages(t, r, 8); }},
    {"rawevents", 1, [](auto& t, auto& r) { nestedCalls(t, r), scatteredEvents(t, r, 8); }},
    {"keys", 0, [](auto& t, auto& r) { nestedCalls(t, r), scatteredMessages(t, r, 1U << 30); }},
    {"flight", 0, [](auto& t, auto& r) { messages(t, r, false); }},
    {"scopes", 0, openScopes},
    {"functions", 0, manyFunctions},
};

int make(const Kind& kind, const std::string& directory, const Run& run) {
  tb::Trace trace(kind.flags);
  define(trace, run);
  kind.contents(trace, run);
  std::filesystem::create_directories(directory);
  const tb::TraceFiles files = trace.files();
  for (const auto& [key, bytes] : files.parts()) {
    tb::writeFile(directory + "/t.klt" + (key == " " ? "" : key), bytes);
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string_view name = argc == 5 ? argv[1] : "";
  for (const Kind& kind : kKinds) {
    if (kind.name != name) continue;
    const Run run{static_cast<uint32_t>(std::strtoul(argv[3], nullptr, 10)),
                  std::strtoull(argv[4], nullptr, 10)};
    return make(kind, argv[2], run);
  }
  std::fputs("usage: make_trace KIND DIRECTORY PROCESSES ITERATIONS\n", stderr);
  for (const Kind& kind : kKinds) {
    std::fprintf(stderr, "  %.*s\n", static_cast<int>(kind.name.size()), kind.name.data());
  }
  return 1;
}
