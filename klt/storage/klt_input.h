// Reads one component through a buffer, for streams, the anchor loader and the history replay.
//
// Owns the read buffer, not the open component. A decoder calls ensure() with the number of bytes
// that it needs for a record. If they can't be read, this module reports that once: at the end of
// the file the number of missing bytes, otherwise the error. A component may be compressed: offsets
// then count inflated bytes, and it can only be read forward.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "klt/storage/klt_compress.h"
#include "klt/storage/klt_io.h"

class KLT_Input {
 public:
  static constexpr size_t kBlock = 0x10000;
  // Smaller, because inflating needs memory of its own.
  static constexpr size_t kInflatedBlock = 0x4000;
  static constexpr uint64_t kNoLimit = ~uint64_t{0};

  KLT_Input() = default;
  KLT_Input(const KLT_Input&) = delete;
  KLT_Input& operator=(const KLT_Input&) = delete;
  ~KLT_Input();

  // Sets the component to be read, from the offset `start` on. REQUIRES: if `start` is 0, `file` is
  // positioned at 0. `base` and `suffix` (may be empty) name the component in messages and must
  // outlive this object. False if the length can't be determined or a seek fails.
  [[nodiscard]] bool attach(KLT_IoFile* file, const char* base, const char* suffix,
                            uint64_t start = 0);
  // The same for a compressed component.
  [[nodiscard]] bool attachCompressed(KLT_IoFile* file, const char* base, const char* suffix);
  // Releases the component and frees the buffer.
  void detach();
  // Frees the buffer when no more of the component is needed. Bytes in it count as not read.
  void freeBuffer();

  // Continues reading at `offset`. False after a failed seek, which is reported. A compressed
  // component can't be positioned: reading continues at the current position, or at the start if
  // `offset` is before the current position.
  [[nodiscard]] bool seek(uint64_t offset);
  // Bytes from this offset on aren't read, because no request needs them.
  void setLimit(uint64_t offset) { limit_ = offset; }
  // Sets how many bytes are read at a time until detach(); kBlock or kInflatedBlock by default.
  void setBlock(size_t bytes) { block_ = bytes; }
  // The same, and frees a buffer that is larger; bytes in it are read again. False after a failed
  // seek, which is reported.
  [[nodiscard]] bool shrinkBlock(size_t bytes);

  // Makes `bytes` bytes available at at(). False, after a report, if that isn't possible; the
  // stream ends there.
  [[nodiscard]] bool ensure(size_t bytes) {
    if (filled_ - pos_ >= bytes) [[likely]]
      return true;
    return refill(bytes);
  }
  [[nodiscard]] const uint8_t* at() const { return data_ + pos_; }
  // Bytes available at at() without reading.
  [[nodiscard]] size_t available() const { return filled_ - pos_; }
  void advance(size_t bytes) { pos_ += bytes; }
  void stepBack() { --pos_; }

  [[nodiscard]] bool drained() const { return pos_ == filled_; }
  // Whether there are bytes before the limit that aren't in the buffer yet.
  [[nodiscard]] bool moreToRead() const { return offset_ < end() && !ended_; }
  // Whether a read has failed or the file ended early; no more bytes can be read then.
  [[nodiscard]] bool ended() const { return ended_; }

  [[nodiscard]] uint64_t length() const { return length_; }
  [[nodiscard]] bool compressed() const { return inflate_ != nullptr; }
  // Offset in the component of the byte at at().
  [[nodiscard]] uint64_t position() const { return offset_ - (filled_ - pos_); }
  // Index in the buffer of the byte at at(). For a compressed component: the index that it would
  // have if the same records were stored uncompressed.
  [[nodiscard]] size_t bufferPosition() const {
    return inflate_ == nullptr ? pos_ : static_cast<size_t>(position() - blockStart_);
  }
  // Bytes consumed: all bytes read except those still in the buffer.
  [[nodiscard]] uint64_t bytesTaken() const { return bytesRead_ - (filled_ - pos_); }

 private:
  [[nodiscard]] uint64_t end() const { return limit_ < length_ ? limit_ : length_; }
  bool seekFile(uint64_t offset);
  bool refill(size_t bytes);
  bool readInto(size_t want);
  void reportUnreadable() const;  // with errno
  void reportMissing(uint64_t bytes);

  KLT_IoFile* file_ = nullptr;
  std::unique_ptr<KLT_Inflate> inflate_;
  const char* base_ = "";
  const char* suffix_ = "";
  uint8_t* data_ = nullptr;
  size_t capacity_ = 0;
  size_t filled_ = 0;
  size_t pos_ = 0;
  uint64_t offset_ = 0;  // in the component, of the byte after data_[filled_ - 1]
  uint64_t length_ = 0;
  uint64_t limit_ = kNoLimit;
  uint64_t bytesRead_ = 0;
  size_t block_ = kBlock;
  // For a compressed component: the offsets that the buffer would cover if it were uncompressed.
  uint64_t blockStart_ = 0;
  uint64_t blockEnd_ = 0;
  bool ended_ = false;
};
