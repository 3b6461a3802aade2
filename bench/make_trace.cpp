// Makes the trace of a synthetic run for measurements.
//
// Usage: make_trace KIND DIRECTORY PROCESSES ITERATIONS
//
// In each iteration every process begins two calls, sends a message to its right neighbour,
// receives one from its left, and ends the calls: six lines of text. KIND is `merged`, `raw` (each
// side of a message is an event of its own), or `compressed` (raw, with compressed components). The
// trace is DIRECTORY/t.klt.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "tests/builder/trace_builder.h"

namespace {

constexpr uint64_t kStepTicks = 90;
constexpr uint64_t kIterationTicks = 600;
constexpr size_t kAnchorBytes = 0x10000;
constexpr uint32_t kSize = 1024;

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
      .function(2, "exchange", 1)
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

void messages(tb::Trace& trace, const Run& run) {
  tb::Stream& s = trace.stream("msg", tb::MESSAGES);
  s.anchorEvery(kAnchorBytes);
  for (uint64_t i = 0; i < run.iterations; ++i) {
    for (uint32_t offset = 0; offset < 100 && offset < run.processes; ++offset) {
      for (uint32_t p = offset; p < run.processes; p += 100) {
        const uint64_t sent = run.time(i, p, 2);
        const uint64_t received = run.time(i, run.right(p), 3);
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

void rawEvents(tb::Trace& trace, const Run& run) {
  constexpr uint32_t kSend = 7;
  constexpr uint32_t kReceive = 8;
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

int make(std::string_view kind, const std::string& directory, const Run& run) {
  tb::Trace trace(kind == "merged" ? 0 : kind == "raw" ? 1 : 3);
  define(trace, run);
  calls(trace, run);
  if (kind == "merged")
    messages(trace, run);
  else
    rawEvents(trace, run);
  std::filesystem::create_directories(directory);
  const tb::TraceFiles files = trace.files();
  for (const auto& [key, bytes] : files.parts()) {
    tb::writeFile(directory + "/t.klt" + (key == " " ? "" : key), bytes);
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string_view kind = argc == 5 ? argv[1] : "";
  if (kind != "merged" && kind != "raw" && kind != "compressed") {
    std::fputs("usage: make_trace merged|raw|compressed DIRECTORY PROCESSES ITERATIONS\n", stderr);
    return 1;
  }
  const Run run{static_cast<uint32_t>(std::strtoul(argv[3], nullptr, 10)),
                std::strtoull(argv[4], nullptr, 10)};
  return make(kind, argv[2], run);
}
