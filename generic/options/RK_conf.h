// The options: one table, one value store.
//
// Every behaviour that a user can choose is a row of the option table and a member of RK_conf. The
// store is filled during start-up in three passes (defaults; configuration file and environment;
// command line), each overriding the one before, and is read directly by everybody afterwards. The
// grammar that all sources share is read by RK_scan; the driver (kltt_main) runs the passes.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "util/triplets/pal_triplets.h"

// One REQUEST as the user wrote it: times in seconds, or in ticks with TICKS.
struct RK_RequestText {
  std::string text;
  bool isQuoted;
};

struct RK_Request {
  uint32_t categories = 0;  // one bit per category; 0 means all
  PAL_Triplets triplets;    // threads; empty means all
  double time = 0;          // a single time; selects nothing
  double window_start = 0;
  double window_end = -1.0;           // negative: open
  std::vector<RK_RequestText> types;  // quoted texts and unknown words; they select nothing
};

// One member per option, its key in lower case with "_" for "-". A switch is 0 or 1.
struct RK_Conf {
  int32_t activity_hashsize;
  int32_t class_hashsize;
  int32_t convert;
  int32_t delete_raw_data;
  int32_t dump;
  int32_t extended_rkf;
  int32_t filehandle_hashsize;
  int32_t functrace_hashsize;
  int32_t group_hashsize;
  int32_t hashbuffer_size;
  int32_t internal_mpi;
  std::string logfile_format;
  std::string logfile_name;  // empty: none; "-" is standard output
  int32_t match_hashsize;
  int32_t matched_rkf;
  int32_t mem_flushblocks;
  int32_t merge;
  int32_t move;
  std::string nmcmd;
  double os_counter_delay;
  int32_t perftest;
  int32_t print_errors;
  int32_t print_files;
  int32_t print_reports;
  int32_t print_statistics;
  int32_t print_threads;
  int32_t remove;
  std::vector<RK_Request> request;
  int32_t scl_hashsize;
  int32_t sumdata;
  int32_t symbol_hashsize;
  int32_t ticks;
  int32_t verbose;  // 0 nothing, 1 one final message, 2 progress, 3 detail

  // Whether a source named the option with something behind it, even an invalid value. The other
  // options' flags would be read by nobody.
  bool logfile_format_set;
  bool logfile_name_set;
  bool match_hashsize_set;

  // Derived by RK_ConfigFinish.
  int32_t output_format;       // 0 text, 1 binary
  int32_t output_single_file;  // 1: all components in one file

  std::string progname;     // ours, as RK_ConfigInit was told
  std::string current_dir;  // working directory at start-up; empty if it can't be told
  std::string echo;         // what the sources hold beside lines; the driver passes it on

  // Settings that no keyword changes.
  static constexpr int32_t counter_hashsize = 13;
  static constexpr int32_t mem_blocksize = 2097152;  // bytes, of the merge's buffers
};
extern struct RK_Conf RK_conf;

enum class RK_OptionType {
  integer,
  unsignedInteger,
  time,
  string,
  toggle,
  toggleOrFile,
  level,
  request
};

// A row of the option table.
struct RK_Option {
  using Field = std::variant<int32_t RK_Conf::*, double RK_Conf::*, std::string RK_Conf::*,
                             std::vector<RK_Request> RK_Conf::*>;

  const char* key;
  RK_OptionType type;
  Field field;
  std::variant<int32_t, double, const char*> preset;  // a request list starts empty
  bool RK_Conf::*set = nullptr;                       // the option's flag, if it has one
};

// The table, in the order in which the environment is read.
[[nodiscard]] std::span<const RK_Option> RK_ConfigOptions();
// Keywords that are known but refused here.
[[nodiscard]] std::span<const char* const> RK_ConfigRefusedKeys();
// The row of a key in any mix of case, or null. The refused key as the table spells it, or null.
[[nodiscard]] const RK_Option* RK_ConfigFindOption(std::string_view key);
[[nodiscard]] const char* RK_ConfigFindRefused(std::string_view key);
// Whether two texts differ in case at most.
[[nodiscard]] bool RK_ConfigSameText(std::string_view a, std::string_view b);
// The name of the option's environment variable.
[[nodiscard]] std::string RK_ConfigEnvironmentName(const char* key);

// Assigns the defaults of the table and clears everything else.
void RK_ConfigDefaults();

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

// Seconds of a time such as "1h+30m": the sum of the pieces between "+", each with its unit. A
// piece that ends in anything but a digit or a unit letter is warned of and adds nothing.
[[nodiscard]] double RK_ConfigParseTime(const char* text);

// A prime for a hash table of about `value` buckets: the first prime from there on if it is below
// `limit`, else from the nearest of value - 1, - 10 or - 100 (below 11, below 101, above) that
// gives one below it. At least 1.
[[nodiscard]] uint32_t PAL_HashSize(uint32_t value, uint32_t limit);
