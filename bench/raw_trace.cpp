// Makes a raw trace for measurements: processes exchange messages in rounds, and all of them take
// part in a collective operation in some rounds.
//
//   klt_raw_trace NAME PROCESSES EVENTS [COLLECTIVE-EVERY [CALLS]]
//
// In each round every process logs a send to one neighbour and a receive from another, and in every
// COLLECTIVE-EVERY-th round (default 64; 0 for never) its part of an operation, until there are
// about EVENTS raw events. If CALLS (default 0) is not zero, each event is within a function call.
// The trace is written to NAME and its components. Components are encoded here in bulk, because the
// builder of the tests is meant for small traces.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "tests/builder/trace_builder.h"

namespace {

constexpr uint32_t kEventBits = 4;
constexpr uint64_t kRoundTicks = 1000;

// The bytes of a component. Steps of time must fit in 16 bits.
class Component {
 public:
  void begin(uint8_t row, uint64_t time) {
    byte(row);
    put(time - time_, 2);
    time_ = time;
  }
  void byte(uint8_t value) { bytes_ += static_cast<char>(value); }
  void put(uint64_t value, unsigned width) {
    for (unsigned i = width; i-- > 0;) byte(static_cast<uint8_t>(value >> (8 * i)));
  }
  [[nodiscard]] const std::string& bytes() const { return bytes_; }

 private:
  std::string bytes_;
  uint64_t time_ = 0;
};

// One process with its components.
struct Process {
  uint32_t gtp = 0;
  Component raw, calls;
  uint32_t random = 1;

  uint32_t noise(uint32_t below) {
    random = random * 1664525 + 1013904223;
    return (random >> 8) % below;
  }
  // Ticks since the start, in the unit of the trace.
  static uint64_t stamp(uint64_t ticks) { return ticks << kEventBits; }

  void message(uint64_t ticks, bool sends, uint32_t other, uint32_t tag, uint32_t size) {
    raw.begin(53, stamp(ticks));
    raw.put(gtp, 4);
    raw.put((sends ? 7U : 8U) | gtp << 6, 4);
    raw.put(other, 4);
    raw.put(tag, 2);
    raw.put(size, 4);
    raw.put(1, 2);
    raw.put(sends ? 20 : 21, 4);
    raw.put(0, 4);
  }
  void collective(uint64_t ticks, uint64_t ends, uint32_t counter) {
    constexpr uint32_t kAllreduce = 36;
    raw.begin(16, stamp(ticks));
    raw.put(gtp, 4);
    raw.put(10U | gtp << 6, 4);
    raw.put(kAllreduce, 4);
    raw.put(1, 2);
    raw.put(counter, 4);
    raw.put(0, 4);
    raw.put(8, 4);
    raw.put(8, 4);
    raw.put(stamp(ends), 8);
    raw.put(0, 4);
  }
  void call(uint64_t from, uint64_t to, uint32_t function) {
    calls.begin(28, stamp(from));
    calls.put(gtp, 4);
    calls.put(function, 4);
    calls.begin(48, stamp(to));
    calls.put(gtp, 4);
  }
};

void runRound(std::vector<Process>& processes, uint64_t round, uint32_t collectiveEvery,
              bool calls) {
  const auto n = static_cast<uint32_t>(processes.size());
  const auto distance = static_cast<uint32_t>(1 + round % 3) % n;
  const auto tag = static_cast<uint32_t>(round % 5);
  const uint32_t size = 8U << (round % 8);
  const bool collective = collectiveEvery != 0 && round % collectiveEvery == 0;
  for (Process& p : processes) {
    const uint64_t start = round * kRoundTicks + 1;
    const uint64_t sent = start + p.noise(300);
    const uint64_t received = start + 400 + p.noise(300);
    p.message(sent, true, (p.gtp + distance) % n, tag, size);
    p.message(received, false, (p.gtp + n - distance) % n, tag, size);
    if (calls) {
      p.call(sent, sent + 10, 20);
      p.call(received - 10, received, 21);
    }
    if (!collective) continue;
    const uint64_t joined = start + 750 + p.noise(100);
    p.collective(joined, start + 900, static_cast<uint32_t>(round + 1));
    if (calls) p.call(joined, start + 900, 22);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) {
    std::fputs("usage: klt_raw_trace NAME PROCESSES EVENTS [COLLECTIVE-EVERY [CALLS]]\n", stderr);
    return 2;
  }
  const auto number = [&](int i, uint64_t preset) {
    return i < argc ? std::strtoull(argv[i], nullptr, 10) : preset;
  };
  const auto n = static_cast<uint32_t>(number(2, 0));
  const uint64_t events = number(3, 0);
  const auto collectiveEvery = static_cast<uint32_t>(number(4, 64));
  const bool calls = number(5, 0) != 0;
  if (n < 2 || n > 65535) return 2;

  std::vector<Process> processes(n);
  for (uint32_t i = 0; i < n; ++i) {
    processes[i].gtp = i;
    processes[i].random = i + 1;
  }
  uint64_t made = 0;
  uint64_t round = 0;
  for (; made < events; ++round) {
    runRound(processes, round, collectiveEvery, calls);
    made += uint64_t{2} * n + (collectiveEvery != 0 && round % collectiveEvery == 0 ? n : 0);
  }

  tb::Trace trace(1);
  trace.clock(1e-6, kEventBits).duration(0, Process::stamp(round * kRoundTicks));
  trace.processes(std::vector<uint32_t>(n, 1)).defineClass(1, "MPI");
  trace.function(20, "MPI_Send", 1).function(21, "MPI_Recv", 1).function(22, "MPI_Allreduce", 1);
  trace.communicator(1, "MPI_COMM_WORLD", {{0, static_cast<int32_t>(n) - 1, 1}});
  trace.operation(36, "MPI_Allreduce", 3);
  for (const Process& p : processes) {
    const std::string id = std::to_string(p.gtp);
    trace.stream("r." + id, tb::RAW_EVENTS, {p.gtp}).bytes(p.raw.bytes());
    if (calls) trace.stream("f." + id, tb::FUNCTIONS, {p.gtp}).bytes(p.calls.bytes());
  }
  const tb::TraceFiles files = trace.files();
  for (const auto& [key, bytes] : files.parts()) {
    tb::writeFile(argv[1] + (key == " " ? "" : key), bytes);
  }
  std::printf("%llu raw events\n", static_cast<unsigned long long>(made));
  return 0;
}
