// The filter pass where it has nothing to decide: in most of a trace the request began long ago, it
// wants all threads, and a record is a call, a message, file I/O, a raw event or a step in time.
// Such records are decoded one after another with the stream's state in registers.
//
// A decoding pass takes 0.74 of the time with this. The outcome is that of klt_filter.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "klt/format/klt_codec.h"
#include "klt/index/klt_generic.h"
#include "klt/stream/klt_stream.h"

namespace {

// Whether the row is one of those: of fixed size, with no more context than the depth of the stack.
constexpr bool isPlainRow(const KLT_Row& row) {
  const bool hasBit = row.number < KLT_Stream::kPlainRowBits;
  if (!hasBit || !row.timed() || kKltLayouts[row.number - 1].hasArrays) return false;
  switch (row.filter) {
    case KLT_FilterClass::kTimeForward:
      return true;
    case KLT_FilterClass::kCallStack:
      return row.name == "enter_function" || row.name == "leave_function";
    case KLT_FilterClass::kMessage:
    case KLT_FilterClass::kThreadEvent:
    case KLT_FilterClass::kRawMessage:
    case KLT_FilterClass::kRawCollective:
      return true;
    default:
      return false;
  }
}

constexpr size_t mostBytes(uint16_t KLT_Layout::*bytes) {
  size_t most = 0;
  for (const KLT_Row& row : kKltRows) {
    if (isPlainRow(row)) most = std::max<size_t>(most, kKltLayouts[row.number - 1].*bytes);
  }
  return most;
}
constexpr size_t kMostOnDisk = 1 + mostBytes(&KLT_Layout::headBytes);
constexpr size_t kMostInMemory = mostBytes(&KLT_Layout::fixedBytes);

using AllRows = std::make_integer_sequence<int, kKltRowCount>;

class Plain {
 public:
  explicit Plain(KLT_Stream& s)
      : s_(s),
        rows_(s.plainRows),
        start_(s.start),
        end_(s.end),
        most_(s.packedCapacity),
        in_(s.input.at()),
        time_(s.time),
        outTime_(s.outTime),
        packedBytes_(s.packedBytes) {}

  void run() {
    const uint8_t* const begin = in_;
    const uint8_t* const last = in_ + s_.input.available() - kMostOnDisk;
    takeRoom();
    while (in_ <= last && step(AllRows{})) {
      if (out_ > full_) [[unlikely]] {
        s_.packed.commit(static_cast<size_t>(out_ - s_.packed.tail()));
        takeRoom();
      }
    }
    s_.packed.commit(static_cast<size_t>(out_ - s_.packed.tail()));
    s_.input.advance(static_cast<size_t>(in_ - begin));
    s_.time = time_;
    s_.outTime = outTime_;
    s_.packedBytes = packedBytes_;
  }

 private:
  void takeRoom() {
    out_ = s_.packed.reserve(kMostInMemory);
    full_ = out_ + s_.packed.room() - kMostInMemory;
  }

  // Takes the record at hand; false, with nothing changed, if it is one for the others.
  template <int... N>
  [[gnu::always_inline]] bool step(std::integer_sequence<int, N...>) {
    const unsigned number = *in_;
    if (number >= KLT_Stream::kPlainRowBits || (rows_ >> number & 1) == 0) return false;
    bool taken = false;
    (void)((number == N + 1 && (taken = take<N + 1>(), true)) || ...);
    return taken;
  }

  template <int N>
  [[gnu::always_inline]] bool take() {
    constexpr const KLT_Row& row = kKltRows[N - 1];
    if constexpr (isPlainRow(row)) {
      constexpr const KLT_Layout& layout = kKltLayouts[N - 1];
      const uint64_t time = klt::steppedTime<N>(time_, in_ + 1);
      // A step of 64 bits may lead back.
      if (time < start_ || (time >= end_ && end_ != ~uint64_t{0})) [[unlikely]]
        return false;
      if constexpr (!row.movesTimeOnly()) {
        if (packedBytes_ + layout.headBytes + KLT_Stream::kRecordOverhead > most_) [[unlikely]]
          return false;
        KLT_Codec<N>::loadHead(in_ + 1, time, out_);
        if constexpr (row.filter == KLT_FilterClass::kCallStack) {
          if (!changeDepth<N>()) [[unlikely]]
            return false;
        }
        packedBytes_ += 1 + layout.headBytes + KLT_TimeRecordBytes(outTime_, time);
        outTime_ = time;
        out_ += layout.fixedBytes;
      }
      time_ = time;
      in_ += 1 + layout.headBytes;
      return true;
    }
    return false;
  }

  template <int N>
  [[gnu::always_inline]] bool changeDepth() {
    constexpr const KLT_Row& row = kKltRows[N - 1];
    KLT_WillyState& state =
        s_.context.of(KLT_RecordView<N>::template get32<row.find("willy_gtp")>(out_));
    if constexpr (row.name == "enter_function") {
      ++state.depth;
    } else {
      if (state.depth == 0) return false;  // to be told
      --state.depth;
    }
    return true;
  }

  KLT_Stream& s_;
  const uint64_t rows_;
  const uint64_t start_;
  const uint64_t end_;
  const size_t most_;
  const uint8_t* in_;
  uint8_t* out_ = nullptr;
  uint8_t* full_ = nullptr;  // there is room for a record up to here
  uint64_t time_;
  uint64_t outTime_;
  size_t packedBytes_;
};

}  // namespace

uint64_t KLT_PlainRows(const KLT_Stream& stream) {
  if (stream.component == nullptr) return 0;
  uint64_t rows = 0;
  for (const KLT_Row& row : kKltRows) {
    const bool isFast = isPlainRow(row) && stream.handle->decoders->entries[row.number].filter ==
                                               KLT_FastFilter(row.number);
    if (isFast && stream.wanted[row.number]) rows |= uint64_t{1} << row.number;
  }
  return rows;
}

void KLT_FilterPlain(KLT_Stream& stream) {
  if (stream.input.available() >= kMostOnDisk) Plain(stream).run();
}
