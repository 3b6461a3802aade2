// Inflates and deflates components with zlib. See klt_compress.h for the format.
#include "klt/storage/klt_compress.h"

#include <zlib.h>

#include <algorithm>

#include "klt/format/klt_wire.h"
#include "util/pal_mem.h"

namespace {

constexpr size_t kLengthField = 8;

void* allocateForZlib(void*, unsigned count, unsigned size) {
  return PAL_AllocateZeroed(count, size, __FILE__, __LINE__);
}
void releaseForZlib(void*, void* block) { PAL_Release(block); }

// The largest length to which a zlib stream of this size can inflate.
uint64_t largestLength(uint64_t compressedBytes) { return kKltLargestRatio * compressedBytes + 64; }

}  // namespace

std::unique_ptr<KLT_Inflate> KLT_Inflate::open(KLT_IoFile* file) {
  const int64_t size = KLT_IoSeek(file, 0, SEEK_END);
  uint8_t field[kLengthField];
  if (size < static_cast<int64_t>(kLengthField) || KLT_IoSeek(file, 0, SEEK_SET) != 0 ||
      KLT_IoRead(file, field, sizeof field) != static_cast<int64_t>(sizeof field)) {
    return nullptr;
  }
  const uint64_t largest = largestLength(static_cast<uint64_t>(size) - kLengthField);
  const auto claimed = klt::loadNative<uint64_t>(field);
  std::unique_ptr<KLT_Inflate> inflate(new KLT_Inflate(file));
  inflate->length_ = claimed <= largest ? claimed : std::min(klt::swapBytes(claimed), largest);
  return inflate;
}

KLT_Inflate::KLT_Inflate(KLT_IoFile* file) : file_(file) {}

KLT_Inflate::~KLT_Inflate() { finish(); }

void KLT_Inflate::finish() {
  if (stream_ == nullptr) return;
  inflateEnd(stream_.get());
  stream_.reset();
}

bool KLT_Inflate::rewind() {
  finish();
  done_ = false;
  return KLT_IoSeek(file_, kLengthField, SEEK_SET) == static_cast<int64_t>(kLengthField);
}

size_t KLT_Inflate::read(uint8_t* buffer, size_t bytes) {
  if (done_) return 0;
  if (stream_ == nullptr) {
    stream_ = std::make_unique<z_stream_s>();
    stream_->zalloc = allocateForZlib;
    stream_->zfree = releaseForZlib;
    if (inflateInit(stream_.get()) != Z_OK) {
      stream_.reset();
      done_ = true;
      return 0;
    }
  }
  constexpr size_t kLargestCall = 1U << 30;
  const size_t wanted = bytes < kLargestCall ? bytes : kLargestCall;
  stream_->next_out = buffer;
  stream_->avail_out = static_cast<uInt>(wanted);
  while (stream_->avail_out != 0) {
    if (stream_->avail_in == 0) {
      const int64_t bytesRead = KLT_IoRead(file_, block_, sizeof block_);
      if (bytesRead <= 0) {
        done_ = true;
        break;
      }
      stream_->next_in = block_;
      stream_->avail_in = static_cast<uInt>(bytesRead);
    }
    const int result = inflate(stream_.get(), Z_NO_FLUSH);
    if (result != Z_OK && result != Z_BUF_ERROR) {  // end or damage; the output so far is valid
      done_ = true;
      break;
    }
  }
  const size_t out = wanted - stream_->avail_out;
  if (done_) finish();
  return out;
}

KLT_Deflate::KLT_Deflate() : stream_(std::make_unique<z_stream_s>()) {
  stream_->zalloc = allocateForZlib;
  stream_->zfree = releaseForZlib;
  if (deflateInit(stream_.get(), Z_DEFAULT_COMPRESSION) != Z_OK) stream_.reset();
}

KLT_Deflate::~KLT_Deflate() {
  if (stream_ != nullptr) deflateEnd(stream_.get());
}

bool KLT_Deflate::put(KLT_IoFile* file, const void* data, size_t bytes) {
  return KLT_IoWrite(file, data, bytes) == static_cast<int64_t>(bytes);
}

bool KLT_Deflate::write(KLT_IoFile* file, const uint8_t* data, size_t bytes, bool final) {
  if (stream_ == nullptr) return false;
  // The length is only known at the end, so a placeholder is written first.
  if (!hasLengthField_) {
    hasLengthField_ = true;
    if (!put(file, &length_, kLengthField)) return false;
  }
  length_ += bytes;
  stream_->next_in = const_cast<uint8_t*>(data);
  stream_->avail_in = static_cast<uInt>(bytes);
  do {
    stream_->next_out = block_;
    stream_->avail_out = sizeof block_;
    if (deflate(stream_.get(), final ? Z_FINISH : Z_NO_FLUSH) == Z_STREAM_ERROR) return false;
    if (!put(file, block_, sizeof block_ - stream_->avail_out)) return false;
  } while (stream_->avail_out == 0);
  if (!final) return true;
  const int64_t end = KLT_IoSeek(file, 0, SEEK_CUR);
  return KLT_IoSeek(file, 0, SEEK_SET) == 0 && put(file, &length_, kLengthField) &&
         KLT_IoSeek(file, end, SEEK_SET) == end;
}
