// Handlers of the precomputed statistics in a trace, printed on standard output.
//
// `user` is the KLTT_Context, the other arguments are those of KLT_HandlerTable. The lines share
// the buffer of standard output with a trace text that goes there, so the order holds. A statistic
// for an id that the trace doesn't define ends the process.
#pragma once

#include <cstdint>

// One line in seconds for a function on a thread.
int KLTT_FunctionStatistics(void* user, uint32_t function, uint32_t gtp, uint32_t calls,
                            uint64_t minSelf, uint64_t maxSelf, uint64_t totalSelf,
                            uint64_t minInclusive, uint64_t maxInclusive, uint64_t totalInclusive);
// Prints nothing.
int KLTT_OneToOneStatistics(void* user, uint32_t sender, uint32_t receiver, uint32_t count,
                            uint32_t minSize, uint32_t maxSize, uint32_t total);
// Prints nothing, but checks the operation.
int KLTT_CollopStatistics(void* user, uint32_t numprocs, uint32_t type, uint32_t count);
