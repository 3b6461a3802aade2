// Handles the records of events. See kla_handlers.h.
#include "analyze/pass/kla_handlers.h"

#include <algorithm>
#include <bit>

namespace kla {

namespace {

// A receive time of this value means that the receive is unknown; one more: that the send is.
constexpr uint64_t kUnknownSide = uint64_t{1} << 63;

Analysis& in(void* user) { return *static_cast<Analysis*>(user); }

// The `user` of all handlers is the Analysis. `kFull`: with waits, bins or a listener.
template <bool kFull>
int enter(void* user, uint64_t time, uint32_t gtp, uint32_t id, uint32_t) {
  Analysis& a = in(user);
  const uint32_t thread = a.calls.indexOf(gtp);
  const uint32_t function = a.definitions.functionIndex(id);
  ThreadCalls& calls = a.calls[thread];
  ++a.enters;
  time = a.timeOf(time, calls.selected());
  calls.enter(time, function);
  if (a.definitions.functions[function].isMpi && calls.mpiDepth++ == 0) {
    calls.mpiFunction = function;
    calls.mpiEnter = calls.last();
  }
  if constexpr (kFull) {
    a.waits.advance(time);
    if (a.listener != nullptr) a.listener->enter(thread, calls.last(), function);
  }
  return 0;
}

// Ends the innermost call of a thread.
template <bool kFull>
void endCall(Analysis& a, uint32_t thread, Time time) {
  ThreadCalls& calls = a.calls[thread];
  const uint32_t function = calls.leave(time);
  if (a.definitions.functions[function].isMpi && --calls.mpiDepth == 0) {
    calls.mpiTime += calls.last() - calls.mpiEnter;
    if constexpr (kFull) {
      a.waits.mpiCall(thread, calls.mpiFunction, calls.mpiEnter, calls.last());
      if (a.bins != nullptr && calls.gtp() <= kProcessMask) {
        a.bins->add(calls.gtp(), calls.mpiEnter, calls.last());
      }
    }
  }
  if constexpr (kFull) {
    if (a.listener != nullptr) a.listener->leave(thread, calls.last());
  }
}

template <bool kFull>
int leave(void* user, uint64_t time, uint32_t gtp, uint32_t) {
  Analysis& a = in(user);
  const uint32_t thread = a.calls.indexOf(gtp);
  ThreadCalls& calls = a.calls[thread];
  time = a.timeOf(time, calls.selected());
  if constexpr (kFull) a.waits.advance(time);
  if (!calls.isOpen()) [[unlikely]] {
    ++a.strayLeaves;
    return 0;
  }
  endCall<kFull>(a, thread, time);
  return 0;
}

template <bool kFull>
int history(void* user, uint64_t time, uint32_t gtp, uint32_t count, const uint32_t* functions,
            const uint32_t*) {
  for (uint32_t i = 0; i < count; ++i) enter<kFull>(user, time, gtp, functions[i], 0);
  in(user).enters -= count;
  return 0;
}

// Whether the function of a message's side is an MPI function, or unknown.
bool mayBeMpi(Analysis& a, uint32_t id) {
  return id == 0 || a.definitions.functions[a.definitions.functionIndex(id)].isMpi;
}

int message(void* user, uint64_t time, uint32_t sender, int64_t received, uint32_t receiver,
            uint32_t communicator, uint32_t size, uint32_t tag, uint32_t, uint32_t, uint32_t,
            uint32_t, uint32_t senderFunction, uint32_t receiverFunction) {
  Analysis& a = in(user);
  a.otherEvent(time);
  const uint32_t from = a.calls.indexOf(sender);
  const uint32_t to = a.calls.indexOf(receiver);
  const bool isSelected = a.calls[from].selected() || a.calls[to].selected();
  const auto bits = static_cast<uint64_t>(received);
  const bool isMatched = bits != kUnknownSide && bits != kUnknownSide + 1;
  if (isSelected) {
    ++a.messages.count;
    if (isMatched)
      a.messages.add(from, to, size, received);
    else
      ++a.messages.unmatched;
  }
  if (!isMatched) return 0;
  const Time first = time;
  const Time second = time + (received < 0 ? 0 - bits : bits);
  if (second < first) return 0;
  a.otherEvent(second);
  if (a.listener != nullptr && isSelected) {
    a.listener->message(from, received < 0 ? second : first, to, received < 0 ? first : second,
                        size, tag, communicator);
  }
  if (!a.wanted().waits || received < 0) return 0;
  a.waits.advance(time);
  if (first < a.waits.window.start) {
    ++a.waits.missing.cut;
    return 0;
  }
  a.waits.message(
      {from, to, first, second, mayBeMpi(a, senderFunction), mayBeMpi(a, receiverFunction)});
  return 0;
}

int collective(void* user, const CollectiveRecord& record) {
  Analysis& a = in(user);
  a.otherEvent(record.time);
  if (a.wanted().waits) a.waits.advance(record.time);
  a.collectives.add(record, a.wanted().waits ? &a.waits : nullptr);
  return 0;
}
int all(void* user, uint64_t time, uint32_t communicator, uint32_t type, uint32_t n,
        const uint64_t* starts, const uint64_t* durations, const uint32_t*) {
  return collective(user, {Pattern::kAll, time, communicator, type, n, starts, durations, nullptr,
                           nullptr, kNone, 0});
}
int allToAll(void* user, uint64_t time, uint32_t communicator, uint32_t type, uint32_t n,
             const uint64_t* starts, const uint64_t* durations, const uint32_t* sent,
             const uint32_t* received, const uint32_t*) {
  return collective(user, {Pattern::kAllToAll, time, communicator, type, n, starts, durations, sent,
                           received, kNone, 0});
}
int allToOne(void* user, uint64_t time, uint32_t root, uint32_t bytes, uint32_t communicator,
             uint32_t type, uint32_t n, const uint64_t* starts, const uint64_t* durations,
             const uint32_t* sent, const uint32_t*) {
  return collective(user, {Pattern::kAllToOne, time, communicator, type, n, starts, durations, sent,
                           nullptr, root, bytes});
}
int oneToAll(void* user, uint64_t time, uint32_t root, uint32_t bytes, uint32_t communicator,
             uint32_t type, uint32_t n, const uint64_t* starts, const uint64_t* durations,
             const uint32_t* received, const uint32_t*) {
  return collective(user, {Pattern::kOneToAll, time, communicator, type, n, starts, durations,
                           nullptr, received, root, bytes});
}

int anyScope(void* user, uint64_t time, uint32_t gtp, uint32_t scope, uint32_t number,
             bool begins) {
  Analysis& a = in(user);
  a.otherEvent(time);
  const uint32_t thread = a.calls.indexOf(gtp);
  if (a.listener != nullptr) {
    a.listener->scope(thread, std::max(time, a.waits.window.start), scope, number, begins);
  }
  return 0;
}

int enterScope(void* user, uint64_t time, uint32_t gtp, uint32_t scope, uint32_t number, uint32_t) {
  ++in(user).scopes;
  return anyScope(user, time, gtp, scope, number, true);
}
int leaveScope(void* user, uint64_t time, uint32_t gtp, uint32_t scope, uint32_t number, uint32_t) {
  return anyScope(user, time, gtp, scope, number, false);
}
int counters(void* user, uint64_t time, uint32_t gtp, uint32_t count, const uint32_t* ids,
             uint64_t* values) {
  Analysis& a = in(user);
  if (time < a.waits.window.start) return 0;  // the last sample before the window
  a.otherEvent(time);
  const uint32_t thread = a.calls.indexOf(gtp);
  for (uint32_t i = 0; i < count; ++i) {
    const uint32_t index = a.definitions.counterIds.find(ids[i]);
    const bool isFloat = index != kNone && a.definitions.counters[index].isFloat;
    const double value =
        isFloat ? std::bit_cast<double>(values[i]) : static_cast<double>(values[i]);
    a.samples.add(thread, ids[i], time, value);
    if (a.listener != nullptr) a.listener->sample(thread, time, ids[i], value);
  }
  return 0;
}

int fileBegin(void* user, uint64_t time, uint32_t gtp, uint32_t type, uint32_t file, uint32_t,
              uint32_t) {
  Analysis& a = in(user);
  a.otherEvent(time);
  a.files.begin(a.calls.indexOf(gtp), file, type, time);
  return 0;
}
int fileEnd(void* user, uint64_t time, uint32_t gtp, uint32_t type, uint32_t file, uint32_t bytes,
            uint32_t) {
  Analysis& a = in(user);
  a.otherEvent(time);
  const uint32_t thread = a.calls.indexOf(gtp);
  const Time begin = a.files.end(thread, file, type, bytes, time);
  if (a.listener != nullptr) a.listener->file(thread, begin, time, file, type, bytes);
  return 0;
}

int rawMessage(void* user, uint64_t time, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t,
               uint32_t, uint32_t, uint32_t) {
  in(user).otherEvent(time);
  ++in(user).rawEvents;
  return 0;
}
int rawCollective(void* user, uint64_t time, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t,
                  uint32_t, uint32_t, uint32_t, int64_t, uint32_t) {
  in(user).otherEvent(time);
  ++in(user).rawEvents;
  return 0;
}

// Whether the analysis needs more of a call than its time.
bool needsCalls(const Analysis& a) {
  return a.wanted().waits || a.bins != nullptr || a.listener != nullptr;
}

template <bool kFull>
void setCalls(KLT_HandlerTable& table) {
  table.enter_function = &enter<kFull>;
  table.leave_function = &leave<kFull>;
  table.function_history = &history<kFull>;
}
}  // namespace

void endCalls(Analysis& a, uint32_t thread, Time time) {
  while (a.calls[thread].isOpen()) {
    needsCalls(a) ? endCall<true>(a, thread, time) : endCall<false>(a, thread, time);
  }
}

KLT_HandlerTable eventHandlers(Analysis& a) {
  const Wanted& wanted = a.wanted();
  KLT_HandlerTable table;
  table.user_data = &a;
  needsCalls(a) ? setCalls<true>(table) : setCalls<false>(table);
  if (wanted.messages || wanted.waits) table.one_to_one_communication = &message;
  if (wanted.collectives || wanted.waits) {
    table.all_communication = &all;
    table.all_to_all_communication = &allToAll;
    table.all_to_one_communication = &allToOne;
    table.one_to_all_communication = &oneToAll;
  }
  if (wanted.scopes) {
    table.enter_scope = &enterScope;
    table.leave_scope = &leaveScope;
  }
  if (wanted.counters) table.counter_value = &counters;
  if (wanted.files) {
    table.file_io_begin = &fileBegin;
    table.file_io_end = &fileEnd;
  }
  // A reader delivers the messages and operations that are open at the start of a window only if
  // these two are there.
  table.begin_of_history = table.end_of_history = [](void*, uint64_t, uint32_t, uint32_t,
                                                     const PAL_Triplet*) { return 0; };
  table.message_raw_event = &rawMessage;
  table.collop_raw_event = &rawCollective;
  return table;
}

// Finds the span of the calls, for bins.
KLT_HandlerTable spanHandlers(Analysis& a) {
  KLT_HandlerTable table;
  table.user_data = &a;
  table.enter_function = [](void* user, uint64_t time, uint32_t gtp, uint32_t, uint32_t) {
    Analysis& self = in(user);
    (void)self.timeOf(time, self.calls[self.calls.indexOf(gtp)].selected());
    return 0;
  };
  table.leave_function = [](void* user, uint64_t time, uint32_t gtp, uint32_t) {
    Analysis& self = in(user);
    (void)self.timeOf(time, self.calls[self.calls.indexOf(gtp)].selected());
    return 0;
  };
  return table;
}

}  // namespace kla
