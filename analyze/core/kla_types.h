// The types that the analysis shares: times, sums of times, indices, and the names of threads.
#pragma once

#include <cstdint>
#include <string>

namespace kla {

using Time = uint64_t;  // raw time of the trace
// Sums over threads can be longer than 64 bits: an hour in 2^-13 ns of 10,000 threads.
__extension__ using Sum = unsigned __int128;

inline constexpr uint32_t kNone = ~uint32_t{0};  // no index
inline constexpr Time kNever = ~Time{0};

struct Window {
  Time start = 0;
  Time end = kNever;  // exclusive
};

inline constexpr uint32_t kProcessMask = 0xffff;
[[nodiscard]] constexpr uint32_t processOf(uint32_t gtp) { return gtp & kProcessMask; }
// A key that sorts threads by process, then by thread.
[[nodiscard]] constexpr uint32_t threadOrder(uint32_t gtp) {
  return processOf(gtp) << 16 | gtp >> 16;
}
// The start of part `part` of `parts` equal parts of a window.
[[nodiscard]] constexpr Time edgeOf(Window window, uint32_t part, uint32_t parts) {
  return window.start + static_cast<Time>(Sum{window.end - window.start} * part / parts);
}

// "3" for the first thread of process 3, "3.1" for the second.
[[nodiscard]] inline std::string threadLabel(uint32_t gtp) {
  std::string label = std::to_string(processOf(gtp));
  if (gtp > kProcessMask) label += "." + std::to_string(gtp >> 16);
  return label;
}

}  // namespace kla
