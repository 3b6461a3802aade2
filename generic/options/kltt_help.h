// What the program says about itself: banner, version, usage and the help text.
//
// The wording lives here; the driver (kltt_main) decides when it is said and where it goes.
#pragma once

#include <string>
#include <string_view>

// A line with name and version, and an empty line.
[[nodiscard]] std::string KLTT_Banner();

// The line of --version: version string and build date.
[[nodiscard]] std::string KLTT_VersionLine();

// The three ways to call the program.
[[nodiscard]] std::string_view KLTT_UsageText();

// The whole text of --help behind the banner.
[[nodiscard]] std::string_view KLTT_HelpText();
