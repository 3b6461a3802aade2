// Runs a fuzz target on the inputs of a corpus, and on mutations of them, without libFuzzer.
//
//   replay_TARGET MUTATIONS FILE-OR-DIRECTORY
//
// What the program prints goes nowhere. A sanitizer's finding or an abort ends the process; the
// last line of standard output is the name of the input at work.
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

// The block is of exactly that size, so that reading beyond it is seen.
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
  // Findings and names of inputs go on to where standard output leads. Left open: leaks are
  // reported there at the exit.
  FILE* log = fdopen(dup(STDOUT_FILENO), "w");
#ifdef KLT_WITH_ASAN
  // The interface takes the number in a pointer.
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
      // Every fourth change stays, for what needs more than one.
      if (round % 4 == 3) input = mutated;
    }
  }
  std::fprintf(log, "%zu inputs, %lu mutations of each\n", inputs.size(), mutations);
  return std::fflush(log) != 0 || inputs.empty() ? 2 : 0;
}
