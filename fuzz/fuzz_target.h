// What a fuzz target is made of: the two functions on inputs that it defines, and what helps it.
//
// Each target is built twice: by clang with fuzz_libfuzzer.cpp, and by any compiler with
// replay_main.cpp, which runs the inputs of a corpus and mutations of them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <string_view>

#include "tests/builder/trace_files.h"

namespace fuzz {

using Random = std::mt19937;

// --- Defined by each target
// -----------------------------------------------------------------------

void run(std::string_view input);
// Changes an input; false if its bytes have no meaning that could be changed.
bool mutate(Random& random, std::string& input);

// --- For all
// --------------------------------------------------------------------------------------

// The program or the input is wrong in a way that no sanitizer sees.
inline void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "wrong: %s\n", what);
  std::abort();
}

[[nodiscard]] inline size_t below(Random& random, size_t limit) {
  return limit == 0 ? 0 : random() % limit;
}

// The first byte of an input, which says what to do with the others; 0 if there is none.
[[nodiscard]] inline uint8_t firstByte(std::string_view input) {
  return input.empty() ? 0 : static_cast<uint8_t>(input[0]);
}
[[nodiscard]] inline std::string_view rest(std::string_view input) {
  return input.substr(input.empty() ? 0 : 1);
}

// A directory for the files of this process, gone at its end.
[[nodiscard]] inline const tb::TempDir& directory() {
  static const tb::TempDir directory;
  return directory;
}

}  // namespace fuzz
