// The user's requests in the reader's unit: RK_Request (seconds or ticks) to KLT_Request (raw
// time).
//
// A step of the event pass in kltt_extract, possible once the setup pass knows the clock. Uniting,
// cutting and testing requests is the reader's matter.
#pragma once

#include <vector>

#include "klt/read/klt_request.h"

struct KLTT_Context;

// One request for each one in RK_conf, in order; none if the whole trace is wanted, which is always
// so with CONVERT and MERGE.
[[nodiscard]] std::vector<KLT_Request> KLTT_BuildRequests(const KLTT_Context& context);
