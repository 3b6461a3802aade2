// Writes the trace of four processes that pass a message in a ring and meet in a barrier.
//
// Usage: ring TRACE          then: klttool TRACE --dump
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "klt/klt_writer.h"

namespace {

constexpr uint32_t kProcesses = 4;
constexpr uint32_t kMain = 1, kSend = 2, kReceive = 3, kBarrier = 4;
constexpr uint32_t kWorld = 1;
constexpr uint64_t kMicrosecond = 1000;  // in ticks of a nanosecond

void writeProcess(KLT_TraceWriter* trace, uint32_t p) {
  const uint32_t thread = KLT_ThreadOf(p, 0);
  const uint64_t start = 10 * p * kMicrosecond;
  const auto call = [&](uint32_t function, uint64_t from, uint64_t to) {
    KLT_PutEnter(trace, from, thread, function);
    KLT_PutLeave(trace, to, thread);
  };
  KLT_PutEnter(trace, 0, thread, kMain);
  if (p > 0) call(kReceive, kMicrosecond, start);
  if (p + 1 < kProcesses) call(kSend, start + kMicrosecond, start + 3 * kMicrosecond);
  call(kBarrier, start + 4 * kMicrosecond, 50 * kMicrosecond);
  KLT_PutLeave(trace, 60 * kMicrosecond, thread);
}

}  // namespace

int main(int argc, char** argv) {
  std::string error;
  const KLT_OwnedWriter owner(argc == 2 ? KLT_CreateTrace(argv[1], {}, error) : nullptr);
  KLT_TraceWriter* const trace = owner.get();
  if (trace == nullptr) {
    std::fprintf(stderr, "%s\n", argc == 2 ? error.c_str() : "usage: ring TRACE");
    return 1;
  }
  KLT_DefineProcesses(trace, std::vector<uint32_t>(kProcesses, 1));
  KLT_DefineCommunicator(trace, kWorld, "world", std::vector<uint32_t>{0, 1, 2, 3});
  KLT_DefineFunction(trace, kMain, "main", kKltClassApplication);
  KLT_DefineFunction(trace, kSend, "MPI_Send", kKltClassMpi);
  KLT_DefineFunction(trace, kReceive, "MPI_Recv", kKltClassMpi);
  KLT_DefineFunction(trace, kBarrier, "MPI_Barrier", kKltClassMpi);
  std::vector<KLT_CollectivePart> parts;
  for (uint32_t p = 0; p < kProcesses; ++p) {
    writeProcess(trace, p);
    parts.push_back({.begin = (10 * p + 4) * kMicrosecond, .end = 50 * kMicrosecond});
  }
  for (uint32_t p = 0; p + 1 < kProcesses; ++p) {
    const uint64_t sent = (10 * p + 1) * kMicrosecond;
    KLT_PutMessage(trace, {sent, KLT_ThreadOf(p, 0), kSend},
                   {sent + 9 * kMicrosecond, KLT_ThreadOf(p + 1, 0), kReceive},
                   {.communicator = kWorld, .tag = 7, .bytes = 4096});
  }
  KLT_PutCollective(trace, KLT_CollectiveOperation("MPI_Barrier"), kWorld, 0, parts);
  const std::string problem = KLT_FinishTrace(trace);
  if (!problem.empty()) std::fprintf(stderr, "%s\n", problem.c_str());
  return problem.empty() ? 0 : 1;
}
