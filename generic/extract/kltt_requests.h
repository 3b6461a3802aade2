// Converts the user's requests, RK_Request (seconds or raw time), to the reader's, KLT_Request (raw
// time).
//
// kltt_extract does this after the setup pass, which reads the clock. The reader itself combines
// and evaluates the requests.
#pragma once

#include <span>
#include <vector>

#include "generic/options/RK_options.h"
#include "klt/read/klt_request.h"

struct KLTT_Context;

// One request for each of `wanted`, in order. With `ticks` their times are raw, else in seconds.
[[nodiscard]] std::vector<KLT_Request> KLTT_BuildRequests(const KLTT_Context& context,
                                                          std::span<const RK_Request> wanted,
                                                          bool ticks);
