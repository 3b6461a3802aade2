// One file of the summary data: a header that counts the records, and blocks of records behind it.
//
// The header, in the byte order of the machine, holds three u64: version 1, the width of a bin, the
// number of records. Whole blocks are collected until a write is worth it; each write ends with the
// header, so that the file is consistent at every time. It is open only for a write: an owner can
// have as many files as it likes without holding descriptors. A failure is reported once, and the
// file is left alone from then on.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

class KLTT_SumFile {
 public:
  // Creates the file, which must not exist, with a header for bins of this width.
  void create(std::string path, uint64_t binWidth);

  // A block: the fields of its records in order, then their number.
  template <class T>
  void put(T value) {
    static_assert(std::has_unique_object_representations_v<T> || std::is_floating_point_v<T>,
                  "no padding in a file");
    if (buffer_.size() - used_ < sizeof value) [[unlikely]]
      spill();
    std::memcpy(buffer_.data() + used_, &value, sizeof value);
    used_ += sizeof value;
  }
  // The length as u32, then the bytes; null is an empty text.
  void putText(const char* text);
  void endBlock(uint64_t records);
  // Writes the blocks that are collected.
  void flush();

  // Whether it was created and holds all that was put, once flushed.
  [[nodiscard]] bool isComplete() const { return good_; }

 private:
  void spill();
  void append(const void* bytes, size_t count);
  void writeAt(uint64_t offset, const void* bytes, size_t count);
  void complete();
  void fail();

  std::string path_;
  int descriptor_ = -1;  // open from the first part of a write to the header
  bool good_ = false;
  uint64_t binWidth_ = 0;
  uint64_t records_ = 0;
  uint64_t end_ = 0;  // offset behind the last byte written
  std::vector<uint8_t> buffer_;
  size_t used_ = 0;
};
