// Converts requests. See kltt_requests.h.
#include "generic/extract/kltt_requests.h"

#include <cmath>
#include <cstdint>
#include <limits>

#include "generic/handlers/kltt_context.h"

namespace {

constexpr uint64_t kEndOfTime = ~uint64_t{0};

// `ticks` rounded down; at least 0 and at most the largest int64_t; 0 for NaN.
uint64_t wholeTicks(double ticks) {
  constexpr double kLimit = 9223372036854775808.0;  // 2^63
  if (std::isnan(ticks) || ticks < 0) return 0;
  if (ticks >= kLimit) return std::numeric_limits<int64_t>::max();
  return static_cast<uint64_t>(ticks);
}

// Seconds as raw time; kEndOfTime if the raw time doesn't fit in 64 bits.
uint64_t rawTimeOf(const KLTT_Context& context, double seconds) {
  const uint64_t ticks = wholeTicks(seconds * context.ticksPerSecond);
  if (ticks > kEndOfTime >> context.eventBits) return kEndOfTime;
  return ticks << context.eventBits;
}

}  // namespace

std::vector<KLT_Request> KLTT_BuildRequests(const KLTT_Context& context,
                                            std::span<const RK_Request> wanted, bool ticks) {
  std::vector<KLT_Request> requests;
  const auto rawTime = [&](double time) {
    return ticks ? wholeTicks(time) : rawTimeOf(context, time);
  };
  for (const RK_Request& from : wanted) {
    KLT_Request& request = requests.emplace_back();
    request.start = rawTime(from.window_start);
    // A negative end, such as the default of -1, means no end. It is checked before the conversion,
    // which would lose the sign.
    request.end = from.window_end < 0 ? kEndOfTime : rawTime(from.window_end);
    request.categories = from.categories == 0 ? 1 : from.categories;
    request.threads = from.triplets;
  }
  return requests;
}
