// Closes the calls and scopes that are open on the threads of a list at the end of a window.
//
// Thousands of components can end with one list of 65,535 triplets, and few of its threads have
// something open. So the open threads are looked up in the list, in an index that is made once. A
// thread that isn't in a list is looked up in it once, as long as it stays open.
#include <algorithm>
#include <utility>
#include <vector>

#include "generic/handlers/kltt_context.h"
#include "generic/handlers/kltt_events.h"
#include "klt/format/klt_schema.h"
#include "util/pal_error.h"
#include "util/pal_mem.h"

namespace {

constexpr uint64_t kNotInList = ~uint64_t{0};

// Closes the open calls of a thread and then its open scopes, the innermost first.
int closeThread(KLTT_Context& context, uint64_t internalTime, RK_WillyState& willy,
                uint32_t categories) {
  if ((categories & klt::kFunctions) != 0) {
    while (!willy.functions.empty()) {
      const uint32_t function = RK_FrameLeave(willy);
      if (context.sink != nullptr &&
          context.sink->leaveFunction(internalTime, willy.gtp, function, 0) != 0)
        return 1;
    }
  }
  if ((categories & klt::kScopes) != 0) {
    std::vector<KLT_OpenScope> open;
    willy.scopes.each([&open](const KLT_OpenScope& scope) { open.push_back(scope); });
    willy.scopes.clear();
    for (auto scope = open.rbegin(); scope != open.rend(); ++scope) {
      if (context.sink != nullptr &&
          context.sink->leaveScope(internalTime, willy.gtp, scope->scope, scope->seqnr, 0) != 0)
        return 1;
    }
  }
  return 0;
}

// Removes the gaps from `opened` when they are more than half of it.
void shortenOpened(RK_FrameWriter& frames) {
  if (2 * frames.gaps <= frames.willys.opened.size()) return;
  std::erase(frames.willys.opened, 0U);
  frames.gaps = 0;
  ++frames.renewals;
}

// Closes the threads for which placeOf(gtp) isn't kNotInList, in the order of that. They and those
// on which nothing is open are taken out of `opened`.
template <class PlaceOf>
int closeThreads(KLTT_Context& context, uint64_t internalTime, uint32_t categories,
                 RK_ClosedList& list, PlaceOf placeOf) {
  RK_FrameWriter& frames = context.frames;
  std::vector<RK_WillyState>& states = frames.willys.states;
  std::vector<uint32_t>& opened = frames.willys.opened;
  std::vector<std::pair<uint64_t, uint32_t>> found;
  if (list.renewals != frames.renewals) list.seen = 0;
  for (size_t i = list.seen; i < opened.size(); ++i) {
    if (opened[i] == 0) continue;
    RK_WillyState& willy = states[opened[i] - 1];
    if (willy.isOpen()) {
      const uint64_t place = placeOf(willy.gtp);
      if (place == kNotInList) continue;
      found.emplace_back(place, opened[i]);
    }
    willy.isListed = false;
    opened[i] = 0;
    ++frames.gaps;
  }
  list.seen = opened.size();
  list.renewals = frames.renewals;
  std::sort(found.begin(), found.end());
  for (const auto& [place, number] : found) {
    RK_WillyState& willy = states[number - 1];
    if (closeThread(context, internalTime, willy, categories) != 0) return 1;
    if (willy.isOpen()) RK_FrameList(frames.willys, willy);
  }
  shortenOpened(frames);
  return 0;
}

// Closes all declared threads, process by process.
int closeDeclared(KLTT_Context& context, uint64_t internalTime, uint32_t categories) {
  return closeThreads(context, internalTime, categories, context.frames.lists[0],
                      [&](uint32_t gtp) -> uint64_t {
                        const uint32_t process = klt::processOf(gtp);
                        const bool isDeclared = process < context.threadCounts.size() &&
                                                klt::threadOf(gtp) < context.threadCounts[process];
                        return isDeclared ? (gtp << 16 | gtp >> 16) : kNotInList;
                      });
}

// The number of threads in a triplet.
uint64_t countOf(const PAL_Triplet& triplet) {
  const int64_t distance = int64_t{triplet.last} - triplet.first;
  const int64_t stride = triplet.stride;
  if (stride == 0 || (distance != 0 && (distance < 0) != (stride < 0))) return 0;
  return static_cast<uint64_t>(distance / stride) + 1;
}

// The few threads of a list, in its order, if it has few.
constexpr size_t kFewThreads = 8;

bool areFew(PAL_TripletSpan list) {
  uint64_t count = 0;
  for (size_t i = 0; i < list.size() && count <= kFewThreads; ++i) {
    count += std::max<uint64_t>(countOf(list[i]), 1);
  }
  return count <= kFewThreads;
}

void reportWrongStrides(size_t count) {
  for (; count > 0; --count) {
    PAL_Error("Wrong triplet syntax, stride == 0, ignoring triplet.\n");
  }
}

int closeFew(KLTT_Context& context, uint64_t internalTime, uint32_t categories,
             PAL_TripletSpan list) {
  for (const PAL_Triplet& triplet : list) {
    if (triplet.stride == 0) reportWrongStrides(1);
    const uint64_t count = countOf(triplet);
    if (count != 0 && KLTT_LogFormatRecord(context, internalTime) != 0) return 1;
    for (uint64_t k = 0; k < count; ++k) {
      const int64_t number = triplet.first + static_cast<int64_t>(k) * triplet.stride;
      RK_WillyState* willy = RK_WillyHashFind(context.frames.willys, static_cast<uint32_t>(number));
      if (willy != nullptr && closeThread(context, internalTime, *willy, categories) != 0) return 1;
    }
  }
  return 0;
}

// The place of a thread in a list: the first triplet that contains it, and its place in that.
uint64_t placeIn(PAL_TripletSpan list, size_t index, uint32_t gtp) {
  const uint32_t ascending = gtp ^ 0x80000000;  // in the order of signed numbers
  return uint64_t{index} << 32 | (list[index].stride > 0 ? ascending : ~ascending);
}

RK_ClosedList& knownList(RK_FrameWriter& frames, PAL_TripletSpan list) {
  const auto [known, isNew] = frames.lists.try_emplace(reinterpret_cast<uintptr_t>(list.data()));
  RK_ClosedList& facts = known->second;
  if (!isNew) return facts;
  for (const PAL_Triplet& triplet : list) {
    facts.wrongStrides += triplet.stride == 0 ? 1 : 0;
    facts.hasThreads = facts.hasThreads || countOf(triplet) != 0;
  }
  return facts;
}

int closeListed(KLTT_Context& context, uint64_t internalTime, uint32_t categories,
                PAL_TripletSpan list) {
  constexpr size_t kFew = 4;
  RK_ClosedList& known = knownList(context.frames, list);
  reportWrongStrides(known.wrongStrides);
  if (!known.hasThreads) return 0;
  if (KLTT_LogFormatRecord(context, internalTime) != 0) return 1;
  // The index pays for many threads, or if the list comes again.
  const bool isIndexed = known.isUsed || context.frames.willys.opened.size() > kFew;
  if (isIndexed && !known.order) known.order.emplace(list);
  known.isUsed = true;
  return closeThreads(context, internalTime, categories, known, [&](uint32_t gtp) -> uint64_t {
    const auto number = static_cast<int32_t>(gtp);
    const uint32_t index = isIndexed ? known.order->find(number) : PAL_TripletsFind(list, number);
    return index == kPalNotFound ? kNotInList : placeIn(list, index, gtp);
  });
}

}  // namespace

// If the record names any thread, the delayed records before its end are written, even if nothing
// is open on that thread.
int KLTT_EndOfFilter(void* user, uint64_t time, uint32_t categories, uint32_t numTriplets,
                     const PAL_Triplet* triplets) {
  const PAL_Place here;
  KLTT_Context& context = *static_cast<KLTT_Context*>(user);
  const bool openEnd = static_cast<int64_t>(time) < 0;
  const uint64_t internalTime = KLTT_InternalTime(context, openEnd ? context.lastEventTime : time);
  if ((categories & (klt::kFunctions | klt::kScopes)) == 0) return 0;
  const PAL_TripletSpan list(triplets, numTriplets);
  if (areFew(list) && !list.empty()) return closeFew(context, internalTime, categories, list);
  if (!list.empty()) return closeListed(context, internalTime, categories, list);
  if (context.totalThreads == 0) return 0;
  if (KLTT_LogFormatRecord(context, internalTime) != 0) return 1;
  return closeDeclared(context, internalTime, categories);
}
