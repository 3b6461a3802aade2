// The texts with which the program describes itself: banner, version, usage and help.
//
// kltt_main decides when and where they are printed.
#pragma once

#include <string>
#include <string_view>

// A line with name and version, and an empty line.
[[nodiscard]] std::string KLTT_Banner();

// The line of --version: version string and build date.
[[nodiscard]] std::string KLTT_VersionLine();

// The three ways to call the program.
[[nodiscard]] std::string_view KLTT_UsageText();

// The text of --help, without the banner before it.
[[nodiscard]] std::string_view KLTT_HelpText();
