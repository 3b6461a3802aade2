// Advice for the user. See kltt_advice.h.
#include "generic/kltt_advice.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "generic/options/RK_hint.h"
#include "generic/options/RK_options.h"
#include "generic/summary/kltt_summary.h"
#include "util/pal_strings.h"

namespace {

bool exists(const std::string& name) {
  struct stat info {};
  return stat(name.c_str(), &info) == 0;
}

// The first bytes of a regular file; empty for others, which might never end.
std::string beginning(const char* name) {
  char bytes[16];
  struct stat info {};
  if (stat(name, &info) != 0 || !S_ISREG(info.st_mode)) return {};
  std::FILE* file = std::fopen(name, "rbe");
  if (file == nullptr) return {};
  const size_t count = std::fread(bytes, 1, sizeof bytes, file);
  std::fclose(file);
  return {bytes, count};
}

// The name of the index to which a component belongs: `name` without one or more suffixes. Empty if
// there is no such file.
std::string indexOf(std::string_view name) {
  const size_t slash = name.rfind('/');
  const size_t first = slash == std::string_view::npos ? 0 : slash + 1;
  for (size_t dot = name.rfind('.'); dot != std::string_view::npos && dot > first;
       dot = name.rfind('.', dot - 1)) {
    std::string base(name.substr(0, dot));
    if (beginning(base.c_str()).starts_with("KLT")) return base;
  }
  return {};
}

// A trace in a directory; empty if there is none among its first entries.
std::string traceIn(const char* directory) {
  constexpr int kMostEntries = 10000;
  std::vector<std::string> names;
  std::error_code error;
  std::filesystem::directory_iterator entry(directory, error);
  for (int count = 0;
       !error && entry != std::filesystem::directory_iterator() && count < kMostEntries;
       entry.increment(error), ++count) {
    if (entry->path().extension() == ".klt") names.push_back(entry->path().string());
  }
  std::sort(names.begin(), names.end());
  const auto trace = std::find_if(names.begin(), names.end(), [](const std::string& name) {
    const std::string bytes = beginning(name.c_str());
    return bytes.starts_with("KLT") || bytes.starts_with("SKLT");
  });
  return trace == names.end() ? std::string() : *trace;
}

void adviseOnRegularFile(const char* name) {
  const std::string bytes = beginning(name);
  const auto startsWith = [&](std::string_view text) { return bytes.starts_with(text); };
  if (const std::string index = indexOf(name); !index.empty()) {
    RK_Hint("%s is a part of a trace. The trace is opened by its index: %s",
            PAL_Printable(name).c_str(), PAL_Printable(index).c_str());
  } else if (startsWith("CLKPERIOD ")) {
    RK_Hint("%s is text in the format RKF, which can only be written. The input is a trace.",
            PAL_Printable(name).c_str());
  } else if (startsWith("\x1f\x8b") ||
             startsWith("\xfd"
                        "7zXZ") ||
             startsWith("\x28\xb5\x2f\xfd")) {
    RK_Hint("%s is a compressed file. Expand it first.", PAL_Printable(name).c_str());
  }
}

// An operation, and whether it is selected.
struct Operation {
  const char* option;
  bool isSelected;
};

// The operations in the order in which kltt_main chooses one.
std::vector<Operation> operations() {
  const RK_Conf& c = RK_conf;
  const bool binary = c.output_format == 1;
  return {{"--merge", binary && c.merge != 0},
          {"--sumdata", binary && c.sumdata != 0 && c.merge == 0},
          {"--convert", binary && c.convert != 0},
          {"--print-files", c.print_files != 0},
          {"--move", c.move != 0},
          {"--remove", c.remove != 0},
          {"--print-threads", c.print_threads != 0},
          {"--print-statistics", c.print_statistics != 0},
          {"--print-reports", c.print_reports != 0}};
}

}  // namespace

void KLTT_AdviseOnUsage() {
  const RK_Conf& c = RK_conf;
  const std::string_view input = c.input;
  if (input.starts_with("--") && RK_ConfigFindOption(input.substr(2)) != nullptr)
    RK_Hint("The trace comes first: klttool run.klt %s", PAL_Printable(input).c_str());
  else if (!c.logfile_name_set && c.move != 0)
    RK_Hint("--move needs a new name or a directory: klttool %s --move new.klt",
            PAL_Printable(input).c_str());
  else if (!c.logfile_name_set && (c.convert != 0 || c.merge != 0))
    RK_Hint("--%s needs a name: klttool %s --%s new.klt --logfile-format KLT",
            c.merge != 0 ? "merge" : "convert", PAL_Printable(input).c_str(),
            c.merge != 0 ? "merge" : "convert");
  RK_Hint("See klttool --help for all options, with examples.");
}

void KLTT_AdviseOnInput(const char* name) {
  struct stat info {};
  if (stat(name, &info) != 0) {
    const std::string withSuffix = std::string(name) + ".klt";
    if (errno == ENOENT && exists(withSuffix))
      RK_Hint("Did you mean %s?", PAL_Printable(withSuffix).c_str());
    return;
  }
  if (S_ISREG(info.st_mode)) return adviseOnRegularFile(name);
  const char* kind = S_ISDIR(info.st_mode)    ? "directory"
                     : S_ISFIFO(info.st_mode) ? "pipe"
                     : S_ISSOCK(info.st_mode) ? "socket"
                                              : "device";
  RK_Hint("%s is a %s. The input is the index of a trace, such as run.klt, in a regular file.",
          PAL_Printable(name).c_str(), kind);
  if (!S_ISDIR(info.st_mode)) return;
  const std::string trace = traceIn(name);
  if (!trace.empty()) RK_Hint("Did you mean %s?", PAL_Printable(trace).c_str());
}

void KLTT_AdviseOnFormat() {
  const RK_Conf& c = RK_conf;
  if (!c.logfile_name_set || c.logfile_format_set || c.move != 0) return;
  const bool isMissed = c.merge != 0 || c.sumdata != 0;
  if (!isMissed && !c.logfile_name.ends_with(".klt")) return;
  RK_Hint("Text is written to %s%s. For a trace add --logfile-format KLT.",
          PAL_Printable(c.logfile_name).c_str(),
          c.merge != 0     ? ", and nothing is merged"
          : c.sumdata != 0 ? ", and nothing is summarised"
                           : "");
}

void KLTT_AdviseOnOperations() {
  const char* done = nullptr;
  for (const Operation& operation : operations()) {
    if (!operation.isSelected) continue;
    if (done == nullptr)
      done = operation.option;
    else
      RK_Hint("Only %s is done: %s needs a run of its own.", done, operation.option);
  }
}

void KLTT_AdviseOnSummaries(const char* name, const char* done) {
  for (const char* suffix : kKlttSumSuffixes) {
    if (!exists(std::string(name) + suffix)) continue;
    RK_Hint("The summary files %s.sum.* aren't %s: they don't belong to the trace.",
            PAL_Printable(name).c_str(), done);
    return;
  }
}
