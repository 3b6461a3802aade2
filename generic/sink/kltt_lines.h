// The text form of a sink: every event becomes a line of RK_rkf.
#pragma once

#include <memory>

#include "generic/sink/RK_sink.h"

// A sink of kind 0 that writes to `output`, which is not owned.
[[nodiscard]] std::unique_ptr<RK_Sink> KLTT_LineSink(RK_Output* output);

// A comment line at `time` (a value of RK_SinkTime). The reports of a checker, "ERROR: ..." and
// "QMC: ...", are preceded by "CPU" and the number of the thread.
int RK_SinkComment(RK_Output* output, uint64_t time, uint32_t gtp, const char* text);
