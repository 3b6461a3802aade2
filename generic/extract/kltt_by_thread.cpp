// Extracts a binary trace without merging all calls by time. See kltt_by_thread.h.
#include "generic/extract/kltt_by_thread.h"

#include <memory>
#include <utility>

#include "generic/handlers/kltt_context.h"
#include "generic/handlers/kltt_events.h"

// A handler of the records that aren't expected among calls.
template <class... Args, int (*KLT_HandlerTable::*Member)(void*, Args...)>
struct KLTT_ByThread::Refused<Member> {
  static int handle(void* user, Args...) { return static_cast<KLTT_ByThread*>(user)->refuse(); }
};

KLTT_ByThread::KLTT_ByThread(KLTT_Context& context, const KLT_HandlerTable& merged)
    : context_(context), writer_(context.sink->writer), alone_(merged), merged_(merged) {
  alone_.user_data = this;
  klt::forEachSlot(alone_, []<class Slot>(Slot, auto& handler) {
    if (handler != nullptr) handler = &Refused<Slot::member>::handle;
  });
  alone_.enter_function = &enterAlone;
  alone_.leave_function = &leaveAlone;
  alone_.end_of_filter = &endAlone;
  merged_.enter_function = &enterMerged;
  merged_.leave_function = &leaveMerged;
  context_.byThread = this;
  exchangeQueues();
  KLT_WriterDeferPlaces(writer_, true);
}

KLT_AloneReceiver KLTT_ByThread::receiver() {
  return {.handlers = alone_,
          .repeats = &repeats_,
          .streamEnded = [](void* user) { static_cast<KLTT_ByThread*>(user)->endThread(); },
          .mergeStarts = [](void* user) { static_cast<KLTT_ByThread*>(user)->startMerge(); }};
}

KLTT_ByThread::~KLTT_ByThread() { context_.byThread = nullptr; }

int KLTT_ByThread::refuse() {
  hasRefused_ = true;
  return 1;
}

// A queue is too large for a temporary one on a small stack.
void KLTT_ByThread::exchangeQueues() {
  const auto other = std::make_unique<KLTT_Queue>(std::move(pending_));
  pending_ = std::move(context_.pending);
  context_.pending = std::move(*other);
}

// --- calls on their own -------------------------------------------------------------------------

// False if the thread's calls are in two components, or among those of another thread.
bool KLTT_ByThread::startThread(uint32_t gtp) {
  endThread();
  const auto [thread, isNew] = threads_.try_emplace(gtp);
  if (!isNew) return false;
  current_ = &thread->second;
  counts_ = KLT_WriterCount(writer_);
  current_->profile = static_cast<uint32_t>(counts_.profiles);
  gtp_ = gtp;
  hasStarted_ = false;
  return true;
}

void KLTT_ByThread::endThread() {
  if (std::exchange(current_, nullptr) != nullptr) KLT_WriterRestCalls(writer_, gtp_);
}

// Has a record repeated that has created something, or that is the first after the time 0, before
// which the delayed records are written.
void KLTT_ByThread::note(uint64_t time, KLT_WriterCounts now) {
  current_->created.push_back(
      static_cast<uint8_t>((now.components != counts_.components ? kComponent : kNothing) |
                           (now.profiles != counts_.profiles ? kProfile : kNothing)));
  counts_ = now;
  hasStarted_ = hasStarted_ || KLTT_InternalTime(context_, time) != 0;
  repeats_ = true;
}

template <class Handle>
[[gnu::always_inline]] inline int KLTT_ByThread::handleAlone(uint64_t time, uint32_t gtp,
                                                             Handle handle) {
  if (current_ == nullptr || gtp != gtp_) [[unlikely]]
    if (!startThread(gtp)) return refuse();
  const int result = handle();
  const KLT_WriterCounts now = KLT_WriterCount(writer_);
  const bool isFirst = !hasStarted_ && KLTT_InternalTime(context_, time) != 0;
  if (isFirst || now != counts_) [[unlikely]]
    note(time, now);
  return result;
}

int KLTT_ByThread::enterAlone(void* user, uint64_t time, uint32_t gtp, uint32_t function,
                              uint32_t scl) {
  auto& self = *static_cast<KLTT_ByThread*>(user);
  return self.handleAlone(
      time, gtp, [&] { return KLTT_EnterFunction(&self.context_, time, gtp, function, scl); });
}

int KLTT_ByThread::leaveAlone(void* user, uint64_t time, uint32_t gtp, uint32_t scl) {
  auto& self = *static_cast<KLTT_ByThread*>(user);
  return self.handleAlone(time, gtp,
                          [&] { return KLTT_LeaveFunction(&self.context_, time, gtp, scl); });
}

// Calls are closed in the merge, at the time of the last event of all threads.
int KLTT_ByThread::endAlone(void* user, uint64_t /*time*/, uint32_t /*categories*/,
                            uint32_t /*numTriplets*/, const PAL_Triplet* /*triplets*/) {
  static_cast<KLTT_ByThread*>(user)->repeats_ = true;
  return 0;
}

// --- the merge ----------------------------------------------------------------------------------

void KLTT_ByThread::startMerge() {
  KLT_WriterDeferPlaces(writer_, false);
  exchangeQueues();
}

int KLTT_ByThread::place(uint64_t time, uint32_t gtp, Thread& thread) {
  if (thread.next == thread.created.size()) return refuse();
  if (KLTT_LogFormatRecord(context_, KLTT_InternalTime(context_, time)) != 0) return 1;
  const uint8_t created = thread.created[thread.next++];
  if ((created & kComponent) != 0) KLT_WriterPlaceCalls(writer_, gtp);
  if ((created & kProfile) != 0) KLT_WriterPlaceProfile(writer_, thread.profile++);
  return 0;
}

int KLTT_ByThread::enterMerged(void* user, uint64_t time, uint32_t gtp, uint32_t function,
                               uint32_t scl) {
  KLTT_ByThread& self = *static_cast<KLTT_Context*>(user)->byThread;
  const auto thread = self.threads_.find(gtp);
  if (thread == self.threads_.end()) return KLTT_EnterFunction(user, time, gtp, function, scl);
  return self.place(time, gtp, thread->second);
}

int KLTT_ByThread::leaveMerged(void* user, uint64_t time, uint32_t gtp, uint32_t scl) {
  KLTT_ByThread& self = *static_cast<KLTT_Context*>(user)->byThread;
  const auto thread = self.threads_.find(gtp);
  if (thread == self.threads_.end()) return KLTT_LeaveFunction(user, time, gtp, scl);
  return self.place(time, gtp, thread->second);
}
