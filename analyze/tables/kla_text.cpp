// Makes texts safe to print. See kla_text.h.
#include "analyze/tables/kla_text.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace kla {

namespace {

bool isContinuation(char c) { return (static_cast<unsigned char>(c) & 0xc0) == 0x80; }

std::string hex(const char* format, char c) {
  std::array<char, 8> text{};
  std::snprintf(text.data(), text.size(), format,
                static_cast<unsigned>(static_cast<unsigned char>(c)));
  return text.data();
}

// Control characters, and those that change the direction or the lines of a text.
bool isControl(std::string_view character) {
  if (character.size() == 1) {
    return static_cast<unsigned char>(character[0]) < 0x20 || character[0] == 0x7f;
  }
  if (character.size() == 2) return character[0] == '\xc2' && character[1] < '\xa0';
  return character.starts_with("\xe2\x80") && ((character[2] >= '\xa8' && character[2] <= '\xae') ||
                                               character[2] == '\x8e' || character[2] == '\x8f');
}

}  // namespace

size_t characterBytes(std::string_view text) {
  const auto first = static_cast<unsigned char>(text[0]);
  if (first < 0x80) return 1;
  const size_t size = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
  if (first < 0xc2 || first > 0xf4 || text.size() < size) return 0;
  for (size_t i = 1; i < size; ++i) {
    if (!isContinuation(text[i])) return 0;
  }
  const auto second = static_cast<unsigned char>(text[1]);
  const bool isInvalid = (first == 0xe0 && second < 0xa0) || (first == 0xed && second > 0x9f) ||
                         (first == 0xf0 && second < 0x90) || (first == 0xf4 && second > 0x8f);
  return isInvalid ? 0 : size;
}

size_t characters(std::string_view text) {
  return static_cast<size_t>(
      std::count_if(text.begin(), text.end(), [](char c) { return !isContinuation(c); }));
}

std::string cutMiddle(const std::string& text, size_t most) {
  const size_t length = characters(text);
  if (length <= most || most == 0) return text;
  const size_t head = most / 2;
  const size_t tail = length - (most - 1 - head);  // the first character of the end
  std::string cut;
  size_t number = 0;
  for (size_t at = 0; at < text.size(); ++at) {
    if (!isContinuation(text[at]) && ++number == head + 1) cut += "…";
    if (number <= head || number > tail) cut += text[at];
  }
  return cut;
}

std::string printable(std::string_view name) {
  if (std::all_of(name.begin(), name.end(), [](char c) { return c >= 0x20 && c < 0x7f; })) {
    return std::string(name);
  }
  std::string result;
  while (!name.empty()) {
    const size_t size = characterBytes(name);
    const std::string_view character = name.substr(0, std::max<size_t>(1, size));
    if (size == 0 || isControl(character)) {
      for (const char c : character) result += hex("\\x%02x", c);
    } else {
      result += character;
    }
    name.remove_prefix(character.size());
  }
  return result;
}

std::string jsonString(std::string_view text) {
  std::string result = "\"";
  while (!text.empty()) {
    const size_t size = characterBytes(text);
    const std::string_view character = text.substr(0, std::max<size_t>(1, size));
    if (size == 0)
      result += "\\ufffd";
    else if (character == "\"" || character == "\\")
      result.append("\\").append(character);
    else if (isControl(character) && size == 1)
      result += hex("\\u%04x", character[0]);
    else if (character == "<")
      result += "\\u003c";
    else
      result += character;
    text.remove_prefix(character.size());
  }
  return result + "\"";
}

}  // namespace kla
