// Writes records: one function per row, which takes the row's fields as arguments.
//
//   KLT_Write<KLT_Row::enterFunction>(writer, nullptr, time, gtp, function);
//
// Arguments are the fields of the row in order: the absolute raw time; numbers; a count followed by
// pointers to the elements of the arrays it covers, null for zeros; texts as C strings, without
// their count; values of type raw64 as the bytes to store. References to strings are passed as
// texts.
//
// The record is appended to the buffer of its component, preceded by a seek point
// (klt_write_anchor) and a time record if they are needed. Then the component's history
// (klt_write_history) and the profiles (klt_filestats) are updated.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "klt/format/klt_handlers.h"
#include "klt/format/klt_record.h"
#include "klt/format/klt_schema.h"
#include "klt/format/klt_spans.h"
#include "klt/format/klt_wire.h"
#include "klt/write/klt_write_context.h"

// A record that may be completed later: its position and the running time before it.
struct KLT_UpdateSlot {
  uint64_t position = 0;  // in the data component, plus 1; 0: not written yet
  uint64_t time = 0;
};

// A text to write: the text itself (null: none), or the id of a text that the writer has.
struct KLT_WriteText {
  KLT_WriteText(const char* given) : text(given) {}  // NOLINT(google-explicit-constructor)
  [[nodiscard]] static KLT_WriteText known(uint32_t id) {
    KLT_WriteText result(nullptr);
    result.id = id;
    return result;
  }

  const char* text;
  uint32_t id = 0;
};

namespace klt {

// Bytes of time records, for steps of 32 bits and of 64 bits.
inline constexpr size_t kShortTime = 5;
inline constexpr size_t kLongTime = 9;

// The address of a timed record in the buffer, and its time step.
struct TimedPlace {
  uint8_t* to;  // null if the component is lost
  uint64_t step;
};
[[gnu::cold]] TimedPlace beginTimedSlowly(KLT_WFileHandle& writer, KLT_WriteContext& context,
                                          uint64_t time, size_t bytes);
// Makes room for a timed record of `bytes` bytes, after a seek point and a time record if they are
// needed.
[[nodiscard, gnu::always_inline]] inline TimedPlace beginTimed(KLT_WFileHandle& writer,
                                                               KLT_WriteContext& context,
                                                               uint64_t time, size_t bytes) {
  const uint64_t step = time - context.outputTime;
  if (step >> 32 == 0 && context.dataUsed + kLongTime + bytes <= context.fastPathEnd) [[likely]] {
    // A branch on whether a time record is needed would be unpredictable, so the time record is
    // always written, and overwritten if it isn't needed.
    uint8_t* to = context.data.bytes.get() + context.dataUsed;
    to[0] = KLT_Row::addTime;
    storeBig32(to + 1, static_cast<uint32_t>(step));
    const uint64_t needed = -uint64_t{step >= 0x10000};
    context.dataUsed += needed & kShortTime;
    return {to + (needed & kShortTime), step & ~needed};
  }
  return beginTimedSlowly(writer, context, time, bytes);
}

// Index of the argument for a field of row N.
template <int N>
constexpr size_t argumentIndex(size_t field) {
  const KLT_Row& row = kKltRows[N - 1];
  size_t index = 0;
  for (size_t f = 0; f < field; ++f) {
    if (argumentKind(row, f, isArrayField(row, f)) != ArgumentKind::kNone) ++index;
  }
  return index;
}

template <int N, size_t F>
auto writeArgument() {
  constexpr const KLT_Row& row = kKltRows[N - 1];
  if constexpr (argumentKind(row, F, isArrayField(row, F)) == ArgumentKind::kString)
    return std::tuple<KLT_WriteText>{nullptr};
  else
    return argumentTuple<N, F>();
}

template <int N, size_t... F>
auto writeArguments(std::index_sequence<F...>)
    -> decltype(std::tuple_cat(writeArgument<N, F>()...));

// The argument list of row N.
template <int N>
using WriteArguments =
    decltype(writeArguments<N>(std::make_index_sequence<kKltRows[N - 1].numFields>()));

// Writes a record: determines its size, encodes it, and updates history and profiles.
template <int N>
class RowWriter {
 public:
  using Arguments = WriteArguments<N>;
  static constexpr const KLT_Row& row = kKltRows[N - 1];
  static constexpr const KLT_Layout& layout = kKltLayouts[N - 1];

  RowWriter(KLT_WFileHandle& writer, const Arguments& arguments)
      : writer_(writer), arguments_(arguments) {
    countElements<0>();
  }

  uint32_t write(KLT_UpdateSlot* slot) {
    KLT_WriteContext* context = KLT_GetWriteContext(writer_, row.categories(), thread());
    if (context == nullptr) return 0;
    internTexts<0>();
    const size_t bytes = encodedBytes();
    if constexpr (row.name == "process_declaration") {
      writer_.declaredThreads.assign(argument<1>(), argument<1>() + counts_[0]);
    }
    if constexpr (!row.timed()) {
      uint8_t* to = context->reserve(writer_, bytes);
      if (to == nullptr) return 0;
      encode(to, 0);
      context->dataUsed += bytes;
      return static_cast<uint32_t>(bytes);
    } else {
      return writeTimed(*context, slot, bytes);
    }
  }

 private:
  // The argument for field F.
  template <size_t F>
  [[nodiscard]] auto argument() const {
    return std::get<argumentIndex<N>(F)>(arguments_);
  }
  template <size_t F>
  static constexpr bool isString() {
    return row.fields[F].reference == "klt_string.id";
  }

  [[nodiscard]] uint32_t thread() const {
    constexpr size_t field = row.find("willy_gtp");
    constexpr uint32_t kPerThread = kAny | kFunctions | kScopes | kFileIo | kCounters | kRawEvents;
    if constexpr ((row.categories() & kPerThread) != 0 && field < row.numFields) {
      return argument<field>();
    }
    return 0;
  }

  // Sets the value of every count, limited to the range of its field.
  template <size_t F>
  void countElements() {
    if constexpr (F < row.numFields) {
      if constexpr (row.fields[F].isCount()) {
        uint64_t n = 0;
        if constexpr (argumentKind(row, F, false) == ArgumentKind::kNone) {
          const char* text = argument<F + 1>();
          n = text == nullptr ? 0 : std::strlen(text);
        } else {
          n = argument<F>();
        }
        constexpr unsigned width = KLT_TypeBytes(row.fields[F].type());
        if constexpr (width < 4) {
          constexpr uint64_t largest = (uint64_t{1} << (8 * width)) - 1;
          if (n > largest) {
            writer_.warnCut(row, F, n);
            n = largest;
          }
        }
        counts_[F] = n;
      }
      countElements<F + 1>();
    }
  }

  // Sets the ids of texts. They must be known before any byte is written.
  template <size_t F>
  void internTexts() {
    if constexpr (F < row.numFields) {
      if constexpr (isString<F>() && !layout.isArray(F)) {
        const KLT_WriteText given = argument<F>();
        ids_[F] = given.text == nullptr ? given.id : writer_.stringId(given.text);
      }
      if constexpr (isString<F>() && layout.isArray(F)) {
        std::vector<uint32_t>& ids = writer_.idScratch(F);
        ids.clear();
        for (size_t i = 0; i < counts_[layout.countOf[F]]; ++i) {
          ids.push_back(argument<F>() == nullptr ? 0 : writer_.stringId(argument<F>()[i]));
        }
      }
      internTexts<F + 1>();
    }
  }

  [[nodiscard]] size_t encodedBytes() const {
    if constexpr (!layout.hasArrays) {
      return 1 + layout.headBytes;
    } else {
      size_t bytes = 1;
      for (size_t f = 0; f < row.numFields; ++f) {
        const size_t n = layout.isArray(f) ? counts_[layout.countOf[f]] : 1;
        bytes += n * KLT_TypeBytes(row.fields[f].type());
      }
      return bytes;
    }
  }

  void encode(uint8_t* to, uint64_t step) {
    *to++ = N;
    encodeField<0>(to, step);
  }

  template <size_t F>
  void encodeField(uint8_t* to, uint64_t step) {
    if constexpr (F < row.numFields) {
      constexpr KLT_Type type = row.fields[F].type();
      constexpr unsigned width = KLT_TypeBytes(type);
      if constexpr (layout.isArray(F)) {
        const size_t n = counts_[layout.countOf[F]];
        encodeArray<F>(to, n);
        to += n * width;
      } else {
        if constexpr (row.timed() && F == 0) {
          storeBig16(to, static_cast<uint16_t>(step));
        } else if constexpr (row.fields[F].isCount()) {
          storeValue<type>(to, static_cast<uint32_t>(counts_[F]), F);
        } else if constexpr (isString<F>()) {
          storeValue<type>(to, ids_[F], F);
        } else {
          storeValue<type>(to, argument<F>(), F);
        }
        to += width;
      }
      encodeField<F + 1>(to, step);
    }
  }

  template <size_t F>
  void encodeArray(uint8_t* to, size_t n) {
    constexpr KLT_Type type = row.fields[F].type();
    constexpr unsigned width = KLT_TypeBytes(type);
    if constexpr (type == KLT_Type::kChar) {
      if (n != 0) std::memcpy(to, argument<F>(), n);
    } else if constexpr (isString<F>()) {
      for (size_t i = 0; i < n; ++i) storeValue<type>(to + i * width, writer_.idScratch(F)[i], F);
    } else if (argument<F>() == nullptr) {
      std::memset(to, 0, n * width);
    } else {
      for (size_t i = 0; i < n; ++i) storeValue<type>(to + i * width, argument<F>()[i], F);
    }
  }

  template <KLT_Type Type, class Value>
  void storeValue(uint8_t* to, Value value, size_t field) {
    static_assert(std::is_arithmetic_v<Value>);
    if constexpr (Type == KLT_Type::kRaw64) {
      storeNative(to, value);
    } else if constexpr (KLT_TypeBytes(Type) == 1) {
      *to = static_cast<uint8_t>(value);
    } else if constexpr (KLT_TypeBytes(Type) == 2) {
      if (value > 0xffff) [[unlikely]]
        writer_.warnNarrowed(row, field, value);
      storeBig16(to, static_cast<uint16_t>(value));
    } else if constexpr (KLT_TypeBytes(Type) == 4) {
      storeBig32(to, static_cast<uint32_t>(value));
    } else {
      storeBig64(to, std::bit_cast<uint64_t>(value));
    }
  }

  uint32_t writeTimed(KLT_WriteContext& context, KLT_UpdateSlot* slot, size_t bytes) {
    const uint64_t time = std::get<0>(arguments_);
    if (slot != nullptr && slot->position != 0) return rewrite(context, *slot, bytes, time);
    const auto [to, step] = klt::beginTimed(writer_, context, time, bytes);
    if (to == nullptr) [[unlikely]]
      return 0;
    const uint64_t before = time - step;
    const uint64_t offset = context.position();
    encode(to, step);
    if (slot != nullptr) *slot = {offset + 1, before};
    updateHistory(context, before, offset, slot != nullptr);
    if (slot == nullptr) updateProfiles();
    context.dataUsed += bytes;
    context.outputTime = time;
    return static_cast<uint32_t>(bytes);
  }

  uint32_t rewrite(KLT_WriteContext& context, const KLT_UpdateSlot& slot, size_t bytes,
                   uint64_t time) {
    std::vector<uint8_t>& record = writer_.rewriteBuffer(bytes);
    encode(record.data(), time - slot.time);
    if (!context.replace(writer_, slot.position - 1, record.data(), bytes)) return 0;
    if constexpr (row.filter == KLT_FilterClass::kMessage ||
                  row.filter == KLT_FilterClass::kCollective) {
      KLT_AddOffsetHistory(context.history,
                           {.end = spanEnd(), .offset = slot.position - 1, .update = true});
    }
    updateProfiles();
    return static_cast<uint32_t>(bytes);
  }

  // When the message or collective operation ends.
  [[nodiscard]] uint64_t spanEnd() const {
    const uint64_t time = std::get<0>(arguments_);
    if constexpr (row.filter == KLT_FilterClass::kMessage) {
      return messageEnd(time, argument<row.find("receive_time")>());
    } else {
      return collectiveEnd(time, counts_[layout.countOf[row.find("start_time")]],
                           argument<row.find("start_time")>(), argument<row.find("delta")>());
    }
  }

  // Updates the state for the next seek point. `before` is the running time before the record,
  // `open`: the record may be completed later.
  void updateHistory(KLT_WriteContext& context, uint64_t before, uint64_t offset, bool open) {
    constexpr bool kIsSpan =
        row.filter == KLT_FilterClass::kMessage || row.filter == KLT_FilterClass::kCollective;
    if constexpr (kIsSpan || row.filter == KLT_FilterClass::kCallStack ||
                  row.filter == KLT_FilterClass::kCounterSample) {
      context.history.hasRecords = true;
    }
    if constexpr (kIsSpan) {
      KLT_AddOffsetHistory(context.history,
                           {.time = before, .end = spanEnd(), .offset = offset, .isOpen = open});
    } else if constexpr (row.name == "enter_function") {
      uint32_t scl = 0;
      if constexpr (N == KLT_Row::enterFunctionScl) scl = argument<3>();
      KLT_AddFunctionHistory(context.history, argument<2>(), scl,
                             writer_.ticks(std::get<0>(arguments_)));
    } else if constexpr (row.name == "leave_function") {
      KLT_LeaveFunctionHistory(context.history, writer_.ticks(std::get<0>(arguments_)),
                               writer_.stats());
    } else if constexpr (row.name == "enter_scope") {
      context.history.offsets.enterScope(argument<2>(), argument<3>(), before, offset);
    } else if constexpr (row.name == "leave_scope") {
      context.history.offsets.leaveScope(argument<2>(), argument<3>());
    } else if constexpr (row.filter == KLT_FilterClass::kCounterSample) {
      if (counts_[2] == 0) return;
      KLT_AddOffsetHistory(context.history, {.time = before,
                                             .offset = offset,
                                             .count = static_cast<uint32_t>(counts_[2]),
                                             .counters = argument<4>()});
    }
  }

  void updateProfiles() {
    if (writer_.stats() == nullptr) return;
    if constexpr (row.filter == KLT_FilterClass::kMessage) profileMessage(*writer_.stats());
    if constexpr (row.filter == KLT_FilterClass::kCollective) profileCollective(*writer_.stats());
  }

  void profileMessage(KLT_FileStats& stats) {
    const uint64_t time = std::get<0>(arguments_);
    const int64_t span = argument<row.find("receive_time")>();
    if (isUnknownSide(span)) return;
    int64_t duration = stats.ticks(span);
    if constexpr (N == KLT_Row::oneToOneCommunication) {
      duration =
          static_cast<int64_t>(stats.ticks(time + static_cast<uint64_t>(span)) - stats.ticks(time));
    }
    KLT_FileStatsMessage(stats,
                         {.sender = argument<row.find("sender_gtp")>(),
                          .receiver = argument<row.find("receiver_gtp")>(),
                          .funcSender = argument<row.find("sender_function")>(),
                          .funcReceiver = argument<row.find("receiver_function")>(),
                          .tag = argument<row.find("tag")>(),
                          .comm = argument<row.find("communicator")>(),
                          .size = argument<row.find("size")>()},
                         duration);
  }

  void profileCollective(KLT_FileStats& stats) {
    const uint64_t time = std::get<0>(arguments_);
    const uint64_t* starts = argument<row.find("start_time")>();
    const uint64_t* deltas = argument<row.find("delta")>();
    const size_t n = counts_[layout.countOf[row.find("start_time")]];
    std::vector<uint64_t>& durations = writer_.durationScratch();
    durations.clear();
    for (size_t i = 0; i < n; ++i) {
      const uint64_t start = time + (starts == nullptr ? 0 : starts[i]);
      const uint64_t delta = deltas == nullptr ? 0 : deltas[i];
      durations.push_back(stats.ticks(start + delta) - stats.ticks(start));
    }
    const uint32_t type = argument<row.find("type")>();
    const uint32_t comm = argument<row.find("communicator")>();
    const uint32_t* sent = nullptr;
    const uint32_t* received = nullptr;
    uint32_t root = 0;
    if constexpr (row.find("send_size") < row.numFields) sent = argument<row.find("send_size")>();
    if constexpr (row.find("receive_size") < row.numFields) {
      received = argument<row.find("receive_size")>();
    }
    if constexpr (row.find("receiver_gtp") < row.numFields) {
      root = argument<row.find("receiver_gtp")>();
      received = KLT_FileStatsRootOnly(stats, comm, n, root, argument<row.find("recvd")>());
    }
    if constexpr (row.find("sender_gtp") < row.numFields) {
      root = argument<row.find("sender_gtp")>();
      sent = KLT_FileStatsRootOnly(stats, comm, n, root, argument<row.find("sent")>());
    }
    KLT_FileStatsCollective(stats, {type, root, comm}, n, sent, received, durations.data());
  }

  static constexpr bool hasStrings() {
    return std::any_of(row.fields.begin(), row.fields.begin() + row.numFields,
                       [](const KLT_Field& field) { return field.reference == "klt_string.id"; });
  }

  KLT_WFileHandle& writer_;
  const Arguments& arguments_;
  // By field. Most rows have no counts or texts. For them the size is 0, because clearing the
  // arrays would take longer than the rest of the work for a record.
  std::array<uint64_t, layout.hasArrays ? row.numFields : 0> counts_{};
  std::array<uint32_t, hasStrings() ? row.numFields : 0> ids_{};
};

}  // namespace klt

// Writes a record of row N. An empty `slot` is filled; a later call with it replaces the record by
// one of the same length. Returns the number of bytes written, 0 on failure.
template <int N, class... Args>
uint32_t KLT_Write(KLT_WFileHandle* writer, KLT_UpdateSlot* slot, Args... args) {
  const klt::WriteArguments<N> arguments(args...);
  return klt::RowWriter<N>(*writer, arguments).write(slot);
}
