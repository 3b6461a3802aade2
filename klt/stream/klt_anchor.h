// Uses the seek points of a component, at which reading can start in the middle of a file.
#pragma once

#include <cstdint>

#include "klt/stream/klt_stream.h"

// Determines where each request of the stream starts and ends in the file. REQUIRES: the stream
// reads a component.
void KLT_PlanRequests(KLT_Stream& stream);

// Rebuilds the stream's context for `categories` at `anchor`. If files can't be read, that is
// reported and recorded as lost data. Records at or after the current request's start aren't
// included, because the stream reads them.
void KLT_ReplayAnchor(KLT_Stream& stream, const KLT_Anchor& anchor, uint32_t categories);
