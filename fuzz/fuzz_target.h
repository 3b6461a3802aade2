// What a fuzz target is made of: a function that takes an input, and its mutators.
//
// Each target is built twice: by clang with libFuzzer, and by any compiler with replay_main.cpp,
// which runs the inputs of a corpus and mutations of them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

// The names are libFuzzer's.
// NOLINTBEGIN(readability-identifier-naming)
extern "C" {
int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t limit, unsigned seed);
size_t LLVMFuzzerCustomCrossOver(const uint8_t* data, size_t size, const uint8_t* donor,
                                 size_t donorSize, uint8_t* out, size_t limit, unsigned seed);
// Changes bytes without knowing what they are.
size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t limit);
}
// NOLINTEND(readability-identifier-naming)

namespace fuzz {

[[nodiscard]] inline std::string_view view(const uint8_t* data, size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

// A finding that no sanitizer sees.
inline void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "wrong: %s\n", what);
  std::abort();
}

// Hands an input over to libFuzzer; 0 if it is too long.
[[nodiscard]] inline size_t give(std::string_view input, uint8_t* out, size_t limit) {
  if (input.size() > limit) return 0;
  std::memcpy(out, input.data(), input.size());
  return input.size();
}

}  // namespace fuzz
