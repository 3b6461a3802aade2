// Option table, value store and passes. See RK_conf.h.
#include "generic/options/RK_conf.h"

#include <algorithm>
#include <cstdlib>

#include "generic/options/RK_scan.h"
#include "util/pal_error.h"
#include "util/pal_strings.h"
#include "util/pal_util.h"

RK_Conf RK_conf{};

namespace {

using Type = RK_OptionType;

constexpr int kSyntaxError = -13;

constexpr RK_Option kOptions[] = {
    {"ACTIVITY-HASHSIZE", Type::unsignedInteger, &RK_Conf::activity_hashsize, 13},
    {"CLASS-HASHSIZE", Type::unsignedInteger, &RK_Conf::class_hashsize, 13},
    {"CONVERT", Type::toggleOrFile, &RK_Conf::convert, 0},
    {"DELETE-RAW-DATA", Type::toggle, &RK_Conf::delete_raw_data, 0},
    {"DUMP", Type::toggle, &RK_Conf::dump, 0},
    {"EXTENDED-RKF", Type::toggle, &RK_Conf::extended_rkf, 1},
    {"FILEHANDLE-HASHSIZE", Type::unsignedInteger, &RK_Conf::filehandle_hashsize, 13},
    {"FUNCTRACE-HASHSIZE", Type::unsignedInteger, &RK_Conf::functrace_hashsize, 509},
    {"GROUP-HASHSIZE", Type::unsignedInteger, &RK_Conf::group_hashsize, 13},
    {"HASHBUFFER-SIZE", Type::unsignedInteger, &RK_Conf::hashbuffer_size, 1024},
    {"INTERNAL-MPI", Type::toggle, &RK_Conf::internal_mpi, 1},
    {"LOGFILE-FORMAT", Type::string, &RK_Conf::logfile_format, "KLT", &RK_Conf::logfile_format_set},
    {"LOGFILE-NAME", Type::string, &RK_Conf::logfile_name, "", &RK_Conf::logfile_name_set},
    {"MATCH-HASHSIZE", Type::unsignedInteger, &RK_Conf::match_hashsize, 251,
     &RK_Conf::match_hashsize_set},
    {"MATCHED-RKF", Type::toggle, &RK_Conf::matched_rkf, 0},
    {"MEM-FLUSHBLOCKS", Type::integer, &RK_Conf::mem_flushblocks, 1024},
    {"MERGE", Type::toggleOrFile, &RK_Conf::merge, 0},
    {"MOVE", Type::toggleOrFile, &RK_Conf::move, 0},
    {"NMCMD", Type::string, &RK_Conf::nmcmd, "nm -P"},
    {"OS-COUNTER-DELAY", Type::time, &RK_Conf::os_counter_delay, 1.0},
    {"PERFTEST", Type::integer, &RK_Conf::perftest, 0},
    {"PRINT-ERRORS", Type::toggle, &RK_Conf::print_errors, 0},
    {"PRINT-FILES", Type::toggle, &RK_Conf::print_files, 0},
    {"PRINT-REPORTS", Type::toggle, &RK_Conf::print_reports, 0},
    {"PRINT-STATISTICS", Type::toggle, &RK_Conf::print_statistics, 0},
    {"PRINT-THREADS", Type::toggle, &RK_Conf::print_threads, 0},
    {"REMOVE", Type::toggle, &RK_Conf::remove, 0},
    {"REQUEST", Type::request, &RK_Conf::request, 0},
    {"SCL-HASHSIZE", Type::unsignedInteger, &RK_Conf::scl_hashsize, 509},
    {"SUMDATA", Type::toggleOrFile, &RK_Conf::sumdata, 0},
    {"SYMBOL-HASHSIZE", Type::unsignedInteger, &RK_Conf::symbol_hashsize, 1024},
    {"TICKS", Type::toggle, &RK_Conf::ticks, 0},
    {"VERBOSE", Type::level, &RK_Conf::verbose, 1},
};

// What the trace collector understands beside the options above.
constexpr const char* kRefused[] = {"ACTIVITY",
                                    "ALL-FRAME",
                                    "ALL-PROCS-FRAME",
                                    "ALTSTACK",
                                    "AUTOFLUSH",
                                    "BLOCKTIME",
                                    "CHECK",
                                    "CHECK-LEAK-REPORT-SIZE",
                                    "CHECK-MAX-DATATYPES",
                                    "CHECK-MAX-ERRORS",
                                    "CHECK-MAX-PENDING",
                                    "CHECK-MAX-REPORTS",
                                    "CHECK-MAX-REQUESTS",
                                    "CHECK-SUPPRESSION-LIMIT",
                                    "CHECK-TIMEOUT",
                                    "CHECK-TRACING",
                                    "CLUSTER",
                                    "COMPRESS-RAW-DATA",
                                    "COMPRESS-TRACE",
                                    "CONFIG",
                                    "CONTROL-DELAY",
                                    "CONTROL-FILE",
                                    "COUNTER",
                                    "COUNTER-HASHSIZE",
                                    "CURRENT-DIR",
                                    "DATA-PER-FRAME",
                                    "DEADLOCK-TIMEOUT",
                                    "DEADLOCK-WARNING",
                                    "DEMANGLE",
                                    "DETAILED-STATES",
                                    "DYNAMIC-STATS",
                                    "ENTER-USERCODE",
                                    "ENVIRONMENT",
                                    "ERRORFILE-NAME",
                                    "EVENT-BITS",
                                    "EXECUTABLE",
                                    "FILTER",
                                    "FLUSH-PID",
                                    "FLUSH-PREFIX",
                                    "FRAME",
                                    "FRAME-GROUP",
                                    "FRAME-USE-HW-STRUCTURE",
                                    "FRAMES",
                                    "FRAMES-MAXNUM",
                                    "FRAMES-PER-RUNTIME",
                                    "GROUP",
                                    "HANDLE-SIGNALS",
                                    "IGNORE-CODE",
                                    "INFO CLUSTERDEF",
                                    "INFO NUMPROCS",
                                    "INPUT",
                                    "INSERT",
                                    "INTERNAL-MSGS",
                                    "JAVA",
                                    "KEEP-RAW-EVENTS",
                                    "LIST",
                                    "LOGCHECK",
                                    "LOGFILE-PREFIX",
                                    "LOGFILE-RANK",
                                    "LONGJMP",
                                    "MAX-THREADS",
                                    "MEM-BLOCKSIZE",
                                    "MEM-INFO",
                                    "MEM-MAXBLOCKS",
                                    "MEM-MINBLOCKS",
                                    "MEM-OVERWRITE",
                                    "MESSAGE-THUMB-SIZE",
                                    "MPI",
                                    "OUTPUT",
                                    "PCTRACE",
                                    "PCTRACE-CACHE",
                                    "PCTRACE-FAST",
                                    "PLUGIN",
                                    "PRINT-FRAMES",
                                    "PRINT-THUMBNAILS",
                                    "PROCESS",
                                    "PROCS-PER-FRAME",
                                    "PROFILE",
                                    "PROGNAME",
                                    "PROTOFILE-NAME",
                                    "PRUNE-LIMIT",
                                    "REDO-FRAMES",
                                    "RUN",
                                    "SECONDS-PER-FRAME",
                                    "SLEEP",
                                    "START-PAUSED",
                                    "STATE",
                                    "STATISTICS",
                                    "KLT-ACT-TIMELINE",
                                    "KLT-CHUNKSIZE",
                                    "KLT-PROCS-PER-FILE",
                                    "KLT-USE-HW-STRUCTURE",
                                    "STOPFILE-NAME",
                                    "SUM-MPITESTS",
                                    "SYMBOL",
                                    "SYNC-MAX-DURATION",
                                    "SYNC-MAX-MESSAGES",
                                    "SYNC-PERIOD",
                                    "SYNC-SKEW",
                                    "SYNCED-CLUSTER",
                                    "SYNCED-HOST",
                                    "SYNCED-RUNTIME",
                                    "THREADS",
                                    "THUMBNAIL",
                                    "TIME-WINDOWS",
                                    "TIMER",
                                    "TIMER-DUMP",
                                    "TIMER-SHIFT",
                                    "TIMER-SKIP",
                                    "TRACING",
                                    "UNIFY-COUNTERS",
                                    "UNIFY-GROUPS",
                                    "UNIFY-SCLS",
                                    "UNIFY-SYMBOLS",
                                    "USE-ADLER32-CHKSUM",
                                    "USE-DEBUG",
                                    "add-pinargs",
                                    "root",
                                    "slib-dir"};

static_assert(std::size(kOptions) == 33);
static_assert(std::size(kRefused) == 119);

bool endsWith(std::string_view name, std::string_view suffix) {
  return name.size() >= suffix.size() &&
         RK_ConfigSameText(name.substr(name.size() - suffix.size()), suffix);
}

void assignPreset(const RK_Option& option) {
  if (const auto* number = std::get_if<int32_t RK_Conf::*>(&option.field)) {
    RK_conf.*(*number) = std::get<int32_t>(option.preset);
  } else if (const auto* real = std::get_if<double RK_Conf::*>(&option.field)) {
    RK_conf.*(*real) = std::get<double>(option.preset);
  } else if (const auto* text = std::get_if<std::string RK_Conf::*>(&option.field)) {
    RK_conf.*(*text) = std::get<const char*>(option.preset);
  } else {
    RK_conf.*std::get<std::vector<RK_Request> RK_Conf::*>(option.field) = {};
  }
}

// A line of input for each line of the value, empty ones too. A line feed at the end begins none.
void scanEnvironmentValue(const RK_Option& option, std::string_view value) {
  while (!value.empty()) {
    const size_t end = std::min(value.find('\n'), value.size());
    const std::string line = option.key + (" " + std::string(value.substr(0, end)));
    (void)RK_ScanLine(line, RK_ScanMode::environment, 0);
    value.remove_prefix(std::min(end + 1, value.size()));
  }
}

void scanEnvironment() {
  for (const RK_Option& option : kOptions) {
    const char* value = std::getenv(RK_ConfigEnvironmentName(option.key).c_str());
    if (value != nullptr) scanEnvironmentValue(option, value);
  }
}

// What an argument adds to its line: values with blanks are quoted, which is all that the user's
// shell left out.
std::string quoted(std::string_view argument) {
  const bool blank = argument.find_first_of(" \t\r\n") != std::string_view::npos;
  if (blank && argument.find('\'') == std::string_view::npos)
    return "'" + std::string(argument) + "'";
  return std::string(argument);
}

// The step by which a table size that is too large comes down.
uint32_t stepBelow(uint32_t value) { return value < 11 ? 1 : value < 101 ? 10 : 100; }

bool isPrime(uint32_t number) {
  for (uint64_t divisor = 2; divisor * divisor <= number; ++divisor) {
    if (number % divisor == 0) return false;
  }
  return true;
}

uint32_t primeFrom(uint32_t value) {
  while (!isPrime(value)) ++value;
  return value;
}

// Comes down in steps of 100 as long as no prime from `value` on can be below `limit`.
uint32_t skipTo(uint32_t value, uint32_t limit) {
  if (value < limit || value < 101) return value;
  const uint32_t toLimit = (value - limit) / 100 + 1;
  const uint32_t toSmallSteps = (value - 101) / 100 + 1;
  return value - 100 * std::min(toLimit, toSmallSteps);
}

uint32_t bucketCount(int32_t value, uint32_t limit) {
  return PAL_HashSize(static_cast<uint32_t>(std::max(value, 0)), limit);
}

}  // namespace

std::span<const RK_Option> RK_ConfigOptions() { return kOptions; }

std::span<const char* const> RK_ConfigRefusedKeys() { return kRefused; }

const RK_Option* RK_ConfigFindOption(std::string_view key) {
  const auto* found =
      std::find_if(std::begin(kOptions), std::end(kOptions),
                   [&](const RK_Option& row) { return RK_ConfigSameText(row.key, key); });
  return found == std::end(kOptions) ? nullptr : found;
}

const char* RK_ConfigFindRefused(std::string_view key) {
  const auto* found = std::find_if(std::begin(kRefused), std::end(kRefused),
                                   [&](const char* word) { return RK_ConfigSameText(word, key); });
  return found == std::end(kRefused) ? nullptr : *found;
}

bool RK_ConfigSameText(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](char x, char y) { return PAL_ToUpper(x) == PAL_ToUpper(y); });
}

std::string RK_ConfigEnvironmentName(const char* key) {
  std::string name = std::string("RK_") + key;
  std::replace(name.begin(), name.end(), '-', '_');
  return name;
}

void RK_ConfigDefaults() {
  RK_conf = RK_Conf{};
  for (const RK_Option& option : kOptions) assignPreset(option);
}

int RK_ConfigInit(const char* progname) {
  RK_ConfigDefaults();
  if (const char* file = std::getenv("RK_CONFIG")) {
    if (const auto text = PAL_ReadFile(file)) (void)RK_ScanText(*text, RK_ScanMode::config);
  }
  scanEnvironment();
  (void)RK_ConfigParseArgs(0, nullptr, nullptr);
  RK_conf.progname = progname != nullptr && *progname != '\0' ? progname : "UNKNOWN";
  RK_conf.current_dir = PAL_GetCwd().value_or("");
  RK_conf.symbol_hashsize = static_cast<int32_t>(bucketCount(RK_conf.symbol_hashsize, 4096));
  RK_conf.scl_hashsize = static_cast<int32_t>(bucketCount(RK_conf.scl_hashsize, 65536));
  (void)RK_ConfigFinish();
  return 0;
}

int RK_ConfigParseArgs(int argc, char** argv, void (*usage)()) {
  std::vector<std::string> lines(1);
  for (int i = 0; i < argc; ++i) {
    if (argv[i] == nullptr) continue;
    const std::string_view argument = argv[i];
    if (!argument.starts_with("--")) {
      lines.back() += " " + quoted(argument);
      continue;
    }
    if (PAL_StrCaseCmp(argv[i], "--help") == 0) {
      if (usage != nullptr) usage();
      return kSyntaxError;
    }
    lines.emplace_back(argument.substr(2));
  }
  bool valid = true;
  for (const std::string& line : lines) valid &= RK_ScanArguments(line);
  return RK_ConfigFinish() == 0 && valid ? 0 : kSyntaxError;
}

int RK_ConfigFinish() {
  RK_conf.output_single_file = 0;
  RK_conf.output_format = 1;
  const std::string& format = RK_conf.logfile_format;
  if (RK_ConfigSameText(format, "ASCII")) {
    RK_conf.output_format = 0;
  } else if (RK_ConfigSameText(format, "KLTSINGLE") || RK_ConfigSameText(format, "SINGLEKLT")) {
    RK_conf.output_single_file = 1;
  } else if (!RK_ConfigSameText(format, "KLT") && !RK_ConfigSameText(format, "KLTASCII")) {
    PAL_Warning("invalid value for LOGFILE-FORMAT: %s", PAL_Printable(format).c_str());
    return kSyntaxError;
  }

  struct Suffix {
    const char* text;
    int32_t format;
    int32_t single;
  };
  static constexpr Suffix kSuffixes[] = {
      {".ark", 0, 0}, {".single.klt", 1, 1}, {".klt.single", 1, 1}, {".klt", 1, 0}};
  const std::string& name = RK_conf.logfile_name;
  if (!RK_conf.logfile_format_set && RK_conf.logfile_name_set && !name.empty()) {
    const auto* suffix = std::find_if(std::begin(kSuffixes), std::end(kSuffixes),
                                      [&](const Suffix& row) { return endsWith(name, row.text); });
    if (suffix != std::end(kSuffixes)) {
      RK_conf.output_format = suffix->format;
      RK_conf.output_single_file = suffix->single;
    } else if (name == "-") {
      RK_conf.output_format = 0;
    }
  }
  if (RK_conf.verbose > 2) PAL_messages.showTime = 1;
  return 0;
}

void RK_ConfigOutputName() {
  if (!RK_conf.logfile_name_set || !RK_conf.logfile_name.empty()) return;
  const char* suffix = RK_conf.output_format == 0        ? "ark"
                       : RK_conf.output_single_file != 0 ? "single.klt"
                                                         : "klt";
  RK_conf.logfile_name = PAL_asprintf("%s.%s", PAL_BaseName(RK_conf.progname.c_str()), suffix);
}

uint32_t PAL_HashSize(uint32_t value, uint32_t limit) {
  value = skipTo(value, limit);
  while (value > 0) {
    const uint32_t prime = primeFrom(value);
    if (prime < limit) return prime;
    value -= stepBelow(value);
  }
  return 1;
}
