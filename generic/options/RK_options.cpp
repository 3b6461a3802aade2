// Option table and value store. See RK_options.h.
#include "generic/options/RK_options.h"

#include <algorithm>

#include "klt/format/klt_schema.h"
#include "util/pal_strings.h"

RK_Conf RK_conf{};

namespace {

using Type = RK_OptionType;

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

// Keywords of the trace collector that klttool refuses.
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

// The bits of the categories that a request can name.
constexpr unsigned kFirstCategory = 2;
constexpr unsigned kCategoriesEnd = 16;

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

std::vector<std::string_view> RK_ConfigCategories() {
  std::vector<std::string_view> names;
  for (unsigned bit = kFirstCategory; bit < kCategoriesEnd; ++bit) {
    if ((klt::kWholeSelection >> bit & 1) != 0) names.push_back(KLT_CategoryName(bit));
  }
  return names;
}

uint32_t RK_ConfigCategoryBit(std::string_view text) {
  for (unsigned bit = kFirstCategory; bit < kCategoriesEnd; ++bit) {
    if (RK_ConfigSameText(text, KLT_CategoryName(bit))) return uint32_t{1} << bit;
  }
  return 0;
}
