// Determines what a request selects of a stream (rows, threads, communicators with a selected
// member), and updates the context of threads with the selected records.
//
// The filter uses the tests and updates of a row as templates. The functions that dispatch by a
// record's number are for records that are replayed.
#pragma once

#include <cstdint>

#include "klt/format/klt_record.h"
#include "klt/format/klt_spans.h"
#include "klt/stream/klt_stream.h"

// The categories of which a history can contain state.
inline constexpr uint32_t kKltAllHistory = klt::kWholeSelection & ~klt::kDeclarations;

// The categories of `mask` that the stream's component stores; the bit kAny means all.
[[nodiscard]] uint32_t KLT_StoredCategories(const KLT_Stream& stream, uint32_t mask);
// Whether the history of the request contains the last samples of counters. It does only if the
// request asks for counters, but not for messages, collective operations or all categories.
[[nodiscard]] bool KLT_TellsCounters(const KLT_StreamRequest& request);

// Sets the stream's filter to its current request.
void KLT_SelectRequest(KLT_Stream& stream);

// The gtp of the first member of the communicator that the current request selects; kKltNoMember if
// there is none; kKltUndefined, after a report, if the communicator isn't defined or has no
// members.
inline constexpr int64_t kKltNoMember = -1;
inline constexpr int64_t kKltUndefined = -2;
[[nodiscard]] int64_t KLT_CommonMember(KLT_Stream& stream, uint32_t communicator);

// Whether the record's thread, or a member of its communicator, is selected.
[[nodiscard]] bool KLT_ThreadsSelected(KLT_Stream& stream, const uint8_t* record);
// Updates the context with a record of selected threads.
void KLT_UpdateContext(KLT_Stream& stream, const uint8_t* record);

namespace klt {

inline bool isSelected(const KLT_Stream& s, uint32_t gtp) {
  return s.filter.selected->contains(static_cast<int32_t>(gtp));
}

template <int N>
constexpr size_t communicatorField() {
  constexpr const KLT_Row& row = kKltRows[N - 1];
  constexpr size_t field = row.find("communicator");
  return field < row.numFields ? field : row.find("comm");
}

// Whether the threads of a record of row N are selected. REQUIRES: the request tests threads.
template <int N>
bool threadsSelected(KLT_Stream& s, const uint8_t* record) {
  using View = KLT_Record<N>;
  constexpr const KLT_Row& row = kKltRows[N - 1];
  constexpr KLT_ThreadTest test = row.traits().threads;
  if constexpr (test == KLT_ThreadTest::kThread || test == KLT_ThreadTest::kThreadAndComm) {
    if (!isSelected(s, View::template get32<row.find("willy_gtp")>(record))) return false;
  }
  if constexpr (test == KLT_ThreadTest::kEitherSide) {
    return isSelected(s, View::template get32<row.find("sender_gtp")>(record)) ||
           isSelected(s, View::template get32<row.find("receiver_gtp")>(record));
  }
  if constexpr (test == KLT_ThreadTest::kCommunicator || test == KLT_ThreadTest::kThreadAndComm) {
    return KLT_CommonMember(s, View::template get32<communicatorField<N>()>(record)) !=
           kKltNoMember;
  }
  return true;
}

// Updates stacks and scopes. While no history is to be produced, only the data for warnings is
// kept.
template <int N>
void updateStack(KLT_HistoryState& history, const uint8_t* record) {
  using View = KLT_Record<N>;
  constexpr const KLT_Row& row = kKltRows[N - 1];
  KLT_Context& context = history.context;
  const uint64_t time = KLT_RecordTime(record);
  const uint32_t gtp = View::template get32<row.find("willy_gtp")>(record);
  if constexpr (row.name == "enter_function") {
    uint32_t scl = 0;
    if constexpr (row.find("scl") < row.numFields)
      scl = View::template get32<row.find("scl")>(record);
    const uint32_t function = View::template get32<row.find("function")>(record);
    KLT_ContextEnterFunction(context, gtp, function, scl, history.keepContext);
  } else if constexpr (row.name == "leave_function") {
    KLT_ContextLeaveFunction(context, gtp, time, history.keepContext);
  } else {
    const uint32_t scope = View::template get32<row.find("scope")>(record);
    const uint32_t seqnr = View::template get32<row.find("seqnr")>(record);
    if constexpr (row.name == "enter_scope") {
      KLT_ContextEnterScope(context, gtp, time, scope, seqnr);
    } else {
      KLT_ContextLeaveScope(context, gtp, scope, seqnr);
    }
  }
}

template <int N>
void updateSamples(KLT_Context& context, const uint8_t* record) {
  using View = KLT_Record<N>;
  constexpr const KLT_Row& row = kKltRows[N - 1];
  constexpr size_t values = row.find("values");
  const uint64_t time = KLT_RecordTime(record);
  const auto* value = View::template array<uint64_t, values>(record);
  const auto* counter = View::template array<uint32_t, row.find("counters")>(record);
  KLT_WillyState& state = context.of(View::template get32<row.find("willy_gtp")>(record));
  for (uint32_t i = 0; i < View::template count<values>(record); ++i) {
    if (counter[i] == 0) continue;
    // The record that is read last may not contain the last sample, because times may decrease and
    // a seek point's entries aren't in time order.
    KLT_CounterSample& sample = state.counters[counter[i]];
    if (time >= sample.time) sample = {time, value[i]};
  }
}

template <int N>
void storeMessage(KLT_Context& context, const uint8_t* record) {
  using View = KLT_Record<N>;
  constexpr const KLT_Row& row = kKltRows[N - 1];
  const uint64_t time = KLT_RecordTime(record);
  const uint32_t sender = View::template get32<row.find("sender_gtp")>(record);
  const uint32_t receiver = View::template get32<row.find("receiver_gtp")>(record);
  const auto receive = static_cast<int64_t>(View::template get64<row.find("receive_time")>(record));
  context.of(sender).messages.add(time, messageEnd(time, receive), receiver, record,
                                  View::bytes(record));
}

template <int N>
void storeCollective(KLT_Stream& s, const uint8_t* record) {
  using View = KLT_Record<N>;
  constexpr const KLT_Row& row = kKltRows[N - 1];
  constexpr size_t starts = row.find("start_time");
  constexpr size_t deltas = row.find("delta");
  const uint32_t communicator = View::template get32<row.find("communicator")>(record);
  if (KLT_CommonMember(s, communicator) < 0) return;
  const uint64_t time = KLT_RecordTime(record);
  const uint64_t end = collectiveEnd(time, View::template count<starts>(record),
                                     View::template array<uint64_t, starts>(record),
                                     View::template array<uint64_t, deltas>(record));
  s.history.context.collectives().add(time, end, communicator, record, View::bytes(record));
}

// Updates the context with a record of row N and selected threads.
template <int N>
void updateContext(KLT_Stream& s, const uint8_t* record) {
  constexpr KLT_FilterClass filter = kKltRows[N - 1].filter;
  if constexpr (filter == KLT_FilterClass::kCallStack) {
    updateStack<N>(s.history, record);
  } else if (!s.history.keepContext) {
    return;
  } else if constexpr (filter == KLT_FilterClass::kCounterSample) {
    updateSamples<N>(s.history.context, record);
  } else if constexpr (filter == KLT_FilterClass::kMessage) {
    storeMessage<N>(s.history.context, record);
  } else if constexpr (filter == KLT_FilterClass::kCollective) {
    storeCollective<N>(s, record);
  }
}

}  // namespace klt
