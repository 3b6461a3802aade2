// The filter of a stream: reads records and selects those that match the stream's requests.
//
// For delivery in time order the selected records are collected in the stream's `packed`. Otherwise
// the stream has a turn (`packed.turn`, KLT_Turn), which receives each record immediately.
#pragma once

#include <cstdint>

#include "klt/stream/klt_stream.h"

enum class KLT_Fill : uint8_t {
  kFilled,    // `packed` has the next records; if it is empty, the stream has ended
  kFailed,    // the stream has failed, which has been reported
  kStopped,   // a handler has stopped the reader at the record last passed to the turn
  kTurnOver,  // the turn has ended; the stream may have more records
};

// Collects records in `packed` until that is full or all requests have ended. If the stream has a
// turn, passes records to it one by one instead, until the turn or all requests have ended.
[[nodiscard]] KLT_Fill KLT_FillStream(KLT_Stream& stream);
