// The handlers of the records that an Analysis reads.
#pragma once

#include <cstdint>

#include "analyze/pass/kla_pass.h"

namespace kla {

// The handlers of the events that the analysis wants.
[[nodiscard]] KLT_HandlerTable eventHandlers(Analysis& a);
// Handlers that only find the span of the calls.
[[nodiscard]] KLT_HandlerTable spanHandlers(Analysis& a);
// Ends the open calls of a thread.
void endCalls(Analysis& a, uint32_t thread, Time time);

}  // namespace kla
