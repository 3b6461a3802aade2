// Reads a component through a buffer. See klt_input.h.
#include "klt/storage/klt_input.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "util/pal_error.h"
#include "util/pal_mem.h"

KLT_Input::~KLT_Input() { PAL_FREE(data_); }

bool KLT_Input::attach(KLT_IoFile* file, const char* base, const char* suffix, uint64_t start) {
  detach();
  file_ = file;
  base_ = base;
  suffix_ = suffix;
  const int64_t size = KLT_IoSize(file);
  if (size < 0) return false;
  length_ = static_cast<uint64_t>(size);
  return seek(start < length_ ? start : length_);
}

bool KLT_Input::attachCompressed(KLT_IoFile* file, const char* base, const char* suffix) {
  detach();
  file_ = file;
  base_ = base;
  suffix_ = suffix;
  inflate_ = KLT_Inflate::open(file);
  if (inflate_ == nullptr) return false;
  setBlock(kInflatedBlock);
  length_ = inflate_->length();
  return inflate_->rewind();
}

void KLT_Input::detach() {
  PAL_FREE(data_);
  inflate_.reset();
  file_ = nullptr;
  capacity_ = filled_ = pos_ = 0;
  offset_ = length_ = 0;
  limit_ = kNoLimit;
  block_ = kBlock;
  blockStart_ = blockEnd_ = 0;
  ended_ = false;
}

void KLT_Input::freeBuffer() {
  offset_ = position();
  bytesRead_ = bytesTaken();
  PAL_FREE(data_);
  capacity_ = filled_ = pos_ = 0;
}

bool KLT_Input::shrinkBlock(size_t bytes) {
  setBlock(bytes);
  if (inflate_ != nullptr || capacity_ <= bytes) return true;
  freeBuffer();
  return seekFile(offset_);
}

bool KLT_Input::seek(uint64_t offset) {
  ended_ = false;
  if (inflate_ != nullptr) {
    if (offset >= position()) return true;
    filled_ = pos_ = 0;
    offset_ = blockStart_ = blockEnd_ = 0;
    return inflate_->rewind();
  }
  if (offset <= offset_ && offset_ - offset <= filled_) {  // still in the buffer
    pos_ = filled_ - static_cast<size_t>(offset_ - offset);
    return true;
  }
  filled_ = pos_ = 0;
  if (!seekFile(offset)) return false;
  offset_ = offset;
  return true;
}

bool KLT_Input::seekFile(uint64_t offset) {
  errno = 0;
  if (KLT_IoSeek(file_, static_cast<int64_t>(offset), SEEK_SET) == static_cast<int64_t>(offset)) {
    return true;
  }
  if (errno != 0) reportUnreadable();
  ended_ = true;
  return false;
}

void KLT_Input::reportUnreadable() const {
  const char* reason = std::strerror(errno);
  PAL_Error("read error %s.%s: %s", PAL_Printable(base_).c_str(), PAL_Printable(suffix_).c_str(),
            reason);
}

void KLT_Input::reportMissing(uint64_t bytes) {
  constexpr uint64_t kLargest = 0xffffffff;
  PAL_Error("truncated file %s.%s, %u bytes missing", PAL_Printable(base_).c_str(),
            PAL_Printable(suffix_).c_str(),
            static_cast<unsigned>(bytes < kLargest ? bytes : kLargest));
  ended_ = true;
}

// Also keeps the byte before at() in the buffer. It is a record's number, to which the caller steps
// back if it doesn't consume the record.
bool KLT_Input::refill(size_t bytes) {
  if (ended_ || file_ == nullptr) return false;
  const size_t have = filled_ - pos_;
  const size_t missing = bytes - have;
  if (missing > end() - offset_) {
    if (end() < length_) {
      PAL_Error("More data requested than available for filter.");
      ended_ = true;
    } else {
      reportMissing(missing - (length_ - offset_));
    }
    return false;
  }
  const size_t keep = pos_ > 0 ? 1 : 0;
  if (inflate_ != nullptr && position() + bytes > blockEnd_) {
    const uint64_t size = std::max({uint64_t{kBlock}, keep + bytes, blockEnd_ - blockStart_});
    blockStart_ = position() - keep;
    blockEnd_ = blockStart_ + size;
  }
  if (keep + have != 0) std::memmove(data_, data_ + pos_ - keep, keep + have);
  pos_ = keep;
  filled_ = keep + have;
  while (filled_ - pos_ < bytes) {
    // A small file gets a small buffer. The length of a compressed component isn't trusted, so its
    // buffer grows step by step with the bytes that have been inflated.
    size_t capacity = keep + bytes;
    if (inflate_ != nullptr && capacity > 2 * (filled_ + kBlock)) capacity = 2 * (filled_ + kBlock);
    const uint64_t whole = end() - offset_ + filled_;
    const size_t block = whole < block_ ? static_cast<size_t>(whole) : block_;
    if (capacity < block) capacity = block;
    if (capacity > capacity_) {
      PAL_REALLOC(data_, capacity);
      capacity_ = capacity;
    }
    uint64_t want = capacity_ - filled_;
    if (want > end() - offset_) want = end() - offset_;
    if (inflate_ != nullptr) want = std::min(want, blockEnd_ - offset_);
    const size_t before = filled_;
    const bool readable = readInto(static_cast<size_t>(want));
    if (!readable) return false;
    if (filled_ == before) {
      // The data has ended before its length. The bytes up to that length are missing.
      reportMissing(length_ - offset_);
      return false;
    }
  }
  return true;
}

bool KLT_Input::readInto(size_t want) {
  size_t done = 0;
  while (done < want) {
    errno = 0;
    const int64_t n = inflate_ != nullptr
                          ? static_cast<int64_t>(inflate_->read(data_ + filled_, want - done))
                          : KLT_IoRead(file_, data_ + filled_, want - done);
    if (n < 0) {
      reportUnreadable();
      ended_ = true;
      return false;
    }
    if (n == 0) break;
    done += static_cast<size_t>(n);
    filled_ += static_cast<size_t>(n);
    offset_ += static_cast<uint64_t>(n);
    bytesRead_ += static_cast<uint64_t>(n);
  }
  return true;
}
