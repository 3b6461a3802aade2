// Reads damaged traces: takes valid ones, flips, cuts, splices and overwrites bytes, and runs the
// reader over the result. Right is whatever message and status come out; wrong is a crash, a
// sanitizer's finding, a run without end, or memory out of all proportion to a small file.
//
//   mutate_test --data DIR [--seed N] [--cases N] [--program KLTTOOL] [--case N]
//
// Cases run in batches, each in a process of its own, so that whatever ends one is seen here. A
// case is a function of seed and number alone; --case runs one of them in this process, for a
// debugger. With --program every eighth case also goes through the whole program.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "klt/klt.h"
#include "klt/klt_request.h"
#include "tests/builder/touching.h"
#include "tests/builder/trace_files.h"
#include "tests/builder/with_asan.h"

namespace {

constexpr unsigned kSecondsOfACase = 20;
[[maybe_unused]] constexpr size_t kMegabytes = 512;  // what a case may have in use at a time
constexpr int kBatch = 25;
constexpr int kProgramEvery = 8;

struct Options {
  std::string data, program;
  unsigned seed = 1;
  int cases = 200;
  std::optional<int> only;
};

struct Sample {
  std::string name;
  tb::TraceFiles files;
};

using Random = std::mt19937_64;

size_t below(Random& random, size_t limit) { return limit == 0 ? 0 : random() % limit; }

// --- Damage --------------------------------------------------------------------------------------

// A component to damage; small ones as likely as large ones, empty ones not at all.
std::string& anyComponent(Random& random, tb::TraceFiles& files) {
  const auto& parts = files.parts();
  for (;;) {
    std::string& bytes = files[parts[below(random, parts.size())].first];
    if (!bytes.empty()) return bytes;
  }
}

// Numbers that sit at the limits of the types.
void overwriteNumber(Random& random, std::string& bytes) {
  static constexpr uint64_t kNumbers[] = {
      0,           1,          0x7f,         0x80,      0xff,
      0x7fff,      0x8000,     0xffff,       0x10000,   0x7fffffff,
      0x80000000,  0xffffffff, 0x1000000000, INT64_MAX, uint64_t{1} << 63,
      ~uint64_t{0}};
  static constexpr size_t kWidths[] = {1, 2, 4, 8};
  const uint64_t number = kNumbers[below(random, std::size(kNumbers))];
  const size_t width = std::min(kWidths[below(random, std::size(kWidths))], bytes.size());
  const size_t at = below(random, bytes.size() - width + 1);
  for (size_t i = 0; i < width; ++i) {
    bytes[at + i] = static_cast<char>(number >> (8 * (width - 1 - i)));
  }
}

void damage(Random& random, tb::TraceFiles& files, const tb::TraceFiles& donor) {
  std::string& bytes = anyComponent(random, files);
  const size_t at = below(random, bytes.size());
  switch (below(random, 8)) {
    case 0:  // one bit
      bytes[at] = static_cast<char>(bytes[at] ^ (1 << below(random, 8)));
      break;
    case 1:  // any byte
      bytes[at] = static_cast<char>(below(random, 256));
      break;
    case 2:  // the end is missing
      bytes.resize(bytes.size() - 1 - below(random, std::min<size_t>(bytes.size(), 40)));
      break;
    case 3:  // all of the second half is
      bytes.resize(at);
      break;
    case 4:  // bytes in between are
      bytes.erase(at, 1 + below(random, 16));
      break;
    case 5: {  // bytes of another place or trace are put in
      const auto& parts = donor.parts();
      const std::string& from = parts[below(random, parts.size())].second;
      const size_t start = below(random, from.size());
      const std::string piece = from.substr(start, 1 + below(random, 200));
      bytes.replace(at, below(random, 2) * piece.size(), piece);
      break;
    }
    default:
      overwriteNumber(random, bytes);
      break;
  }
}

// --- Reading -------------------------------------------------------------------------------------

// Windows over all magnitudes of time, single threads and categories.
std::vector<KLT_Request> someRequests(Random& random) {
  std::vector<KLT_Request> requests(below(random, 4));
  for (KLT_Request& request : requests) {
    if (below(random, 4) != 0) {
      request.start = random() >> below(random, 64);
      request.end = request.start + (random() >> below(random, 64));
    }
    request.categories =
        below(random, 3) == 0 ? 1 : static_cast<uint32_t>(1 + below(random, 0x1ef));
    if (below(random, 8) == 0) request.categories = 0x4000;
    if (below(random, 2) == 0) {
      const auto first = static_cast<int32_t>(below(random, 4));
      request.threads = {{first, first + static_cast<int32_t>(below(random, 1 << 17)), 1}};
    }
  }
  return requests;
}

void read(Random& random, const std::string& name) {
  setenv("KLT_GENERIC_ONLY", below(random, 4) == 0 ? "1" : "0", 1);
  if (!KLT_IsTrace(name.c_str()) && below(random, 4) != 0) return;
  KLT_FileHandle* trace = KLT_Open(name.c_str());
  if (trace == nullptr) return;
  tb::touchAll(trace, KLT_MODE_DEFINITIONS, {}, 1);
  tb::touchAll(trace, KLT_MODE_EVENTS, {}, below(random, 4) != 0);
  tb::touchAll(trace, KLT_MODE_EVENTS, someRequests(random), below(random, 4) != 0);
  KLT_Close(trace);
}

// --- Cases ---------------------------------------------------------------------------------------

std::vector<Sample> loadSamples(const std::string& directory) {
  std::vector<Sample> samples;
  for (const auto& folder : std::filesystem::directory_iterator(directory)) {
    const std::string base = folder.path().string() + "/t.klt";
    if (folder.path().filename().string().starts_with("broken_")) continue;
    if (!std::filesystem::exists(base)) continue;
    Sample sample{folder.path().filename(), {}};
    std::vector<std::string> names;
    for (const auto& file : std::filesystem::directory_iterator(folder.path())) {
      if (file.path().string().starts_with(base)) names.push_back(file.path().string());
    }
    std::sort(names.begin(), names.end());
    for (const std::string& name : names) {
      sample.files.add(name == base ? " " : name.substr(base.size()), tb::readFile(name));
    }
    samples.push_back(std::move(sample));
  }
  std::sort(samples.begin(), samples.end(),
            [](const Sample& a, const Sample& b) { return a.name < b.name; });
  return samples;
}

// Status of the program on the trace; whatever it says, it says it with one of its own statuses.
void runProgram(Random& random, const Options& options, const std::string& name) {
  static constexpr const char* kArguments[] = {"--dump",
                                               "--dump --matched-rkf",
                                               "--dump --extended-rkf off",
                                               "--dump --ticks --request 100s:100000s",
                                               "--dump --request FUNCTIONS 0:1 SCOPES",
                                               "--print-statistics",
                                               "--print-reports",
                                               "--print-threads",
                                               "--print-files",
                                               "--logfile-format KLT --logfile-name",
                                               "--logfile-format SINGLEKLT --convert"};
  const std::string arguments = kArguments[below(random, std::size(kArguments))];
  const bool writes = arguments.find("KLT") != std::string::npos;
  const std::string command = "exec '" + options.program + "' '" + name + "' " + arguments +
                              (writes ? " '" + name + ".out'" : "") + " >/dev/null </dev/null";
  const int result = std::system(command.c_str());
  const int status = WIFEXITED(result) ? WEXITSTATUS(result) : 255;
  static constexpr int kStatuses[] = {0, 1, 2, 3, 4, 10};
  if (std::find(std::begin(kStatuses), std::end(kStatuses), status) == std::end(kStatuses)) {
    std::fprintf(stderr, "status %d of: %s\n", status, command.c_str());
    std::abort();
  }
}

void runCase(const Options& options, const std::vector<Sample>& samples, int number) {
  Random random(options.seed * 1000003ULL + static_cast<uint64_t>(number));
  const Sample& sample = samples[below(random, samples.size())];
  tb::TraceFiles files = sample.files;
  const Sample& donor = samples[below(random, samples.size())];
  for (size_t times = 1 + below(random, 3); times > 0; --times) {
    damage(random, files, donor.files);
    if (std::all_of(files.parts().begin(), files.parts().end(),
                    [](const auto& part) { return part.second.empty(); })) {
      break;
    }
  }
  std::fprintf(stderr, "case %d of seed %u: %s\n", number, options.seed, sample.name.c_str());
  const tb::TempDir directory;
  const std::string name = files.writePlain(directory);
  alarm(kSecondsOfACase);
  read(random, name);
  if (!options.program.empty() && number % kProgramEvery == 0) runProgram(random, options, name);
  alarm(0);
}

#ifndef KLT_WITH_ASAN
void limitMemory() {
  const rlimit limit{kMegabytes << 20, kMegabytes << 20};
  setrlimit(RLIMIT_AS, &limit);
}
#else
void limitMemory() {}  // the sanitizer's own limit holds, see below
#endif

// Runs cases [first, last); true if the process of the batch came through.
bool runBatch(const Options& options, const std::vector<Sample>& samples, int first, int last) {
  FILE* log = std::tmpfile();
  if (log == nullptr) {
    std::perror("temporary file");
    return false;
  }
  std::fflush(stdout);  // or the batch would print it again
  const pid_t child = fork();
  if (child == 0) {
    dup2(fileno(log), STDERR_FILENO);
    limitMemory();
    for (int number = first; number < last; ++number) runCase(options, samples, number);
    // Leave by exit, so that leaks are looked for.
    std::exit(0);
  }
  int result = 0;
  waitpid(child, &result, 0);
  const bool passed = child > 0 && WIFEXITED(result) && WEXITSTATUS(result) == 0;
  if (!passed) {
    // From the case that was at work on.
    const off_t size = lseek(fileno(log), 0, SEEK_END);
    std::string text(static_cast<size_t>(std::max<off_t>(size, 0)), '\0');
    const ssize_t got = pread(fileno(log), text.data(), text.size(), 0);
    text.resize(static_cast<size_t>(std::max<ssize_t>(got, 0)));
    const size_t at = text.rfind("case ");
    if (at != std::string::npos) text.erase(0, at);
    if (WIFSIGNALED(result) && WTERMSIG(result) == SIGALRM) text += "no end in sight\n";
    std::printf("FAILED (%s %d)\n%.8000s\n", WIFSIGNALED(result) ? "signal" : "status",
                WIFSIGNALED(result) ? WTERMSIG(result) : WEXITSTATUS(result), text.c_str());
  }
  std::fclose(log);
  return passed;
}

Options parse(int argc, char** argv) {
  Options options;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string key = argv[i], value = argv[i + 1];
    if (key == "--data") options.data = value;
    if (key == "--program") options.program = value;
    if (key == "--seed") options.seed = static_cast<unsigned>(std::stoul(value));
    if (key == "--cases") options.cases = std::stoi(value);
    if (key == "--case") options.only = std::stoi(value);
  }
  return options;
}

}  // namespace

#ifdef KLT_WITH_ASAN
// Memory beyond reason is a finding; so is a leak. The name is the sanitizer's.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
extern "C" const char* __asan_default_options();
extern "C" const char* __asan_default_options() {
  // NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
  return "max_allocation_size_mb=512:soft_rss_limit_mb=1024:allocator_may_return_null=0";
}
#endif

int main(int argc, char** argv) {
  const Options options = parse(argc, argv);
  const std::vector<Sample> samples =
      options.data.empty() ? std::vector<Sample>{} : loadSamples(options.data);
  if (samples.empty()) {
    std::fprintf(stderr, "no traces; use --data DIR\n");
    return 2;
  }
  if (options.only) {
    runCase(options, samples, *options.only);
    return 0;
  }
  // A sanitizer's finding in the program must not look like one of its own statuses.
  setenv("ASAN_OPTIONS", "abort_on_error=1", 0);
  setenv("UBSAN_OPTIONS", "abort_on_error=1", 0);
  int failed = 0;
  for (int first = 0; first < options.cases; first += kBatch) {
    failed += runBatch(options, samples, first, std::min(first + kBatch, options.cases)) ? 0 : 1;
  }
  std::printf("%d cases on %zu traces, %d batches failed\n", options.cases, samples.size(), failed);
  return failed == 0 ? 0 : 1;
}
