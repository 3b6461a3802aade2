// Writes the page of a trace: one HTML file with its style, its script and the data.
#pragma once

#include <string>

#include "analyze/pass/kla_pass.h"
#include "analyze/timeline/kla_recording.h"

namespace kla {

inline constexpr size_t kMostPageBytes = 5000000;

// The page. It has at most kMostPageBytes: if there is too much, the shortest calls, messages and
// so on are left out, and the page says which. `trace` is the name of the trace.
[[nodiscard]] std::string makePage(const Analysis& analysis, Recording& recording,
                                   const std::string& trace);

}  // namespace kla
