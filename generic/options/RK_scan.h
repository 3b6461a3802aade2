// Reads configuration lines into RK_conf.
//
// One grammar serves the configuration file, the environment and the command line: a keyword in the
// first column and a value of the option's type behind it. What can't be used is reported here, by
// PAL_Error or PAL_Warning. The table of options is RK_options's, the passes are RK_conf's.
#pragma once

#include <cstddef>
#include <string_view>

// Where a text comes from: the configuration file, the environment, the command line. Messages
// speak of the latter two alike, advice doesn't.
enum class RK_ScanMode { config, environment, parameter };

// Reads one line, without its line feed. `number` is shown in messages of mode config. False if the
// line counts as a failure of its source.
[[nodiscard]] bool RK_ScanLine(std::string_view line, RK_ScanMode mode, size_t number);

// Reads an option of the command line with its values. A line break can be part of neither; taken
// apart there, a value could bring in an option of its own.
[[nodiscard]] bool RK_ScanArguments(std::string_view line);

// Reads all lines of a text, counted from 1. False if any line failed.
[[nodiscard]] bool RK_ScanText(std::string_view text, RK_ScanMode mode);

// Seconds of a time such as "1h+30m": the sum of the pieces between "+", each with its unit. A
// piece that ends in anything but a digit or a unit letter is warned of and adds nothing.
[[nodiscard]] double RK_ConfigParseTime(const char* text);
