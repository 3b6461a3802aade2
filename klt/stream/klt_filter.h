// The filter pass of a stream: reads records until `packed` is full or the requests are done.
#pragma once

#include <cstdint>

#include "klt/stream/klt_stream.h"

enum class KLT_Fill : uint8_t {
  kFilled,   // `packed` has the next records; none are left if it is empty
  kFailed,   // as reported
  kStopped,  // the record just taken stops the turn
  kTurnOver,
};

// Fills `packed`, or lets the stream's turn take records one by one until it ends.
[[nodiscard]] KLT_Fill KLT_FillStream(KLT_Stream& stream);
