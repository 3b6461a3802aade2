// RK_Line formats a line of text directly in the buffer of an RK_Output.
//
// A line writer makes an RK_Line, appends its fields, and ends it. Fields of bounded size are
// written without a check for the buffer's end: an RK_Output has kSlack bytes for them after its
// limit. Text of any length is written by text(const char*); the writer of a list calls room()
// after each item. Numbers look as printf writes them in the C locale.
#pragma once

#include <bit>
#include <charconv>
#include <cstdint>
#include <cstring>

#include "generic/text/RK_output.h"

// The eight decimal digits of `value`, which is below 10^8, one in each byte of the result; the low
// byte has the highest digit. Both four-digit halves are split at once into pairs and then digits.
inline uint64_t RK_EightDigits(uint32_t value) {
  const uint64_t halves = value / 10000 | (uint64_t{value % 10000} << 32);
  const uint64_t high = ((halves * 10486) >> 20) & 0x7f0000007fULL;  // divided by 100
  const uint64_t pairs = ((halves - 100 * high) << 16) + high;
  const uint64_t tens = ((pairs * 103) >> 10) & 0x000f000f000f000fULL;  // divided by 10
  return tens + ((pairs - 10 * tens) << 8);
}

// Stores the eight bytes of `word` at `p`, the low byte first.
inline void RK_StoreEight(char* p, uint64_t word) {
  if constexpr (std::endian::native == std::endian::big) word = __builtin_bswap64(word);
  memcpy(p, &word, sizeof word);
}

inline constexpr uint64_t kEightZeros = 0x3030303030303030ULL;

// The following functions write `value` in decimal at `p` and return the end of the digits. Up to 8
// bytes after the end are overwritten.
inline char* RK_PutBelow1e8(char* p, uint32_t value) {
  const uint64_t digits = RK_EightDigits(value);
  // Shifts leading zeros out, but never the last digit.
  const int skipped = std::countr_zero(digits | (uint64_t{1} << 56)) / 8;
  RK_StoreEight(p, (digits + kEightZeros) >> (8 * skipped));
  return p + 8 - skipped;
}

inline constexpr uint32_t k1e8 = 100000000;

// Always eight digits, with leading zeros.
inline char* RK_PutEight(char* p, uint32_t value) {
  RK_StoreEight(p, RK_EightDigits(value) + kEightZeros);
  return p + 8;
}

// Branches on the length of the number: most numbers of a line are small, and a field often has the
// same length in successive lines, so the branches are predicted well.
inline char* RK_PutU32(char* p, uint32_t value) {
  if (value < 100) {
    // A leading zero is overwritten by the second digit.
    const uint32_t tens = value * 103 >> 10;
    p[0] = static_cast<char>('0' + tens);
    p += tens != 0;
    p[0] = static_cast<char>('0' + (value - 10 * tens));
    return p + 1;
  }
  if (value < k1e8) [[likely]] {
    return RK_PutBelow1e8(p, value);
  }
  return RK_PutEight(RK_PutBelow1e8(p, value / k1e8), value % k1e8);
}

inline char* RK_PutU64(char* p, uint64_t value) {
  if (value < k1e8) return RK_PutBelow1e8(p, static_cast<uint32_t>(value));
  const uint64_t high = value / k1e8;
  const uint32_t low = static_cast<uint32_t>(value % k1e8);
  if (high < k1e8) [[likely]] {
    return RK_PutEight(RK_PutBelow1e8(p, static_cast<uint32_t>(high)), low);
  }
  p = RK_PutBelow1e8(p, static_cast<uint32_t>(high / k1e8));
  return RK_PutEight(RK_PutEight(p, static_cast<uint32_t>(high % k1e8)), low);
}

// Always four digits. `value` is below 10^4.
inline char* RK_PutFour(char* p, uint32_t value) {
  const uint32_t high = value * 5243 >> 19;  // divided by 100
  const uint32_t pairs = (value - 100 * high) << 16 | high;
  const uint32_t tens = ((pairs * 103) >> 10) & 0x000f000f;
  uint32_t digits = tens + ((pairs - 10 * tens) << 8) + 0x30303030U;
  if constexpr (std::endian::native == std::endian::big) digits = __builtin_bswap32(digits);
  memcpy(p, &digits, sizeof digits);
  return p + 4;
}

class RK_Line {
 public:
  explicit RK_Line(RK_Output* output) : output_(output), p_(output->pos) {}

  // Fixed text. Only for literals, whose terminator isn't written.
  template <size_t N>
  RK_Line& fixed(const char (&literal)[N]) {
    memcpy(p_, literal, N - 1);
    p_ += N - 1;
    return *this;
  }

  RK_Line& u64(uint64_t value) {
    p_ = RK_PutU64(p_, value);
    return *this;
  }
  RK_Line& u32(uint32_t value) {
    p_ = RK_PutU32(p_, value);
    return *this;
  }

  // `value` as a signed number in two's complement.
  RK_Line& i64(uint64_t value) {
    if (value >> 63) [[unlikely]] {
      *p_++ = '-';
      value = 0 - value;
    }
    return u64(value);
  }
  RK_Line& i32(uint32_t value) {
    if (value >> 31) [[unlikely]] {
      *p_++ = '-';
      value = 0 - value;
    }
    return u32(value);
  }

  // The time at the start of a line, signed. Lines are in order of time, so all digits except the
  // last four are usually those of the previous line and are copied from it. The position of the
  // next field is then known before the last digits are computed.
  RK_Line& time(uint64_t value) {
    const uint64_t high = value / 10000;
    if (high == output_->timeHigh && high != 0) [[likely]] {
      memcpy(p_, output_->timeText, sizeof output_->timeText);
      p_ = RK_PutFour(p_ + output_->timeDigits, static_cast<uint32_t>(value - 10000 * high));
      return *this;
    }
    if (value >> 63) [[unlikely]]
      return i64(value);
    char* const begin = p_;
    u64(value);
    if (high != 0 && value < output_->timesKept) {
      output_->timeHigh = high;
      output_->timeDigits = static_cast<size_t>(p_ - begin) - 4;
      memcpy(output_->timeText, begin, sizeof output_->timeText);
    }
    return *this;
  }

  // The same as printf's %G.
  RK_Line& real(double value) {
    char* const end = std::to_chars(p_, p_ + 64, value, std::chars_format::general, 6).ptr;
    for (; p_ != end; p_++) {
      if (*p_ >= 'a' && *p_ <= 'z') *p_ = static_cast<char>(*p_ - 'a' + 'A');
    }
    return *this;
  }

  // Text of any length; null is written as "(null)". With `oneLine`, newlines become blanks.
  RK_Line& text(const char* text, bool oneLine = false) {
    p_ = appendText(output_, p_, text, oneLine);
    return *this;
  }

  RK_Line& hexByte(uint8_t value) {
    constexpr char kDigits[] = "0123456789ABCDEF";
    *p_++ = kDigits[value >> 4];
    *p_++ = kDigits[value & 15];
    return *this;
  }

  // Makes room in the buffer. Must be called at least once for every RK_Output::kSlack / 2 bytes of
  // a list.
  RK_Line& room() {
    if (p_ >= output_->limit) [[unlikely]]
      p_ = drain(output_, p_);
    return *this;
  }

  // Ends the line and passes it to the output. Returns 0, or 1 if the output has failed.
  int end() {
    *p_++ = '\n';
    output_->pos = p_;
    if (p_ >= output_->limit) [[unlikely]]
      RK_OutputDrain(output_);
    return output_->failed;
  }

 private:
  // Both receive and return the write position, so that the compiler can keep it in a register.
  static char* appendText(RK_Output* output, char* p, const char* text, bool oneLine);
  static char* drain(RK_Output* output, char* p);

  RK_Output* output_;
  char* p_;
};
