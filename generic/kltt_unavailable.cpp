// Operations that this build doesn't have. See kltt_unavailable.h.
#include "generic/kltt_unavailable.h"

#include "generic/kltt_exit.h"
#include "util/pal_error.h"

void KLTT_Unavailable(const char* what) {
  PAL_Error("%s is not available in this build", what);
  KLTT_Exit(1);
}

int KLTM_Merge(const char*, const char*, KLT_FileHandle*, int flags, KLTM_Progress, RK_Output*) {
  KLTT_Unavailable((flags & KLTM_MERGE) != 0 ? "--merge" : "--sumdata");
}
