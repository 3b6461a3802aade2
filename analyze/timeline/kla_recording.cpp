// Collects what a page contains. See kla_recording.h.
#include "analyze/timeline/kla_recording.h"

#include <algorithm>
#include <cmath>
#include <tuple>
#include <utility>

namespace kla {

namespace {

constexpr size_t kMostCalls = 400000;
constexpr size_t kMostMessages = 60000;
constexpr size_t kMostWaits = 60000;
constexpr size_t kMostOperations = 20000;
constexpr uint32_t kMostParts = 64;  // of an operation; more of them are thinned out
constexpr size_t kMostOtherBars = 20000;
constexpr uint32_t kMostDepth = 60;  // deeper calls are only in the density
constexpr uint32_t kCells = 600000;  // of the density
constexpr uint32_t kMostBins = 4096, kLeastBins = 16;
constexpr uint32_t kMostLanes = 8;  // of overlapping scopes
constexpr size_t kMostTracks = 200;
constexpr uint32_t kTrackPoints = 1000;

void onWait(void* user, const Wait& wait) { static_cast<Recording*>(user)->waits.add({wait}); }

void onOperation(void* user, const CollectiveRecord& record, const std::vector<Part>& parts) {
  if (parts.empty()) return;
  Operation operation{record.operation, record.communicator, {}, kNever, 0};
  const size_t step = (parts.size() + kMostParts - 1) / kMostParts;
  for (size_t i = 0; i < parts.size(); ++i) {
    operation.from = std::min(operation.from, parts[i].start);
    operation.to = std::max(operation.to, parts[i].end);
    if (i % step == 0) operation.parts.push_back(parts[i]);
  }
  static_cast<Recording*>(user)->operations.add(operation);
}

}  // namespace

Recording::Recording(Analysis& analysis)
    : calls(kMostCalls),
      scopes(kMostOtherBars),
      files(kMostOtherBars),
      messages(kMostMessages),
      operations(kMostOperations),
      waits(kMostWaits),
      analysis_(analysis) {
  analysis.listener = this;
  analysis.waits.observer = {this, &onWait};
  analysis.collectives.observer = {this, &onOperation};
}

void Recording::begin(Window span) {
  span_ = span;
  // A window isn't read before; then it has at most the threads that the trace declares.
  uint64_t declared = 0;
  for (const uint32_t threads : analysis_.definitions.threads) declared += threads;
  const auto threads = static_cast<uint32_t>(
      std::max(analysis_.threadCount(), std::min<uint64_t>(declared, kCells)));
  const uint32_t bins = std::clamp(kCells / std::max(threads, 1U), kLeastBins, kMostBins);
  density.begin(span, static_cast<uint32_t>(std::min<Time>(bins, span.end - span.start)));
}

std::vector<Recording::Frame>& Recording::stackOf(uint32_t thread) {
  if (stacks_.size() <= thread) stacks_.resize(thread + 1);
  return stacks_[thread];
}

void Recording::enter(uint32_t thread, Time time, uint32_t function) {
  std::vector<Frame>& stack = stackOf(thread);
  if (analysis_.calls[thread].selected()) {
    density.add(thread, stack.empty() ? kNone : stack.back().function, time);
  }
  stack.push_back({function, time});
}

void Recording::leave(uint32_t thread, Time time) {
  std::vector<Frame>& stack = stackOf(thread);
  if (stack.empty()) return;
  const Frame frame = stack.back();
  stack.pop_back();
  if (!analysis_.calls[thread].selected()) return;
  density.add(thread, frame.function, time);
  if (stack.size() >= kMostDepth) return;
  calls.add({thread, frame.function, static_cast<uint32_t>(stack.size()), 0, frame.enter, time});
}

void Recording::message(uint32_t sender, Time sent, uint32_t receiver, Time received,
                        uint32_t bytes, uint32_t tag, uint32_t communicator) {
  messages.add({sender, receiver, bytes, tag, communicator, sent, received});
}

void Recording::scope(uint32_t thread, Time time, uint32_t scope, uint32_t number, bool begins) {
  if (!analysis_.calls[thread].selected()) return;
  const std::pair<uint64_t, uint32_t> key{uint64_t{thread} << 32 | scope, number};
  if (begins) {
    openScopes_[key] = time;
    return;
  }
  const auto open = openScopes_.find(key);
  if (open == openScopes_.end()) return;
  scopes.add({thread, scope, 0, number, open->second, std::max(time, open->second)});
  openScopes_.erase(open);
}

void Recording::sample(uint32_t thread, Time time, uint32_t counter, double value) {
  if (!analysis_.calls[thread].selected() || !std::isfinite(value) || span_.start >= span_.end)
    return;
  const std::pair<uint32_t, uint32_t> key{thread, counter};
  const auto found = tracks.find(key);
  if (found == tracks.end() && tracks.size() >= kMostTracks) return;
  std::vector<Track::Point>& points = tracks[key].points;
  const auto binOf = [&](Time t) {
    const Time at = std::clamp(t, span_.start, span_.end) - span_.start;
    return Sum{at} * kTrackPoints / (span_.end - span_.start);
  };
  if (!points.empty() && binOf(points.back().time) == binOf(time)) {
    points.back().low = std::min(points.back().low, value);
    points.back().high = std::max(points.back().high, value);
  } else {
    points.push_back({time, value, value});
  }
}

void Recording::file(uint32_t thread, Time from, Time to, uint32_t file, uint32_t type,
                     uint32_t bytes) {
  if (analysis_.calls[thread].selected()) files.add({thread, file, type, bytes, from, to});
}

void Recording::finish() {
  const Window span = analysis_.span();
  for (const auto& [key, from] : openScopes_) {
    const auto thread = static_cast<uint32_t>(key.first >> 32);
    scopes.add(
        {thread, static_cast<uint32_t>(key.first), 0, key.second, from, std::max(from, span.end)});
  }
  stackScopes();
  density.finish();
}

// Scopes of a thread may overlap: gives each the first lane in which it doesn't, as its depth.
void Recording::stackScopes() {
  std::vector<Bar>& bars = scopes.elements();
  std::sort(bars.begin(), bars.end(), [](const Bar& a, const Bar& b) {
    return std::tuple(a.thread, a.from, b.to) < std::tuple(b.thread, b.from, a.to);
  });
  std::vector<Time> ends(kMostLanes);
  uint32_t thread = kNone;
  for (Bar& bar : bars) {
    if (std::exchange(thread, bar.thread) != bar.thread) std::fill(ends.begin(), ends.end(), 0);
    while (bar.depth + 1 < kMostLanes && ends[bar.depth] > bar.from) ++bar.depth;
    ends[bar.depth] = std::max(ends[bar.depth], bar.to);
  }
}

}  // namespace kla
