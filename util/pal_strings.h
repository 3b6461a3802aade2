// Plain text helpers that don't depend on the locale.
//
// Owns the program's own character tables: keywords and options compare through them, so they
// ignore case in the same way everywhere. Also formats into new strings.
#pragma once

#include <cstdarg>
#include <string>
#include <string_view>

// Compares byte by byte through the upper-case table: 0, or the difference of the first two table
// values that differ.
[[nodiscard]] int PAL_StrCaseCmp(const char* a, const char* b);

// 1 if `text` isn't empty and holds only the digits 0 to 9, else 0.
[[nodiscard]] int PAL_IsDigits(const char* text);

// Tab, line feed, vertical tab, form feed, carriage return and blank.
[[nodiscard]] bool PAL_IsSpace(char c);

// Maps a to z; every other byte is itself.
[[nodiscard]] char PAL_ToUpper(char c);

// The text behind the last "/", or, if there is none, behind the last "\", or the whole `path`.
// Points into `path`.
[[nodiscard]] const char* PAL_BaseName(const char* path);

// `text` with each control byte (below 0x20, and 0x7f) written as \xNN.
[[nodiscard]] std::string PAL_Printable(std::string_view text);

// The formatted text. A format that the C library refuses comes back as it is.
[[nodiscard]] std::string PAL_asprintf(const char* format, ...)
    __attribute__((format(printf, 1, 2)));
[[nodiscard]] std::string PAL_vasprintf(const char* format, va_list arguments)
    __attribute__((format(printf, 1, 0)));
