// Matching of raw events: one side of each communication per event becomes one record per
// communication.
//
// The merge (kltt_merge) first tells it the processes and communicators, then passes on the raw
// events in order of time. Messages (RK_logmerge_messages) and collective operations
// (RK_logmerge_collops) wait in arenas (RK_logmerge_arena) of bounded size and are written to the
// output in order of their first events. Memory depends on what is open at a time, not on the
// length of the trace.
#pragma once

#include <cstdint>
#include <memory>

#include "generic/merge/RK_logmerge_collops.h"
#include "generic/merge/RK_logmerge_comms.h"
#include "generic/merge/RK_logmerge_messages.h"

struct KLTT_Summary;
struct KLT_WFileHandle;

// The state of a matching. Only the operations below change it.
struct KLTM_Matching {
  // Records begun since the start; one that has found no partner counts too.
  [[nodiscard]] uint32_t messagesAdded() const { return messages->added(); }
  [[nodiscard]] uint32_t collopsAdded() const { return collops->added(); }

  uint32_t processBits = 2;  // of a `kind` that hold the process
  uint32_t processMask = 3;
  KLTM_Communicators communicators;
  std::unique_ptr<KLTM_MessageTable> messages;  // null unless started
  std::unique_ptr<KLTM_CollopTable> collops;
};

// Decides how many bits of a `kind` hold the process. REQUIRES: not started.
void KLTM_DeclareProcesses(KLTM_Matching& matching, uint32_t count);

// Begin and end of the registry of communicators: both empty it. REQUIRES: not started.
void KLTM_ResetCommunicators(KLTM_Matching& matching);
void KLTM_FreeCommunicators(KLTM_Matching& matching);
// Replaces what an earlier definition of the id said. REQUIRES: not started.
void KLTM_RegisterCommunicator(KLTM_Matching& matching, uint32_t id, KLTT_MemberList members);

// `writer` and `summary`, which may be null, are not owned. `blockBytes` is the size of an arena to
// begin with.
void KLTM_MatchStart(KLTM_Matching& matching, KLT_WFileHandle* writer, KLTT_Summary* summary,
                     uint64_t blockBytes);
// REQUIRES: started.
void KLTM_MatchMessage(KLTM_Matching& matching, const KLTM_RawMessage& event);
void KLTM_MatchCollective(KLTM_Matching& matching, const KLTM_RawCollop& event);
// Writes all that is still open, messages first, and ends the matching.
void KLTM_MatchFinish(KLTM_Matching& matching);
