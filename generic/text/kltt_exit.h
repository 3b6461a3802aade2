// Ends the process, with or without a message. The text written so far is flushed to its output
// first.
#pragma once

// If set, KLTT_Exit calls this function after closing the outputs, instead of std::exit. The
// function must not return. For callers that run the program's operations inside their own process.
extern void (*KLTT_exitHook)(int status);

// Closes all open outputs and exits. A status of 0 becomes 1 if any output has failed.
[[noreturn]] void KLTT_Exit(int status);

// Writes the formatted text and a newline to standard error, then calls KLTT_Exit(1).
[[noreturn]] void KLTT_Fatal(const char* format, ...) __attribute__((format(printf, 1, 2)));
