// The sink that writes text: every event becomes a line of RK_rkf.
#pragma once

#include <memory>

#include "generic/sink/RK_sink.h"

// A sink of kind 0 that writes to `output`, which is not owned.
[[nodiscard]] std::unique_ptr<RK_Sink> KLTT_LineSink(RK_Output* output);

// Writes a comment line at `time` (a value of RK_SinkTime). The reports of a checker, "ERROR: ..."
// and "QMC: ...", get "CPU" and the number of the thread plus 1 in front.
int RK_SinkComment(RK_Output* output, uint64_t time, uint32_t gtp, const char* text);
