// Finds wait states. See kla_waits.h.
#include "analyze/sums/kla_waits.h"

#include <algorithm>

namespace kla {

namespace {

// Takes a free element of a pool, or a new one.
template <class Element>
uint32_t take(std::vector<Element>& pool, std::vector<uint32_t>& free, const Element& element) {
  if (free.empty()) {
    pool.push_back(element);
    return static_cast<uint32_t>(pool.size() - 1);
  }
  const uint32_t index = free.back();
  free.pop_back();
  pool[index] = element;
  return index;
}

// Removes the first element of a heap and returns its index.
template <class Heap>
uint32_t takeFirst(Heap& heap) {
  std::pop_heap(heap.begin(), heap.end());
  const uint32_t index = heap.back().index;
  heap.pop_back();
  return index;
}

}  // namespace

Waits::State& Waits::stateOf(uint32_t thread) {
  if (states_.size() <= thread) states_.resize(thread + 1);
  return states_[thread];
}

void Waits::message(const Message& message) {
  (void)stateOf(std::max(message.sender, message.receiver));
  removeOutside(message.sender);
  removeOutside(message.receiver);
  const uint32_t index =
      take(messages_, freeMessages_, {message, kNone, kNone, 1, kNone, 0, 0, false});
  Open& open = messages_[index];
  State& receiver = states_[message.receiver];
  open.before = receiver.last;
  (open.before == kNone ? receiver.first : messages_[open.before].after) = index;
  receiver.last = index;
  receiver.receives.push_back({message.received, message.sent, index});
  std::push_heap(receiver.receives.begin(), receiver.receives.end());
  if (!message.senderInMpi) return;
  open.references = 2;
  states_[message.sender].sends.push_back(index);
}

// Bounds the lists of a thread that doesn't call MPI: no MPI call can contain a time that has
// passed without one. A call that ended just now may contain it, until it has been judged.
void Waits::removeOutside(uint32_t thread) {
  State& state = states_[thread];
  if (state.sends.size() + state.receives.size() < state.most || !ended_.empty()) return;
  const ThreadCalls& calls = calls_[thread];
  const Time open = calls.mpiDepth != 0 ? calls.mpiEnter : now_;
  std::erase_if(state.sends, [&](uint32_t index) {
    const bool isOutside = messages_[index].message.sent < open;
    if (isOutside) release(index);
    return isOutside;
  });
  while (!state.receives.empty() && state.receives.front().time < open) {
    const uint32_t index = takeFirst(state.receives);
    unlink(index);
    release(index);
    ++missing.outside;
  }
  state.most = std::max<size_t>(64, 2 * (state.sends.size() + state.receives.size()));
}

void Waits::part(Time start, Time end, const Wait& wait) {
  if (wait.from >= wait.to) return;
  State& state = stateOf(wait.thread);
  const uint32_t index = take(parts_, freeParts_, {start, end, wait});
  state.parts.push_back({start, start, index});
  std::push_heap(state.parts.begin(), state.parts.end());
}

// All events up to the time at which these calls ended are known.
void Waits::judge() {
  for (const Ended& call : ended_) {
    if (call.thread < states_.size()) findSends(call);
  }
  for (const Ended& call : ended_) {
    if (call.thread >= states_.size()) continue;
    judgeReceives(call);
    judgeParts(call);
  }
  ended_.clear();
}

// Whether an MPI call of the thread begins at `time` and is still open.
bool Waits::beginsAt(uint32_t thread, Time time) const {
  return calls_[thread].mpiDepth != 0 && calls_[thread].mpiEnter == time;
}

// Notes the call in the messages that it sent. A message sent at the moment at which the call ended
// and the next began belongs to the next.
void Waits::findSends(const Ended& call) {
  std::vector<uint32_t>& sends = states_[call.thread].sends;
  if (sends.empty()) return;
  std::vector<uint32_t> later;
  for (const uint32_t index : sends) {
    Open& open = messages_[index];
    const Time sent = open.message.sent;
    if (sent > call.leave ||
        (sent == call.leave && sent > call.enter && beginsAt(call.thread, sent))) {
      later.push_back(index);
      continue;
    }
    open.isKnown = sent >= call.enter;
    open.function = call.function;
    open.enter = call.enter;
    open.leave = call.leave;
    release(index);
  }
  sends = std::move(later);
}

void Waits::judgeReceives(const Ended& call) {
  State& state = states_[call.thread];
  Time until = call.enter;
  while (!state.receives.empty() && state.receives.front().time <= call.leave) {
    const uint32_t index = takeFirst(state.receives);
    Open& open = messages_[index];
    // Messages with the same time of receipt are judged in the order in which they were sent.
    const uint32_t first = state.first;
    const bool overtakes = first != index && messages_[first].message.sent < open.message.sent;
    unlink(index);
    if (open.message.received < call.enter || !open.message.receiverInMpi || !findSender(open)) {
      ++missing.outside;
    } else {
      judgeMessage(call, open, overtakes, until);
    }
    release(index);
  }
}

// Finds the sender's call if it is still open.
bool Waits::findSender(Open& open) const {
  if (open.isKnown) return true;
  const ThreadCalls& sender = calls_[open.message.sender];
  if (!open.message.senderInMpi || open.references < 2 || sender.mpiDepth == 0 ||
      sender.mpiEnter > open.message.sent) {
    return false;
  }
  open.function = sender.mpiFunction;
  open.enter = sender.mpiEnter;
  open.leave = kNever;
  return true;
}

// `until`: up to where the receiver's call counts as waiting already.
void Waits::judgeMessage(const Ended& call, Open& open, bool overtakes, Time& until) {
  const Message& message = open.message;
  if (open.enter > call.enter) {
    const Time to = std::min(open.enter, call.leave);
    book(overtakes ? WaitKind::kWrongOrder : WaitKind::kLateSender, call.thread, call.function,
         message.sender, until, to);
    until = std::max(until, to);
  } else if (call.enter > open.enter && open.leave > call.enter) {
    State& sender = states_[message.sender];
    if (sender.lateEnter != open.enter) {
      sender.lateEnter = open.enter;
      sender.lateUntil = open.enter;
    }
    book(WaitKind::kLateReceiver, message.sender, open.function, message.receiver, sender.lateUntil,
         call.enter);
    sender.lateUntil = std::max(sender.lateUntil, call.enter);
  }
}

// Books the waits of the collective operations in which the thread took part with this call. A
// program logs an operation from just before its call to just after it.
void Waits::judgeParts(const Ended& call) {
  State& state = states_[call.thread];
  while (!state.parts.empty()) {
    const uint32_t index = state.parts.front().index;
    const Part part = parts_[index];
    const bool hasBegun =
        part.start < call.leave || (part.start == call.leave && part.end == part.start);
    if (!hasBegun) return;
    freeParts_.push_back(takeFirst(state.parts));
    const bool overlaps = part.end > call.enter || part.start >= call.enter;
    book(part.wait.kind, call.thread, overlaps ? call.function : part.wait.function,
         part.wait.cause, part.wait.from, part.wait.to);
  }
}

void Waits::finish() {
  judge();
  for (const State& state : states_) {
    missing.cut += state.receives.size();
    for (const Pending& pending : state.parts) {
      const Wait& wait = parts_[pending.index].wait;
      book(wait.kind, wait.thread, wait.function, wait.cause, wait.from, wait.to);
    }
  }
}

void Waits::unlink(uint32_t index) {
  const Open& open = messages_[index];
  State& state = states_[open.message.receiver];
  (open.before == kNone ? state.first : messages_[open.before].after) = open.after;
  (open.after == kNone ? state.last : messages_[open.after].before) = open.before;
}

void Waits::release(uint32_t index) {
  if (--messages_[index].references == 0) freeMessages_.push_back(index);
}

void Waits::book(WaitKind kind, uint32_t thread, uint32_t function, uint32_t cause, Time from,
                 Time to) {
  from = std::max(from, window.start);
  to = std::min(to, window.end);
  if (from >= to || !calls_[thread].selected()) return;
  if (observer.wait != nullptr)
    observer.wait(observer.user, {kind, thread, cause, function, from, to});
  const uint64_t pair = pairs_[uint64_t{thread} << 32 | cause];
  const uint32_t row = keys_[pair << 32 | uint64_t{function} << 3 | static_cast<uint64_t>(kind)];
  if (row == rows_.size()) rows_.push_back({kind, thread, cause, function});
  ++rows_[row].count;
  rows_[row].ticks += to - from;
}

}  // namespace kla
