// Uses the seek points of a component, at which reading can start in the middle of a file.
#pragma once

#include <cstdint>

#include "klt/stream/klt_stream.h"

// The part of a file that has to be read for a request.
struct KLT_Extent {
  const KLT_Anchor* anchor = nullptr;    // where reading starts; null: at the first record
  uint64_t limit = KLT_Input::kNoLimit;  // offset at which reading ends
};

// Loads the seek points of the stream's component. REQUIRES: the stream reads a component.
void KLT_LoadAnchors(KLT_Stream& stream);
[[nodiscard]] KLT_Extent KLT_ExtentOf(const KLT_Stream& stream, const KLT_StreamRequest& request);

// Rebuilds the stream's context for `categories` at `anchor`. If files can't be read, that is
// reported and recorded as lost data. Records at or after the current request's start aren't
// included, because the stream reads them.
void KLT_ReplayAnchor(KLT_Stream& stream, const KLT_Anchor& anchor, uint32_t categories);
