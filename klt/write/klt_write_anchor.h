// Writes the seek points of a component: groups of records in its anchor file with an offset in the
// data file at which reading can start, and the state of the stream there.
#pragma once

#include "klt/write/klt_write_context.h"

// Sets a seek point at the context's position, unless it would have more bytes than the data since
// the last one. Returns an error text, or null.
[[nodiscard]] const char* KLT_SetAnchor(KLT_WFileHandle& writer, KLT_WriteContext& context);
