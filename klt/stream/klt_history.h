// History: what a consumer is told of the state of threads where a request begins, and what it
// drops where one ends.
#pragma once

#include <cstddef>

#include "klt/stream/klt_stream.h"

// Appends the history of the current request to the packed records; false, with nothing changed, if
// the records there must be delivered first. `room` are the bytes of the record at hand; with
// `force` there is always room.
[[nodiscard]] bool KLT_ProduceHistory(KLT_Stream& stream, size_t room, bool force);

// Appends what the end of the current request tells: its history, if that hasn't been produced, and
// what it selects that the next one doesn't.
void KLT_EndRequest(KLT_Stream& stream);
