// Defines the functions that libFuzzer calls. They call those of a target.
#include <cstring>

#include "fuzz/fuzz_target.h"

// NOLINTBEGIN(readability-identifier-naming)
extern "C" {

size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t limit);

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::run({reinterpret_cast<const char*>(data), size});
  return 0;
}

size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t limit, unsigned seed) {
  fuzz::Random random(seed);
  std::string input(reinterpret_cast<const char*>(data), size);
  if (!fuzz::mutate(random, input)) return LLVMFuzzerMutate(data, size, limit);
  if (input.size() > limit) return 0;
  std::memcpy(data, input.data(), input.size());
  return input.size();
}

}  // extern "C"
// NOLINTEND(readability-identifier-naming)
