// Writes summary files. See kltt_summary_file.h.
#include "generic/summary/kltt_summary_file.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "util/pal_error.h"
#include "util/vfd.h"

namespace {

constexpr uint64_t kVersion = 1;
constexpr mode_t kFileMode = 0644;
constexpr size_t kWriteBytes = 65536;  // blocks are collected up to this size
constexpr size_t kBufferBytes = 2 * kWriteBytes;

}  // namespace

int KLTT_SumFile::create(std::string path, uint64_t binWidth) {
  path_ = std::move(path);
  binWidth_ = binWidth;
  buffer_.resize(kBufferBytes);
  descriptor_ = Vfd_Open(path_.c_str(), O_RDWR | O_CREAT | O_EXCL, kFileMode);
  if (descriptor_ < 0) return errno;
  good_ = true;
  end_ = 3 * sizeof(uint64_t);
  writeHeader();
  return 0;
}

void KLTT_SumFile::putText(const char* text) {
  const size_t length = text == nullptr ? 0 : std::min<size_t>(std::strlen(text), UINT32_MAX);
  put(static_cast<uint32_t>(length));
  append(text, length);
}

void KLTT_SumFile::endBlock(uint64_t records) {
  records_ += records;
  if (descriptor_ >= 0 || used_ >= kWriteBytes) flush();
}

void KLTT_SumFile::flush() {
  writeBuffer();
  if (descriptor_ >= 0) writeHeader();
}

// Appends bytes to the buffer; `count` may exceed the size of the buffer.
void KLTT_SumFile::append(const void* bytes, size_t count) {
  const auto* from = static_cast<const uint8_t*>(bytes);
  while (count > 0) {
    if (used_ == buffer_.size()) writeBuffer();
    const size_t part = std::min(count, buffer_.size() - used_);
    std::memcpy(buffer_.data() + used_, from, part);
    used_ += part;
    from += part;
    count -= part;
  }
}

void KLTT_SumFile::writeBuffer() {
  const size_t bytes = std::exchange(used_, 0);
  if (!good_ || bytes == 0) return;
  if (descriptor_ < 0) {
    descriptor_ = Vfd_Open(path_.c_str(), O_RDWR, 0);
    if (descriptor_ < 0) return fail();
    Vfd_Pin(descriptor_, 1);
  }
  writeAt(end_, buffer_.data(), bytes);
  end_ += bytes;
}

void KLTT_SumFile::writeAt(uint64_t offset, const void* bytes, size_t count) {
  if (good_ && Vfd_PWriteFully(descriptor_, bytes, count, static_cast<off_t>(offset)) < count) {
    fail();
  }
}

// Writes the header and closes the descriptor.
void KLTT_SumFile::writeHeader() {
  const uint64_t header[] = {kVersion, binWidth_, records_};
  writeAt(0, header, sizeof header);
  if (Vfd_Close(std::exchange(descriptor_, -1)) < 0) fail();
}

// Reports the error in errno if it is the file's first.
void KLTT_SumFile::fail() {
  if (!std::exchange(good_, false)) return;
  const int error = errno;
  PAL_Error("writing to %s failed: %s", PAL_Printable(path_).c_str(), std::strerror(error));
}
