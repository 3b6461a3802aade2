// Reads configuration lines into RK_conf.
//
// One grammar serves the configuration file, the environment and the command line: a keyword in the
// first column and a value of the option's type behind it. What can't be used is reported here, by
// PAL_Error or PAL_Warning. The table of options is RK_conf's, and so are the passes.
#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

// Where a text comes from: the configuration file, the environment, the command line. Messages
// speak of the latter two alike, advice doesn't.
enum class RK_ScanMode { config, environment, parameter };

// The words of a request for the categories that an extraction writes events of.
[[nodiscard]] std::vector<std::string_view> RK_ScanCategories();

// Reads one line, without its line feed. `number` is shown in messages of mode config. False if the
// line counts as a failure of its source.
[[nodiscard]] bool RK_ScanLine(std::string_view line, RK_ScanMode mode, size_t number);

// Reads an option of the command line with its values. A line break can be part of neither; taken
// apart there, a value could bring in an option of its own.
[[nodiscard]] bool RK_ScanArguments(std::string_view line);

// Reads all lines of a text, counted from 1. False if any line failed.
[[nodiscard]] bool RK_ScanText(std::string_view text, RK_ScanMode mode);
