// Implements the character tables and formatting. Owns the tables.
#include "util/pal_strings.h"

#include <array>
#include <cstdio>
#include <cstring>

namespace {

constexpr size_t kFirstBufferBytes = 1024;

struct CharacterTables {
  std::array<unsigned char, 256> upper = {};
  std::array<bool, 256> digit = {};
  std::array<bool, 256> space = {};
};

constexpr CharacterTables kTables = [] {
  CharacterTables tables;
  for (size_t c = 0; c < 256; ++c) {
    const bool lower = c >= 'a' && c <= 'z';
    tables.upper[c] = static_cast<unsigned char>(lower ? c - 'a' + 'A' : c);
    tables.digit[c] = c >= '0' && c <= '9';
    tables.space[c] = (c >= '\t' && c <= '\r') || c == ' ';
  }
  return tables;
}();

constexpr size_t Index(char c) { return static_cast<unsigned char>(c); }

}  // namespace

int PAL_StrCaseCmp(const char* a, const char* b) {
  for (;; ++a, ++b) {
    const int difference = kTables.upper[Index(*a)] - kTables.upper[Index(*b)];
    if (difference != 0 || *a == '\0') return difference;
  }
}

int PAL_IsDigits(const char* text) {
  if (*text == '\0') return 0;
  for (; *text != '\0'; ++text) {
    if (!kTables.digit[Index(*text)]) return 0;
  }
  return 1;
}

bool PAL_IsSpace(char c) { return kTables.space[Index(c)]; }

char PAL_ToUpper(char c) { return static_cast<char>(kTables.upper[Index(c)]); }

const char* PAL_BaseName(const char* path) {
  const char* separator = std::strrchr(path, '/');
  if (separator == nullptr) separator = std::strrchr(path, '\\');
  return separator != nullptr ? separator + 1 : path;
}

std::string PAL_Printable(std::string_view text) {
  static constexpr char kDigits[] = "0123456789abcdef";
  const auto isC1 = [](unsigned char byte) { return byte >= 0x80 && byte < 0xa0; };
  std::string result;
  result.reserve(text.size());
  int following = 0;  // remaining bytes of the current UTF-8 character
  for (size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const auto next = static_cast<unsigned char>(i + 1 < text.size() ? text[i + 1] : '\0');
    const bool isFollowing = byte >= 0x80 && byte < 0xc0 && following > 0;
    following = isFollowing   ? following - 1
                : byte < 0xc2 ? 0
                : byte < 0xe0 ? 1
                : byte < 0xf0 ? 2
                              : 3;
    const bool startsC1 = byte == 0xc2 && isC1(next);
    if (byte < 0x20 || byte == 0x7f || (isC1(byte) && !isFollowing) || startsC1) {
      result += {'\\', 'x', kDigits[byte >> 4], kDigits[byte & 15]};
      following = 0;
    } else {
      result += text[i];
    }
  }
  return result;
}

std::string PAL_vasprintf(const char* format, va_list arguments) {
  std::string text(kFirstBufferBytes, '\0');
  for (;;) {
    va_list copy;
    va_copy(copy, arguments);
    const int result = std::vsnprintf(text.data(), text.size(), format, copy);
    va_end(copy);
    if (result < 0) return format;
    const auto length = static_cast<size_t>(result);
    const bool fits = length < text.size();
    text.resize(fits ? length : length + 1);
    if (fits) return text;
  }
}

std::string PAL_asprintf(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  std::string text = PAL_vasprintf(format, arguments);
  va_end(arguments);
  return text;
}
