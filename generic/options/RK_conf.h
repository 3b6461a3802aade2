// Start-up of the options: three passes that fill RK_conf, each overriding the one before.
//
// Defaults; configuration file and environment; command line. RK_options has the table and the
// store, RK_scan reads the grammar that all sources share, the driver (kltt_main) runs the passes.
#pragma once

#include <cstdint>

#include "generic/options/RK_options.h"

// First pass: defaults, the file named by RK_CONFIG, the environment. Errors there are reported and
// otherwise passed over. `progname` becomes the program name. Returns 0.
int RK_ConfigInit(const char* progname);

// Command-line pass; null entries of `argv` are skipped. `usage` is called for an argument
// "--help". Returns 0, or -13 after any error, which has been reported.
int RK_ConfigParseArgs(int argc, char** argv, void (*usage)());

// Derives output_format and output_single_file from LOGFILE-FORMAT or else from the name's suffix.
// Returns 0, or -13 after a warning for an invalid LOGFILE-FORMAT.
int RK_ConfigFinish();

// Makes up a name if LOGFILE-NAME was set but holds none: program name and suffix of the format.
void RK_ConfigOutputName();

// A prime for a hash table of about `value` buckets: the first prime from there on if it is below
// `limit`, else from the nearest of value - 1, - 10 or - 100 (below 11, below 101, above) that
// gives one below it. At least 1.
[[nodiscard]] uint32_t PAL_HashSize(uint32_t value, uint32_t limit);
