// Adds up messages. See kla_messages.h.
#include "analyze/sums/kla_messages.h"

#include <bit>

namespace kla {

void Messages::add(uint32_t sender, uint32_t receiver, uint32_t size, int64_t received) {
  const bool hasTime = received >= 0;
  if (!hasTime) ++reversed;
  const uint32_t pair = pairs_[uint64_t{sender} << 32 | receiver];
  if (pair == totals_.size()) totals_.emplace_back();
  const auto transfer = static_cast<Time>(received);
  totals_[pair].add(size, hasTime, transfer);
  bySize_[static_cast<size_t>(std::bit_width(size))].add(size, hasTime, transfer);
}

}  // namespace kla
