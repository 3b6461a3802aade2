// Adds up the calls of threads by function and by call path, and compares processes.
#pragma once

#include <cstdint>
#include <deque>
#include <vector>

#include "analyze/pass/kla_pass.h"

namespace kla {

// A function or a call path, over all processes.
struct ProfileRow {
  uint32_t function = kNone;  // kNone: outside of all calls
  uint64_t calls = 0;
  Sum inclusive = 0, exclusive = 0;
  Sum least = 0, most = 0;  // exclusive time of a process
  uint32_t mostProcess = 0;
  uint32_t processes = 0;  // that have it

  [[nodiscard]] double mean(size_t all) const {
    return all == 0 ? 0 : static_cast<double>(exclusive) / static_cast<double>(all);
  }
};

// Not a vector: there can be millions of call paths, and a vector copies all when it grows.
using Profile = std::deque<ProfileRow>;

// By function; recursive calls count once in the inclusive time. The row without a function has the
// time outside of all calls. The exclusive times add up to the span times the number of threads.
[[nodiscard]] Profile functionProfile(const Analysis& analysis);
struct PathProfile {
  Profile rows;
  // Of the rows after row 0: the row of the calling path in the upper half, 0 for none, and the
  // function in the lower half.
  std::vector<uint64_t> paths;
};
// By call path, a parent before its children. Row 0 is the time outside of all calls. Calls deeper
// than kMostDepth count for the path of this depth. REQUIRES: the pass had `paths`.
inline constexpr uint32_t kMostDepth = 200;
[[nodiscard]] PathProfile pathProfile(const Analysis& analysis);

}  // namespace kla
