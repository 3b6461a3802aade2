// klt-timeline: draws a trace as one page that any browser opens.
#include <cstdio>
#include <memory>
#include <optional>
#include <string>

#include "analyze/kla_options.h"
#include "analyze/tables/kla_tables.h"
#include "analyze/tables/kla_text.h"
#include "analyze/timeline/kla_page.h"
#include "analyze/timeline/kla_recording.h"
#include "klt_version.h"

namespace {

constexpr const char* kProgram = "klt-timeline";
constexpr uint32_t kBins = 200;  // of the efficiency

struct Options {
  std::string trace, output;
  kla::Selection selection;
};

void printHelp() {
  std::puts(
      "usage: klt-timeline TRACE -o PAGE [OPTION ...]\n\n"
      "Draws a trace as one HTML page of at most 5 MB, which needs no network and no server.\n\n"
      "  -o, --output PAGE  the page\n"
      "  --window A:B       only this time, in seconds or with a unit (5ms:7ms, 1s:)\n"
      "  --ticks            times of the window are ticks of raw time\n"
      "  --threads LIST     only these: 0,2:6:2 processes, 3.1 a thread, 4.* all threads of a "
      "process\n"
      "  --help, --version");
}

// Where the value of an option goes; null for words that aren't options with a value.
std::string* valueOf(const std::string& word, Options& options) {
  if (word == "-o" || word == "--output") return &options.output;
  if (word == "--window") return &options.selection.window;
  return word == "--threads" ? &options.selection.threads : nullptr;
}

// Reads the command line. Returns an error message, empty if there is none.
std::string readOptions(kla::Words& words, Options& options) {
  while (const std::optional<std::string> word = words.next()) {
    if (*word == "--ticks") {
      options.selection.ticks = true;
    } else if (std::string* target = valueOf(*word, options)) {
      const std::optional<std::string> value = words.value();
      if (!value) return *word + " needs a value";
      *target = *value;
    } else if (word->starts_with("-")) {
      return "unknown option " + *word;
    } else if (!options.trace.empty()) {
      return "only one trace can be drawn, not also " + *word;
    } else {
      options.trace = *word;
    }
    if (words.hasExtraValue()) return *word + " takes no value";
  }
  if (options.trace.empty()) return "the name of a trace is missing";
  return options.output.empty() ? "the name of the page is missing: -o PAGE" : "";
}

bool writePage(const std::string& name, const std::string& page) {
  FILE* file = name == "-" ? stdout : std::fopen(name.c_str(), "w");
  if (file == nullptr) return false;
  bool written = std::fwrite(page.data(), 1, page.size(), file) == page.size();
  written = std::fflush(file) == 0 && written;
  return (file == stdout || std::fclose(file) == 0) && written;
}

int draw(const Options& options) {
  const kla::OpenAnalysis open = kla::openAnalysis(kProgram, options.trace, options.selection);
  if (open.analysis == nullptr) return open.status;
  kla::Analysis& analysis = *open.analysis;
  kla::Recording recording(analysis);
  const kla::Wanted wanted{.messages = true,
                           .collectives = true,
                           .waits = true,
                           .scopes = true,
                           .counters = true,
                           .files = true,
                           .bins = kBins};
  const int status = kla::runAnalysis(kProgram, analysis, wanted);
  recording.finish();
  kla::printNotes(kProgram, analysis, wanted, options.trace);
  if (!writePage(options.output, kla::makePage(analysis, recording, options.trace))) {
    std::fprintf(stderr, "%s: %s can't be written\n", kProgram,
                 kla::printable(options.output).c_str());
    return kla::kFailed;
  }
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  return kla::runProgram<Options>(kProgram, KLT_VERSION, argc, argv, &printHelp, &readOptions,
                                  &draw);
}
