// Point-to-point messages: numbers, bytes and transfer times by pair of threads and by size.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "analyze/core/kla_keys.h"
#include "analyze/core/kla_types.h"

namespace kla {

// Transfer times are those of messages that were received after they were sent.
struct MessageTotals {
  uint64_t count = 0, bytes = 0;
  uint64_t timed = 0;  // messages with a transfer time
  Sum ticks = 0;
  Time longest = 0;

  void add(uint32_t size, bool hasTime, Time transfer) {
    ++count;
    bytes += size;
    if (!hasTime) return;
    ++timed;
    ticks += transfer;
    if (transfer > longest) longest = transfer;
  }
};

class Messages {
 public:
  // Class 0 has the messages without bytes, class n those of 2^(n-1) to 2^n - 1 bytes.
  static constexpr uint32_t kSizes = 33;

  // Adds a message whose two sides are known. `sender` and `receiver` are indices of threads;
  // `received` is relative to the send.
  void add(uint32_t sender, uint32_t receiver, uint32_t size, int64_t received);

  [[nodiscard]] const KeyIndex& pairs() const { return pairs_; }
  [[nodiscard]] const std::vector<MessageTotals>& totals() const { return totals_; }
  [[nodiscard]] const std::array<MessageTotals, kSizes>& bySize() const { return bySize_; }

  uint64_t count = 0;      // all records
  uint64_t unmatched = 0;  // the other side is unknown
  uint64_t reversed = 0;   // received before they were sent

 private:
  KeyIndex pairs_;  // sender << 32 | receiver
  std::vector<MessageTotals> totals_;
  std::array<MessageTotals, kSizes> bySize_;
};

}  // namespace kla
