// Defines the form of a decoded record in memory, derived from its row at compile time.
//
//   offset 0   u32  record number
//          4        first field of up to 32 bits, counts included
//          8   u64  absolute time; for an untimed row the time of the preceding record
//         16        other 64-bit fields, then other fields of up to 32 bits, in row order
//      fixedBytes   arrays in row order, each at a multiple of 8; a string gets a zero byte
//
// Values are in host order; 8- and 16-bit numbers and the elements of 16-bit arrays are widened to
// 32 bits. Values of type raw64 keep their byte order. The size of a record is a multiple of 8
// bytes, so a KLT_RecordBuffer has no gaps and its records can be copied as bytes.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>

#include "klt/format/klt_schema.h"
#include "klt/format/klt_wire.h"
#include "util/pal_mem.h"

inline constexpr size_t kKltRecordNumberAt = 0;
inline constexpr size_t kKltRecordTimeAt = 8;

struct KLT_Layout {
  static constexpr uint8_t kNone = 0xff;

  std::array<uint16_t, kKltMaxFields> offset{};  // of a scalar or count; unused for arrays
  std::array<uint8_t, kKltMaxFields> countOf{};  // the count field that covers a field, or kNone
  uint16_t fixedBytes = 0;                       // bytes in memory before the arrays
  uint16_t headBytes = 0;  // disk bytes of the fields before the first array, or of all fields
  bool hasArrays = false;

  [[nodiscard]] constexpr bool isArray(size_t field) const { return countOf[field] != kNone; }
};

namespace klt {

constexpr KLT_Layout layoutOf(const KLT_Row& row) {
  KLT_Layout layout;
  layout.countOf.fill(KLT_Layout::kNone);
  unsigned left = 0;
  uint8_t count = KLT_Layout::kNone;
  uint16_t head = 0;
  for (uint8_t f = 0; f < row.numFields; ++f) {
    const KLT_Field& field = row.fields[f];
    if (left != 0 && !field.isCount()) {
      layout.countOf[f] = count;
      layout.hasArrays = true;
      --left;
      continue;
    }
    if (field.isCount()) {
      count = f;
      left = field.covered();
    }
    if (!layout.hasArrays) head = static_cast<uint16_t>(head + KLT_TypeBytes(field.type()));
  }
  layout.headBytes = head;

  uint16_t next = 16;
  bool isFirstSlotUsed = false;
  const auto isTime = [&](size_t f) { return row.timed() && f == 0; };
  const auto bytesOf = [&](size_t f) { return KLT_TypeBytes(row.fields[f].type()); };
  if (row.timed()) layout.offset[0] = kKltRecordTimeAt;
  for (size_t f = 0; f < row.numFields; ++f) {
    if (layout.isArray(f) || isTime(f) || bytesOf(f) != 8) continue;
    layout.offset[f] = next;
    next = static_cast<uint16_t>(next + 8);
  }
  for (size_t f = 0; f < row.numFields; ++f) {
    if (layout.isArray(f) || isTime(f) || bytesOf(f) == 8) continue;
    layout.offset[f] = isFirstSlotUsed ? next : uint16_t{4};
    if (isFirstSlotUsed) next = static_cast<uint16_t>(next + 4);
    isFirstSlotUsed = true;
  }
  layout.fixedBytes = static_cast<uint16_t>(roundUp8(next));
  return layout;
}

constexpr std::array<KLT_Layout, kKltRowCount> allLayouts() {
  std::array<KLT_Layout, kKltRowCount> layouts{};
  for (size_t i = 0; i < kKltRowCount; ++i) layouts[i] = layoutOf(kKltRows[i]);
  return layouts;
}

}  // namespace klt

// The layout of row n is at index n - 1.
inline constexpr std::array<KLT_Layout, kKltRowCount> kKltLayouts = klt::allLayouts();

[[nodiscard]] inline unsigned KLT_RecordNumber(const uint8_t* record) {
  return klt::loadNative<uint32_t>(record + kKltRecordNumberAt);
}
[[nodiscard]] inline uint64_t KLT_RecordTime(const uint8_t* record) {
  return klt::loadNative<uint64_t>(record + kKltRecordTimeAt);
}

// Reads the fields of a decoded record of row N in place. F is the index of a field in the row.
template <int N>
struct KLT_Record {
  static constexpr const KLT_Row& row = kKltRows[N - 1];
  static constexpr const KLT_Layout& layout = kKltLayouts[N - 1];

  template <size_t F>
  [[nodiscard]] static uint32_t get32(const uint8_t* record) {
    static_assert(F < row.numFields && !layout.isArray(F) &&
                  KLT_TypeBytes(row.fields[F].type()) < 8);
    return klt::loadNative<uint32_t>(record + layout.offset[F]);
  }
  template <size_t F>
  [[nodiscard]] static uint64_t get64(const uint8_t* record) {
    static_assert(F < row.numFields && !layout.isArray(F));
    return klt::loadNative<uint64_t>(record + layout.offset[F]);
  }
  // Number of elements of the array field F.
  template <size_t F>
  [[nodiscard]] static uint32_t count(const uint8_t* record) {
    static_assert(layout.isArray(F));
    return klt::loadNative<uint32_t>(record + layout.offset[layout.countOf[F]]);
  }
  // Bytes of the array field F in memory, padding included.
  template <size_t F>
  [[nodiscard]] static size_t arrayBytes(const uint8_t* record) {
    constexpr KLT_Type type = row.fields[F].type();
    return klt::roundUp8(size_t{count<F>(record)} * KLT_TypeNativeBytes(type) +
                         (type == KLT_Type::kChar ? 1 : 0));
  }
  // Offset of the array field F. With F = number of fields: the size of the whole record.
  template <size_t F>
  [[nodiscard]] static size_t arrayAt(const uint8_t* record) {
    if constexpr (F == 0) {
      return layout.fixedBytes;
    } else if constexpr (layout.isArray(F - 1)) {
      return arrayAt<F - 1>(record) + arrayBytes<F - 1>(record);
    } else {
      return arrayAt<F - 1>(record);
    }
  }
  template <class T, size_t F>
  [[nodiscard]] static const T* array(const uint8_t* record) {
    static_assert(sizeof(T) == KLT_TypeNativeBytes(row.fields[F].type()));
    return reinterpret_cast<const T*>(record + arrayAt<F>(record));
  }
  // Size of the record in memory.
  [[nodiscard]] static size_t bytes(const uint8_t* record) {
    if constexpr (!layout.hasArrays) {
      return layout.fixedBytes;
    } else {
      return arrayAt<row.numFields>(record);
    }
  }
};

namespace klt {

template <int... N>
constexpr std::array<size_t (*)(const uint8_t*), sizeof...(N)> recordSizes(
    std::integer_sequence<int, N...>) {
  return {&KLT_Record<N + 1>::bytes...};
}
inline constexpr auto kRecordSizes = recordSizes(std::make_integer_sequence<int, kKltRowCount>{});

}  // namespace klt

// Size of a record in memory.
[[nodiscard]] inline size_t KLT_RecordBytes(const uint8_t* record) {
  const size_t index = KLT_RecordNumber(record) - 1;
  const KLT_Layout& layout = kKltLayouts[index];
  return layout.hasArrays ? klt::kRecordSizes[index](record) : layout.fixedBytes;
}

// A buffer of consecutive records. Its memory is aligned to 16 bytes and moves when it grows.
class KLT_RecordBuffer {
 public:
  KLT_RecordBuffer() = default;
  KLT_RecordBuffer(const KLT_RecordBuffer&) = delete;
  KLT_RecordBuffer& operator=(const KLT_RecordBuffer&) = delete;
  ~KLT_RecordBuffer() { PAL_FREE(data_); }

  [[nodiscard]] const uint8_t* data() const { return data_; }
  [[nodiscard]] uint8_t* data() { return data_; }
  [[nodiscard]] size_t used() const { return used_; }
  [[nodiscard]] bool empty() const { return used_ == 0; }
  void clear() { used_ = 0; }
  void release() {
    PAL_FREE(data_);
    used_ = capacity_ = 0;
  }

  // Replaces the records by copies, in no more memory than they need.
  void assign(const uint8_t* records, size_t bytes) {
    release();
    if (bytes == 0) return;
    PAL_REALLOC(data_, bytes);
    std::memcpy(data_, records, bytes);
    used_ = capacity_ = bytes;
  }

  // The address of the next record, with room for `bytes` bytes.
  [[nodiscard]] uint8_t* reserve(size_t bytes) {
    if (capacity_ - used_ < bytes) [[unlikely]]
      grow(bytes);
    return data_ + used_;
  }
  [[nodiscard]] uint8_t* tail() { return data_ + used_; }
  // Bytes that fit after the last record without growing.
  [[nodiscard]] size_t room() const { return capacity_ - used_; }
  void commit(size_t bytes) { used_ += bytes; }
  // Removes the records from the offset `used` on.
  void truncate(size_t used) { used_ = used; }

 private:
  void grow(size_t bytes) {
    const size_t doubled = capacity_ == 0 ? 1024 : capacity_ * 2;
    capacity_ = doubled > used_ + bytes ? doubled : used_ + bytes;
    PAL_REALLOC(data_, capacity_);
  }

  uint8_t* data_ = nullptr;
  size_t used_ = 0;
  size_t capacity_ = 0;
};
