// The passes that fill the option store. See RK_conf.h.
#include "generic/options/RK_conf.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "generic/options/RK_scan.h"
#include "util/pal_error.h"
#include "util/pal_strings.h"
#include "util/pal_util.h"

namespace {

constexpr int kSyntaxError = -13;

bool endsWith(std::string_view name, std::string_view suffix) {
  return name.size() >= suffix.size() &&
         RK_ConfigSameText(name.substr(name.size() - suffix.size()), suffix);
}

// Scans each line of the value as a line of this option, empty lines too. A line feed at the end
// doesn't start another line.
void scanEnvironmentValue(const RK_Option& option, std::string_view value) {
  while (!value.empty()) {
    const size_t end = std::min(value.find('\n'), value.size());
    const std::string line = option.key + (" " + std::string(value.substr(0, end)));
    (void)RK_ScanLine(line, RK_ScanMode::environment, 0);
    value.remove_prefix(std::min(end + 1, value.size()));
  }
}

// Reads the amount of messages first, because it also applies to hints about the options before it.
// Errors are reported when the line is read again.
void readVerbosity(const std::vector<std::string>& lines) {
  const int errors = std::exchange(PAL_messages.errorEnabled, 0);
  for (const std::string& line : lines) {
    if (RK_ConfigSameText(line.substr(0, line.find(' ')), "VERBOSE")) (void)RK_ScanArguments(line);
  }
  PAL_messages.errorEnabled = errors;
}

void scanEnvironment() {
  if (const char* level = std::getenv("RK_VERBOSE"))
    readVerbosity({std::string("VERBOSE ") + level});
  for (const RK_Option& option : RK_ConfigOptions()) {
    const char* value = std::getenv(RK_ConfigEnvironmentName(option.key).c_str());
    if (value != nullptr) scanEnvironmentValue(option, value);
  }
}

// The text that an argument adds to its line. An argument with blanks gets single quotes, unless it
// contains one, because the shell has removed the quotes that the user typed.
std::string quoted(std::string_view argument) {
  const bool blank = argument.find_first_of(" \t\r\n") != std::string_view::npos;
  if (blank && argument.find('\'') == std::string_view::npos)
    return "'" + std::string(argument) + "'";
  return std::string(argument);
}

// The step by which PAL_HashSize lowers a table size that is too large.
uint32_t stepDown(uint32_t value) { return value < 11 ? 1 : value < 101 ? 10 : 100; }

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

// Reads a configuration file. Refuses devices and FIFOs, which might never end.
void scanFile(const char* name) {
  constexpr off_t kMostBytes = off_t{1} << 20;
  struct stat info {};
  if (stat(name, &info) == 0 && (!S_ISREG(info.st_mode) || info.st_size > kMostBytes)) {
    PAL_Error("RK_CONFIG names %s, which isn't a regular file of at most 1 MiB and is ignored.",
              PAL_Printable(name).c_str());
    return;
  }
  if (const auto text = PAL_ReadFile(name)) (void)RK_ScanText(*text, RK_ScanMode::config);
}

// Lowers `value` in steps of 100 until it is below 101 or `limit`: from `limit` on, the next prime
// is too large.
uint32_t lowerByHundreds(uint32_t value, uint32_t limit) {
  if (value < limit || value < 101) return value;
  const uint32_t toLimit = (value - limit) / 100 + 1;
  const uint32_t toSmallSteps = (value - 101) / 100 + 1;
  return value - 100 * std::min(toLimit, toSmallSteps);
}

uint32_t bucketCount(int32_t value, uint32_t limit) {
  return PAL_HashSize(static_cast<uint32_t>(std::max(value, 0)), limit);
}

}  // namespace

int RK_ConfigInit(const char* progname) {
  RK_ConfigDefaults();
  if (const char* file = std::getenv("RK_CONFIG")) scanFile(file);
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
  readVerbosity(lines);
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
  value = lowerByHundreds(value, limit);
  while (value > 0) {
    const uint32_t prime = primeFrom(value);
    if (prime < limit) return prime;
    value -= stepDown(value);
  }
  return 1;
}
