// Opening streams and positioning them at their requests. See klt_stream.h.
#include "klt/stream/klt_stream.h"

#include <algorithm>
#include <cerrno>
#include <string>

#include "klt/read/klt_reader.h"
#include "util/pal_error.h"

namespace {

using klt::kAny;

bool selectsNoMore(const KLT_StreamRequest& request, const KLT_StreamRequest& than) {
  if ((than.categories & kAny) == 0 && (request.categories & ~than.categories) != 0) return false;
  if (than.threads.empty()) return true;
  return !request.threads.empty() && PAL_TripletsSubset(than.threads, request.threads);
}

// Whether samples are to be told and the seek point lists none: it may come from someone who
// doesn't keep them, and only a look at all records can tell.
bool lacksSamples(KLT_Stream& s, const KLT_StreamRequest& request) {
  if ((KLT_StoredCategories(s, request.categories) & klt::kCounters) == 0) return false;
  if (!KLT_TellsCounters(request)) return false;
  const auto& states = s.context.states();
  return std::all_of(states.begin(), states.end(),
                     [](const auto& state) { return state->counters.entries().empty(); });
}

// Empties the context and goes to where the request's reading starts.
bool jump(KLT_Stream& s, const KLT_StreamRequest& request) {
  s.context.clear(~uint32_t{0});
  if (request.anchor != nullptr) {
    KLT_ReplayAnchor(s, *request.anchor, KLT_StoredCategories(s, request.categories));
    if (!lacksSamples(s, request)) {
      s.time = request.anchor->time;
      return s.input.seek(request.anchor->offset);
    }
    s.context.clear(~uint32_t{0});
  }
  s.time = 0;
  return s.input.seek(s.firstOffset);
}

// What the request asks for beyond the one that ends where it starts.
void noteAdded(KLT_Stream& s, const KLT_StreamRequest& request, const KLT_StreamRequest& before) {
  const uint32_t asked =
      (request.categories & kAny) != 0 ? klt::kWholeSelection & ~kAny : request.categories;
  s.addedCategories = (before.categories & kAny) != 0 ? 0 : asked & ~before.categories;
  s.addedCategories &= s.categories;
  s.addedThreads.clear();
  if (!before.threads.empty())
    s.addedThreads = PAL_TripletsSubtract(request.threads, before.threads);
}

void setFilter(KLT_Stream& s, const KLT_StreamRequest& request) {
  s.start = request.start;
  s.end = request.end;
  s.testThreads = request.testThreads;
  s.commonMembers.clear();
  for (const KLT_Row& row : kKltRows) {
    const KLT_CategoryTest test = row.traits().category;
    bool wanted =
        test == KLT_CategoryTest::kNone || ((request.categories | kAny) & row.categories()) != 0;
    if (test == KLT_CategoryTest::kFull || test == KLT_CategoryTest::kNoHandler) {
      wanted = wanted && s.possible[row.number];
    }
    if (test == KLT_CategoryTest::kFull || test == KLT_CategoryTest::kMasksAndHandler) {
      wanted = wanted && s.hasHandler[row.number];
    }
    s.wanted[row.number] = wanted;
  }
  s.plainRows = KLT_PlainRows(s);
}

}  // namespace

bool KLT_EnterRequest(KLT_Stream& s, size_t index) {
  const KLT_StreamRequest& request = s.requests[index];
  const KLT_StreamRequest* before = index == 0 ? nullptr : &s.requests[index - 1];
  s.request = index;
  setFilter(s, request);
  s.historyDone = false;
  s.keepContext = true;
  if (before != nullptr && before->end == request.start) {
    noteAdded(s, request, *before);
    if (s.addedCategories == 0 && s.addedThreads.empty()) {
      s.historyDone = true;
      s.keepContext = index + 1 < s.requests.size();
      s.input.setLimit(request.limit);
      return true;
    }
  } else {
    s.addedCategories = KLT_StoredCategories(s, request.categories);
    s.addedThreads.clear();
    // What the request before kept of the context is enough, and nothing is to be gained by a jump.
    const bool goesOn = before != nullptr && selectsNoMore(request, *before) &&
                        (request.anchor == nullptr || request.anchor->offset <= s.input.position());
    if (goesOn) {
      s.seenUntil = before->end;
      s.input.setLimit(request.limit);
      return true;
    }
  }
  s.seenUntil = before == nullptr ? 0 : before->end;
  if (!jump(s, request)) return false;
  s.input.setLimit(request.limit);
  return true;
}

bool KLT_StreamOpen(KLT_Stream& s) {
  if (s.file == nullptr) {
    PAL_Error("Corrupted file.");
    return false;
  }
  const std::string name = KLT_ComponentName(*s.handle, *s.file, false);
  errno = 0;
  s.io = KLT_IoOpen(s.handle->container, name.c_str());
  if (s.io == nullptr) {
    KLT_ReportUnopened(name);
    return false;
  }
  errno = 0;
  const bool attached = s.component != nullptr && s.handle->compressed(s.component->categories)
                            ? s.input.attachCompressed(s.io, s.handle->base.c_str(), s.suffix())
                            : s.input.attach(s.io, s.handle->base.c_str(), s.suffix());
  if (!attached) {
    if (errno == 0) errno = EIO;
    KLT_ReportUnopened(name);
    return false;
  }
  if (s.component != nullptr && s.reader->mode == KLT_MODE_EVENTS) KLT_PlanRequests(s);
  return KLT_EnterRequest(s, 0);
}

void KLT_StreamClose(KLT_Stream& s) {
  s.input.detach();
  if (s.io != nullptr) KLT_IoClose(s.io);
  s.packed.release();
}
