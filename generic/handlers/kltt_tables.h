// Handles definition records: adds them to the tables of KLTT_Context and writes each definition to
// the sink.
//
// `user` is the KLTT_Context, the other arguments are those of KLT_HandlerTable. A handler returns
// 0, or 1 if the output failed. An invalid definition ends the process (KLTT_Fatal).
#pragma once

#include <cstddef>
#include <cstdint>

#include "util/triplets/pal_triplets.h"

struct KLTT_Context;
class KLTT_MemberList;

// The members of a communicator, for the handlers of collective operations and for statistics.
// Ends the process with a message that begins with `record`, the name of the record, if `id` is 0
// or unknown.
const KLTT_MemberList& KLTT_GetIndexInComm(const KLTT_Context& context, uint32_t id,
                                           const char* record);

// The first `most` members of a communicator for the profiles that a writer computes; null if the
// communicator isn't defined. `context` is the KLTT_Context. The array is valid until the next
// call.
[[nodiscard]] const uint32_t* KLTT_MembersForStats(void* context, uint32_t communicator,
                                                   size_t most, size_t* count);

int KLTT_ProcessDeclaration(void* user, uint32_t n, const uint32_t* threads);
int KLTT_WillyName(void* user, uint32_t gtp, const char* name);
int KLTT_WillyDefinition(void* user, uint32_t gtp, const char* hostname, const char* ip,
                         uint32_t pid, uint64_t tid, double offset, double skew);
int KLTT_ClockResolution(void* user, double resolution, uint32_t eventBits);
int KLTT_Duration(void* user, uint64_t start, uint64_t end);
int KLTT_ClassDefinition(void* user, uint32_t id, const char* name, const char* nameSelf,
                         uint32_t parent);
int KLTT_FunctionDefinition(void* user, uint32_t id, const char* name, uint32_t classId);
int KLTT_ScopeDefinition(void* user, uint32_t id, const char* name, uint32_t classId,
                         uint32_t startScl, uint32_t endScl);
int KLTT_CommunicatorDefinition(void* user, uint32_t id, const char* name, uint32_t numTriplets,
                                const PAL_Triplet* triplets, int32_t leftSize);
int KLTT_CollectiveOperationDefinition(void* user, uint32_t id, const char* name, uint32_t kind);
int KLTT_CounterDefinition(void* user, uint32_t id, const char* name, uint32_t flags,
                           const uint64_t* bounds, uint32_t gtp, uint32_t classId,
                           const char* unit);
int KLTT_GroupDefinition(void* user, uint32_t id, const char* name, uint32_t count,
                         const uint32_t* members);
int KLTT_FileDefinition(void* user, uint32_t id, const char* name);
int KLTT_SclDefinition(void* user, uint32_t id, uint32_t n, const uint32_t* files,
                       const uint32_t* lines, const char* const* symbols,
                       const char* const* objects);
int KLTT_FileIoFileDefinition(void* user, uint32_t id, uint32_t communicator, const char* name);
int KLTT_Info(void* user, uint32_t classId, const char* text);
