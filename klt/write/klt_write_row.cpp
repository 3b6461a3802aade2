// Writes the seek point and the time record that few records need before them. See klt_write_row.h.
#include "klt/write/klt_write_row.h"

#include <algorithm>

#include "klt/write/klt_write_anchor.h"
#include "util/pal_error.h"

klt::TimedPlace klt::beginTimedSlowly(KLT_WFileHandle& writer, KLT_WriteContext& context,
                                      uint64_t time, size_t bytes) {
  const bool isBack = time < context.outputTime;
  if (isBack) context.lastTime = std::max(context.lastTime, context.outputTime);
  const uint64_t step = isBack ? context.outputTime - time : time - context.outputTime;
  size_t timeRecord = 0;
  if (isBack || step >= 0x10000) timeRecord = isBack || step >> 32 != 0 ? kLongTime : kShortTime;
  // A seek point never separates records with the same time, and the times of seek points never
  // decrease.
  if (step != 0 && context.outputTime >= context.lastTime &&
      context.nextAnchor < context.position() + (timeRecord != 0 ? kLongTime : 0) + bytes) {
    if (context.anchorId != 0) {
      if (const char* error = KLT_SetAnchor(writer, context)) PAL_Error("%s", error);
    }
    context.nextAnchor += KLT_WFileHandle::kChunkBytes;
    context.setFastPathEnd();
  }
  if (timeRecord != 0) {
    uint8_t* to = context.reserve(writer, timeRecord);
    if (to == nullptr) return {nullptr, 0};
    if (timeRecord == kShortTime) {
      to[0] = KLT_Row::addTime;
      storeBig32(to + 1, static_cast<uint32_t>(step));
    } else {
      to[0] = isBack ? KLT_Row::subTime : KLT_Row::addTimeLong;
      storeBig64(to + 1, step);
    }
    context.dataUsed += timeRecord;
  }
  return {context.reserve(writer, bytes), timeRecord != 0 ? 0 : step};
}
