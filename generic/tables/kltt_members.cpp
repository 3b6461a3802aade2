// Stores the members of a communicator as runs. See kltt_members.h.
#include "generic/tables/kltt_members.h"

#include <algorithm>
#include <cstdlib>
#include <limits>

namespace {

// The largest number of members of a run with this step that has none twice.
size_t largestCount(uint32_t step) {
  constexpr int64_t kNumbers = int64_t{1} << 32;
  if (step == 0) return std::numeric_limits<size_t>::max();
  return static_cast<size_t>(kNumbers / std::abs(int64_t{static_cast<int32_t>(step)}));
}

}  // namespace

// Greedy: a run continues while the step between members stays the same.
KLTT_MemberList::KLTT_MemberList(std::span<const int32_t> gtps)
    : size_(static_cast<uint32_t>(gtps.size())) {
  for (size_t i = 0; i < gtps.size();) {
    const uint32_t first = static_cast<uint32_t>(gtps[i]);
    const uint32_t step = i + 1 < gtps.size() ? static_cast<uint32_t>(gtps[i + 1]) - first : 0;
    const size_t end = i + std::min(gtps.size() - i, largestCount(step));
    uint32_t count = 1;
    while (i + count < end && static_cast<uint32_t>(gtps[i + count]) == first + count * step) {
      ++count;
    }
    runs_.push_back(Run{.first = first, .step = step, .count = count});
    i += count;
  }
}

uint32_t KLTT_MemberList::indexOf(uint32_t gtp) const {
  uint32_t before = 0;
  for (const Run& run : runs_) {
    const bool up = static_cast<int32_t>(run.step) >= 0;
    const uint32_t distance = up ? gtp - run.first : run.first - gtp;
    const uint32_t step = up ? run.step : 0 - run.step;
    if (distance == 0) return before;
    if (run.count > 1 && step != 0 && distance % step == 0 && distance / step < run.count) {
      return before + distance / step;
    }
    before += run.count;
  }
  return kNoMember;
}
