// The performance test measures how fast the reader finds a point in time in a trace.
//
// It first gathers the collective operations of the trace. Then it requests the state at the times
// of many operations, each time by a new reader with requests of one unit of raw time. The measured
// times are written to standard error; events aren't written.
#pragma once

#include <cstdint>

class KLTT_PassRunner;
struct KLTT_CollectiveRecord;
struct KLTT_Context;
struct KLT_HandlerTable;

// Gathers an operation; for KLTT_CollectiveHandlers. `user` is the KLTT_Context. Returns 0; an
// unknown communicator ends the process.
int KLTT_GatherCollective(void* user, const KLTT_CollectiveRecord& record);

// The gathered operations that a measurement visits, and their members.
struct KLTT_PerfChoice {
  bool subset;        // some operations in order; otherwise all, in steps of many operations
  bool allProcesses;  // all members that took part; otherwise the first of them
};

// Makes one measurement with `runs` readers. `table` has the handlers of events, which write
// nothing if the context has no sink. `passes` handles failures, as in other passes.
void KLTT_PerfTest(KLTT_Context& context, KLT_HandlerTable& table, KLTT_PassRunner& passes,
                   int32_t runs, KLTT_PerfChoice choice);
