// The performance test: how fast the reader finds a moment in a trace.
//
// First the collective operations of the trace are gathered; then the state at many of these
// moments is asked for, each time by a new reader with requests of one tick. Times go to standard
// error, of the events nothing is written.
#pragma once

#include <cstdint>

class KLTT_PassRunner;
struct KLTT_CollectiveRecord;
struct KLTT_Context;
struct KLT_HandlerTable;

// Gathers an operation, for KLTT_CollectiveHandlers. `user` is the KLTT_Context. Returns 0; an
// unknown communicator ends the process.
int KLTT_GatherCollective(void* user, const KLTT_CollectiveRecord& record);

// Which of the gathered operations a measurement visits, and which of their members.
struct KLTT_PerfChoice {
  bool subset;        // some operations, in order; otherwise all, so that neighbours are far apart
  bool allProcesses;  // all members, otherwise the first
};

// One measurement with `runs` readers. `table` has the handlers of events; what they deliver goes
// nowhere while the context has no sink. Failures are judged by `passes`, as those of any pass.
void KLTT_PerfTest(KLTT_Context& context, KLT_HandlerTable& table, KLTT_PassRunner& passes,
                   int32_t runs, KLTT_PerfChoice choice);
