// Runs a fuzz target on the inputs of its corpus, and on mutations of them, without libFuzzer.
//
//   replay_TARGET [--mutations N] [--verbose] FILE-OR-DIRECTORY...
//
// What the program says goes nowhere unless --verbose is given. A sanitizer's finding or an abort
// ends the process; the name of the input at work stands on standard output then.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "fuzz/fuzz_records.h"
#include "fuzz/fuzz_target.h"
#include "tests/builder/trace_files.h"
#include "tests/builder/with_asan.h"

#ifdef KLT_WITH_ASAN
#include <sanitizer/common_interface_defs.h>
#endif

namespace {

constexpr size_t kLargestInput = 1 << 16;

fuzz::Random source;

std::vector<std::string> inputsIn(const std::string& path) {
  if (!std::filesystem::is_directory(path)) return {path};
  std::vector<std::string> names;
  for (const auto& file : std::filesystem::directory_iterator(path)) {
    if (file.is_regular_file()) names.push_back(file.path().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

void silence(FILE* log) {
#ifdef KLT_WITH_ASAN
  // The interface takes the number in a pointer.
  // NOLINTNEXTLINE(performance-no-int-to-ptr)
  __sanitizer_set_report_fd(reinterpret_cast<void*>(static_cast<intptr_t>(fileno(log))));
#else
  (void)log;
#endif
  const int nowhere = open("/dev/null", O_WRONLY);
  dup2(nowhere, STDOUT_FILENO);
  dup2(nowhere, STDERR_FILENO);
  close(nowhere);
}

// The block is of exactly that size, so that reading beyond it is seen.
void runOn(const std::string& bytes) {
  const std::vector<uint8_t> copy(bytes.begin(), bytes.end());
  LLVMFuzzerTestOneInput(copy.data(), copy.size());
}

void runMutations(std::string bytes, unsigned rounds) {
  for (unsigned round = 0; round < rounds; ++round) {
    std::vector<uint8_t> block(kLargestInput);
    const size_t size = std::min(bytes.size(), block.size());
    std::copy_n(bytes.begin(), size, block.begin());
    const size_t length = LLVMFuzzerCustomMutator(block.data(), size, block.size(), round);
    const std::string mutated(block.begin(), block.begin() + static_cast<ptrdiff_t>(length));
    runOn(mutated);
    // Every fourth change stays, for what needs more than one.
    if (round % 4 == 3 && length != 0) bytes = mutated;
  }
}

}  // namespace

size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t limit) {
  std::string bytes(fuzz::view(data, size));
  fuzz::mutateBytes(source, bytes);
  return fuzz::give(bytes, data, limit);
}

int main(int argc, char** argv) {
  unsigned mutations = 0;
  bool verbose = false;
  std::vector<std::string> inputs;
  for (int i = 1; i < argc; ++i) {
    const std::string argument = argv[i];
    if (argument == "--mutations" && i + 1 < argc) {
      mutations = static_cast<unsigned>(std::strtoul(argv[++i], nullptr, 10));
    } else if (argument == "--verbose") {
      verbose = true;
    } else {
      const std::vector<std::string> names = inputsIn(argument);
      inputs.insert(inputs.end(), names.begin(), names.end());
    }
  }
  if (inputs.empty()) {
    std::fputs("no inputs\n", stderr);
    return 2;
  }
  FILE* log = fdopen(dup(STDOUT_FILENO), "w");
  if (log == nullptr) return 2;
  if (!verbose) silence(log);
  for (const std::string& name : inputs) {
    std::fprintf(log, "%s\n", name.c_str());
    std::fflush(log);
    source.seed(1);
    const std::string bytes = tb::readFile(name);
    runOn(bytes);
    runMutations(bytes, mutations);
  }
  std::fprintf(log, "%zu inputs, %u mutations of each\n", inputs.size(), mutations);
  std::fclose(log);
  return 0;
}
