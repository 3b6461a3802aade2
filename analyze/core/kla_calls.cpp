// Finds the call paths of threads. See kla_calls.h.
#include "analyze/core/kla_calls.h"

namespace kla {

uint32_t ThreadCalls::findChild(uint32_t parent, uint32_t function) {
  const auto index = children_[uint64_t{parent} << 32 | function] + 1;
  if (index == nodes_.size()) nodes_.push_back({parent, function, kNone, kNone, 0, 0});
  const uint32_t last = nodes_[parent].lastChild;
  if (last != kNone) nodes_[last].follower = index;
  nodes_[parent].lastChild = index;
  return index;
}

uint32_t Calls::add(uint32_t gtp) {
  threads_.emplace_back(gtp, selectsAll || selection.contains(static_cast<int32_t>(gtp)));
  return ids_[gtp];
}

}  // namespace kla
