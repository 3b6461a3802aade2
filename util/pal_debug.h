// The debug channel: messages for developers, apart from those for users.
#pragma once

// Says so on the debug channel and aborts the process.
[[noreturn]] void PAL_Abort();

// Writes to the debug channel: the descriptor named by PAL_DEBUG_FD, else a file named after the
// process if it has a name, else standard error. The text is cut at 2,047 bytes. errno is kept.
void PAL_Debug(const char* file, int line, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
