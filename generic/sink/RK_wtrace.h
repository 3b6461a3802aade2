// The output of an extraction: one object that handlers write to, whatever the form.
//
// A sink of kind 0 takes the lines of RK_rkf through `output`; a sink of kind 1 takes records
// through `writer`. Handlers test `kind` and take one of the two roads; RK_SinkTime and the name
// are common. The driver makes the sink, and closes it once at the end of the event pass.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_set>
#include <vector>

#include "generic/text/RK_output.h"
#include "klt/storage/klt_fileset.h"

struct KLT_StatsParameters;
struct KLT_WFileHandle;

struct RK_Sink {
  int32_t kind = 0;                   // 0 text, 1 binary trace
  RK_Output* output = nullptr;        // kind 0
  int32_t timeShift = 0;              // bits by which internal time is shifted right for text
  KLT_WFileHandle* writer = nullptr;  // kind 1
  std::string name;
  std::unordered_set<uint32_t> definedFiles;  // kind 1: ids of the files defined so far
};

// A text sink on the file `name`, opened from the directory that the configuration sets, or on
// standard output for "-". `kind` is 0. Null if the file can't be opened.
[[nodiscard]] RK_Sink* RK_SinkOpenAscii(const char* name, int32_t kind);

// The writer of a binary trace `name` in the form that the configuration sets; "-" is standard
// output, for the single-file form alone. Files in `untouchable` stay as they are. Null after a
// report if it can't be created.
[[nodiscard]] KLT_WFileHandle* RK_OpenWriter(const char* name,
                                             const KLT_StatsParameters& parameters,
                                             KLT_FileSet untouchable);
// A binary sink on `writer`, which it then owns; null for null.
[[nodiscard]] RK_Sink* RK_SinkOpenKlt(KLT_WFileHandle* writer, const char* name);

// Completes the output and frees the sink; null is ignored. The second argument is 0. Returns 0, or
// 1 if the output has failed.
int RK_SinkClose(RK_Sink* sink, int32_t reserved);
// Frees the sink of an output that stays incomplete; a binary one gets no index. A text has been
// closed with all outputs (RK_OutputCloseAll). Null is ignored.
void RK_SinkAbandon(RK_Sink* sink);

// Internal time as the text shows it: shifted by `timeShift` (to the left if negative). The two
// values that stand for an unknown time pass unchanged.
[[nodiscard]] inline uint64_t RK_SinkTime(const RK_Sink* sink, uint64_t time) {
  constexpr uint64_t kUnknown = uint64_t{1} << 63;
  if (time == kUnknown || time == kUnknown + 1) [[unlikely]]
    return time;
  const int64_t shift = sink->timeShift;
  if (shift >= 0) return time >> (shift < 63 ? shift : 63);
  return time << (shift > -63 ? -shift : 63);
}

// Definitions and comments that need more than a line: each returns 0, or 1 after an output error.
// A file's own id is handed back in `outId`.
int RK_SinkDefineFile(RK_Sink* sink, uint32_t id, const char* path, uint32_t* outId);
// `members` in rank order, which the text keeps; `flags` go with the record, not with the text.
int RK_SinkDefineCommunicator(RK_Sink* sink, const char* name, uint32_t id, uint32_t memberCount,
                              const int32_t* members, uint32_t flags);
// A comment line at `time` (a value of RK_SinkTime). The reports of a checker, "ERROR: ..." and
// "QMC: ...", are preceded by "CPU" and the number of the thread.
int RK_SinkComment(RK_Output* output, uint64_t time, uint32_t gtp, const char* text);
