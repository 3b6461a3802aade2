// Writes the profiles of a trace when its writer is closed.
#pragma once

#include "klt/write/klt_write_context.h"

// Writes the writer's profiles as records and frees them. False if a write failed.
[[nodiscard]] bool KLT_FileStatsFinish(KLT_WFileHandle& writer);
