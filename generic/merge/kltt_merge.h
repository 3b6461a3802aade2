// Merges a raw trace, summarises a trace, or both.
//
// In a raw trace each thread has logged its own events, and a communication is several events. In
// one pass over the events, the merge matches these events (RK_logmerge), copies all other records
// unchanged, and computes the profiles. A summary (kltt_summary) is written in the same pass, or
// from a trace that is already merged. kltt_merge_handlers handles the records.
#pragma once

#include "generic/text/RK_output.h"

struct KLT_FileHandle;

// The operations of KLTM_Merge, and its results.
enum : int { KLTM_SINGLE_FILE = 1, KLTM_DELETE_INPUT = 2, KLTM_MERGE = 4, KLTM_SUMMARY = 8 };
enum : int {
  KLTM_DONE = 0,
  KLTM_WRONG_OPERATION = 1,    // neither merge nor summary was requested
  KLTM_NO_OUTPUT = 3,          // the output can't be created, or is the input
  KLTM_INPUT_NOT_REMOVED = 4,  // but the output is complete
  KLTM_WRONG_TRACE = 5,        // merge of a merged trace, or summary of a raw trace
  KLTM_INCOMPLETE = 6,         // part of the input wasn't read or merged, or of the summary written
  KLTM_ABORTED = 7,            // no stream of the input is left to read; the output has no index
  KLTM_NOT_WRITTEN = 8         // the output couldn't be written, or lacks components
};

// Reports the progress of a merge: state -1 at its start, 0 with a percentage, 1 at its end.
using KLTM_Progress = void (*)(RK_Output* stream, int state, int percent);

// Merges or summarises the trace `input`, or both, and closes it. `target` is the name of the
// output and of the summary's files, relative to the directory `prefix` (null: the working
// directory). For a summary alone it may be null, which means the name of the input. With
// KLTM_DELETE_INPUT the input is removed after a merge whose outputs are complete. `progress` may
// be null; `stream` is passed to it. The caller reports the results 1 to 5; other failures are
// reported here.
[[nodiscard]] int KLTM_Merge(const char* prefix, const char* target, KLT_FileHandle* input,
                             int flags, KLTM_Progress progress, RK_Output* stream);
