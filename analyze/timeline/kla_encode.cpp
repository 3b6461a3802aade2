// Encodes the data of a page. See kla_encode.h.
#include "analyze/timeline/kla_encode.h"

#include <zlib.h>

namespace kla {

namespace {

constexpr int kLevel = 7;

std::string base64(const std::string& bytes) {
  static constexpr std::string_view kDigits =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  text.reserve((bytes.size() + 2) / 3 * 4);
  for (size_t at = 0; at < bytes.size(); at += 3) {
    uint32_t group = 0;
    for (size_t i = 0; i < 3; ++i) {
      const uint8_t byte = at + i < bytes.size() ? static_cast<uint8_t>(bytes[at + i]) : 0;
      group = group << 8 | byte;
    }
    for (int shift = 18; shift >= 0; shift -= 6) text += kDigits[group >> shift & 63];
  }
  const size_t padding = (3 - bytes.size() % 3) % 3;
  text.replace(text.size() - padding, padding, padding, '=');
  return text;
}

}  // namespace

void Columns::add(const char* name, const std::vector<uint32_t>& numbers, bool ascending) {
  json_ += json_.empty() ? "" : ",";
  json_ += "\"" + std::string(name) + "\":[" + std::to_string(bytes_.size()) + "," +
           std::to_string(numbers.size()) + "," + (ascending ? "1" : "0") + "]";
  for (int shift = 0; shift < 32; shift += 8) {
    uint32_t before = 0;
    for (const uint32_t number : numbers) {
      bytes_ += static_cast<char>((number - before) >> shift & 0xff);
      if (ascending) before = number;
    }
  }
}

std::string pageData(std::string_view json, const Columns& columns) {
  std::string plain;
  for (int shift = 0; shift < 32; shift += 8)
    plain += static_cast<char>(json.size() >> shift & 0xff);
  plain += json;
  plain += columns.bytes();
  uLongf size = compressBound(static_cast<uLong>(plain.size()));
  std::string packed(size, '\0');
  if (compress2(reinterpret_cast<Bytef*>(packed.data()), &size,
                reinterpret_cast<const Bytef*>(plain.data()), static_cast<uLong>(plain.size()),
                kLevel) != Z_OK) {
    return "";
  }
  packed.resize(size);
  return base64(packed);
}

}  // namespace kla
