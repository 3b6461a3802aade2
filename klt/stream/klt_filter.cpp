// The filter tests every record of a stream against the current request, updates the context of its
// thread and stores a record that passes in `packed`. See klt_filter.h.
//
// Each row has two functions: filterFast for records in the row's own layout, which makes the tests
// that need no fields before it decodes, and filterGeneric for records in other layouts.
#include "klt/stream/klt_filter.h"

#include <array>
#include <utility>

#include "klt/format/klt_codec.h"
#include "klt/index/klt_generic.h"
#include "klt/stream/klt_filter_plain.h"
#include "klt/stream/klt_history.h"
#include "klt/stream/klt_position.h"
#include "klt/stream/klt_select.h"
#include "util/pal_error.h"

namespace {

enum class Step : uint8_t {
  kConsumed,      // the record has been processed
  kConsumedLast,  // the record has been processed, and the request ends with it
  kAgain,         // the history has been produced; the record must be read once more
  kLeaveRequest,  // the record is after the request's end; nothing has changed
  kNeedRoom,      // the packed records must be delivered first; nothing has changed
  kNoData,        // the input ended inside the record
  kCorrupt,       // the record can't be decoded
};
using Filter = Step (*)(KLT_Stream&, const KLT_DecoderEntry&);

// Consumes a record of `disk` bytes that isn't delivered.
inline Step skip(KLT_Stream& s, uint64_t time, size_t disk) {
  s.filter.time = time;
  s.input.advance(disk);
  return Step::kConsumed;
}

// Tests and appends the decoded record of row N at the tail of `packed`. `disk` is its size in the
// input, `encoded` its encoded size, both without the number byte. `before`: the record is before
// the request's start.
template <int N>
inline Step finish(KLT_Stream& s, uint64_t time, size_t disk, size_t encoded, bool before) {
  using View = KLT_Record<N>;
  constexpr const KLT_Row& row = kKltRows[N - 1];
  constexpr KLT_FilterTraits traits = row.traits();
  uint8_t* const record = s.packed.records.tail();
  if constexpr (traits.threads != KLT_ThreadTest::kNone) {
    if (s.filter.testThreads && !klt::threadsSelected<N>(s, record)) {
      return skip(s, time, disk);
    }
  }
  if constexpr (traits.context) {
    if (before) {
      // No handler is called for this change. Unless an earlier request has delivered it, the
      // delivered state of these categories is now out of date.
      if (time >= s.history.seenUntil) s.history.knownCategories &= ~row.categories();
      klt::updateContext<N>(s, record);
      return skip(s, time, disk);
    }
  }
  if (!s.packed.makeRoom(encoded + KLT_PackedRecords::kRecordOverhead)) return Step::kNeedRoom;
  if constexpr (traits.history) {
    if (!s.history.done) [[unlikely]] {
      return KLT_ProduceHistory(s, encoded + 1, false) ? Step::kAgain : Step::kNeedRoom;
    }
  }
  if constexpr (traits.context) klt::updateContext<N>(s, record);
  if constexpr (!row.timed()) klt::storeNative(record + kKltRecordTimeAt, s.packed.outTime);
  s.filter.time = time;
  s.input.advance(disk);
  s.packed.add(View::bytes(record), encoded, row.timed() ? time : s.packed.outTime);
  if constexpr (row.timed() && !traits.window) {
    if (s.filter.isAfterEnd(time)) return Step::kConsumedLast;
  }
  return Step::kConsumed;
}

template <int N>
constexpr bool isDropped(const KLT_Stream& s) {
  constexpr KLT_CategoryTest test = kKltRows[N - 1].traits().category;
  return test != KLT_CategoryTest::kNone && !s.filter.wanted[N];
}

// Whether records of row N are skipped: seek points and their histories are only used in anchor
// files, and the reader itself produces the records at the start and end of a window.
template <int N>
constexpr bool isSkipped() {
  constexpr KLT_FilterClass filter = kKltRows[N - 1].filter;
  return filter == KLT_FilterClass::kSeekPoint || filter == KLT_FilterClass::kBracket ||
         filter == KLT_FilterClass::kStack;
}

template <int N>
Step filterFast(KLT_Stream& s, const KLT_DecoderEntry&) {
  using Codec = KLT_Codec<N>;
  constexpr const KLT_Row& row = kKltRows[N - 1];
  constexpr KLT_FilterTraits traits = row.traits();
  if (!s.input.ensure(Codec::layout.headBytes)) [[unlikely]]
    return Step::kNoData;
  uint64_t time = s.filter.time;
  if constexpr (row.timed()) time = klt::steppedTime<N>(time, s.input.at());
  if constexpr (traits.window || row.movesTimeOnly()) {
    if (s.filter.isAfterEnd(time)) return Step::kLeaveRequest;
  }
  if constexpr (row.movesTimeOnly()) return skip(s, time, Codec::layout.headBytes);
  const bool before = traits.window && time < s.filter.start;
  size_t disk = 0;
  if (isSkipped<N>() || isDropped<N>(s) || (before && !traits.context)) {
    if (Codec::measure(s.input, disk) != KLT_Parse::kRecord) return Step::kNoData;
    return skip(s, time, disk);
  }
  uint64_t parsedTime = s.filter.time;
  if (Codec::parse(s.input, s.packed.records, parsedTime, disk) != KLT_Parse::kRecord)
      [[unlikely]] {
    return Step::kNoData;
  }
  return finish<N>(s, time, disk, disk, before);
}

template <int N>
Step finishGeneric(KLT_Stream& s, uint64_t time, size_t disk) {
  constexpr const KLT_Row& row = kKltRows[N - 1];
  constexpr KLT_FilterTraits traits = row.traits();
  if constexpr (traits.window || row.movesTimeOnly()) {
    if (s.filter.isAfterEnd(time)) return Step::kLeaveRequest;  // the time is after an array
  }
  const bool before = traits.window && time < s.filter.start;
  if (row.movesTimeOnly() || isSkipped<N>() || isDropped<N>(s) || (before && !traits.context)) {
    return skip(s, time, disk);
  }
  const size_t encoded = KLT_Codec<N>::encodedBytes(s.packed.records.tail()) - 1;
  return finish<N>(s, time, disk, encoded, before);
}

// Of a record that isn't decoded only the time is used.
Step skipUnread(KLT_Stream& s, uint64_t time, size_t disk) {
  (void)skip(s, time, disk);
  return s.filter.isAfterEnd(time) ? Step::kConsumedLast : Step::kConsumed;
}

// N is 0 for a layout that fits no row.
template <int N>
Step filterGeneric(KLT_Stream& s, const KLT_DecoderEntry& entry) {
  uint64_t time = s.filter.time;
  if constexpr (N != 0) {
    // A record after the end isn't read, because its arrays may be cut short.
    constexpr const KLT_Row& row = kKltRows[N - 1];
    if constexpr (row.traits().window || row.movesTimeOnly()) {
      if (!s.input.ensure(entry.layout->headBytes)) return Step::kNoData;
      if (s.filter.isAfterEnd(KLT_GenericTime(entry, s.input.at(), time))) {
        return Step::kLeaveRequest;
      }
    }
  }
  size_t disk = 0;
  const KLT_Parse parsed = KLT_ParseGeneric(entry, s.input, s.packed.records, time, disk);
  if (parsed == KLT_Parse::kNoData) return Step::kNoData;
  if (parsed == KLT_Parse::kCorrupt) return Step::kCorrupt;
  if (parsed == KLT_Parse::kTooLong) {
    s.source.lostData = true;
    return skipUnread(s, time, disk);
  }
  if constexpr (N == 0) {
    return skipUnread(s, time, disk);
  } else {
    return parsed == KLT_Parse::kRecord ? finishGeneric<N>(s, time, disk) : Step::kCorrupt;
  }
}

// Filter functions by decoder (0: generic, 1: the row's own) and row.
struct Filters {
  std::array<std::array<Filter, kKltRowCount + 1>, 2> byRow;

  [[nodiscard]] Filter of(const KLT_DecoderEntry& entry) const {
    return byRow[entry.isFast ? 1 : 0][entry.row];
  }
};
template <int... N>
constexpr Filters allFilters(std::integer_sequence<int, N...>) {
  return {{{{&filterGeneric<0>, &filterGeneric<N + 1>...}, {nullptr, &filterFast<N + 1>...}}}};
}
constexpr Filters kFilters = allFilters(std::make_integer_sequence<int, kKltRowCount>{});

// --- the loop -----------------------------------------------------------------------------------

// Ends the stream after a reported failure of the input. The records before it are delivered.
void finishAfterLoss(KLT_Stream& s) {
  s.source.lostData = true;
  s.requests.finish();
}

KLT_Fill failed(KLT_Stream& s) {
  s.source.failed = true;
  return KLT_Fill::kFailed;
}

KLT_Fill failAtRecord(KLT_Stream& s) {
  // Without time order the records before it have been delivered, so those for the request's end
  // follow.
  if (s.packed.turn != nullptr && !s.requests.finished()) (void)KLT_NextRequest(s);
  PAL_Error("Corrupted data");
  return failed(s);
}

// Refills the empty buffer, or ends the request. False if the stream has failed.
bool refillOrEndRequest(KLT_Stream& s) {
  if (!s.input.moreToRead()) return KLT_NextRequest(s);
  if (!s.input.ensure(1)) finishAfterLoss(s);
  return true;
}

// Reads the layout entry of an index, after its number byte.
Step readLayout(KLT_Stream& s) {
  KLT_FileHandle& handle = *s.pass->handle;
  switch (KLT_ReadLayoutEntry(s.input, *handle.decoders, handle.genericOnly)) {
    case KLT_Parse::kRecord:
      return Step::kConsumed;
    case KLT_Parse::kNoData:
      return Step::kNoData;
    default:
      return Step::kCorrupt;
  }
}

// Processes a record whose number has no decoder: a layout entry of the index, or a corrupt record.
Step stepUndecoded(KLT_Stream& s, unsigned number) {
  s.input.advance(1);
  if (number == 0 && s.pass->fillsTables) return readLayout(s);
  s.input.stepBack();
  KLT_ReportCorrupted(*s.pass->handle, s.source.suffix(), number, s.input.bufferPosition());
  s.input.advance(1);
  return Step::kCorrupt;
}

// Processes plain records if the next one, with this number, is plain.
void processPlain(KLT_Stream& s, unsigned number) {
  const KLT_FilterState& filter = s.filter;
  if (number >= KLT_FilterState::kPlainRowBits || (filter.plainRows >> number & 1) == 0) return;
  if (filter.testThreads || s.packed.turn != nullptr) return;
  if (filter.time < filter.start) {
    if (s.history.keepContext) KLT_FilterPlainBefore(s);
  } else if (s.history.done && !s.history.keepContext) {
    KLT_FilterPlain(s);
  }
}

// Processes records until the step of a record needs an action or the buffer is empty. Without time
// order it processes one record.
Step processRecords(KLT_Stream& s) {
  const KLT_DecoderEntry* const entries = s.pass->handle->decoders->entries.data();
  Step step = Step::kConsumed;
  do {
    processPlain(s, *s.input.at());
    if (s.input.drained()) break;
    const unsigned number = *s.input.at();
    const KLT_DecoderEntry& entry = entries[number];
    if (entry.parse == nullptr) [[unlikely]]
      return stepUndecoded(s, number);
    s.input.advance(1);
    step = kFilters.of(entry)(s, entry);
  } while (step == Step::kConsumed && s.packed.turn == nullptr && !s.input.drained());
  return step;
}

}  // namespace

KLT_Fill KLT_FillStream(KLT_Stream& s) {
  s.packed.records.clear();
  s.packed.encodedBytes = 0;
  s.packed.ends = 0;
  s.packed.consumedBeforeFill = s.input.bytesTaken();
  while (!s.requests.finished()) {
    if (s.input.drained()) [[unlikely]] {
      if (!refillOrEndRequest(s)) return failed(s);
    } else {
      const Step step = processRecords(s);
      const bool isConsumed = step == Step::kConsumed || step == Step::kConsumedLast;
      if (!isConsumed && step != Step::kNoData && step != Step::kCorrupt) s.input.stepBack();
      if (step == Step::kNeedRoom) return KLT_Fill::kFilled;
      if (step == Step::kNoData) finishAfterLoss(s);
      if (step == Step::kCorrupt) return failAtRecord(s);
      const bool endsRequest = step == Step::kConsumedLast || step == Step::kLeaveRequest;
      if (endsRequest && !KLT_NextRequest(s)) return failed(s);
    }
    if (s.packed.ends >= KLT_PackedRecords::kFillEnds) return KLT_Fill::kFilled;
    if (s.packed.turn != nullptr) [[unlikely]] {
      const KLT_Turn::State state = s.packed.turn->state();
      if (state == KLT_Turn::State::kStopped) return KLT_Fill::kStopped;
      if (state == KLT_Turn::State::kOver) return KLT_Fill::kTurnOver;
    }
  }
  // The buffer isn't needed any more. Other streams can use its memory during delivery.
  s.input.freeBuffer();
  return KLT_Fill::kFilled;
}
