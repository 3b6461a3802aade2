// Matches raw events: a raw event is one side of a communication, and the events of a communication
// are combined into one record.
//
// The merge (kltt_merge) first declares the processes and communicators and then passes the raw
// events in order of time. Messages (RK_logmerge_messages) and collective operations
// (RK_logmerge_collops) wait in arenas (RK_logmerge_arena) of bounded size and are written to the
// output in order of their first events. Memory depends on the number of communications that are
// open at one time, not on the length of the trace.
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
  // The number of records since the start, including those without a match.
  [[nodiscard]] uint32_t messagesAdded() const { return messages->added(); }
  [[nodiscard]] uint32_t collopsAdded() const { return collops->added(); }
  // Events since the start that are neither sends nor receives, and are treated as receives.
  [[nodiscard]] uint64_t messagesStrange() const { return messages->strange(); }
  // Events of collective operations since the start that no record of the output can hold.
  [[nodiscard]] uint64_t collopsUnplaced() const { return collops->unplaced(); }

  uint32_t processBits = 2;  // bits of a `kind` that hold the process
  uint32_t processMask = 3;
  KLTM_Communicators communicators;
  std::unique_ptr<KLTM_MessageTable> messages;  // null unless started
  std::unique_ptr<KLTM_CollopTable> collops;
};

// Sets how many bits of a `kind` hold the process, for `count` processes. REQUIRES: not started.
void KLTM_DeclareProcesses(KLTM_Matching& matching, uint32_t count);

// Both clear the registry of communicators, before and after its use. REQUIRES: not started.
void KLTM_ResetCommunicators(KLTM_Matching& matching);
void KLTM_FreeCommunicators(KLTM_Matching& matching);
// Registers a communicator, replacing an earlier definition of the id. REQUIRES: not started.
void KLTM_RegisterCommunicator(KLTM_Matching& matching, uint32_t id, KLTT_MemberList members);

// Starts the matching. `writer` and `summary` are not owned; `summary` may be null. `blockBytes` is
// the initial capacity of each arena.
void KLTM_MatchStart(KLTM_Matching& matching, KLT_WFileHandle* writer, KLTT_Summary* summary,
                     uint64_t blockBytes);
// REQUIRES: started.
void KLTM_MatchMessage(KLTM_Matching& matching, const KLTM_RawMessage& event);
void KLTM_MatchCollective(KLTM_Matching& matching, const KLTM_RawCollop& event);
// Writes all waiting records, complete or not, messages first, and ends the matching.
void KLTM_MatchFinish(KLTM_Matching& matching);
