// Makes the trace of a run from its spools: converts, merges, checks, and removes the spools.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace record {

struct FinishOptions {
  std::string directory;  // of the spools
  std::string name;       // of the trace; empty: the directory's name without ".rec"
  uint64_t job = 0;       // 0: the last run
  bool raw = false;       // keeps the raw trace, NAME.raw
  bool summary = false;
  bool quiet = false;  // prints problems only
};

// Returns an exit status: 0, or 1 after a message; then the spools remain.
[[nodiscard]] int finish(const FinishOptions& options);

// Where the program's other parts are: the directory of this program.
[[nodiscard]] std::string ownDirectory();

// Runs a program and waits for it. Its arguments include its name. Returns its exit status, 127 if
// it can't be run, or 128 and the signal. With `output` receives what it writes to standard output.
[[nodiscard]] int runProgram(const std::vector<std::string>& arguments,
                             const std::vector<std::string>& environment = {},
                             std::string* output = nullptr);

}  // namespace record
