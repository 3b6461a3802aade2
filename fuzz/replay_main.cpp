// Runs a fuzz target on the inputs of a corpus, and on mutations of them, without libFuzzer.
//
//   replay_TARGET MUTATIONS FILE-OR-DIRECTORY
//
// Output of the program is dropped. A sanitizer's finding or an abort ends the process; then the
// last line of standard output is the name of the input.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <vector>

#include "fuzz/fuzz_target.h"

#ifdef KLT_WITH_ASAN
#include <sanitizer/common_interface_defs.h>
#endif

namespace {

// The block has exactly the size of the input, so that a sanitizer finds reads beyond it.
void runOn(const std::string& input) {
  const std::vector<char> block(input.begin(), input.end());
  fuzz::run({block.data(), block.size()});
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  const unsigned long mutations = std::strtoul(argv[1], nullptr, 10);
  std::vector<std::filesystem::path> inputs{argv[2]};
  if (is_directory(inputs[0])) inputs.assign(std::filesystem::directory_iterator(argv[2]), {});
  // Findings and names of inputs are still written to standard output. The file isn't closed,
  // because leaks are reported at the exit.
  FILE* log = fdopen(dup(STDOUT_FILENO), "w");
#ifdef KLT_WITH_ASAN
  // The function has a pointer parameter for the descriptor.
  // NOLINTNEXTLINE(performance-no-int-to-ptr)
  __sanitizer_set_report_fd(reinterpret_cast<void*>(static_cast<intptr_t>(fileno(log))));
#endif
  const int nowhere = open("/dev/null", O_WRONLY);
  dup2(nowhere, STDOUT_FILENO);
  dup2(nowhere, STDERR_FILENO);
  for (const auto& name : inputs) {
    std::fprintf(log, "%s\n", name.c_str());
    std::fflush(log);
    std::string input = tb::readFile(name);
    runOn(input);
    for (unsigned round = 0; round < mutations; ++round) {
      fuzz::Random random(round);
      std::string mutated = input;
      if (!fuzz::mutate(random, mutated)) fuzz::mutateBytes(random, mutated);
      mutated.resize(std::min<size_t>(mutated.size(), 1 << 16));
      runOn(mutated);
      // Every fourth change is kept, for faults that need several.
      if (round % 4 == 3) input = mutated;
    }
  }
  std::fprintf(log, "%zu inputs, %lu mutations of each\n", inputs.size(), mutations);
  return std::fflush(log) != 0 || inputs.empty() ? 2 : 0;
}
