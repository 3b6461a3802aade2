// Fills RK_conf at start-up from the defaults, the configuration file, the environment and the
// command line. Each source overrides the ones before it; only requests add up.
//
// RK_options has the option table and the store, RK_scan parses the grammar that all sources share,
// and kltt_main runs the passes.
#pragma once

#include <cstdint>

#include "generic/options/RK_options.h"

// First pass: defaults, the file named by RK_CONFIG, the environment. Errors there are reported and
// otherwise ignored. `progname` becomes the program name. Returns 0.
int RK_ConfigInit(const char* progname);

// Command-line pass. Skips null entries of `argv` and calls `usage` for an argument "--help".
// Reports errors and then returns -13, otherwise 0.
int RK_ConfigParseArgs(int argc, char** argv, void (*usage)());

// Derives output_format and output_single_file from LOGFILE-FORMAT, or from the name's suffix if
// LOGFILE-FORMAT isn't set. Returns 0, or -13 after a warning about an invalid LOGFILE-FORMAT.
int RK_ConfigFinish();

// If LOGFILE-NAME was set without a valid name, sets it to the program's name with the suffix of
// the output format.
void RK_ConfigOutputName();

// A prime for a hash table of about `value` buckets: the smallest prime that is at least `value`.
// If that prime isn't below `limit`, `value` is lowered in steps of 1 (below 11), 10 (below 101) or
// 100 until the prime is. The result is at least 1.
[[nodiscard]] uint32_t PAL_HashSize(uint32_t value, uint32_t limit);
