// One file of the summary data: a header that counts the records, and blocks of records behind it.
//
// The header, in the byte order of the machine, holds three u64: version 1, the width of a bin, the
// number of records. It is rewritten behind each block, so that the file is consistent after every
// one. The file is open only while a block is written; an owner can have as many as it likes
// without holding descriptors. A failure is reported once, and the file is left alone from then on.
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

  // A block: begin, the fields of its records in order, end with their number.
  void begin();
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
  void end(uint64_t records);

  // Whether it was created and holds all that was put.
  [[nodiscard]] bool complete() const { return good_; }

 private:
  void spill();
  void append(const void* bytes, size_t count);
  [[nodiscard]] bool writeHeader();
  void fail();

  std::string path_;
  int descriptor_ = -1;  // open between begin and end
  bool good_ = false;
  uint64_t binWidth_ = 0;
  uint64_t records_ = 0;
  uint64_t end_ = 0;  // offset behind the last byte written
  std::vector<uint8_t> buffer_;
  size_t used_ = 0;
};
