// The binary form of a sink: every event becomes a record of a new trace.
//
// Each operation writes one record and picks the shortest row that holds it. Times are internal;
// what a record stores beside them (spans of messages and operations) are differences of internal
// times. All operations return 0: the writer itself reports a stream that can't be written, and the
// others go on.
#pragma once

#include <memory>

#include "generic/sink/RK_sink.h"

// A sink of kind 1 on `writer`. Neither is owned: the caller closes the writer, and `pending` tells
// when a record is due that the sink has kept because a history may put others ahead of it.
[[nodiscard]] std::unique_ptr<RK_Sink> KLTT_RecordSink(KLT_WFileHandle* writer,
                                                       KLTT_Queue& pending);
