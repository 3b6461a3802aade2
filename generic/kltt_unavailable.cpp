// Operations that this build doesn't have. See kltt_unavailable.h.
#include "generic/kltt_unavailable.h"

#include "generic/kltt_exit.h"
#include "util/pal_error.h"

void KLTT_Unavailable(const char* what) {
  PAL_Error("%s is not available in this build", what);
  KLTT_Exit(1);
}

void KLTT_PrintFiles(KLT_FileHandle*) { KLTT_Unavailable("--print-files"); }

int KLT_Move(KLT_FileHandle*, const char*) { KLTT_Unavailable("--move"); }

int KLT_Remove(KLT_FileHandle*) { KLTT_Unavailable("--remove"); }

int KLT_Convert(KLT_FileHandle*, const char*, const char*, int) {
  KLTT_Unavailable("--convert to a binary format");
}

int KLTM_Merge(const char*, const char*, KLT_FileHandle*, int flags, KLTM_Progress, RK_Output*) {
  KLTT_Unavailable((flags & KLTM_MERGE) != 0 ? "--merge" : "--sumdata");
}
