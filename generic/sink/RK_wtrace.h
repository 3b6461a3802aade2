// Opening and closing the output of an extraction (RK_sink), and definitions that need more than
// its form.
#pragma once

#include <cstdint>

#include "generic/sink/RK_sink.h"
#include "klt/storage/klt_fileset.h"

struct KLT_StatsParameters;

// How an output is made. The defaults are those of the options.
struct RK_SinkSettings {
  const char* directory = nullptr;  // where names begin; null: the working directory
  bool extended = true;             // text: with the lines and parts of EXTENDED-RKF
  bool singleFile = false;          // binary: all components in one file
};

// A text sink on the file `name`, or on standard output for "-". `kind` is 0. Null if the file
// can't be opened.
[[nodiscard]] RK_Sink* RK_SinkOpenAscii(const char* name, int32_t kind,
                                        const RK_SinkSettings& settings = {});

// The writer of a binary trace `name`; "-" is standard output, for the single-file form alone.
// Files in `untouchable` stay as they are. Null after a report if it can't be created.
[[nodiscard]] KLT_WFileHandle* RK_OpenWriter(const char* name,
                                             const KLT_StatsParameters& parameters,
                                             KLT_FileSet untouchable,
                                             const RK_SinkSettings& settings = {});
// A binary sink on `writer`, which it then owns; null for null. `pending` as for KLTT_RecordSink.
[[nodiscard]] RK_Sink* RK_SinkOpenKlt(KLT_WFileHandle* writer, const char* name,
                                      KLTT_Queue& pending);

// Completes the output and frees the sink; null is ignored. The second argument is 0. Returns 0, or
// 1 if the output has failed.
int RK_SinkClose(RK_Sink* sink, int32_t reserved);
// Frees the sink of an output that stays incomplete; a binary one gets no index. A text has been
// closed with all outputs (RK_OutputCloseAll). Null is ignored.
void RK_SinkAbandon(RK_Sink* sink);

// A file's own id is handed back in `outId`. A binary trace gets each file once.
int RK_SinkDefineFile(RK_Sink* sink, uint32_t id, const char* path, uint32_t* outId);
// `members` in rank order, which the text keeps; `flags` go with the record, not with the text.
int RK_SinkDefineCommunicator(RK_Sink* sink, const char* name, uint32_t id, uint32_t memberCount,
                              const int32_t* members, uint32_t flags);
