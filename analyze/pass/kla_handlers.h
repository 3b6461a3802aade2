// The handlers of the records that an Analysis reads.
#pragma once

#include <cstdint>

#include "analyze/pass/kla_pass.h"

namespace kla {

// The handlers of the events that the analysis wants.
[[nodiscard]] KLT_HandlerTable eventHandlers(Analysis& a);
// Handlers that only find the span of the calls.
[[nodiscard]] KLT_HandlerTable spanHandlers(Analysis& a);
// Whether the analysis needs more of a call than its time.
[[nodiscard]] bool needsCalls(const Analysis& a);
// A call of a thread has ended; for analyses that need it.
void callEnded(Analysis& a, uint32_t thread, uint32_t function);

}  // namespace kla
