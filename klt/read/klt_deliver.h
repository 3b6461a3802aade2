// Delivery of single records: which handlers there are, and calling them.
#pragma once

#include <array>
#include <cstdint>

#include "klt/read/klt_reader.h"

// Calls the handler of the record at `next` and lets a structure record change the trace's tables.
// Returns the handler's result; -1 for a structure record that makes no sense, which is reported.
// `next` moves past the record, whose opaque values may be changed. Most records are delivered
// without a look at the stream, which with thousands of them is far away.
using KLT_Deliverer = int (*)(KLT_Reader& reader, KLT_Stream& stream, uint8_t*& next);
extern const std::array<KLT_Deliverer, kKltRowCount> kKltDeliverers;  // by row number - 1
[[nodiscard]] inline int KLT_Deliver(KLT_Reader& reader, KLT_Stream& stream, uint8_t*& next) {
  return kKltDeliverers[KLT_RecordNumber(next) - 1](reader, stream, next);
}
// Whether the table has a handler for the row.
[[nodiscard]] bool KLT_HasHandler(const KLT_HandlerTable& handlers, unsigned row);
