// Text output: a descriptor and a buffer that goes out in writes of 256 KiB.
//
// Every byte of text that the tool prints for the user (trace text, listings, help) passes through
// an RK_Output; stdio isn't used beside it, so the order on standard output is the order of the
// calls. A failure is sticky: it is reported once, later text is dropped, and the exit status of
// the process becomes 1 (kltt_exit). Line writers (RK_line.h) form their bytes in the buffer
// itself.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

struct RK_Output {
  // Size of a write, and the room behind it that a line writer may fill before it looks again.
  static constexpr size_t kBlock = size_t{256} * 1024;
  static constexpr size_t kSlack = 4096;

  char* pos = nullptr;    // next free byte; below `limit` between calls
  char* limit = nullptr;  // buffer + kBlock; kSlack bytes follow it
  std::unique_ptr<char[]> buffer;
  std::string name;      // "stdout" or the file's name, for the message
  int vfd = -1;          // virtual descriptor; -1 while there is none
  int standard = -1;     // the standard descriptor that it stands for, -1 if it is a file
  bool failed = false;   // a write, flush or close failed
  bool extended = true;  // RK_rkf writes all lines and parts that it has

  // The digits of the last line's time but for the last four (RK_line.h).
  uint64_t timeHigh = 0;
  size_t timeDigits = 0;
  char timeText[16] = {};
};

// The process's standard output. Lives to the end of the process.
[[nodiscard]] RK_Output* RK_Stdout();
// Standard error as a place for listings while standard output carries a trace. Buffered like the
// others, so messages don't go through it.
[[nodiscard]] RK_Output* RK_Stderr();

// Creates or empties a file, its path taken from `directory` (null: the working directory). Null if
// that fails, with errno. To be closed with RK_OutputClose.
[[nodiscard]] RK_Output* RK_OutputOpen(const char* path, const char* directory = nullptr);

// Hands over what is buffered. 0, or 1 if the output has failed, now or earlier.
int RK_OutputFlush(RK_Output* output);

// Flushes, closes and frees. 0, or 1 if the output has failed. Standard ones stay usable.
int RK_OutputClose(RK_Output* output);

// Closes every open output as RK_OutputClose does, for the end of the process. 0, or 1 if any
// output of this process has failed.
int RK_OutputCloseAll();

[[nodiscard]] inline bool RK_OutputFailed(const RK_Output* output) { return output->failed; }

// Appends text. RK_OutputPrintf formats as printf does.
void RK_OutputWrite(RK_Output* output, std::string_view text);
void RK_OutputPrintf(RK_Output* output, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

// Writes out the whole blocks of a buffer that has been filled beyond `limit`; for line writers.
void RK_OutputDrain(RK_Output* output);
