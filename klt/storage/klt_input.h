// Buffered bytes of one component, as a stream, the anchor loader and the history replay read them.
//
// Owns the read buffer, not the open component. A decoder asks with ensure() for the bytes of the
// record it is about to read; what can't be had is reported here, once, with the exact number of
// bytes missing where the file ends. A component may be compressed: offsets then count inflated
// bytes, and it can only be read forward.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "klt/storage/klt_compress.h"
#include "klt/storage/klt_io.h"

class KLT_Input {
 public:
  static constexpr size_t kBlock = 0x10000;
  // Smaller where the inflating needs memory of its own.
  static constexpr size_t kInflatedBlock = 0x4000;
  static constexpr uint64_t kNoLimit = ~uint64_t{0};

  KLT_Input() = default;
  KLT_Input(const KLT_Input&) = delete;
  KLT_Input& operator=(const KLT_Input&) = delete;
  ~KLT_Input();

  // Takes over reading `file`, whose records start at `start`; for 0 it has just been opened.
  // `base` and `suffix` (may be empty) name it in messages and must outlive this object. False if
  // the length can't be found out.
  [[nodiscard]] bool attach(KLT_IoFile* file, const char* base, const char* suffix,
                            uint64_t start = 0);
  // The same for a compressed component.
  [[nodiscard]] bool attachCompressed(KLT_IoFile* file, const char* base, const char* suffix);
  // Forgets the component and frees the buffer.
  void detach();
  // Frees the buffer of a component that has been read as far as it will be. What is in it counts
  // as not read.
  void freeBuffer();

  // Empties the buffer and goes on reading at `offset`. False after a failed seek, which is
  // reported. A compressed component is read on or, for an offset behind it, from its start.
  [[nodiscard]] bool seek(uint64_t offset);
  // Bytes at and behind this offset belong to no request: they aren't read.
  void setLimit(uint64_t offset) { limit_ = offset; }
  // How much is read at a time of the component at hand; kBlock, or kInflatedBlock, at first.
  void setBlock(size_t bytes) { block_ = bytes; }

  // Makes `bytes` bytes available at at(). False after a report; the stream ends there.
  [[nodiscard]] bool ensure(size_t bytes) {
    if (filled_ - pos_ >= bytes) [[likely]]
      return true;
    return refill(bytes);
  }
  [[nodiscard]] const uint8_t* at() const { return data_ + pos_; }
  // Bytes available there without reading.
  [[nodiscard]] size_t available() const { return filled_ - pos_; }
  void advance(size_t bytes) { pos_ += bytes; }
  void stepBack() { --pos_; }

  [[nodiscard]] bool drained() const { return pos_ == filled_; }
  // Whether the request has bytes that aren't in the buffer yet.
  [[nodiscard]] bool moreToRead() const { return offset_ < end() && !ended_; }
  // A read failed or the file ended early; there is nothing more to be had.
  [[nodiscard]] bool ended() const { return ended_; }

  [[nodiscard]] uint64_t length() const { return length_; }
  [[nodiscard]] bool compressed() const { return inflate_ != nullptr; }
  // Offset in the component of the byte at at().
  [[nodiscard]] uint64_t position() const { return offset_ - (filled_ - pos_); }
  // Place of the byte at at() in the buffer; of a compressed component, in that of a plain one with
  // the same records.
  [[nodiscard]] size_t bufferPosition() const {
    return inflate_ == nullptr ? pos_ : static_cast<size_t>(position() - blockStart_);
  }
  // Bytes read in all, without those that lie in the buffer still.
  [[nodiscard]] uint64_t bytesTaken() const { return bytesRead_ - (filled_ - pos_); }

 private:
  [[nodiscard]] uint64_t end() const { return limit_ < length_ ? limit_ : length_; }
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
  uint64_t offset_ = 0;  // in the component, of the byte behind data_[filled_ - 1]
  uint64_t length_ = 0;
  uint64_t limit_ = kNoLimit;
  uint64_t bytesRead_ = 0;
  size_t block_ = kBlock;
  // Of a compressed component: what a plain one's buffer would hold.
  uint64_t blockStart_ = 0;
  uint64_t blockEnd_ = 0;
  bool ended_ = false;
};
