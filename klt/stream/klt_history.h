// Produces the history of a request: the records that describe the state of threads at its start,
// and the end_of_filter records at its end.
#pragma once

#include <cstddef>

#include "klt/stream/klt_stream.h"

// Appends the history of the current request to the packed records. False, with nothing changed, if
// the packed records must be delivered first. `room` is the encoded size in bytes of the record
// that follows; `force` ignores the limit of the packed records.
[[nodiscard]] bool KLT_ProduceHistory(KLT_Stream& stream, size_t room, bool force);

// Appends the records for the end of the current request: its history, if that hasn't been
// produced, and end_of_filter records for what the next request doesn't select.
void KLT_EndRequest(KLT_Stream& stream);
