// The table of options and the store of their values.
//
// Every behaviour that a user can choose is a row of the option table and a member of RK_conf.
// RK_conf.h fills the store during start-up. Afterwards only kltt_main and kltt_extract use it, and
// pass other modules the values that they need.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "util/triplets/pal_triplets.h"

// A quoted text or an unknown word of a request.
struct RK_RequestText {
  std::string text;
  bool isQuoted;
};

// One REQUEST as the user wrote it. Times are in seconds or, with TICKS, raw times.
struct RK_Request {
  uint32_t categories = 0;            // one bit per category; 0 means all
  PAL_Triplets triplets;              // threads; empty means all
  bool has_refused_triplets = false;  // such as those with a sign, which are ignored
  double time = 0;                    // a single time; selects nothing
  double window_start = 0;
  double window_end = -1.0;           // negative: no end
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
  int32_t verbose;  // the amount of messages; see --verbose in the manual page

  // Whether any source gave the option a value, even an invalid one. No other option needs such a
  // flag.
  bool logfile_format_set;
  bool logfile_name_set;
  bool match_hashsize_set;

  // Derived by RK_ConfigFinish.
  int32_t output_format;       // 0 text, 1 binary
  int32_t output_single_file;  // 1: all components in one file

  std::string progname;     // the program's name, set by RK_ConfigInit
  std::string current_dir;  // working directory at start-up; empty if it is unknown
  std::string input;        // the first argument, set by kltt_main
  std::string echo;  // characters of the sources that belong to no option; kltt_main prints them

  // Settings without a keyword.
  static constexpr int32_t kMemBlockBytes = 2097152;  // bytes; initial size of a merge's arenas
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
  bool RK_Conf::*set = nullptr;                       // the option's `_set` flag, if it has one
};

// The table, in the order in which the environment is read.
[[nodiscard]] std::span<const RK_Option> RK_ConfigOptions();
// Keywords of the trace collector, which klttool refuses.
[[nodiscard]] std::span<const char* const> RK_ConfigRefusedKeys();
// Both look up a key and ignore case: the row of an option, or the refused keyword as the table
// spells it. Null if there is none.
[[nodiscard]] const RK_Option* RK_ConfigFindOption(std::string_view key);
[[nodiscard]] const char* RK_ConfigFindRefused(std::string_view key);
// Whether two texts are equal if case is ignored.
[[nodiscard]] bool RK_ConfigSameText(std::string_view a, std::string_view b);
// The name of the option's environment variable.
[[nodiscard]] std::string RK_ConfigEnvironmentName(const char* key);

// Assigns the defaults of the table and clears everything else.
void RK_ConfigDefaults();

// The names, as used in a request, of the categories whose events an extraction writes.
[[nodiscard]] std::vector<std::string_view> RK_ConfigCategories();
// The bit of the category named `text`, or 0.
[[nodiscard]] uint32_t RK_ConfigCategoryBit(std::string_view text);
