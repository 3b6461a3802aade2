// Prints the listings: the files and threads of a trace, its stored statistics, and the reports of
// a message checker.
//
// `user` is the KLTT_Context, the other arguments are those of KLT_HandlerTable. Lines are written
// to the context's listing: standard output, or standard error if a binary trace is written to
// standard output. A trace text on standard output uses the same buffer, so the order of lines is
// the order of the calls. If there is a sink, only KLTT_FunctionStatistics prints. Function, collop
// and custom statistics (not profiles) for an id that the trace doesn't define end the process. All
// handlers return 0, or 1 if the output failed.
#pragma once

#include <cstdint>

struct KLT_FileHandle;

// Lists the files of a trace with their sizes on standard output.
void KLTT_PrintFiles(const KLT_FileHandle* handle);

// Handles willy_definition: prints a native thread. Threads that the trace doesn't declare are left
// out.
int KLTT_ListThread(void* user, uint32_t gtp, const char* hostname, const char* ip, uint32_t pid,
                    uint64_t tid, double offset, double skew);

// Prints a line with the times of a function on a thread, in seconds.
int KLTT_FunctionStatistics(void* user, uint32_t function, uint32_t gtp, uint32_t calls,
                            uint64_t minSelf, uint64_t maxSelf, uint64_t totalSelf,
                            uint64_t minInclusive, uint64_t maxInclusive, uint64_t totalInclusive);
// Prints nothing.
int KLTT_OneToOneStatistics(void* user, uint32_t sender, uint32_t receiver, uint32_t count,
                            uint32_t minSize, uint32_t maxSize, uint32_t total);
// Prints nothing, but checks the operation.
int KLTT_CollopStatistics(void* user, uint32_t numprocs, uint32_t type, uint32_t count);

// Prints a header line. If there is a sink, it receives the definition instead.
int KLTT_CustomStatisticsDefinition(void* user, uint32_t id, const char* name, uint32_t count,
                                    const char* const* labels, const char* const* units);
int KLTT_CustomStatistics(void* user, uint32_t id, const char* name, uint32_t count,
                          const double* values);
int KLTT_LwStatistics(void* user, uint32_t gtp, uint32_t function, uint32_t receiver,
                      uint32_t bytesSent, int32_t commSize, uint32_t count, uint64_t minInclusive,
                      uint64_t maxInclusive, uint64_t sumInclusive, uint64_t minExclusive,
                      uint64_t maxExclusive, uint64_t sumExclusive);

// Profiles, with times as stored. A line before the first profile of each kind names the columns.
int KLTT_FunctionProfile(void* user, uint32_t gtp, uint32_t function, uint32_t count,
                         uint64_t minSelf, uint64_t maxSelf, uint64_t totalSelf,
                         uint64_t minInclusive, uint64_t maxInclusive, uint64_t totalInclusive);
int KLTT_OneToOneProfile(void* user, uint32_t sender, uint32_t receiver, uint32_t senderFunction,
                         uint32_t receiverFunction, uint32_t tag, uint32_t comm, uint32_t size,
                         uint32_t count, int64_t sumTime, int64_t minTime, int64_t maxTime);
// Prints a line for each of the `n` members; each array has an element for each member.
int KLTT_CollopProfile(void* user, uint32_t type, uint32_t root, uint32_t comm, uint32_t n,
                       const uint32_t* counts, const uint32_t* minSent, const uint32_t* maxSent,
                       const uint32_t* sumSent, const uint32_t* minReceived,
                       const uint32_t* maxReceived, const uint32_t* sumReceived,
                       const double* minRate, const double* maxRate, const double* averageRate,
                       const uint64_t* minDuration, const uint64_t* maxDuration,
                       const uint64_t* sumDuration);

// Prints a report of a checker: its description and the `n` calls involved.
int KLTT_Report(void* user, uint64_t time, uint32_t gtp, const char* type, const char* level,
                const char* description, uint32_t n, const uint64_t* times, const uint32_t* gtps,
                const char* const* headers, const uint32_t* functions, const char* const* calls,
                const uint32_t* scls);
