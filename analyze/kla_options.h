// What klt-analyze and klt-timeline have in common: the command line, the selection of a window and
// of threads, and the exit status.
#pragma once

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "analyze/pass/kla_pass.h"

namespace kla {

enum ExitStatus : int {
  kDone = 0,
  kFailed = 1,       // a file can't be opened or written
  kDamaged = 2,      // a part of the trace couldn't be read
  kNothingRead = 3,  // nothing of the trace could be read
  kAboveLimit = 5,   // a comparison found a difference above the limit
  kWrongUsage = 10,  // wrong usage, or calls that don't match
};

// The words of a command line in order. "--name=value" is read as "--name value".
class Words {
 public:
  Words(int argc, char** argv);
  // The next word; none at the end.
  [[nodiscard]] std::optional<std::string> next();
  // The value of the option that was returned last; none if there is none or an empty one.
  [[nodiscard]] std::optional<std::string> value();
  // Whether that option has a value of the form "=value" which hasn't been read.
  [[nodiscard]] bool hasExtraValue() const { return at_ < words_.size() && words_[at_].isJoined; }

 private:
  struct Word {
    std::string text;
    bool isJoined;  // the value in "--name=value"
  };
  std::vector<Word> words_;
  size_t at_ = 0;
};

struct Selection {
  std::string window;   // "A:B", empty: all
  std::string threads;  // empty: all
  bool ticks = false;   // the window is in ticks of raw time
};

// A whole number from `least` to `most`; none for other texts.
[[nodiscard]] std::optional<uint64_t> wholeNumber(const std::string& text, uint64_t least,
                                                  uint64_t most);
// A time in seconds: a number and optionally one of the units s, l or ms (1/1,000), c or us
// (1/1,000,000), ns, m, h, d and w. None for other texts.
[[nodiscard]] std::optional<double> secondsOf(const std::string& text);
// A list of threads: "P", "P.T" (thread T of process P), "P.*" (all of its threads) or "P:Q:S"
// (processes from P to Q in steps of S), separated by commas. None for other texts.
[[nodiscard]] std::optional<PAL_Triplets> threadsOf(const std::string& text,
                                                    const Definitions& definitions);

// An open trace and the selected part of it.
struct OpenAnalysis {
  KLT_OwnedTrace trace;
  std::unique_ptr<Analysis> analysis;  // null if the trace can't be read
  int status = kDone;
};
// Opens a trace, reads its definitions and applies the selection. Failures are reported, with
// `program` in front.
[[nodiscard]] OpenAnalysis openAnalysis(const char* program, const std::string& trace,
                                        const Selection& selection);
// Reads the events. Returns the exit status, which is reported if it isn't 0.
int runAnalysis(const char* program, Analysis& analysis, const Wanted& wanted);

// Prints what the trace lacks for the tables.
void printNotes(const char* program, const Analysis& analysis, const Wanted& wanted,
                const std::string& trace);
// Prints a message, and where help is; returns kWrongUsage.
int wrongUsage(const char* program, const std::string& message);

// The main function of a program: prints the help or the version, or reads the options and runs it.
// `readOptions` returns a message about wrong usage, or an empty text. Returns the exit status.
template <class Options>
int runProgram(const char* program, const char* version, int argc, char** argv, void (*printHelp)(),
               std::string (*readOptions)(Words&, Options&), int (*run)(const Options&)) {
  for (int i = 1; i < argc; ++i) {
    const std::string_view word = argv[i];
    if (word == "--help" || word == "-h") {
      printHelp();
      return kDone;
    }
    if (word == "--version") {
      std::printf("%s %s\n", program, version);
      return kDone;
    }
  }
  Words words(argc, argv);
  Options options;
  const std::string message = readOptions(words, options);
  return message.empty() ? run(options) : wrongUsage(program, message);
}

}  // namespace kla
