// Writes messages for developers to the debug channel, which is separate from messages to users.
#pragma once

// Writes a message to the debug channel and aborts the process.
[[noreturn]] void PAL_Abort();

// Writes to the debug channel: the descriptor in the environment variable PAL_DEBUG_FD, otherwise a
// file named after PAL_messages.processName if that is set (nothing, after a warning, if the file
// can't be opened), otherwise standard error. The text is truncated to 2,047 bytes. errno is kept.
void PAL_Debug(const char* file, int line, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
