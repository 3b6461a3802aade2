// Reads the events of a trace. See kla_pass.h.
#include "analyze/pass/kla_pass.h"

#include <algorithm>
#include <map>
#include <utility>

#include "analyze/pass/kla_handlers.h"

namespace kla {

bool Analysis::readDefinitions() {
  const int status = kla::readDefinitions(trace_, definitions, damaged);
  return status != KLT_STATUS_ABORTING;
}

void Analysis::select(const PAL_Triplets& threads) {
  threads_ = threads;
  calls.selection = PAL_TripletSet(threads);
  calls.selectsAll = threads.empty();
}

int Analysis::run(const Wanted& wanted) {
  wanted_ = wanted;
  calls.keepsPaths = wanted.paths;
  KLT_Request request;
  request.categories = klt::kFunctions | klt::kScopes | klt::kFileIo | klt::kCounters |
                       klt::kMessages | klt::kCollops | klt::kRawEvents;
  if (window_) {
    request.start = window_->start;
    request.end = window_->end;
    waits.window = collectives.window = *window_;
    first_ = window_->start;
  }
  if (!wanted.waits && listener == nullptr) request.threads = threads_;
  const KLT_Request* const requests[] = {&request};
  const uint32_t count = window_ || !request.threads.empty() ? 1 : 0;
  const auto openReader = [&](const KLT_HandlerTable& table) {
    return KLT_OwnedReader(KLT_OpenReader(trace_, KLT_MODE_EVENTS, count, requests, &table, 1));
  };
  if (wanted.bins != 0) {
    bool ignored = false;
    if (!window_ || !definitions.hasRun)
      (void)readAll(openReader(spanHandlers(*this)).get(), ignored);
    const Window span = window_ ? Window{window_->start, windowEnd()} : Window{first_, last_};
    if (span.start < span.end) {
      bins = std::make_unique<MpiBins>(span, wanted.bins);
      if (listener != nullptr) listener->begin(span);
    }
  }
  const KLT_HandlerTable table = eventHandlers(*this);
  const KLT_OwnedReader reader = openReader(table);
  const int status = readAll(reader.get(), damaged);
  finish();
  return status;
}

// The end of the selected window, but not after the end of the run.
Time Analysis::windowEnd() const {
  const Time known = std::max({last_, otherLast_, definitions.hasRun ? definitions.run.end : 0});
  return std::max(window_->start, std::min(window_->end, known));
}

// Ends the open calls and the parts of the analysis.
void Analysis::finish() {
  if (window_) {
    addDeclaredThreads();
    span_ = {window_->start, windowEnd()};
  } else if (first_ != kNever) {
    span_ = {first_, last_};
  } else {
    span_ = otherFirst_ <= otherLast_ ? Window{otherFirst_, otherLast_} : Window{0, 0};
  }
  for (uint32_t thread = 0; thread < calls.size(); ++thread) {
    anyCalls_ = anyCalls_ || calls[thread].hasCalls();
    endCalls(*this, thread, span_.end);
  }
  waits.finish();
}

// A process without any call in the window is outside MPI all the time.
void Analysis::addDeclaredThreads() {
  for (uint32_t process = 0; process < definitions.threads.size(); ++process) {
    if (process > kProcessMask || definitions.threads[process] == 0) continue;
    const uint32_t thread = calls.indexOf(process);
    calls[thread].isDeclared = true;
  }
}

// If no thread has calls, those with other events count.
bool Analysis::counts(uint32_t thread) const {
  return calls[thread].selected() && (!anyCalls_ || calls[thread].hasCalls());
}

std::vector<Analysis::Process> Analysis::processes() const {
  std::map<uint32_t, std::map<uint32_t, uint32_t>> found;
  for (uint32_t thread = 0; thread < calls.size(); ++thread) {
    if (!counts(thread)) continue;
    const uint32_t gtp = calls[thread].gtp();
    found[processOf(gtp)][gtp] = thread;
  }
  std::vector<Process> all;
  for (const auto& [process, threads] : found) {
    all.push_back({process, {}});
    for (const auto& [gtp, thread] : threads) all.back().threads.push_back(thread);
  }
  return all;
}

uint64_t Analysis::threadCount() const {
  uint64_t count = 0;
  for (uint32_t thread = 0; thread < calls.size(); ++thread) count += counts(thread);
  return count;
}

}  // namespace kla
