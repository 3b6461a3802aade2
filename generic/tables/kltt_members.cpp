// Stores the members of a communicator as runs. See kltt_members.h.
#include "generic/tables/kltt_members.h"

#include <algorithm>
#include <cstdlib>

namespace {

int64_t signedStep(uint32_t step) { return static_cast<int32_t>(step); }

}  // namespace

// Greedy: a run continues while the step between members stays the same.
KLTT_MemberList::KLTT_MemberList(std::span<const int32_t> gtps)
    : size_(static_cast<uint32_t>(gtps.size())) {
  for (size_t i = 0; i < gtps.size();) {
    const uint32_t first = static_cast<uint32_t>(gtps[i]);
    const uint32_t step = i + 1 < gtps.size() ? static_cast<uint32_t>(gtps[i + 1]) - first : 0;
    uint32_t count = 1;
    while (i + count < gtps.size() &&
           static_cast<uint32_t>(gtps[i + count]) == first + count * step) {
      ++count;
    }
    runs_.push_back(Run{.first = first, .step = step, .count = count});
    i += count;
  }
}

bool KLTT_MemberList::isRegular() const {
  constexpr size_t kFew = 4;
  constexpr int64_t kNumbers = int64_t{1} << 32;
  return runs_.size() <= kFew && std::all_of(runs_.begin(), runs_.end(), [](const Run& run) {
           return run.count == 1 ||
                  (run.step != 0 && std::abs(signedStep(run.step)) * (run.count - 1) < kNumbers);
         });
}

uint32_t KLTT_MemberList::indexOf(uint32_t gtp) const {
  uint32_t before = 0;
  for (const Run& run : runs_) {
    const bool up = signedStep(run.step) >= 0;
    const uint32_t distance = up ? gtp - run.first : run.first - gtp;
    const uint32_t step = up ? run.step : 0 - run.step;
    if (distance == 0) return before;
    if (run.count > 1 && distance % step == 0 && distance / step < run.count) {
      return before + distance / step;
    }
    before += run.count;
  }
  return kNoMember;
}
