// Finds the calls of threads. See kla_calls.h.
#include "analyze/core/kla_calls.h"

namespace kla {

uint32_t Calls::add(uint32_t gtp) {
  const bool isSelected = selectsAll || selection.contains(static_cast<int32_t>(gtp));
  threads_.emplace_back(gtp, isSelected, keepsPaths && isSelected);
  return ids_[gtp];
}

}  // namespace kla
