// klt-analyze: prints tables about a trace.
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "analyze/kla_options.h"
#include "analyze/tables/kla_compare.h"
#include "analyze/tables/kla_table.h"
#include "analyze/tables/kla_tables.h"
#include "analyze/tables/kla_text.h"
#include "klt_version.h"

namespace {

using kla::Format;

constexpr const char* kProgram = "klt-analyze";
constexpr size_t kNarrowest = 40;
constexpr uint32_t kMostBins = 10000;

struct Options {
  std::vector<std::string> traces;
  std::vector<const kla::TableKind*> tables;
  kla::Selection selection;
  Format format = Format::kText;
  std::string output;
  uint32_t bins = 0;
  size_t rows = SIZE_MAX;
  bool compare = false;
  std::optional<double> failAbove;  // percent
};

void printHelp() {
  std::puts(
      "usage: klt-analyze TRACE [OPTION ...] [TABLE ...]\n"
      "       klt-analyze --compare TRACE TRACE [OPTION ...]\n\n"
      "Prints tables about a trace of a message-passing program.\n");
  for (const kla::TableKind& kind : kla::tableKinds()) {
    std::printf("  %-14s  %s\n", kind.name, kind.contents);
  }
  std::puts(
      "  all             all of them\n\n"
      "  --window A:B    only this time, in seconds or with a unit (5ms:7ms, 1s:)\n"
      "  --ticks         times of the window are ticks of raw time\n"
      "  --threads LIST  only these: 0,2:6:2 processes, 3.1 a thread, 4.* all threads of a "
      "process\n"
      "  --bins N        efficiency in N parts of the window\n"
      "  --rows N        only the first N rows of a table\n"
      "  --format F      text, csv, json, or folded for call paths as folded stacks\n"
      "  --output FILE   write to a file\n"
      "  --compare       two runs side by side\n"
      "  --fail-above P  with --compare: status 5 if a difference is above P per cent\n"
      "  --help, --version");
}

bool readFormat(const std::string& name, Format& format) {
  static constexpr std::pair<const char*, Format> kFormats[] = {{"text", Format::kText},
                                                                {"csv", Format::kCsv},
                                                                {"json", Format::kJson},
                                                                {"folded", Format::kFolded}};
  for (const auto& [known, value] : kFormats) {
    if (name != known) continue;
    format = value;
    return true;
  }
  return false;
}

std::optional<double> percentOf(std::string text) {
  if (text.ends_with('%')) text.pop_back();
  return text.find_first_not_of("0123456789.") == std::string::npos ? kla::secondsOf(text)
                                                                    : std::nullopt;
}

// Reads an option with a value. Returns an error message, empty if there is none.
std::string readOption(const std::string& name, kla::Words& words, Options& options) {
  static constexpr std::string_view kNames[] = {"--window", "--threads", "--output",    "--format",
                                                "--bins",   "--rows",    "--fail-above"};
  if (std::find(std::begin(kNames), std::end(kNames), name) == std::end(kNames)) {
    return "unknown option " + name;
  }
  const std::optional<std::string> given = words.value();
  if (!given) return name + " needs a value";
  const std::string& value = *given;
  const auto number = [&](uint64_t most, auto& target) {
    const auto found = kla::wholeNumber(value, 1, most);
    if (found) target = static_cast<std::remove_reference_t<decltype(target)>>(*found);
    return found.has_value();
  };
  bool isValid = true;
  if (name == "--window")
    options.selection.window = value;
  else if (name == "--threads")
    options.selection.threads = value;
  else if (name == "--output")
    options.output = value;
  else if (name == "--format")
    isValid = readFormat(value, options.format);
  else if (name == "--bins")
    isValid = number(kMostBins, options.bins);
  else if (name == "--rows")
    isValid = number(SIZE_MAX, options.rows);
  else
    isValid = (options.failAbove = percentOf(value)).has_value();
  return isValid ? "" : "wrong value of " + name + ": " + value;
}

// Reads the words that aren't options: the names of traces, then those of tables. Returns an error
// message, empty if there is none.
std::string readNames(const std::vector<std::string>& names, Options& options) {
  const size_t traces = options.compare ? 2 : 1;
  if (names.size() < traces) return "the name of a trace is missing";
  options.traces.assign(names.begin(), names.begin() + static_cast<ptrdiff_t>(traces));
  for (size_t i = traces; i < names.size(); ++i) {
    if (names[i] == "all") {
      for (const kla::TableKind& kind : kla::tableKinds()) options.tables.push_back(&kind);
      continue;
    }
    options.tables.push_back(kla::findTable(names[i]));
    if (options.tables.back() == nullptr) return "unknown table " + names[i];
  }
  if (options.compare && !options.tables.empty()) return "--compare has tables of its own";
  return "";
}

// Reads the command line. Returns an error message, empty if there is none.
std::string readOptions(kla::Words& words, Options& options) {
  std::vector<std::string> names;
  while (const std::optional<std::string> word = words.next()) {
    if (*word == "--compare") {
      options.compare = true;
    } else if (*word == "--ticks") {
      options.selection.ticks = true;
    } else if (word->starts_with("-")) {
      if (std::string message = readOption(*word, words, options); !message.empty()) return message;
    } else {
      names.push_back(*word);
    }
    if (words.hasExtraValue()) return *word + " takes no value";
  }
  if (std::string message = readNames(names, options); !message.empty()) return message;
  if (options.failAbove && !options.compare) return "--fail-above needs --compare";
  if (options.compare && options.format == Format::kFolded) return "--compare has no folded stacks";
  if (options.tables.empty()) {
    options.tables.push_back(kla::findTable(options.bins != 0 ? "efficiency" : "overview"));
  }
  return "";
}

// Columns of the terminal, from the environment or from the terminal itself; 100 for a file.
size_t terminalWidth() {
  if (const char* columns = std::getenv("COLUMNS")) {
    if (const auto width = kla::wholeNumber(columns, kNarrowest, 10000)) return *width;
  }
  winsize size{};
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col != 0) {
    return std::max<size_t>(size.ws_col, kNarrowest);
  }
  return 100;
}

kla::Wanted wantedBy(const Options& options) {
  kla::Wanted wanted;
  wanted.paths = options.format == Format::kFolded;
  for (const kla::TableKind* table : options.tables) {
    wanted.paths |= table->needs.paths;
    wanted.messages |= table->needs.messages;
    wanted.collectives |= table->needs.collectives;
    wanted.waits |= table->needs.waits;
    wanted.scopes |= table->needs.scopes;
    wanted.counters |= table->needs.counters;
    wanted.files |= table->needs.files;
  }
  wanted.bins = options.bins;
  return wanted;
}

struct FileCloser {
  void operator()(FILE* file) const {
    if (file != stdout) std::fclose(file);
  }
};
using File = std::unique_ptr<FILE, FileCloser>;

File openOutput(const std::string& name) {
  if (name.empty() || name == "-") return File(stdout);
  File file(std::fopen(name.c_str(), "w"));
  if (file == nullptr) {
    std::fprintf(stderr, "%s: %s can't be written\n", kProgram, kla::printable(name).c_str());
  }
  return file;
}

int outputStatus(bool written, int status) {
  if (written) return status;
  std::fprintf(stderr, "%s: the output can't be written\n", kProgram);
  return kla::kFailed;
}

int writeTables(const Options& options, const kla::Analysis& analysis, int status) {
  const File file = openOutput(options.output);
  if (file == nullptr) return kla::kFailed;
  if (options.format == Format::kFolded) {
    bool written = true;
    kla::foldedStacks(analysis, [&](const std::string& line) {
      written = std::fputs(line.c_str(), file.get()) >= 0 && written;
    });
    return outputStatus(std::fflush(file.get()) == 0 && written, status);
  }
  kla::TableWriter writer(file.get(), options.format, terminalWidth(),
                          analysis.definitions.resolution, options.rows);
  const auto isWanted = [&](const char* name) {
    return std::find(options.tables.begin(), options.tables.end(), kla::findTable(name)) !=
           options.tables.end();
  };
  for (const kla::TableKind* table : options.tables) {
    writer.write(table->build(analysis));
    // In CSV each table is a file of its own for most readers.
    const bool hasSizes = options.format != Format::kCsv && table == kla::findTable("messages");
    if (hasSizes && !isWanted("message_sizes")) writer.write(kla::messageSizesTable(analysis));
  }
  return outputStatus(writer.finish(), status);
}

int analyze(const Options& options) {
  const kla::OpenAnalysis open =
      kla::openAnalysis(kProgram, options.traces.front(), options.selection);
  if (open.analysis == nullptr) return open.status;
  const kla::Wanted wanted = wantedBy(options);
  const int status = kla::runAnalysis(kProgram, *open.analysis, wanted);
  const int result = writeTables(options, *open.analysis, status);
  kla::printNotes(kProgram, *open.analysis, wanted, options.traces.front());
  return result;
}

int compare(const Options& options) {
  std::vector<kla::OpenAnalysis> runs;
  int status = kla::kDone;
  for (const std::string& trace : options.traces) {
    runs.push_back(kla::openAnalysis(kProgram, trace, options.selection));
    if (runs.back().analysis == nullptr) return runs.back().status;
    status = std::max(status,
                      kla::runAnalysis(kProgram, *runs.back().analysis, kla::neededByComparison()));
  }
  const File file = openOutput(options.output);
  if (file == nullptr) return kla::kFailed;
  // The runs can have different clocks, so their times are seconds already.
  kla::TableWriter writer(file.get(), options.format, terminalWidth(), 1, options.rows);
  const kla::Comparison comparison(*runs[0].analysis, *runs[1].analysis);
  for (const kla::Table& table : comparison.tables()) writer.write(table);
  if (!writer.finish()) return outputStatus(false, status);
  if (status != kla::kDone || !options.failAbove) return status;
  const std::string worst = comparison.worstAbove(*options.failAbove);
  if (worst.empty()) return kla::kDone;
  std::fprintf(stderr, "%s: %s\n", kProgram, kla::printable(worst).c_str());
  return kla::kAboveLimit;
}

}  // namespace

int main(int argc, char** argv) {
  return kla::runProgram<Options>(
      kProgram, KLT_VERSION, argc, argv, &printHelp, &readOptions,
      [](const Options& options) { return options.compare ? compare(options) : analyze(options); });
}
