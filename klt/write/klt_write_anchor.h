// Seek points of a component that is written: groups of records in its anchor file that tell where
// in the data file reading can start, and what was going on there.
#pragma once

#include "klt/write/klt_write_context.h"

// Sets a seek point at the context's position. An error text, or null.
[[nodiscard]] const char* KLT_SetAnchor(KLT_WFileHandle& writer, KLT_WriteContext& context);
