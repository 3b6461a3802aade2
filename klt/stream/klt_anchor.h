// Seek points of a component, from which a stream can be read in its middle.
#pragma once

#include <cstdint>

#include "klt/stream/klt_stream.h"

// Chooses where each request of the stream starts and ends in the file. REQUIRES: it is a
// component.
void KLT_PlanRequests(KLT_Stream& stream);

// Rebuilds the stream's context at `anchor`, as far as the files can be read; what can't be read is
// reported and noted as lost. Records at or after the current request's start are left to the
// stream.
void KLT_ReplayAnchor(KLT_Stream& stream, const KLT_Anchor& anchor, uint32_t categories);
