// The sink that writes a binary trace: every event becomes a record.
//
// Each operation writes one record of the shortest row that can hold the event. Times, and the
// spans of messages and operations, are internal time. All operations return 0: the writer itself
// reports a component that can't be written, and still writes the others.
#pragma once

#include <memory>

#include "generic/sink/RK_sink.h"

// A sink of kind 1 that writes to `writer`. It owns neither argument; the caller closes the writer.
// The sink delays a record if a history may still add earlier records. It adds a node to `pending`
// for the delayed records and writes them when the queue returns this node.
[[nodiscard]] std::unique_ptr<RK_Sink> KLTT_RecordSink(KLT_WFileHandle* writer,
                                                       KLTT_Queue& pending);
