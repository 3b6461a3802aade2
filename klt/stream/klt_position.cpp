// Opens streams and moves them through their requests. See klt_position.h.
#include "klt/stream/klt_position.h"

#include <algorithm>
#include <cerrno>
#include <string>

#include "klt/stream/klt_anchor.h"
#include "klt/stream/klt_history.h"
#include "klt/stream/klt_select.h"
#include "util/pal_error.h"

namespace {

using klt::kAny;

// Whether `other` selects all categories and threads of `request`.
bool isCoveredBy(const KLT_Stream& s, const KLT_StreamRequest& request,
                 const KLT_StreamRequest& other) {
  if ((other.categories & kAny) == 0 && (request.categories & ~other.categories) != 0) return false;
  const KLT_ThreadList& threads = s.threadsOf(request);
  const KLT_ThreadList& others = s.threadsOf(other);
  if (others.empty()) return true;
  return !threads.empty() && s.pass->lists.isSubset(&others, &threads);
}

// Whether the request's history contains samples and the seek point has none. Some programs store
// no samples at seek points; then samples can only be found by reading all records.
bool lacksSamples(KLT_Stream& s, const KLT_StreamRequest& request) {
  if ((KLT_StoredCategories(s, request.categories) & klt::kCounters) == 0) return false;
  if (!KLT_TellsCounters(request)) return false;
  const auto& states = s.history.context.states();
  return std::all_of(states.begin(), states.end(),
                     [](const auto& state) { return state->counters.entries().empty(); });
}

// Clears the context and moves to the offset at which reading for the request starts.
bool jump(KLT_Stream& s, const KLT_StreamRequest& request, const KLT_Anchor* anchor) {
  s.history.context.clear(~uint32_t{0});
  if (anchor != nullptr) {
    KLT_ReplayAnchor(s, *anchor, KLT_StoredCategories(s, request.categories));
    if (!lacksSamples(s, request)) {
      s.filter.time = anchor->time;
      return s.input.seek(anchor->offset);
    }
    s.history.context.clear(~uint32_t{0});
  }
  s.filter.time = 0;
  return s.input.seek(s.source.firstOffset);
}

// Sets what the request selects, but not the previous request, which ends at its start.
void setAdded(KLT_Stream& s, const KLT_StreamRequest& request, const KLT_StreamRequest& before) {
  const uint32_t asked =
      (request.categories & kAny) != 0 ? klt::kWholeSelection & ~kAny : request.categories;
  s.history.addedCategories = (before.categories & kAny) != 0 ? 0 : asked & ~before.categories;
  s.history.addedCategories &= s.source.categories;
  s.history.addedThreads = nullptr;
  const KLT_ThreadList& threads = s.threadsOf(before);
  if (threads.empty()) return;
  const KLT_ThreadList* added = s.pass->lists.subtract(&s.threadsOf(request), &threads);
  if (!added->empty()) s.history.addedThreads = added;
}

}  // namespace

bool KLT_EnterRequest(KLT_Stream& s) {
  const KLT_StreamRequest& request = s.requests.current();
  const auto earlier = s.requests.earlier();
  const KLT_StreamRequest* before = earlier.empty() ? nullptr : &earlier.back();
  const auto [anchor, limit] = KLT_ExtentOf(s, request);
  KLT_HistoryState& history = s.history;
  KLT_SelectRequest(s);
  history.done = false;
  history.keepContext = true;
  bool readsOn = false;
  if (before != nullptr && before->end == request.start) {
    setAdded(s, request, *before);
    readsOn = history.addedCategories == 0 && history.addedThreads == nullptr;
    history.done = readsOn;
    if (readsOn) history.keepContext = s.requests.following() != nullptr;
  } else {
    history.addedCategories = KLT_StoredCategories(s, request.categories);
    history.addedThreads = nullptr;
    // The context that the previous request kept is sufficient, and a jump wouldn't save reading.
    readsOn = before != nullptr && isCoveredBy(s, request, *before) &&
              (anchor == nullptr || anchor->offset <= s.input.position());
  }
  if (!history.done) history.seenUntil = before == nullptr ? 0 : before->end;
  if (!readsOn && !jump(s, request, anchor)) return false;
  s.input.setLimit(limit);
  return true;
}

bool KLT_NextRequest(KLT_Stream& s) {
  KLT_EndRequest(s);
  s.requests.advance();
  return s.requests.finished() || KLT_EnterRequest(s);
}

bool KLT_StreamOpen(KLT_Stream& s) {
  KLT_StreamSource& source = s.source;
  source.failed = true;
  if (source.file == nullptr) {
    PAL_Error("Corrupted file.");
    return false;
  }
  const KLT_FileHandle& handle = *s.pass->handle;
  const std::string name = KLT_ComponentName(handle, *source.file, false);
  errno = 0;
  source.io = KLT_IoOpen(handle.container, name.c_str());
  if (source.io == nullptr) {
    KLT_ReportUnopened(name);
    return false;
  }
  errno = 0;
  const bool isCompressed =
      source.component != nullptr && handle.compressed(source.component->categories);
  const bool attached =
      isCompressed ? s.input.attachCompressed(source.io, handle.base.c_str(), source.suffix())
                   : s.input.attach(source.io, handle.base.c_str(), source.suffix());
  if (!attached) {
    if (errno == 0) errno = EIO;
    KLT_ReportUnopened(name);
    return false;
  }
  if (source.component != nullptr) KLT_LoadAnchors(s);
  source.failed = !KLT_EnterRequest(s);
  return !source.failed;
}

void KLT_StreamClose(KLT_Stream& s) {
  s.input.detach();
  if (s.source.io != nullptr) KLT_IoClose(s.source.io);
  s.packed.records.release();
}
