// Reads configuration lines into RK_conf.
//
// The configuration file, the environment and the command line share one grammar: a keyword in the
// first column, followed by a value of the option's type. Invalid input is reported here, by
// PAL_Error or PAL_Warning. RK_options has the table of options; the functions of RK_conf.cpp
// decide which texts are read, and in which order.
#pragma once

#include <cstddef>
#include <string_view>

// Where a text comes from: the configuration file, the environment or the command line. The latter
// two have the same messages, but different hints.
enum class RK_ScanMode { config, environment, parameter };

// Reads one line, without its line feed. Messages of mode config show `number`. Returns false after
// an error other than a missing value; of the passes only RK_ConfigParseArgs then fails, too.
[[nodiscard]] bool RK_ScanLine(std::string_view line, RK_ScanMode mode, size_t number);

// Reads an option of the command line with its values. A line break anywhere in `line` is an error:
// if the text were split there, a value could introduce another option.
[[nodiscard]] bool RK_ScanArguments(std::string_view line);

// Reads all lines of a text, counted from 1. False if any line failed.
[[nodiscard]] bool RK_ScanText(std::string_view text, RK_ScanMode mode);

// The seconds of a time such as "1h+30m": the sum of the pieces between "+". The last letter of a
// piece is its unit; a piece that ends in a digit is in seconds. Any other piece causes a warning
// and adds nothing.
[[nodiscard]] double RK_ConfigParseTime(const char* text);
