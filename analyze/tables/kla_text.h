// Texts from a trace: makes them safe to print, measures and shortens them.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace kla {

// The number of bytes of the UTF-8 character at the start of `text`; 0 if it is invalid, a
// surrogate or overlong. REQUIRES: `text` isn't empty.
[[nodiscard]] size_t characterBytes(std::string_view text);
// The number of characters of a valid text.
[[nodiscard]] size_t characters(std::string_view text);
// A text of at most `most` characters, cut in the middle.
[[nodiscard]] std::string cutMiddle(const std::string& text, size_t most);
// A name without control characters and invalid UTF-8, which are escaped.
[[nodiscard]] std::string printable(std::string_view name);
// A text as a JSON string, with quotes. Invalid bytes become U+FFFD, and no "</" remains.
[[nodiscard]] std::string jsonString(std::string_view text);

}  // namespace kla
