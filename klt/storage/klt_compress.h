// Reads and writes compressed components: an 8-byte length, then a zlib stream of the records.
//
//   offset 0   u64  length of the inflated data, in the byte order of the host that wrote it
//          8        zlib stream
//
// The length isn't trusted. If no zlib stream of the file's size can inflate to that length, the
// reader tries the other byte order, and takes the largest length that is possible if that fails
// too. So a file can't ask for more than 1,032 times its size.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "klt/storage/klt_io.h"

struct z_stream_s;

// The largest compression ratio of zlib's deflate.
inline constexpr uint64_t kKltLargestRatio = 1032;

class KLT_Inflate {
 public:
  // Reads the length field of `file`, which the caller keeps. Null if the field can't be read.
  [[nodiscard]] static std::unique_ptr<KLT_Inflate> open(KLT_IoFile* file);
  ~KLT_Inflate();
  KLT_Inflate(const KLT_Inflate&) = delete;
  KLT_Inflate& operator=(const KLT_Inflate&) = delete;

  [[nodiscard]] uint64_t length() const { return length_; }
  // Inflates up to `bytes` bytes and returns their number: 0 at the end of the stream, at damaged
  // data, and at the end of the file.
  [[nodiscard]] size_t read(uint8_t* buffer, size_t bytes);
  // Reads from the start again. False if the file can't be positioned.
  [[nodiscard]] bool rewind();

 private:
  static constexpr size_t kBlock = 0x1000;

  explicit KLT_Inflate(KLT_IoFile* file);
  void finish();

  KLT_IoFile* file_;
  std::unique_ptr<z_stream_s> stream_;  // null before the first byte and at the end
  uint64_t length_ = 0;
  bool done_ = false;
  uint8_t block_[kBlock];
};

// Writes a compressed component: the length field and the deflated data.
class KLT_Deflate {
 public:
  KLT_Deflate();
  ~KLT_Deflate();
  KLT_Deflate(const KLT_Deflate&) = delete;
  KLT_Deflate& operator=(const KLT_Deflate&) = delete;

  // Deflates `bytes` bytes into `file`. With `final` it ends the stream and fills in the length.
  // False after a failure, with errno if the file can't be written.
  [[nodiscard]] bool write(KLT_IoFile* file, const uint8_t* data, size_t bytes, bool final);

 private:
  static constexpr size_t kBlock = 0x1000;

  bool put(KLT_IoFile* file, const void* data, size_t bytes);

  std::unique_ptr<z_stream_s> stream_;
  uint64_t length_ = 0;
  bool hasLengthField_ = false;  // the placeholder of the length has been written
  uint8_t block_[kBlock];
};
