// Operations that the options can ask for and this build doesn't have yet.
//
// Each is declared as its module will offer it and reports that it isn't available. The driver
// (kltt_main, kltt_extract) calls them as it will call the real ones.
#pragma once

#include "generic/RK_output.h"

struct KLT_FileHandle;

// Reports "`what` is not available in this build" and ends the process with status 1.
[[noreturn]] void KLTT_Unavailable(const char* what);

// What KLTM_Merge does: flag bits, and its results.
enum : int { KLTM_SINGLE_FILE = 1, KLTM_DELETE_INPUT = 2, KLTM_MERGE = 4, KLTM_SUMMARY = 8 };
enum : int {
  KLTM_DONE = 0,
  KLTM_WRONG_OPERATION = 1,
  KLTM_NO_OUTPUT = 3,
  KLTM_INPUT_NOT_REMOVED = 4,
  KLTM_WRONG_TRACE = 5
};

// Tells how far a merge is: state 0 with a percentage, any other state at the end.
using KLTM_Progress = void (*)(RK_Output* stream, int state, int percent);

// Merges or summarises the trace `input` into `target`, or summarises only if that is null.
[[nodiscard]] int KLTM_Merge(const char* prefix, const char* target, KLT_FileHandle* input,
                             int flags, KLTM_Progress progress, RK_Output* stream);
