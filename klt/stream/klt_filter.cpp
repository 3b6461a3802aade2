// The filter pass: every record of a stream is tested against the current request, updates the
// context of its thread and, if it passes, is left in `packed`.
//
// One operation per row, in two forms: for records in the row's own layout, with the tests that
// need no fields ahead of the conversion, and for records that were read generically.

#include <algorithm>
#include <utility>

#include "klt/format/klt_codec.h"
#include "klt/format/klt_spans.h"
#include "klt/read/klt_reader.h"
#include "klt/stream/klt_stream.h"
#include "util/pal_error.h"

namespace {

bool isSelected(const KLT_Stream& s, uint32_t gtp) {
  return s.current().set.contains(static_cast<int32_t>(gtp));
}

template <int N>
constexpr size_t communicatorField() {
  constexpr const KLT_Row& row = kKltRows[N - 1];
  constexpr size_t field = row.find("communicator");
  return field < row.numFields ? field : row.find("comm");
}

template <int N>
bool threadsSelected(KLT_Stream& s, const uint8_t* record) {
  using View = KLT_RecordView<N>;
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

template <int N>
void storeCollective(KLT_Stream& s, const uint8_t* record) {
  using View = KLT_RecordView<N>;
  constexpr const KLT_Row& row = kKltRows[N - 1];
  constexpr size_t starts = row.find("start_time");
  constexpr size_t deltas = row.find("delta");
  const uint32_t communicator = View::template get32<row.find("communicator")>(record);
  if (KLT_CommonMember(s, communicator) < 0) return;
  const uint64_t time = KLT_RecordTime(record);
  const uint64_t end = klt::collectiveEnd(time, View::template count<starts>(record),
                                          View::template array<uint64_t, starts>(record),
                                          View::template array<uint64_t, deltas>(record));
  s.context.collectives().add(time, end, communicator, record, View::bytes(record));
}

template <int N>
void updateContext(KLT_Stream& s, const uint8_t* record) {
  using View = KLT_RecordView<N>;
  constexpr const KLT_Row& row = kKltRows[N - 1];
  const uint64_t time = KLT_RecordTime(record);
  if constexpr (row.filter == KLT_FilterClass::kCallStack) {
    const uint32_t gtp = View::template get32<row.find("willy_gtp")>(record);
    if constexpr (row.name == "enter_function") {
      uint32_t scl = 0;
      if constexpr (row.find("scl") < row.numFields)
        scl = View::template get32<row.find("scl")>(record);
      KLT_ContextEnterFunction(s.context, gtp, View::template get32<row.find("function")>(record),
                               scl, s.keepContext);
    } else if constexpr (row.name == "leave_function") {
      KLT_ContextLeaveFunction(s.context, gtp, time, s.keepContext);
    } else {
      const uint32_t scope = View::template get32<row.find("scope")>(record);
      const uint32_t seqnr = View::template get32<row.find("seqnr")>(record);
      if constexpr (row.name == "enter_scope") {
        KLT_ContextEnterScope(s.context, gtp, time, scope, seqnr);
      } else {
        KLT_ContextLeaveScope(s.context, gtp, scope, seqnr);
      }
    }
  } else if (!s.keepContext) {
    return;
  } else if constexpr (row.filter == KLT_FilterClass::kCounterSample) {
    constexpr size_t values = row.find("values");
    const auto* value = View::template array<uint64_t, values>(record);
    const auto* counter = View::template array<uint32_t, row.find("counters")>(record);
    KLT_WillyState& state = s.context.of(View::template get32<row.find("willy_gtp")>(record));
    for (uint32_t i = 0; i < View::template count<values>(record); ++i) {
      if (counter[i] == 0) continue;
      // Where times lead back, and among the entries of a seek point, the last record needn't hold
      // the last sample.
      KLT_CounterSample& sample = state.counters[counter[i]];
      if (time >= sample.time) sample = {time, value[i]};
    }
  } else if constexpr (row.filter == KLT_FilterClass::kMessage) {
    const uint32_t sender = View::template get32<row.find("sender_gtp")>(record);
    const auto receive =
        static_cast<int64_t>(View::template get64<row.find("receive_time")>(record));
    s.context.of(sender).messages.add(time, klt::messageEnd(time, receive),
                                      View::template get32<row.find("receiver_gtp")>(record),
                                      record, View::bytes(record));
  } else if constexpr (row.filter == KLT_FilterClass::kCollective) {
    storeCollective<N>(s, record);
  }
}

// What follows once the record of row N stands at the tail of `packed`. `disk` are the bytes to
// take from the input, `encoded` those of the encoded form, both without the number byte.
template <int N>
inline KLT_Step finish(KLT_Stream& s, uint64_t time, size_t disk, size_t encoded, bool before) {
  using View = KLT_RecordView<N>;
  constexpr const KLT_Row& row = kKltRows[N - 1];
  constexpr KLT_FilterTraits traits = row.traits();
  if constexpr (traits.threads != KLT_ThreadTest::kNone) {
    if (s.testThreads && !threadsSelected<N>(s, s.packed.tail())) {
      s.time = time;
      s.input.advance(disk);
      return KLT_Step::kConsumed;
    }
  }
  if constexpr (traits.context) {
    if (before) {
      // The consumer misses a change, unless it was told when the stream was here before.
      if (time >= s.seenUntil) s.historyClean &= ~row.categories();
      updateContext<N>(s, s.packed.tail());
      s.time = time;
      s.input.advance(disk);
      return KLT_Step::kConsumed;
    }
  }
  const size_t needed = s.packedBytes + encoded + KLT_Stream::kRecordOverhead;
  if (needed > s.packedCapacity && s.serial) [[unlikely]] {
    if (s.packedBytes != 0) return KLT_Step::kNeedRoom;
    s.packedCapacity = needed;
  }
  if constexpr (traits.history) {
    if (!s.historyDone) [[unlikely]] {
      return KLT_ProduceHistory(s, encoded + 1, false) ? KLT_Step::kAgain : KLT_Step::kNeedRoom;
    }
  }
  uint8_t* record = s.packed.tail();
  if constexpr (traits.context) updateContext<N>(s, record);
  if constexpr (!row.timed()) klt::storeNative(record + kKltRecordTimeAt, s.outTime);
  s.time = time;
  s.input.advance(disk);
  KLT_PassOn(s, View::bytes(record), encoded, row.timed() ? time : s.outTime);
  if constexpr (row.timed() && !traits.window) {
    if (s.behindEnd(time)) return KLT_Step::kConsumedLast;
  }
  return KLT_Step::kConsumed;
}

template <int N>
constexpr bool isDropped(const KLT_Stream& s) {
  constexpr KLT_CategoryTest test = kKltRows[N - 1].traits().category;
  return test != KLT_CategoryTest::kNone && !s.wanted[N];
}

// Seek points and their histories act in an anchor file only.
template <int N>
constexpr bool isSkipped() {
  return kKltRows[N - 1].filter == KLT_FilterClass::kSeekPoint;
}

template <int N>
KLT_Step filterFast(KLT_Stream& s, const KLT_DecoderEntry&) {
  using Codec = KLT_Codec<N>;
  constexpr const KLT_Row& row = kKltRows[N - 1];
  constexpr KLT_FilterTraits traits = row.traits();
  if (!s.input.ensure(Codec::layout.headBytes)) [[unlikely]]
    return KLT_Step::kNoData;
  uint64_t time = s.time;
  if constexpr (row.timed()) time = klt::steppedTime<N>(s.time, s.input.at());
  if constexpr (traits.window || row.movesTimeOnly()) {
    if (s.behindEnd(time)) return KLT_Step::kLeaveRequest;
  }
  if constexpr (row.movesTimeOnly()) {
    s.time = time;
    s.input.advance(Codec::layout.headBytes);
    return KLT_Step::kConsumed;
  }
  const bool before = traits.window && time < s.start;
  size_t disk = 0;
  if (isSkipped<N>() || isDropped<N>(s) || (before && !traits.context)) {
    if (Codec::measure(s.input, disk) != KLT_Parse::kRecord) return KLT_Step::kNoData;
    s.time = time;
    s.input.advance(disk);
    return KLT_Step::kConsumed;
  }
  uint64_t parsedTime = s.time;
  if (Codec::parse(s.input, s.packed, parsedTime, disk) != KLT_Parse::kRecord) [[unlikely]] {
    return KLT_Step::kNoData;
  }
  return finish<N>(s, time, disk, disk, before);
}

template <int N>
KLT_Step finishGeneric(KLT_Stream& s, uint64_t time, size_t disk) {
  constexpr const KLT_Row& row = kKltRows[N - 1];
  constexpr KLT_FilterTraits traits = row.traits();
  if constexpr (traits.window || row.movesTimeOnly()) {
    if (s.behindEnd(time)) return KLT_Step::kLeaveRequest;
  }
  const bool before = traits.window && time < s.start;
  if (row.movesTimeOnly() || isSkipped<N>() || isDropped<N>(s) || (before && !traits.context)) {
    s.time = time;
    s.input.advance(disk);
    return KLT_Step::kConsumed;
  }
  const size_t encoded = KLT_Codec<N>::encodedBytes(s.packed.tail()) - 1;
  return finish<N>(s, time, disk, encoded, before);
}

template <int N>
KLT_Step filterGeneric(KLT_Stream& s, const KLT_DecoderEntry& entry) {
  uint64_t time = s.time;
  size_t disk = 0;
  switch (KLT_ParseGeneric(entry, s.input, s.packed, time, disk)) {
    case KLT_Parse::kRecord:
      break;
    case KLT_Parse::kNoData:
      return KLT_Step::kNoData;
    default:
      return KLT_Step::kCorrupt;
  }
  return finishGeneric<N>(s, time, disk);
}

// A record that fits no row: only its time counts.
KLT_Step filterUnknown(KLT_Stream& s, const KLT_DecoderEntry& entry) {
  uint64_t time = s.time;
  size_t disk = 0;
  const KLT_Parse parsed = KLT_ParseGeneric(entry, s.input, s.packed, time, disk);
  if (parsed == KLT_Parse::kNoData) return KLT_Step::kNoData;
  if (parsed == KLT_Parse::kCorrupt) return KLT_Step::kCorrupt;
  s.time = time;
  s.input.advance(disk);
  return s.behindEnd(time) ? KLT_Step::kConsumedLast : KLT_Step::kConsumed;
}

template <int... N>
constexpr auto fastFilters(std::integer_sequence<int, N...>) {
  return std::array<KLT_DecoderEntry::Filter, sizeof...(N)>{&filterFast<N + 1>...};
}
template <int... N>
constexpr auto genericFilters(std::integer_sequence<int, N...>) {
  return std::array<KLT_DecoderEntry::Filter, sizeof...(N)>{&filterGeneric<N + 1>...};
}
template <int... N>
constexpr auto threadTests(std::integer_sequence<int, N...>) {
  return std::array<bool (*)(KLT_Stream&, const uint8_t*), sizeof...(N)>{
      &threadsSelected<N + 1>...};
}

template <int N>
constexpr auto contextUpdate() {
  void (*update)(KLT_Stream&, const uint8_t*) = nullptr;
  if constexpr (kKltRows[N - 1].traits().context) update = &updateContext<N>;
  return update;
}
template <int... N>
constexpr auto contextUpdates(std::integer_sequence<int, N...>) {
  return std::array<void (*)(KLT_Stream&, const uint8_t*), sizeof...(N)>{contextUpdate<N + 1>()...};
}

using AllRows = std::make_integer_sequence<int, kKltRowCount>;
constexpr auto kFastFilters = fastFilters(AllRows{});
constexpr auto kGenericFilters = genericFilters(AllRows{});
constexpr auto kThreadTests = threadTests(AllRows{});
constexpr auto kContextUpdates = contextUpdates(AllRows{});

// --- the loop -----------------------------------------------------------------------------------

// The input has ended inside the stream, as reported. What passed before is delivered.
void loseRest(KLT_Stream& s) {
  s.lostData = true;
  s.request = s.requests.size();
}

KLT_Fill fail(KLT_Stream& s) {
  // Without time order the consumer has the records already: its filter is closed.
  if (!s.serial && !s.finished()) (void)KLT_NextRequest(s);
  PAL_Error("Corrupted data");
  s.status = kKltStreamFailed;
  return KLT_Fill::kFailed;
}

// Reads on at the end of the buffer, or ends the request. False if the stream has failed.
bool atBufferEnd(KLT_Stream& s) {
  if (!s.input.moreToRead()) return KLT_NextRequest(s);
  if (!s.input.ensure(1)) loseRest(s);
  return true;
}

// The layout entry of an index, behind its number byte.
KLT_Step readLayout(KLT_Stream& s) {
  switch (KLT_ReadLayoutEntry(s.input, *s.handle->decoders, s.handle->genericOnly)) {
    case KLT_Parse::kRecord:
      return KLT_Step::kConsumed;
    case KLT_Parse::kNoData:
      return KLT_Step::kNoData;
    default:
      return KLT_Step::kCorrupt;
  }
}

// The record at hand has a number without a decoder.
KLT_Step stepUndecoded(KLT_Stream& s, unsigned number) {
  s.input.advance(1);
  if (number == 0 && s.reader->mode == KLT_MODE_INTERNAL) return readLayout(s);
  s.input.stepBack();
  KLT_ReportCorrupted(*s.handle, s.suffix(), number, s.input.bufferPosition());
  s.input.advance(1);
  return KLT_Step::kCorrupt;
}

}  // namespace

KLT_DecoderEntry::Filter KLT_FastFilter(unsigned row) { return kFastFilters[row - 1]; }

KLT_DecoderEntry::Filter KLT_GenericFilter(unsigned row) {
  return row == 0 ? &filterUnknown : kGenericFilters[row - 1];
}

// Remembered per request.
int64_t KLT_CommonMember(KLT_Stream& s, uint32_t communicator) {
  const auto known = s.commonMembers.find(communicator);
  if (known != s.commonMembers.end()) return known->second;
  int64_t member = kKltNoMember;
  int32_t number = 0;
  const PAL_Triplets* members = s.handle->communicators.find(communicator);
  if (members == nullptr || members->empty()) {
    if (s.reader->reportedCommunicators.insert(communicator).second) {
      PAL_Warning("Requesting unkown or undefined communicator\n");
    }
    member = kKltUndefined;
  } else if (!s.testThreads && PAL_TripletsContains(s.current().threads, members->front().first)) {
    member = static_cast<uint32_t>(members->front().first);
  } else if (PAL_TripletsFirstCommon(*members, s.current().threads, &number)) {
    member = static_cast<uint32_t>(number);
  } else if (!s.testThreads) {  // of a communicator that has nobody in the component's list
    member = static_cast<uint32_t>(members->front().first);
  }
  s.commonMembers.emplace(communicator, member);
  return member;
}

bool KLT_ThreadsSelected(KLT_Stream& stream, const uint8_t* record) {
  return !stream.testThreads || kThreadTests[KLT_RecordNumber(record) - 1](stream, record);
}

void KLT_UpdateContext(KLT_Stream& stream, const uint8_t* record) {
  if (const auto update = kContextUpdates[KLT_RecordNumber(record) - 1]) update(stream, record);
}

void KLT_DeliverNow(KLT_Stream& stream) {
  uint8_t* record = stream.packed.tail();
  if (KLT_Deliver(*stream.reader, stream, record) != 0) stream.stopped = true;
  ++stream.turnRecords;
}

KLT_Fill KLT_FillStream(KLT_Stream& s) {
  s.packed.clear();
  s.packedBytes = 0;
  s.takenBefore = s.input.bytesTaken();
  const KLT_DecoderEntry* const entries = s.handle->decoders->entries.data();
  while (!s.finished()) {
    if (s.input.drained()) [[unlikely]] {
      if (!atBufferEnd(s)) return KLT_Fill::kFailed;
    } else {
      KLT_Step step = KLT_Step::kConsumed;
      do {
        if (s.isPlain(*s.input.at())) {
          KLT_FilterPlain(s);
          if (s.input.drained()) break;
        }
        const unsigned number = *s.input.at();
        const KLT_DecoderEntry& entry = entries[number];
        if (entry.filter == nullptr) [[unlikely]] {
          step = stepUndecoded(s, number);
          break;
        }
        s.input.advance(1);
        step = entry.filter(s, entry);
      } while (step == KLT_Step::kConsumed && s.serial && !s.input.drained());
      switch (step) {
        case KLT_Step::kConsumed:
          break;
        case KLT_Step::kConsumedLast:
          if (!KLT_NextRequest(s)) return KLT_Fill::kFailed;
          break;
        case KLT_Step::kAgain:
          s.input.stepBack();
          break;
        case KLT_Step::kLeaveRequest:
          s.input.stepBack();
          if (!KLT_NextRequest(s)) return KLT_Fill::kFailed;
          break;
        case KLT_Step::kNeedRoom:
          s.input.stepBack();
          return KLT_Fill::kFilled;
        case KLT_Step::kNoData:
          loseRest(s);
          break;
        case KLT_Step::kCorrupt:
          return fail(s);
      }
    }
    if (!s.serial) [[unlikely]] {
      if (s.stopped) return KLT_Fill::kStopped;
      if (s.reader->turnIsOver(s)) return KLT_Fill::kTurnOver;
    }
  }
  // Its memory serves the next stream while what is delivered waits.
  s.input.freeBuffer();
  return KLT_Fill::kFilled;
}
