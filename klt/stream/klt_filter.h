// The filter of a stream: reads records until `packed` is full or all requests have ended.
#pragma once

#include <cstdint>

#include "klt/stream/klt_stream.h"

enum class KLT_Fill : uint8_t {
  kFilled,   // `packed` has the next records; none are left if it is empty
  kFailed,   // the stream has failed, which has been reported
  kStopped,  // the record just passed to the turn stops it
  kTurnOver,
};

// Fills `packed`, or passes records one by one to the stream's turn until that ends.
[[nodiscard]] KLT_Fill KLT_FillStream(KLT_Stream& stream);
