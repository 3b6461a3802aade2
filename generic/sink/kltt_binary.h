// The sink that writes a binary trace: every event becomes a record.
//
// Each operation writes one record of the shortest row that can hold the event. Times, and the
// spans of messages and operations, are internal time. All operations return 0: the writer itself
// reports a stream that can't be written, and the other streams continue.
#pragma once

#include <memory>

#include "generic/sink/RK_sink.h"

// A sink of kind 1 that writes to `writer`. It owns neither argument; the caller closes the writer.
// The sink adds a node to `pending` for records that it has delayed because a history may still add
// earlier ones. When the queue returns that node, the sink writes them.
[[nodiscard]] std::unique_ptr<RK_Sink> KLTT_RecordSink(KLT_WFileHandle* writer,
                                                       KLTT_Queue& pending);
