// Compares, classifies and formats text independently of the locale.
//
// Owns the character tables by which keywords and options are compared without regard to case.
#pragma once

#include <cstdarg>
#include <string>
#include <string_view>

// Compares the upper-case forms byte by byte. Returns 0, or the difference of the first two bytes
// that differ.
[[nodiscard]] int PAL_StrCaseCmp(const char* a, const char* b);

// 1 if `text` isn't empty and consists of the digits 0 to 9, else 0.
[[nodiscard]] int PAL_IsDigits(const char* text);

// True for tab, line feed, vertical tab, form feed, carriage return and blank.
[[nodiscard]] bool PAL_IsSpace(char c);

// Maps a to z to A to Z; all other bytes are unchanged.
[[nodiscard]] char PAL_ToUpper(char c);

// The text after the last "/" or, if there is none, after the last "\", or the whole `path`. Points
// into `path`.
[[nodiscard]] const char* PAL_BaseName(const char* path);

// `text` with each byte of a control character, which terminals may obey, written as \xNN. Control
// characters are 0 to 0x1f, 0x7f, and 0x80 to 0x9f; those from 0x80 as one byte or in UTF-8.
[[nodiscard]] std::string PAL_Printable(std::string_view text);

// The formatted text; the format itself if the C library reports an error for it.
[[nodiscard]] std::string PAL_asprintf(const char* format, ...)
    __attribute__((format(printf, 1, 2)));
[[nodiscard]] std::string PAL_vasprintf(const char* format, va_list arguments)
    __attribute__((format(printf, 1, 0)));
