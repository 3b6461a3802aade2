// Handles each record of a merge's or summary's input.
//
// Most records are copied: written with the same values, in the shortest row that has the fields.
// Raw events go to the matching. Calls, messages, collective operations, counters and reports are
// also passed to the summary.
#pragma once

#include <cstdint>
#include <vector>

#include "generic/merge/RK_logmerge.h"
#include "generic/merge/RK_logmerge_comms.h"
#include "generic/summary/kltt_summary.h"
#include "klt/format/klt_handlers.h"
#include "klt/write/klt_write.h"

// The `user_data` of the merge's handlers.
struct KLTM_Context {
  KLT_WFileHandle* writer = nullptr;  // null without merge
  KLTT_Summary* summary = nullptr;    // null without summary
  KLTM_Matching matching;

  // From the scan pass.
  KLTM_Communicators communicators;  // for the profiles; the first definition of each id
  std::vector<uint32_t> threads;     // threads with a willy_definition, for the summary
  uint32_t eventBits = 0;
  uint64_t startTime = 0;
  uint64_t timeSpan = 0;

  KLT_EventCounts counts;  // that the trace declares
  KLT_EventCounts
      sliceCounts;  // of an event_summary record, which only the summary of a slice uses
  bool countsSeen = false;
  uint32_t countsClass = 0;  // the class of the info text with these numbers
};

// Sets the handlers of the scan pass, which store the definitions that the other passes need.
void KLTM_SetScanHandlers(KLT_HandlerTable& table, KLTM_Context& context);
// Sets the handler of the pass over the statistics of a slice, which stores `sliceCounts`.
void KLTM_SetCountHandler(KLT_HandlerTable& table, KLTM_Context& context);
// Sets the handlers of the passes that write. Handlers of the merge are set only with a writer.
void KLTM_SetCopyHandlers(KLT_HandlerTable& table, KLTM_Context& context);

// The first `most` members of a communicator in rank order, for the profiles. `context` is a
// KLTM_Context. Ends the process if the communicator isn't defined.
[[nodiscard]] const uint32_t* KLTM_GetIndexInComm(void* context, uint32_t communicator, size_t most,
                                                  size_t* count);
