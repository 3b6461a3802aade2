// KLTT_SumFile writes one summary file: a header with the number of records, followed by blocks of
// records.
//
// The header consists of three u64 in host byte order: version 1, the width of a bin, the number of
// records. Blocks are collected and written together. Each write ends with the header, so that the
// file is then consistent. The file is only open during a write, so that many files don't use up
// descriptors. A failure is reported once, and then nothing more is written to the file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

class KLTT_SumFile {
 public:
  // Creates the file, which must not exist, with a header for bins of this width. Returns 0 or, if
  // the file can't be created, errno; a failure to write the header is reported.
  [[nodiscard]] int create(std::string path, uint64_t binWidth);

  // A block is written by calls of put() and putText() for the fields of its records, in order, and
  // then endBlock() with the number of records.
  template <class T>
  void put(T value) {
    static_assert(std::has_unique_object_representations_v<T> || std::is_floating_point_v<T>,
                  "no padding in a file");
    if (buffer_.size() - used_ < sizeof value) [[unlikely]]
      writeBuffer();
    std::memcpy(buffer_.data() + used_, &value, sizeof value);
    used_ += sizeof value;
  }
  // Writes the length as u32, then the bytes; null is an empty text.
  void putText(const char* text);
  void endBlock(uint64_t records);
  // Writes the collected blocks.
  void flush();

  // After flush(): whether the file was created and contains all blocks.
  [[nodiscard]] bool isComplete() const { return good_; }

 private:
  void writeBuffer();
  void append(const void* bytes, size_t count);
  void writeAt(uint64_t offset, const void* bytes, size_t count);
  void writeHeader();
  void fail();

  std::string path_;
  int descriptor_ = -1;  // open from the first part of a write until the header is written
  bool good_ = false;
  uint64_t binWidth_ = 0;
  uint64_t records_ = 0;
  uint64_t end_ = 0;  // offset after the last byte written
  std::vector<uint8_t> buffer_;
  size_t used_ = 0;
};
