// Writes the index of a trace: header, layouts, and the records that declare its files, texts and
// lists of threads.
#pragma once

#include "klt/write/klt_write_context.h"

// Flushes the components and writes the index that declares them. Returns an error text, or null.
[[nodiscard]] const char* KLT_WriteIndex(KLT_WFileHandle& writer);
