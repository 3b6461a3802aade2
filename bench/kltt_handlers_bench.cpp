// Measures the cost of an event in its handler, without a sink.
//
// Calls include the time conversion, the check of the queue, the lookups and the stacks. Messages
// also include the pending queue, with few or many overlapping delays.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <random>
#include <vector>

#include "generic/handlers/kltt_events.h"
#include "generic/handlers/kltt_messages.h"
#include "generic/handlers/kltt_tables.h"
#include "generic/options/RK_conf.h"

namespace {

constexpr uint32_t kFunctions = 500;

void define(KLTT_Context& context) {
  RK_ConfigDefaults();
  KLTT_ClockResolution(&context, 1e-6, 0);
  KLTT_ClassDefinition(&context, 1, "app", nullptr, 0);
  for (uint32_t id = 1; id <= kFunctions; ++id) KLTT_FunctionDefinition(&context, id, "f", 1);
}

// Calls of range(0) threads in turn, whose numbers are `step` apart.
void calls(benchmark::State& state, uint32_t step) {
  KLTT_Context context;
  define(context);
  const uint32_t threads = static_cast<uint32_t>(state.range(0));
  uint64_t time = 0;
  for (auto round : state) {
    (void)round;
    for (uint32_t i = 0; i < threads; ++i)
      KLTT_EnterFunction(&context, time++, i * step, 1 + i % kFunctions, 0);
    for (uint32_t i = 0; i < threads; ++i) KLTT_LeaveFunction(&context, time++, i * step, 0);
  }
  state.SetItemsProcessed(state.iterations() * threads * 2);
}
void callsOfProcesses(benchmark::State& state) { calls(state, 1); }
void callsOfThreads(benchmark::State& state) { calls(state, 0x10000); }
BENCHMARK(callsOfProcesses)->Arg(1)->Arg(64)->Arg(4096);
BENCHMARK(callsOfThreads)->Arg(64)->Arg(4096);

// One message per microsecond, received up to range(0) microseconds later.
void messages(benchmark::State& state) {
  KLTT_Context context;
  define(context);
  std::mt19937 random(1);
  std::vector<int64_t> delays(4096);
  for (int64_t& delay : delays)
    delay = static_cast<int64_t>(random() % static_cast<uint64_t>(state.range(0)));
  uint64_t time = 0;
  for (auto round : state) {
    (void)round;
    ++time;
    KLTT_OneToOneCommunication(&context, time, 0, delays[time % delays.size()], 1, 1, 8, 5, 0, 0, 0,
                               0, 1, 2);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(messages)->Arg(1)->Arg(100)->Arg(10000)->Arg(1000000);

}  // namespace
