// Encodes the data of a page. See kla_encode.h.
#include "analyze/timeline/kla_encode.h"

#include <zlib.h>

#include <algorithm>
#include <array>
#include <bit>
#include <utility>

namespace kla {

namespace {

constexpr int kLevel = 7;
constexpr size_t kPiece = size_t{1} << 30;  // zlib counts bytes in 32 bits

// Appends 3 bytes as 4 digits.
void appendDigits(std::string& text, uint32_t group) {
  static constexpr std::string_view kDigits =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  for (int shift = 18; shift >= 0; shift -= 6) text += kDigits[group >> shift & 63];
}

// Deflates bytes and encodes the result in base64, both in pieces.
class Packer {
 public:
  Packer() { isValid_ = deflateInit(&stream_, kLevel) == Z_OK; }
  ~Packer() { (void)deflateEnd(&stream_); }
  Packer(const Packer&) = delete;
  Packer& operator=(const Packer&) = delete;

  void add(std::string_view bytes) {
    for (; !bytes.empty(); bytes.remove_prefix(std::min(bytes.size(), kPiece))) {
      deflateAll(bytes.substr(0, kPiece), Z_NO_FLUSH);
    }
  }
  // The text; empty if memory is exhausted.
  std::string finish() {
    deflateAll({}, Z_FINISH);
    if (inGroup_ != 0) {
      const size_t padding = 3 - inGroup_;
      appendDigits(text_, group_ << 8 * padding);
      text_.replace(text_.size() - padding, padding, padding, '=');
    }
    return isValid_ ? std::move(text_) : "";
  }

 private:
  void deflateAll(std::string_view bytes, int flush) {
    // zlib doesn't change the input.
    stream_.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes.data()));
    stream_.avail_in = static_cast<uInt>(bytes.size());
    do {
      stream_.next_out = output_.data();
      stream_.avail_out = static_cast<uInt>(output_.size());
      isValid_ = isValid_ && deflate(&stream_, flush) != Z_STREAM_ERROR;
      if (!isValid_) return;
      const size_t size = output_.size() - stream_.avail_out;
      for (size_t i = 0; i < size; ++i) encode(output_[i]);
    } while (stream_.avail_out == 0);
  }
  void encode(uint8_t byte) {
    group_ = group_ << 8 | byte;
    if (++inGroup_ < 3) return;
    appendDigits(text_, group_);
    group_ = 0;
    inGroup_ = 0;
  }

  z_stream stream_{};
  bool isValid_ = false;
  std::array<uint8_t, 1 << 14> output_{};
  uint32_t group_ = 0;
  size_t inGroup_ = 0;  // bytes in `group_`
  std::string text_;
};

}  // namespace

void Columns::add(const char* name, const std::vector<uint32_t>& numbers, bool ascending) {
  uint32_t any = 0;
  uint32_t before = 0;
  for (const uint32_t number : numbers) {
    any |= number - before;
    if (ascending) before = number;
  }
  const uint32_t planes = static_cast<uint32_t>(std::bit_width(any) + 7) / 8;
  json_ += json_.empty() ? "" : ",";
  json_ += "\"" + std::string(name) + "\":[" + std::to_string(bytes_.size()) + "," +
           std::to_string(numbers.size()) + "," + (ascending ? "1" : "0") + "," +
           std::to_string(planes) + "]";
  size_t at = bytes_.size();
  bytes_.resize(at + planes * numbers.size());
  for (uint32_t shift = 0; shift < 8 * planes; shift += 8) {
    before = 0;
    for (const uint32_t number : numbers) {
      bytes_[at++] = static_cast<char>((number - before) >> shift & 0xff);
      if (ascending) before = number;
    }
  }
}

std::string pageData(std::string_view json, const Columns& columns) {
  Packer packer;
  std::string size;
  for (int shift = 0; shift < 32; shift += 8)
    size += static_cast<char>(json.size() >> shift & 0xff);
  packer.add(size);
  packer.add(json);
  packer.add(columns.bytes());
  return packer.finish();
}

}  // namespace kla
