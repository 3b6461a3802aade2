// Files of the summary data. See kltt_summary_file.h.
#include "generic/kltt_summary_file.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "util/pal_error.h"
#include "util/vfd.h"

namespace {

constexpr uint64_t kVersion = 1;
constexpr mode_t kFileMode = 0644;
constexpr size_t kBufferBytes = 65536;

}  // namespace

void KLTT_SumFile::create(std::string path, uint64_t binWidth) {
  path_ = std::move(path);
  binWidth_ = binWidth;
  buffer_.resize(kBufferBytes);
  descriptor_ = Vfd_Open(path_.c_str(), O_RDWR | O_CREAT | O_EXCL, kFileMode);
  if (descriptor_ < 0) {
    const int error = errno;
    PAL_Error("could not create summary file %s: %s", PAL_Printable(path_).c_str(),
              std::strerror(error));
    return;
  }
  good_ = true;
  end_ = 3 * sizeof(uint64_t);
  end(0);
}

void KLTT_SumFile::begin() {
  if (!good_) return;
  descriptor_ = Vfd_Open(path_.c_str(), O_RDWR, 0);
  if (descriptor_ < 0) return fail();
  Vfd_Pin(descriptor_, 1);
}

void KLTT_SumFile::putText(const char* text) {
  const size_t length = text == nullptr ? 0 : std::min<size_t>(std::strlen(text), UINT32_MAX);
  put(static_cast<uint32_t>(length));
  append(text, length);
}

void KLTT_SumFile::end(uint64_t records) {
  spill();
  records_ += records;
  if (good_ && !writeHeader()) fail();
  if (descriptor_ >= 0 && Vfd_Close(std::exchange(descriptor_, -1)) < 0) fail();
}

// Texts may be longer than the buffer.
void KLTT_SumFile::append(const void* bytes, size_t count) {
  const auto* from = static_cast<const uint8_t*>(bytes);
  while (count > 0) {
    if (used_ == buffer_.size()) spill();
    const size_t part = std::min(count, buffer_.size() - used_);
    std::memcpy(buffer_.data() + used_, from, part);
    used_ += part;
    from += part;
    count -= part;
  }
}

void KLTT_SumFile::spill() {
  const size_t bytes = std::exchange(used_, 0);
  if (!good_ || bytes == 0) return;
  if (Vfd_PWriteFully(descriptor_, buffer_.data(), bytes, static_cast<off_t>(end_)) < bytes) {
    return fail();
  }
  end_ += bytes;
}

bool KLTT_SumFile::writeHeader() {
  const uint64_t header[] = {kVersion, binWidth_, records_};
  return Vfd_PWriteFully(descriptor_, header, sizeof header, 0) == sizeof header;
}

// Reports the first failure, by errno.
void KLTT_SumFile::fail() {
  if (!std::exchange(good_, false)) return;
  const int error = errno;
  PAL_Error("writing to %s failed: %s", PAL_Printable(path_).c_str(), std::strerror(error));
}
