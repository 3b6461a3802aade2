// Handlers of event records. See kltt_events.h.
#include "generic/handlers/kltt_events.h"

#include <algorithm>
#include <string>
#include <utility>

#include "generic/text/kltt_exit.h"
#include "util/pal_error.h"
#include "util/pal_mem.h"

namespace {

KLTT_Context& contextOf(void* user) { return *static_cast<KLTT_Context*>(user); }

// Starts a handler: converts the record's time, and writes the delayed records before it. Returns
// false after an output error.
[[gnu::always_inline]] inline bool open(KLTT_Context& context, uint64_t rawTime,
                                        uint64_t* internalTime) {
  *internalTime = KLTT_InternalTime(context, rawTime);
  context.lastEventTime = std::max(context.lastEventTime, rawTime);
  return KLTT_LogFormatRecord(context, *internalTime) == 0;
}

int writeComment(KLTT_Context& context, uint64_t internalTime, const KLTT_Delayed& node) {
  const std::string& text = context.pending.text(node);
  const KLTT_Class* about = context.classes.find(node.comment.infoClass);
  const uint64_t before = context.sink->amount();
  const std::string path =
      about == nullptr
          ? std::string()
          : KLTT_ClassPath(context.classes, *about, context.sink->longestComment) + ": ";
  const int result = context.sink->comment(internalTime, node.gtp, (path + text).c_str());
  context.commentAmount += context.sink->amount() - before;
  return result;
}

int writeFront(KLTT_Context& context) {
  if (context.sink != nullptr) {
    const uint64_t internalTime = context.pending.nextTime();
    const KLTT_Delayed& node = context.pending.front();
    const int failed = node.kind == KLTT_DelayedKind::kComment
                           ? writeComment(context, internalTime, node)
                           : context.sink->delayed(internalTime, node);
    if (failed != 0) return 1;
  }
  context.pending.pop();
  return 0;
}

// Enters a function on `willy`, for the record of a call or for a history.
[[gnu::always_inline]] inline int enter(KLTT_Context& context, RK_WillyState& willy,
                                        uint64_t internalTime, uint32_t function, uint32_t scl) {
  if (context.functions.indexOf(function) == 0) [[unlikely]]
    KLTT_Fatal("undefined function #%d", static_cast<int>(function));
  RK_FrameEnter(context.frames.willys, willy, function);
  if (context.sink == nullptr) return 0;
  return context.sink->enterFunction(internalTime, willy.gtp, function, scl);
}

// REQUIRES: a call is open on `willy`.
[[gnu::always_inline]] inline int leave(KLTT_Context& context, RK_WillyState& willy,
                                        uint64_t internalTime, uint32_t scl) {
  const uint32_t function = RK_FrameLeave(willy);
  if (context.sink == nullptr) return 0;
  return context.sink->leaveFunction(internalTime, willy.gtp, function, scl);
}

}  // namespace

int KLTT_WriteDelayed(KLTT_Context& context, uint64_t upTo) {
  while (context.pending.nextTime() < upTo) {
    if (writeFront(context) != 0) return 1;
  }
  return 0;
}

// KLTT_WriteDelayed up to the largest time would leave records at exactly this time, which a
// truncated time can have.
int KLTT_DrainDelayed(KLTT_Context& context) {
  while (!context.pending.empty()) {
    if (writeFront(context) != 0) return 1;
  }
  return 0;
}

int KLTT_BeginOfHistory(void* user, uint64_t time, uint32_t /*categories*/,
                        uint32_t /*numTriplets*/, const PAL_Triplet* /*triplets*/) {
  KLTT_Context& context = contextOf(user);
  context.inHistory = true;
  context.historyTime = time;
  context.lastEventTime = time;
  return 0;
}

int KLTT_EndOfHistory(void* user, uint64_t /*time*/, uint32_t /*categories*/,
                      uint32_t /*numTriplets*/, const PAL_Triplet* /*triplets*/) {
  contextOf(user).inHistory = false;
  return 0;
}

int KLTT_EnterFunction(void* user, uint64_t time, uint32_t gtp, uint32_t function, uint32_t scl) {
  KLTT_Context& context = contextOf(user);
  uint64_t internalTime = 0;
  if (!open(context, time, &internalTime)) return 1;
  return enter(context, RK_WillyHashGet(context.frames.willys, gtp), internalTime, function, scl);
}

int KLTT_LeaveFunction(void* user, uint64_t time, uint32_t gtp, uint32_t scl) {
  KLTT_Context& context = contextOf(user);
  uint64_t internalTime = 0;
  if (!open(context, time, &internalTime)) return 1;
  RK_WillyState& willy = RK_WillyHashGet(context.frames.willys, gtp);
  if (willy.functions.empty()) [[unlikely]] {
    PAL_Error("too many UPTOs for thread 0x%u", gtp);
    KLTT_Exit(10);
  }
  return leave(context, willy, internalTime, scl);
}

int KLTT_FunctionHistory(void* user, uint64_t time, uint32_t gtp, uint32_t count,
                         const uint32_t* functions, const uint32_t* /*scls*/) {
  KLTT_Context& context = contextOf(user);
  uint64_t internalTime = 0;
  if (!open(context, time, &internalTime)) return 1;
  RK_WillyState& willy = RK_WillyHashGet(context.frames.willys, gtp);
  if (!willy.functions.empty()) {
    PAL_Error("function history while stack of thread 0x%u already has %d entries", gtp,
              static_cast<int>(willy.functions.size()));
    KLTT_Exit(10);
  }
  for (uint32_t i = 0; i < count; ++i) {
    if (enter(context, willy, internalTime, functions[i], 0) != 0) return 1;
  }
  return 0;
}

int KLTT_EnterScope(void* user, uint64_t time, uint32_t gtp, uint32_t scope, uint32_t seqnr,
                    uint32_t scl) {
  KLTT_Context& context = contextOf(user);
  uint64_t internalTime = 0;
  if (!open(context, KLTT_EventTime(context, time), &internalTime)) return 1;
  RK_WillyHash& willys = context.frames.willys;
  RK_FrameEnterScope(willys, RK_WillyHashGet(willys, gtp), internalTime, scope, seqnr);
  if (context.sink == nullptr) return 0;
  return context.sink->enterScope(internalTime, gtp, scope, seqnr, scl);
}

int KLTT_LeaveScope(void* user, uint64_t time, uint32_t gtp, uint32_t scope, uint32_t seqnr,
                    uint32_t scl) {
  KLTT_Context& context = contextOf(user);
  uint64_t internalTime = 0;
  if (!open(context, KLTT_EventTime(context, time), &internalTime)) return 1;
  if (!RK_WillyHashGet(context.frames.willys, gtp).scopes.leave(scope, seqnr)) {
    PAL_Error("Leaving scope %u/%u which was never entered.", scope, seqnr);
  }
  if (context.sink == nullptr) return 0;
  return context.sink->leaveScope(internalTime, gtp, scope, seqnr, scl);
}

int KLTT_Comment(void* user, uint64_t time, uint32_t gtp, const char* text) {
  KLTT_Context& context = contextOf(user);
  uint64_t internalTime = 0;
  if (!open(context, time, &internalTime)) return 1;
  if (context.sink == nullptr) return 0;
  return context.sink->comment(internalTime, gtp, text);
}

int KLTT_OpaqueData(void* user, uint64_t time, uint32_t gtp, uint32_t size, const uint8_t* data,
                    uint32_t scl) {
  KLTT_Context& context = contextOf(user);
  uint64_t internalTime = 0;
  if (!open(context, time, &internalTime)) return 1;
  if (context.sink == nullptr) return 0;
  return context.sink->opaqueData(internalTime, gtp, size, data, scl);
}

int KLTT_FileIoBegin(void* user, uint64_t time, uint32_t gtp, uint32_t operation, uint32_t file,
                     uint32_t bytes, uint32_t scl) {
  KLTT_Context& context = contextOf(user);
  uint64_t internalTime = 0;
  if (!open(context, time, &internalTime)) return 1;
  if (context.sink == nullptr) return 0;
  return context.sink->fileIoBegin(internalTime, gtp, operation, file, bytes, scl);
}

int KLTT_FileIoEnd(void* user, uint64_t time, uint32_t gtp, uint32_t operation, uint32_t file,
                   uint32_t bytes, uint32_t scl) {
  KLTT_Context& context = contextOf(user);
  uint64_t internalTime = 0;
  if (!open(context, time, &internalTime)) return 1;
  if (context.sink == nullptr) return 0;
  return context.sink->fileIoEnd(internalTime, gtp, operation, file, bytes, scl);
}

int KLTT_CounterValue(void* user, uint64_t time, uint32_t gtp, uint32_t count,
                      const uint32_t* counters, uint64_t* values) {
  KLTT_Context& context = contextOf(user);
  const uint64_t internalTime = KLTT_InternalTime(context, time);
  context.lastEventTime = std::max(context.lastEventTime, time);
  std::vector<uint8_t>& types = context.scratchTypes;
  types.resize(count);
  for (uint32_t i = 0; i < count; ++i) {
    if (counters[i] == 0) KLTT_Fatal("CounterVal without counter id");
    const KLTT_Counter* counter = context.counters.find(counters[i]);
    if (counter == nullptr) KLTT_Fatal("CounterVal with undefined id");
    types[i] = (counter->flags & 1) != 0 ? 1 : 2;
  }
  if (KLTT_LogFormatRecord(context, internalTime) != 0) return 1;
  if (context.sink == nullptr) return 0;
  return context.sink->counterValue(context, internalTime, gtp, count, counters, types.data(),
                                    values);
}
