// Sets the callback for messages. See klt/klt_messages.h.
#include "klt/klt_messages.h"

#include "util/pal_error.h"

void KLT_SetMessageCallback(KLT_MessageCallback callback, void* user) {
  PAL_messages.replacement = callback;
  PAL_messages.replacementContext = user;
}
