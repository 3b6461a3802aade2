// Explains on standard error why requests select nothing.
#pragma once

#include <span>

#include "generic/handlers/kltt_context.h"
#include "klt/klt.h"

// Says that no event was selected, and names each window outside the trace, each thread that
// doesn't exist and each part that was read otherwise than it may be meant. `requests` were built
// from those of RK_conf, in their order. Nothing if there are none.
void KLTT_ExplainNothing(const KLTT_Context& context, std::span<const KLT_Request> requests);
