// Handles event records, except messages and collective operations (kltt_messages, kltt_collops),
// and writes the delayed records for all event handlers.
//
// A handler first writes the records in the `pending` queue with an earlier time, and then its own.
// If its record describes events of a later time, it adds them to that queue. `user` is the
// KLTT_Context, the other arguments are those of KLT_HandlerTable. A handler returns 0, or 1 if the
// output failed. A trace with inconsistent calls or ids ends the process.
#pragma once

#include <cstdint>

#include "generic/handlers/kltt_context.h"
#include "util/triplets/pal_triplets.h"

// The out-of-line part of KLTT_LogFormatRecord.
int KLTT_WriteDelayed(KLTT_Context& context, uint64_t upTo);

// Writes the delayed records with a time strictly below `upTo` (internal time). Returns 0, or 1
// after an output error; the record that couldn't be written then stays in the queue.
inline int KLTT_LogFormatRecord(KLTT_Context& context, uint64_t upTo) {
  if (context.pending.nextTime() >= upTo) [[likely]]
    return 0;
  return KLTT_WriteDelayed(context, upTo);
}

// Writes all delayed records at the end of the event pass.
int KLTT_DrainDelayed(KLTT_Context& context);

int KLTT_BeginOfHistory(void* user, uint64_t time, uint32_t categories, uint32_t numTriplets,
                        const PAL_Triplet* triplets);
int KLTT_EndOfHistory(void* user, uint64_t time, uint32_t categories, uint32_t numTriplets,
                      const PAL_Triplet* triplets);
// Closes calls and scopes (kltt_closing.cpp). A `time` of 2^63 or more means no end: they are
// closed at the last event's time. A list of more than a few threads must keep its address and its
// contents until the pass ends.
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
