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

KLTT_MemberList::KLTT_MemberList(PAL_TripletSpan gtps, uint32_t limit) {
  for (const PAL_Triplet& t : gtps) {
    const uint32_t count = std::min(PAL_TripletsCount({&t, 1}), limit - size_);
    add({static_cast<uint32_t>(t.first), static_cast<uint32_t>(t.stride), count});
    size_ += count;
  }
}

// Greedy: a run continues while the step between members stays the same and none comes twice. After
// at most three members the open run has the step of `run`; then it takes the others at once.
void KLTT_MemberList::add(Run run) {
  while (run.count > 0) {
    uint32_t taken = 1;
    Run* const open = runs_.empty() ? nullptr : &runs_.back();
    if (open != nullptr && open->count == 1) open->step = run.first - open->first;
    const size_t room = open != nullptr ? largestCount(open->step) - open->count : 0;
    if (room == 0 || run.first != open->first + open->count * open->step) {
      runs_.push_back({.first = run.first, .step = 0, .count = 1});
    } else {
      if (open->step == run.step) taken = static_cast<uint32_t>(std::min<size_t>(run.count, room));
      open->count += taken;
    }
    run.first += taken * run.step;
    run.count -= taken;
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
