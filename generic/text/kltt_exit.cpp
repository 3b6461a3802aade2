// Ends the process. See kltt_exit.h.
#include "generic/text/kltt_exit.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "generic/text/RK_output.h"

void (*KLTT_exitHook)(int status) = nullptr;

void KLTT_Exit(int status) {
  if (RK_OutputCloseAll() != 0 && status == 0) status = 1;
  if (KLTT_exitHook != nullptr) KLTT_exitHook(status);
  std::exit(status);
}

void KLTT_Fatal(const char* format, ...) {
  // The message must appear after the output that was written before it.
  RK_OutputFlush(RK_Stdout());
  va_list arguments;
  va_start(arguments, format);
  vfprintf(stderr, format, arguments);
  va_end(arguments);
  fputc('\n', stderr);
  fflush(stderr);
  KLTT_Exit(1);
}
