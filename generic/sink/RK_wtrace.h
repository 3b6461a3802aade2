// Opens and closes the output of an extraction (RK_sink), and writes definitions for both output
// formats.
#pragma once

#include <cstdint>

#include "generic/sink/RK_sink.h"
#include "klt/storage/klt_fileset.h"

struct KLT_StatsParameters;

// Settings of a new output. The defaults are those of the options.
struct RK_SinkSettings {
  const char* directory = nullptr;  // where relative names start; null: the working directory
  bool extended = true;             // text: write the lines and parts of EXTENDED-RKF
  bool singleFile = false;          // binary: all components in one file
};

// A text sink that writes the file `name`, or standard output for "-". `kind` is 0. Null if the
// file can't be opened.
[[nodiscard]] RK_Sink* RK_SinkOpenAscii(const char* name, int32_t kind,
                                        const RK_SinkSettings& settings = {});

// The writer of a binary trace `name`; "-" is standard output, in the single-file form only. It
// never overwrites a file in `untouchable`. Returns null and reports the error if the trace can't
// be created.
[[nodiscard]] KLT_WFileHandle* RK_OpenWriter(const char* name,
                                             const KLT_StatsParameters& parameters,
                                             KLT_FileSet untouchable,
                                             const RK_SinkSettings& settings = {});
// A binary sink that owns `writer`; null if `writer` is null. `pending` as for KLTT_RecordSink.
[[nodiscard]] RK_Sink* RK_SinkOpenKlt(KLT_WFileHandle* writer, const char* name,
                                      KLTT_Queue& pending);

// Completes the output and frees the sink; null is ignored. The second argument is 0. Returns 0, or
// 1 if the output has failed.
int RK_SinkClose(RK_Sink* sink, int32_t reserved);
// Frees the sink of an output that remains incomplete; a binary trace gets no index. A text output
// must already be closed (RK_OutputCloseAll). Null is ignored.
void RK_SinkAbandon(RK_Sink* sink);

// Stores `id` in `outId`. A binary trace gets one definition of each file.
int RK_SinkDefineFile(RK_Sink* sink, uint32_t id, const char* path, uint32_t* outId);
// `members` are valid triplets in rank order. `flags` are written to a binary trace only.
int RK_SinkDefineCommunicator(RK_Sink* sink, const char* name, uint32_t id, PAL_TripletSpan members,
                              uint32_t flags);
