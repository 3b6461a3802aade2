// What a fuzz target is made of: the two functions on inputs that it defines, and what helps it.
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
// Changes an input; false if its bytes have no meaning that could be changed.
bool mutate(Random& random, std::string& input);

// The program or the input is wrong in a way that no sanitizer sees.
inline void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "wrong: %s\n", what);
  std::abort();
}

// The number of `width` bytes at `at`; bytes that aren't there are 0.
[[nodiscard]] uint64_t load(std::string_view bytes, size_t at, size_t width = 1);
// An input without its first byte, which says what to do with the others.
[[nodiscard]] inline std::string_view rest(std::string_view input) {
  return input.substr(input.empty() ? 0 : 1);
}

// 0 if the limit is.
[[nodiscard]] size_t below(Random& random, size_t limit);
// A number such as ids, times and counts have: mostly small, now and then at the limit of a type.
[[nodiscard]] uint64_t anyNumber(Random& random);

// Changes, inserts or removes a few bytes.
void mutateBytes(Random& random, std::string& bytes);
// Changes the records from `start` on: removes, repeats or inserts some, or changes a number of
// one. Lengths follow the standard layout. What doesn't is left to the mutation of bytes.
void mutateRecords(Random& random, std::string& bytes, size_t start);
inline constexpr size_t kIndexHeaderBytes = 11;  // ahead of an index's first record

// A directory for the files of this process, gone at its end.
[[nodiscard]] const tb::TempDir& directory();
// The components of a container; none if it can't be opened.
[[nodiscard]] tb::TraceFiles takeApart(std::string_view container);

}  // namespace fuzz
