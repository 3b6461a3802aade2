// Handlers of event records, except messages and collective operations (kltt_messages,
// kltt_collops), and what all event handlers share: the `pending` queue.
//
// Before a handler writes, it writes out what waits in the `pending` queue for an earlier time, and
// what its record tells about a later time goes into that queue. `user` is the KLTT_Context, the
// other arguments are those of KLT_HandlerTable. A handler returns 0, or 1 if the output failed. A
// trace whose calls or ids don't fit together ends the process.
#pragma once

#include <cstdint>

#include "generic/handlers/kltt_context.h"
#include "util/triplets/pal_triplets.h"

// The part of KLTT_LogFormatRecord behind its comparison.
int KLTT_WriteDelayed(KLTT_Context& context, uint64_t upTo);

// Writes the delayed records with a time strictly below `upTo` (internal time). 0, or 1 after an
// output error: then the record that couldn't be written stays.
inline int KLTT_LogFormatRecord(KLTT_Context& context, uint64_t upTo) {
  if (context.pending.nextTime() >= upTo) [[likely]]
    return 0;
  return KLTT_WriteDelayed(context, upTo);
}

// Writes all delayed records, for the end of the event pass.
int KLTT_DrainDelayed(KLTT_Context& context);

// Closes what is open on a thread, calls and then scopes, each from the top. `categories` as an
// end_of_filter record has them.
int KLTT_CloseThread(KLTT_Context& context, uint64_t internalTime, uint32_t gtp,
                     uint32_t categories);

int KLTT_BeginOfHistory(void* user, uint64_t time, uint32_t categories, uint32_t numTriplets,
                        const PAL_Triplet* triplets);
int KLTT_EndOfHistory(void* user, uint64_t time, uint32_t categories, uint32_t numTriplets,
                      const PAL_Triplet* triplets);
// `time` above 2^63: no end, the calls are closed at the last event.
int KLTT_EndOfFilter(void* user, uint64_t time, uint32_t categories, uint32_t numTriplets,
                     const PAL_Triplet* triplets);
int KLTT_EnterFunction(void* user, uint64_t time, uint32_t gtp, uint32_t function, uint32_t scl);
int KLTT_LeaveFunction(void* user, uint64_t time, uint32_t gtp, uint32_t scl);
int KLTT_FunctionHistory(void* user, uint64_t time, uint32_t gtp, uint32_t count,
                         const uint32_t* functions, const uint32_t* scls);
int KLTT_EnterScope(void* user, uint64_t time, uint32_t gtp, uint32_t scope, uint32_t seqnr,
                    uint32_t scl);
int KLTT_LeaveScope(void* user, uint64_t time, uint32_t gtp, uint32_t scope, uint32_t seqnr,
                    uint32_t scl);
int KLTT_Comment(void* user, uint64_t time, uint32_t gtp, const char* text);
int KLTT_OpaqueData(void* user, uint64_t time, uint32_t gtp, uint32_t size, const uint8_t* data,
                    uint32_t scl);
int KLTT_FileIoBegin(void* user, uint64_t time, uint32_t gtp, uint32_t operation, uint32_t file,
                     uint32_t bytes, uint32_t scl);
int KLTT_FileIoEnd(void* user, uint64_t time, uint32_t gtp, uint32_t operation, uint32_t file,
                   uint32_t bytes, uint32_t scl);
int KLTT_CounterValue(void* user, uint64_t time, uint32_t gtp, uint32_t count,
                      const uint32_t* counters, uint64_t* values);
