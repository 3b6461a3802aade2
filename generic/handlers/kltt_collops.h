// Handles records of collective operations. One record describes the parts of all members of a
// communicator.
//
// Matched output has one line or record for an operation. Otherwise each member that took part gets
// a "GLOBALOP" line of its own, which waits in kltt_queue until the member's start time.
#pragma once

#include <cstdint>

#include "klt/format/klt_handlers.h"
#include "klt/format/klt_values.h"

// A record of any of the four kinds, as the reader delivers it.
struct KLTT_CollectiveRecord {
  enum class AtRoot : uint8_t { kNothing, kSent, kReceived };

  const char* name;  // for error messages
  uint64_t time;     // raw
  uint32_t communicator;
  uint32_t type;  // id of the operation
  uint32_t n;
  const uint64_t* starts;  // raw, relative to `time`; see klt::isUnknownStart
  const uint64_t* deltas;
  const uint32_t* sent;  // this and the next two may be null
  const uint32_t* received;
  const uint32_t* scls;
  AtRoot atRoot = AtRoot::kNothing;  // the meaning of rootBytes
  uint32_t root = klt::kNoRoot;      // gtp
  uint32_t rootBytes = 0;
};

// The handlers of the four records. Each of them passes its `user` and its arguments, as a
// KLTT_CollectiveRecord, to `Use` and returns the result.
template <int (*Use)(void* user, const KLTT_CollectiveRecord& record)>
struct KLTT_CollectiveHandlers {
  using AtRoot = KLTT_CollectiveRecord::AtRoot;

  static int oneToAll(void* user, uint64_t time, uint32_t sender, uint32_t sent,
                      uint32_t communicator, uint32_t type, uint32_t n, const uint64_t* starts,
                      const uint64_t* deltas, const uint32_t* received, const uint32_t* scls) {
    return Use(user, {"OneToAll", time, communicator, type, n, starts, deltas, nullptr, received,
                      scls, AtRoot::kSent, sender, sent});
  }
  static int allToOne(void* user, uint64_t time, uint32_t receiver, uint32_t received,
                      uint32_t communicator, uint32_t type, uint32_t n, const uint64_t* starts,
                      const uint64_t* deltas, const uint32_t* sent, const uint32_t* scls) {
    return Use(user, {"AllToOne", time, communicator, type, n, starts, deltas, sent, nullptr, scls,
                      AtRoot::kReceived, receiver, received});
  }
  static int allToAll(void* user, uint64_t time, uint32_t communicator, uint32_t type, uint32_t n,
                      const uint64_t* starts, const uint64_t* deltas, const uint32_t* sent,
                      const uint32_t* received, const uint32_t* scls) {
    return Use(user,
               {"AllToAll", time, communicator, type, n, starts, deltas, sent, received, scls});
  }
  static int all(void* user, uint64_t time, uint32_t communicator, uint32_t type, uint32_t n,
                 const uint64_t* starts, const uint64_t* deltas, const uint32_t* scls) {
    return Use(user,
               {"AllToAll", time, communicator, type, n, starts, deltas, nullptr, nullptr, scls});
  }

  static void install(KLT_HandlerTable& table) {
    table.one_to_all_communication = &oneToAll;
    table.all_to_one_communication = &allToOne;
    table.all_to_all_communication = &allToAll;
    table.all_communication = &all;
  }
};

// Writes or queues an operation. `user` is the KLTT_Context. Returns 0, or 1 if the output failed;
// an unknown communicator ends the process.
int KLTT_FormatCollective(void* user, const KLTT_CollectiveRecord& record);

using KLTT_Collectives = KLTT_CollectiveHandlers<&KLTT_FormatCollective>;
inline constexpr auto KLTT_OneToAllCommunication = &KLTT_Collectives::oneToAll;
inline constexpr auto KLTT_AllToOneCommunication = &KLTT_Collectives::allToOne;
inline constexpr auto KLTT_AllToAllCommunication = &KLTT_Collectives::allToAll;
inline constexpr auto KLTT_AllCommunication = &KLTT_Collectives::all;
