// Ends of the process.
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
  // What the text speaks of has happened after all that was written so far.
  RK_OutputFlush(RK_Stdout());
  va_list arguments;
  va_start(arguments, format);
  vfprintf(stderr, format, arguments);
  va_end(arguments);
  fputc('\n', stderr);
  fflush(stderr);
  KLTT_Exit(1);
}
