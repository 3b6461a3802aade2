// The members of a communicator as runs. See kltt_members.h.
#include "generic/kltt_members.h"

// Greedy: a run goes on while the step stays the same, whatever the step.
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
