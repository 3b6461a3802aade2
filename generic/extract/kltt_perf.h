// The performance test: how fast the reader finds a moment in a trace.
//
// First the collective operations of the trace are gathered; then the state at many of these
// moments is asked for, each time by a new reader with requests of one tick. Times go to standard
// error, of the events nothing is written. RK_conf.perftest is the number of readers in each of the
// four measurements.
#pragma once

#include <cstdint>

class KLTT_PassRunner;
struct KLTT_Context;

// Gathers and measures. Failures are judged by `passes`, as those of any pass.
void KLTT_RunPerfTests(KLTT_PassRunner& passes, KLTT_Context& context, int serial);

// The gathering handlers: `user` is the KLTT_Context, the other arguments are those of
// KLT_HandlerTable. They return 0; an unknown communicator ends the process.
int KLTT_GatherOneToAll(void* user, uint64_t time, uint32_t sender, uint32_t sent,
                        uint32_t communicator, uint32_t type, uint32_t n, const uint64_t* starts,
                        const uint64_t* deltas, const uint32_t* received, const uint32_t* scls);
int KLTT_GatherAllToOne(void* user, uint64_t time, uint32_t receiver, uint32_t recvd,
                        uint32_t communicator, uint32_t type, uint32_t n, const uint64_t* starts,
                        const uint64_t* deltas, const uint32_t* sendSizes, const uint32_t* scls);
int KLTT_GatherAllToAll(void* user, uint64_t time, uint32_t communicator, uint32_t type, uint32_t n,
                        const uint64_t* starts, const uint64_t* deltas, const uint32_t* sendSizes,
                        const uint32_t* receiveSizes, const uint32_t* scls);
int KLTT_GatherAll(void* user, uint64_t time, uint32_t communicator, uint32_t type, uint32_t n,
                   const uint64_t* starts, const uint64_t* deltas, const uint32_t* scls);
