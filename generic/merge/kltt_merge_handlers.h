// What the merge does with each record of its input.
//
// Most records are copied: written again in the row that fits the fields present, with the values
// as they came. Raw events go to the matching. A summary is told of calls, messages, collective
// operations, counters and reports.
#pragma once

#include <cstdint>
#include <vector>

#include "generic/merge/RK_logmerge.h"
#include "generic/merge/RK_logmerge_comms.h"
#include "generic/summary/kltt_summary.h"
#include "klt/format/klt_handlers.h"

struct KLT_WFileHandle;

// The `user_data` of the merge's handlers.
struct KLTM_Context {
  KLT_WFileHandle* writer = nullptr;  // null without merge
  KLTT_Summary* summary = nullptr;    // null without summary
  KLTM_Matching matching;

  // From the scan pass.
  KLTM_Communicators communicators;  // for the profiles; the first definition of an id counts
  std::vector<uint32_t> threads;     // those that are described, for the summary
  uint32_t eventBits = 0;
  uint64_t startTime = 0;
  uint64_t timeSpan = 0;

  // How many events the trace says it has.
  struct Counts {
    uint32_t functions = 0, oneToOnes = 0, collectives = 0, scopes = 0, counters = 0;
  };
  Counts counts;
  bool countsSeen = false;
  uint32_t countsClass = 0;  // of the text that held them
};

// Handlers that take from the definitions what the other passes need to know.
void KLTM_SetScanHandlers(KLT_HandlerTable& table, KLTM_Context& context);
// Handlers of the passes that write; those for the merge only if there is a writer.
void KLTM_SetCopyHandlers(KLT_HandlerTable& table, KLTM_Context& context);

// Writes how many events the merged trace has. False if that failed.
[[nodiscard]] bool KLTM_WriteCounts(KLTM_Context& context);

// For the profiles: the members of a communicator in rank order. `context` is a KLTM_Context. Ends
// the process for a communicator that isn't defined.
[[nodiscard]] const uint32_t* KLTM_GetIndexInComm(void* context, uint32_t communicator,
                                                  size_t* count);
