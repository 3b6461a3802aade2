// RK_Output is a text output: a descriptor and a buffer, which is written in blocks of 256 KiB.
//
// All text for the user (trace text, listings, help) goes through an RK_Output. Such text never
// goes through stdio, so the text on standard output is in the order of the calls. A failure is
// sticky: it is reported once, later text is dropped, and an exit status of 0 becomes 1
// (kltt_exit). Line writers (RK_line.h) format their text in the buffer itself.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "util/pal_util.h"

struct RK_Output {
  // The bytes of one write, and the bytes after them that a line writer may fill before it has to
  // check for the end of the buffer.
  static constexpr size_t kBlock = size_t{256} * 1024;
  static constexpr size_t kSlack = 4096;

  char* pos = nullptr;    // next free byte; below `limit` between calls
  char* limit = nullptr;  // buffer + kBlock; kSlack bytes follow it
  std::unique_ptr<char[]> buffer;
  std::string name;      // "stdout" or the file's name, for the message
  int vfd = -1;          // virtual descriptor; -1 while there is none
  int standard = -1;     // STDOUT_FILENO or STDERR_FILENO; -1 for a file
  PAL_FileLock lock;     // of a file
  uint64_t written = 0;  // bytes before those in the buffer
  bool failed = false;   // a write, flush or close failed
  bool extended = true;  // RK_rkf writes lines and parts marked [extended]

  // The time of the last line without its last four digits, as a number and as text (RK_line.h).
  // Only of times below `timesKept`, so that a negative value never equals `timeHigh`.
  uint64_t timeHigh = 0;
  uint64_t timesKept = PAL_fast == PAL_Fast::kNever ? 0 : uint64_t{1} << 62;
  size_t timeDigits = 0;
  char timeText[16] = {};
};

// The process's standard output. Exists until the end of the process.
[[nodiscard]] RK_Output* RK_Stdout();
// Standard error, for listings while a trace is written to standard output. It is buffered, so
// messages don't use it.
[[nodiscard]] RK_Output* RK_Stderr();

// Creates or empties a file. A relative path starts at `directory` (null: the working directory).
// Returns null and sets errno if that fails. The caller closes the output with RK_OutputClose.
[[nodiscard]] RK_Output* RK_OutputOpen(const char* path, const char* directory = nullptr);

// Writes the buffered text. Returns 0, or 1 if the output has failed, now or earlier.
int RK_OutputFlush(RK_Output* output);

// Flushes and closes the output, and frees it unless it is RK_Stdout or RK_Stderr, which remain
// usable. Returns 0, or 1 if the output has failed.
int RK_OutputClose(RK_Output* output);

// Closes every open output with RK_OutputClose, at the end of the process. Returns 0, or 1 if any
// output of this process has failed.
int RK_OutputCloseAll();

[[nodiscard]] inline bool RK_OutputFailed(const RK_Output* output) { return output->failed; }

// The bytes of all text so far, in the buffer and before it.
[[nodiscard]] inline uint64_t RK_OutputBytes(const RK_Output* output) {
  return output->written + static_cast<uint64_t>(output->pos - output->buffer.get());
}

// Appends text. RK_OutputPrintf formats as printf does.
void RK_OutputWrite(RK_Output* output, std::string_view text);
void RK_OutputPrintf(RK_Output* output, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

// For line writers: writes the block of a buffer that is filled up to or beyond `limit`, and keeps
// the rest.
void RK_OutputDrain(RK_Output* output);
