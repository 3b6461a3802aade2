// The ways in which the process ends: all of them leave what was written so far in the output.
#pragma once

// Called in place of the end of the process, if set, when the outputs have been closed; it must not
// return. For callers that run the program's operations inside a process of their own.
extern void (*KLTT_exitHook)(int status);

// Closes the outputs that are still open (standard output, the ASCII sink) and exits. A status of 0
// becomes 1 if any output has failed.
[[noreturn]] void KLTT_Exit(int status);

// Writes the formatted text and a newline to standard error, then KLTT_Exit with status 1.
[[noreturn]] void KLTT_Fatal(const char* format, ...) __attribute__((format(printf, 1, 2)));
