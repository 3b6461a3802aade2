// Delivers single records by calling their handlers.
#pragma once

#include <array>
#include <cstdint>

#include "klt/read/klt_reader.h"

// Calls the handler of the record at `next`. A structure record also changes the trace's tables.
// Returns the handler's result (0 without one), or -1 after reporting an invalid structure record.
// `next` is moved past the record; counter values in the record may be changed. For most records
// `stream` isn't accessed, because with thousands of streams that would be a cache miss.
using KLT_Deliverer = int (*)(KLT_Reader& reader, KLT_Stream& stream, uint8_t*& next);
extern const std::array<KLT_Deliverer, kKltRowCount> kKltDeliverers;  // by row number - 1
[[nodiscard]] inline int KLT_Deliver(KLT_Reader& reader, KLT_Stream& stream, uint8_t*& next) {
  return kKltDeliverers[KLT_RecordNumber(next) - 1](reader, stream, next);
}
// Whether the table has a handler for the row.
[[nodiscard]] bool KLT_HasHandler(const KLT_HandlerTable& handlers, unsigned row);
