// The user's requests in the reader's unit: RK_Request (seconds or ticks) to KLT_Request (raw
// time).
//
// A step of the event pass in kltt_extract, possible once the setup pass knows the clock. Uniting,
// cutting and testing requests is the reader's matter.
#pragma once

#include <span>
#include <vector>

#include "generic/options/RK_options.h"
#include "klt/read/klt_request.h"

struct KLTT_Context;

// One request for each of `wanted`, in order. With `ticks` their times are ticks, else seconds.
[[nodiscard]] std::vector<KLT_Request> KLTT_BuildRequests(const KLTT_Context& context,
                                                          std::span<const RK_Request> wanted,
                                                          bool ticks);
