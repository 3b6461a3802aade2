// Looks at a merged trace: how many messages have both sides, and how well the clocks agree.
#pragma once

#include <cstdint>
#include <string>

namespace record {

struct TraceCheck {
  bool isRead = false;
  uint64_t messages = 0;
  uint64_t unmatched = 0;  // messages of which one side is missing
  uint64_t early = 0;      // received before they were sent
  uint64_t worst = 0;      // of these, by how many nanoseconds at most
};

[[nodiscard]] TraceCheck checkTrace(const std::string& name);

}  // namespace record
