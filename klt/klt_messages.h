// Passes the messages of the library to the caller instead of standard error.
#pragma once

#include <cstddef>

// Receives the text of one message: one or more lines, each with its level and a newline.
using KLT_MessageCallback = void (*)(void* user, const char* text, size_t length);

// From now on all messages of this process go to `callback` only; a callback that does nothing
// silences the library. Null: to standard error again, as at the start. Not safe to call while
// other threads use the library.
void KLT_SetMessageCallback(KLT_MessageCallback callback, void* user);
