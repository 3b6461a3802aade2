// Decodes records: one set of operations per row, instantiated from the table.
//
// On disk a record consists of its number byte and its fields in row order, big-endian, each in
// exactly the bytes of its type. There is no length, padding or end mark. The field "time" of a
// timed record is a step from the stream's running time. A count is followed by the arrays it
// covers, one whole array after the other; a string has no terminator.
//
//   enter_function 28    1c | 00 05 | 00 00 00 03 | 00 00 00 07      number, step, willy, function
//
// Decoding checks the number of available bytes once for each run of fields whose size is known,
// for most rows once per record. An input has the operations of KLT_Input: ensure(n) makes n bytes
// available at at(), or reports why it can't.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "klt/format/klt_record.h"
#include "klt/format/klt_schema.h"
#include "klt/format/klt_wire.h"

enum class KLT_Parse : uint8_t {
  kRecord,   // the record is at the buffer's tail, not committed
  kUnknown,  // a record of a kind this reader doesn't know; only its size and time are used
  kTooLong,  // a record with more elements than its row can count; only its size and time are used
  kNoData,   // the input ended inside the record, which has been reported
  kCorrupt,  // the caller reports it
};

namespace klt {

// The running time after a field "time" of row N.
template <int N>
[[nodiscard]] inline uint64_t steppedTime(uint64_t time, const uint8_t* field) {
  if constexpr (N == KLT_Row::addTime) return time + loadBig32(field);
  if constexpr (N == KLT_Row::addTimeLong) return time + loadBig64(field);
  if constexpr (N == KLT_Row::subTime) return time - loadBig64(field);
  return time + loadBig16(field);
}

// The value of a scalar field in its memory form.
template <KLT_Type Type>
[[nodiscard]] inline auto loadScalar(const uint8_t* p) {
  if constexpr (Type == KLT_Type::kU8 || Type == KLT_Type::kRaw8 || Type == KLT_Type::kChar) {
    return uint32_t{*p};
  } else if constexpr (Type == KLT_Type::kU16) {
    return uint32_t{loadBig16(p)};
  } else if constexpr (Type == KLT_Type::kRaw32) {
    return loadNative<uint32_t>(p);
  } else if constexpr (Type == KLT_Type::kRaw64) {
    return loadNative<uint64_t>(p);
  } else if constexpr (KLT_TypeBytes(Type) == 4) {
    return loadBig32(p);
  } else {
    static_assert(KLT_TypeBytes(Type) == 8);
    return loadBig64(p);
  }
}

template <KLT_Type Type>
inline void loadElements(uint8_t* to, const uint8_t* from, size_t n) {
  if constexpr (KLT_TypeBytes(Type) == 1 || Type == KLT_Type::kRaw32 || Type == KLT_Type::kRaw64) {
    if (n != 0) std::memcpy(to, from, n * KLT_TypeBytes(Type));
    if constexpr (Type == KLT_Type::kChar) to[n] = 0;
  } else if constexpr (Type == KLT_Type::kU16) {
    for (size_t i = 0; i < n; ++i) storeNative(to + 4 * i, uint32_t{loadBig16(from + 2 * i)});
  } else if constexpr (KLT_TypeBytes(Type) == 4) {
    for (size_t i = 0; i < n; ++i) storeNative(to + 4 * i, loadBig32(from + 4 * i));
  } else {
    for (size_t i = 0; i < n; ++i) storeNative(to + 8 * i, loadBig64(from + 8 * i));
  }
}

}  // namespace klt

template <int N>
struct KLT_Codec {
  using View = KLT_Record<N>;
  static constexpr const KLT_Row& row = kKltRows[N - 1];
  static constexpr const KLT_Layout& layout = kKltLayouts[N - 1];
  static constexpr size_t kFields = row.numFields;
  static constexpr bool kFixedSize = !layout.hasArrays;

  // Disk bytes of the scalar fields from f to the next array.
  static constexpr size_t runBytes(size_t f) {
    size_t bytes = 0;
    for (; f < kFields && !layout.isArray(f); ++f) bytes += KLT_TypeBytes(row.fields[f].type());
    return bytes;
  }
  // Disk bytes of one element of each array that shares the count of array field f.
  static constexpr size_t groupBytes(size_t f) {
    size_t bytes = 0;
    for (size_t i = f; i < kFields && layout.countOf[i] == layout.countOf[f]; ++i) {
      bytes += KLT_TypeBytes(row.fields[i].type());
    }
    return bytes;
  }

  // Decodes the record whose first field is at input.at() to the tail of `out` and adds its time
  // step to `time`. `disk` receives its size without the number byte; the input isn't advanced. The
  // time of an untimed record is `time`.
  template <class Input>
  static KLT_Parse parse(Input& input, KLT_RecordBuffer& out, uint64_t& time, size_t& disk) {
    if (!input.ensure(layout.headBytes)) [[unlikely]]
      return KLT_Parse::kNoData;
    uint8_t* const record = out.reserve(layout.fixedBytes);
    uint64_t recordTime = time;
    if constexpr (row.timed()) recordTime = klt::steppedTime<N>(time, input.at());
    loadHead(input.at(), recordTime, record);
    disk = layout.headBytes;
    if constexpr (!kFixedSize) {
      Cursor<Input> c{input, out, input.at(), record, layout.headBytes, layout.fixedBytes};
      if (!parseFields<firstArray()>(c)) [[unlikely]]
        return KLT_Parse::kNoData;
      disk = c.done;
    }
    time = recordTime;
    return KLT_Parse::kRecord;
  }

  // Loads the fields before the first array, for most rows the whole record. `p` is the address of
  // the first field, `time` the time of the record. REQUIRES: headBytes bytes at `p`, fixedBytes
  // bytes at `record`.
  static void loadHead(const uint8_t* p, uint64_t time, uint8_t* record) {
    klt::storeNative(record + kKltRecordNumberAt, uint32_t{N});
    klt::storeNative(record + kKltRecordTimeAt, time);
    loadFields<0>(p, record);
  }

  // Determines only the size of the record, for records that aren't wanted.
  template <class Input>
  static KLT_Parse measure(Input& input, size_t& disk) {
    if (!input.ensure(layout.headBytes)) [[unlikely]]
      return KLT_Parse::kNoData;
    size_t done = 0;
    if constexpr (kFixedSize) {
      done = layout.headBytes;
    } else if (!measureFields<0>(input, done, 0)) {
      return KLT_Parse::kNoData;
    }
    disk = done;
    return KLT_Parse::kRecord;
  }

  // Bytes of the record in encoded form, number byte included.
  static size_t encodedBytes(const uint8_t* record) {
    size_t bytes = 1 + scalarBytes();
    if constexpr (!kFixedSize) addArrayBytes<0>(record, bytes);
    return bytes;
  }

 private:
  template <class Input>
  struct Cursor {
    Input& input;
    KLT_RecordBuffer& out;
    const uint8_t* p;  // first byte of the record's fields; moves with the input's buffer
    uint8_t* record;   // moves with the output's buffer
    size_t done;       // disk bytes read
    size_t tail;       // memory bytes used
  };

  static constexpr size_t scalarBytes() {
    size_t bytes = 0;
    for (size_t f = 0; f < kFields; ++f) {
      if (!layout.isArray(f)) bytes += KLT_TypeBytes(row.fields[f].type());
    }
    return bytes;
  }

  static constexpr bool startsGroup(size_t f) {
    return layout.isArray(f) && layout.countOf[f - 1] != layout.countOf[f];
  }
  // Whether f begins a run of scalars after an array. (headBytes includes a record's first run.)
  static constexpr bool startsRun(size_t f) {
    return f > 0 && !layout.isArray(f) && layout.isArray(f - 1);
  }

  static constexpr size_t firstArray() {  // or the number of fields
    size_t f = 0;
    while (f < kFields && !layout.isArray(f)) ++f;
    return f;
  }

  template <size_t F>
  static void loadField(const uint8_t* p, uint8_t* record) {
    if constexpr (!(row.timed() && F == 0)) {
      klt::storeNative(record + layout.offset[F], klt::loadScalar<row.fields[F].type()>(p));
    }
  }

  // Loads the fields from F to the first array.
  template <size_t F>
  static void loadFields(const uint8_t* p, uint8_t* record) {
    if constexpr (F < firstArray()) {
      loadField<F>(p, record);
      loadFields<F + 1>(p + KLT_TypeBytes(row.fields[F].type()), record);
    }
  }

  template <size_t F, class Input>
  static bool parseFields(Cursor<Input>& c) {
    if constexpr (F == kFields) {
      return true;
    } else if constexpr (layout.isArray(F)) {
      constexpr KLT_Type type = row.fields[F].type();
      const size_t n = View::template count<F>(c.record);
      if constexpr (startsGroup(F)) {
        if (!c.input.ensure(c.done + n * groupBytes(F))) [[unlikely]]
          return false;
        c.p = c.input.at();
      }
      const size_t bytes = View::template arrayBytes<F>(c.record);
      c.record = c.out.reserve(c.tail + bytes);
      klt::loadElements<type>(c.record + c.tail, c.p + c.done, n);
      c.tail += bytes;
      c.done += n * KLT_TypeBytes(type);
      return parseFields<F + 1>(c);
    } else {
      if constexpr (startsRun(F)) {
        if (!c.input.ensure(c.done + runBytes(F))) [[unlikely]]
          return false;
        c.p = c.input.at();
      }
      loadField<F>(c.p + c.done, c.record);
      c.done += KLT_TypeBytes(row.fields[F].type());
      return parseFields<F + 1>(c);
    }
  }

  template <size_t F, class Input>
  static bool measureFields(Input& input, size_t& done, size_t n) {
    if constexpr (F == kFields) {
      return true;
    } else if constexpr (layout.isArray(F)) {
      if constexpr (startsGroup(F)) {
        if (!input.ensure(done + n * groupBytes(F))) return false;
        done += n * groupBytes(F);
      }
      return measureFields<F + 1>(input, done, n);
    } else {
      if constexpr (startsRun(F)) {
        if (!input.ensure(done + runBytes(F))) return false;
      }
      if constexpr (row.fields[F].isCount()) {
        n = klt::loadScalar<row.fields[F].type()>(input.at() + done);
      }
      done += KLT_TypeBytes(row.fields[F].type());
      return measureFields<F + 1>(input, done, n);
    }
  }

  template <size_t F>
  static void addArrayBytes(const uint8_t* record, size_t& bytes) {
    if constexpr (F < kFields) {
      if constexpr (layout.isArray(F)) {
        bytes += size_t{View::template count<F>(record)} * KLT_TypeBytes(row.fields[F].type());
      }
      addArrayBytes<F + 1>(record, bytes);
    }
  }
};

// Sizes computed by hand, number byte included.
static_assert(1 + KLT_Codec<KLT_Row::enterFunction>::layout.headBytes == 11);
static_assert(1 + KLT_Codec<KLT_Row::functionDefinition>::layout.headBytes == 13);
static_assert(1 + KLT_Codec<KLT_Row::oneToOneCommunication>::layout.headBytes == 35);
static_assert(1 + KLT_Codec<KLT_Row::counterValue>::layout.headBytes +
                  2 * KLT_Codec<KLT_Row::counterValue>::groupBytes(3) ==
              28);
static_assert(1 + KLT_Codec<KLT_Row::allCommunication>::layout.headBytes +
                  2 * KLT_Codec<KLT_Row::allCommunication>::groupBytes(4) ==
              40);
static_assert(1 + KLT_Codec<KLT_Row::kltString>::layout.headBytes + 3 == 10);

namespace klt {

template <int... N>
constexpr std::array<size_t (*)(const uint8_t*), sizeof...(N)> encodedSizes(
    std::integer_sequence<int, N...>) {
  return {&KLT_Codec<N + 1>::encodedBytes...};
}
inline constexpr auto kEncodedSizes = encodedSizes(std::make_integer_sequence<int, kKltRowCount>{});

}  // namespace klt

// Bytes of a record in encoded form, number byte included.
[[nodiscard]] inline size_t KLT_EncodedBytes(const uint8_t* record) {
  return klt::kEncodedSizes[KLT_RecordNumber(record) - 1](record);
}

// Bytes to reserve for a time record before a record: 9 if the record's time is before `outputTime`
// or its time step doesn't fit 16 bits, otherwise 0.
[[nodiscard]] inline size_t KLT_TimeRecordBytes(uint64_t outputTime, uint64_t time) {
  return time >= outputTime && time - outputTime < 0x10000 ? 0 : 9;
}
