// Operations that this build doesn't have. See kltt_unavailable.h.
#include "generic/kltt_unavailable.h"

#include "generic/kltt_exit.h"
#include "util/pal_error.h"

void KLTT_Unavailable(const char* what) {
  PAL_Error("%s is not available in this build", what);
  KLTT_Exit(1);
}
