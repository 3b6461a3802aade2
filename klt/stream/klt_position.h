// Opens streams and moves them through their requests.
#pragma once

#include "klt/stream/klt_stream.h"

// Opens the stream's file and enters its first request. False, after a report, if the stream has
// failed.
[[nodiscard]] bool KLT_StreamOpen(KLT_Stream& stream);
// Closes the file and frees the buffers.
void KLT_StreamClose(KLT_Stream& stream);

// Moves the stream to the start of its current request. False, after a report, if it can't be
// positioned.
[[nodiscard]] bool KLT_EnterRequest(KLT_Stream& stream);
// Ends the current request and enters the next, if there is one. False if the stream has failed.
[[nodiscard]] bool KLT_NextRequest(KLT_Stream& stream);
