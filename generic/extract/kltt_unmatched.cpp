// Explains empty selections. See kltt_unmatched.h.
#include "generic/extract/kltt_unmatched.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "generic/options/RK_hint.h"
#include "generic/options/RK_options.h"
#include "klt/format/klt_values.h"

namespace {

bool hasWindow(const RK_Request& wanted) {
  return wanted.window_start != 0 || wanted.window_end >= 0;
}

void explainWindow(const KLTT_Context& context, const RK_Request& wanted,
                   const KLT_Request& request) {
  if (wanted.window_end >= 0 && wanted.window_end < wanted.window_start)
    RK_Hint("The window %g:%g ends before it starts, so it has no end.", wanted.window_start,
            wanted.window_end);
  const auto first = static_cast<uint64_t>(std::max<int64_t>(context.startTime, 0));
  const auto last = static_cast<uint64_t>(std::max<int64_t>(context.endTime, 0));
  const bool endsBefore = request.end >= request.start && request.end <= first;
  if (request.start <= last && !endsBefore) return;
  if (RK_conf.ticks != 0) {
    RK_Hint("The window is outside the trace, which lasts from %llu to %llu.",
            static_cast<unsigned long long>(first), static_cast<unsigned long long>(last));
    return;
  }
  const auto seconds = [&](uint64_t time) {
    return std::ldexp(static_cast<double>(time), -static_cast<int>(context.eventBits)) *
           context.clockPeriod;
  };
  RK_Hint("The window is outside the trace, which lasts from %.9gs to %.9gs.", seconds(first),
          seconds(last));
}

bool threadExists(const KLTT_Context& context, uint32_t gtp) {
  const uint32_t process = klt::processOf(gtp);
  return process < context.threadCounts.size() &&
         klt::threadOf(gtp) < context.threadCounts[process];
}

// Whether one of the first threads of the triplet exists.
bool someExist(const KLTT_Context& context, const PAL_Triplet& triplet) {
  constexpr int64_t kMostThreads = 100000;
  const int64_t stride = std::max<int64_t>(triplet.stride, 1);
  const int64_t end = std::min<int64_t>(triplet.last, triplet.first + kMostThreads * stride);
  for (int64_t thread = triplet.first; thread <= end; thread += stride) {
    if (threadExists(context, static_cast<uint32_t>(thread))) return true;
  }
  return false;
}

void explainThreads(const KLTT_Context& context, const RK_Request& wanted) {
  for (const PAL_Triplet& triplet : wanted.triplets) {
    if (!context.threadCounts.empty() && !someExist(context, triplet)) {
      RK_Hint(
          "There is no thread %d: the processes are 0 to %zu. Thread t of process p is p + "
          "65536 * t.",
          triplet.first, context.threadCounts.size() - 1);
    }
    if (triplet.last > triplet.first && !hasWindow(wanted)) {
      RK_Hint("%d:%d selects threads. A window needs a unit: %ds:%ds", triplet.first, triplet.last,
              triplet.first, triplet.last);
    }
  }
  if (wanted.has_refused_triplets) RK_Hint("A thread number with a sign is ignored.");
}

}  // namespace

void KLTT_ExplainNothing(const KLTT_Context& context, std::span<const KLT_Request> requests) {
  if (requests.empty() || requests.size() != RK_conf.request.size()) return;
  RK_Hint("The request%s no event.", requests.size() == 1 ? " selects" : "s select");
  for (size_t i = 0; i < requests.size(); ++i) {
    const RK_Request& wanted = RK_conf.request[i];
    if (hasWindow(wanted)) explainWindow(context, wanted, requests[i]);
    explainThreads(context, wanted);
  }
}
