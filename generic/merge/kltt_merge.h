// The merge of a raw trace and the summary of a trace.
//
// While a program runs each thread logs what it sees, and a message is two unrelated events. The
// merge copies everything else as it is, brings those events together (RK_logmerge), and makes the
// profiles, in one pass over the events. A summary (kltt_summary) is built in the same pass, or
// from a trace that is merged already. What the passes do with each record is
// kltt_merge_handlers'.
#pragma once

#include "generic/text/RK_output.h"

struct KLT_FileHandle;

// What KLTM_Merge does, and how it ends.
enum : int { KLTM_SINGLE_FILE = 1, KLTM_DELETE_INPUT = 2, KLTM_MERGE = 4, KLTM_SUMMARY = 8 };
enum : int {
  KLTM_DONE = 0,
  KLTM_WRONG_OPERATION = 1,    // neither merge nor summary was asked for
  KLTM_NO_OUTPUT = 3,          // the output can't be created, or is the input
  KLTM_INPUT_NOT_REMOVED = 4,  // but the output is complete
  KLTM_WRONG_TRACE = 5,        // a merged one to be merged, a raw one to be summarised
  KLTM_INCOMPLETE = 6,         // part of the input couldn't be read, or of the summary written
  KLTM_ABORTED = 7,            // nothing of the input could be read further; there is no index
  KLTM_NOT_WRITTEN = 8         // the output couldn't be written, or has lost streams
};

// Tells how far a merge is: state -1 before it begins, 0 with a percentage, 1 at the end.
using KLTM_Progress = void (*)(RK_Output* stream, int state, int percent);

// Merges or summarises the trace `input`, or both, and closes it. `target` is the output's name in
// the directory `prefix` (null: the working directory) and gives the summary's files their name;
// it may be null for a summary alone. The input is removed, if `flags` say so, only after all
// outputs have been completed without any failure. `progress` may be null; `stream` is passed to
// it. Failures are reported here, but the results 1 to 5 aren't.
[[nodiscard]] int KLTM_Merge(const char* prefix, const char* target, KLT_FileHandle* input,
                             int flags, KLTM_Progress progress, RK_Output* stream);
