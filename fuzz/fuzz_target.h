// The two functions on inputs that each fuzz target defines, and functions that they use.
//
// Each target is built twice: by clang with fuzz_libfuzzer.cpp, and by any compiler with
// replay_main.cpp, which runs the inputs of a corpus and mutations of them.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <string_view>

#include "tests/builder/trace_files.h"

namespace fuzz {

using Random = std::mt19937;

// Each target defines these two.
void run(std::string_view input);
// Changes an input by its meaning. False if the caller has to change its bytes instead.
bool mutate(Random& random, std::string& input);

// Ends the process unless `holds`, for faults that no sanitizer finds.
inline void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "wrong: %s\n", what);
  std::abort();
}

// The number of `width` bytes at `at`; bytes after the end count as 0.
[[nodiscard]] uint64_t load(std::string_view bytes, size_t at, size_t width = 1);
// An input without its first byte, which selects what is done with the others.
[[nodiscard]] inline std::string_view rest(std::string_view input) {
  return input.substr(input.empty() ? 0 : 1);
}

// A random number below `limit`; 0 if `limit` is 0.
[[nodiscard]] size_t below(Random& random, size_t limit);
// A random id, time or count: mostly small, sometimes at the limit of a type.
[[nodiscard]] uint64_t anyNumber(Random& random);

// Changes, inserts or removes a few bytes.
void mutateBytes(Random& random, std::string& bytes);
// Changes the records from `start` on: removes, repeats or inserts some, or changes a number of
// one. Only finds records in the standard layout; mutateBytes() also changes others.
void mutateRecords(Random& random, std::string& bytes, size_t start);
inline constexpr size_t kIndexHeaderBytes = 11;  // before an index's first record

// A directory for the files of this process, which is removed at its end.
[[nodiscard]] const tb::TempDir& directory();
// The components of a container; none if it can't be opened.
[[nodiscard]] tb::TraceFiles componentsOf(std::string_view container);

}  // namespace fuzz
