// klt-record: runs a program so that it leaves a trace.
//
// It chooses the preload library for the program's MPI, passes the options to this library in the
// environment, and executes the program in its own process. So signals reach the program, and the
// exit status is the program's. At the end the library runs klt-record --finish.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "klt_record_config.h"
#include "record/convert/klt_elf.h"
#include "record/finish/klt_finish.h"

namespace {

constexpr int kWrongUsage = 10;
constexpr std::string_view kCounters[] = {"rss", "faults", "majfaults", "ctxsw", "cputime"};

constexpr const char* kHelp = R"HELP(Usage: klt-record [OPTION...] [--] PROGRAM [ARGUMENT...]
       klt-record --finish DIRECTORY [-o NAME] [--raw] [--sumdata] [--quiet]
       klt-record --check

Runs a program and records its MPI calls, messages, collective operations, and
files in a trace for klttool. Start an MPI program as usual, with klt-record in
front of it:

  mpirun -n 4 klt-record ./app        leaves run.klt
  klt-record ./app                    records one process

The exit status is the program's.

  -o NAME          the name of the trace (run.klt)
  --raw            also keeps the raw trace, as NAME.raw
  --sumdata        also writes the summary files of the trace
  --counters LIST  samples counters at MPI calls: rss, faults, majfaults, ctxsw,
                   cputime, separated by commas
  --skip-polls     leaves out calls that ask whether something is complete and
                   find that it isn't: MPI_Test, MPI_Iprobe and the like
  --mpi LIBRARY    openmpi, mpich or none, if the program doesn't link with its
                   MPI library itself
  --quiet          reports problems only
  --finish DIR     makes the trace of a run that was killed or aborted, from its
                   spools in NAME.rec; NAME is the default for the trace
  --check          lists the MPI libraries that this installation can record
  --help           this text
  --version        the version

Functions of the program itself are recorded if it is compiled with
-finstrument-functions, or if it includes klt_record.h. The directory of the
trace must be on a file system that all processes share.
)HELP";

struct Options {
  std::string name = "run.klt";
  bool hasName = false;
  std::string counters;
  bool skipPolls = false;
  std::string mpi;
  std::string job;
  record::FinishOptions finish;
  bool isFinish = false;
  int program = 0;  // place in argv
};

[[noreturn]] void misuse(const std::string& text) {
  std::fprintf(stderr, "klt-record: %s\nTry klt-record --help.\n", text.c_str());
  std::exit(kWrongUsage);
}

void checkCounters(std::string_view list) {
  while (!list.empty()) {
    const size_t end = std::min(list.find(','), list.size());
    const std::string_view name = list.substr(0, end);
    bool isKnown = false;
    for (const std::string_view one : kCounters) isKnown = isKnown || one == name;
    if (!isKnown) misuse("there is no counter \"" + std::string(name) + "\"");
    list.remove_prefix(std::min(end + 1, list.size()));
  }
}

void setFlags(std::string_view list, record::FinishOptions& finish) {
  finish.raw = finish.raw || list.find("raw") != std::string_view::npos;
  finish.summary = finish.summary || list.find("sumdata") != std::string_view::npos;
  finish.quiet = finish.quiet || list.find("quiet") != std::string_view::npos;
}

std::string libraryPath(std::string_view mpi) {
  const std::string file = "libklt-record-" + std::string(mpi) + ".so";
  const std::filesystem::path own = record::ownDirectory();
  for (const std::filesystem::path& place : {own / file, own / KLT_RECORD_LIBRARIES / file}) {
    if (access(place.c_str(), R_OK) == 0) return std::filesystem::weakly_canonical(place).string();
  }
  return {};
}

int check() {
  int status = 1;
  for (const auto& [mpi, text] : {std::pair("openmpi", "Open MPI"), std::pair("mpich", "MPICH"),
                                  std::pair("none", "programs without MPI")}) {
    const std::string path = libraryPath(mpi);
    std::printf("%-21s %s\n", text, path.empty() ? "no" : path.c_str());
    if (!path.empty()) status = 0;
  }
  return status;
}

// Handles an option with a value or a flag; false if it isn't one.
bool takeOption(int argc, char** argv, int& i, Options& options) {
  const std::string_view word = argv[i];
  const auto value = [&]() -> std::string {
    if (i + 1 >= argc) misuse(std::string(word) + " needs a value");
    return argv[++i];
  };
  if (word == "-o" || word == "--output") {
    options.name = value();
    options.hasName = true;
  } else if (word == "--counters") {
    options.counters = value();
    checkCounters(options.counters);
  } else if (word == "--skip-polls") {
    options.skipPolls = true;
  } else if (word == "--mpi") {
    options.mpi = value();
    if (options.mpi != "openmpi" && options.mpi != "mpich" && options.mpi != "none")
      misuse("--mpi is openmpi, mpich or none");
  } else if (word == "--finish") {
    options.finish.directory = value();
    options.isFinish = true;
  } else if (word == "--job") {
    options.job = value();
  } else if (word == "--options") {
    setFlags(value(), options.finish);
  } else if (word == "--raw" || word == "--sumdata" || word == "--quiet") {
    setFlags(word, options.finish);
  } else {
    return false;
  }
  return true;
}

Options readOptions(int argc, char** argv) {
  Options options;
  int i = 1;
  for (; i < argc && argv[i][0] == '-'; ++i) {
    const std::string_view word = argv[i];
    if (word == "--") {
      ++i;
      break;
    }
    if (word == "--help") {
      std::fputs(kHelp, stdout);
      std::exit(0);
    }
    if (word == "--version") {
      std::puts("klt-record " KLT_RECORD_VERSION);
      std::exit(0);
    }
    if (word == "--check") std::exit(check());
    if (!takeOption(argc, argv, i, options)) misuse("unknown option " + std::string(word));
  }
  options.program = i;
  return options;
}

// The path of a program, as execvp finds it; empty if there is none.
std::string findProgram(const std::string& name) {
  if (name.find('/') != std::string::npos) return name;
  const char* path = std::getenv("PATH");
  std::string_view list = path == nullptr ? "/usr/bin:/bin" : path;
  while (true) {
    const size_t end = std::min(list.find(':'), list.size());
    std::string file = std::string(list.substr(0, end)) + "/" + name;
    if (access(file.c_str(), X_OK) == 0) return file;
    if (end == list.size()) return {};
    list.remove_prefix(end + 1);
  }
}

// The MPI library among those that a program is linked with: Open MPI is libmpi.so.20 and later,
// the libraries with the interface of MPICH are libmpich.so or libmpi.so.12.
std::string mpiOf(std::string_view libraries) {
  if (libraries.find("libmpich") != std::string_view::npos) return "mpich";
  const size_t at = libraries.find("libmpi.so.");
  if (at == std::string_view::npos) return {};
  return libraries.substr(at + std::strlen("libmpi.so.")).starts_with("12") ? "mpich" : "openmpi";
}

// The MPI library of the command that has started this process.
std::string mpiOfLauncher() {
  if (std::getenv("OMPI_COMM_WORLD_SIZE") != nullptr) return "openmpi";
  if (std::getenv("PMI_SIZE") != nullptr || std::getenv("PMI_RANK") != nullptr) return "mpich";
  return "none";
}

// Sets the libraries to preload, before those that are there already.
void setPreload(const Options& options, const std::string& program) {
  std::string mpi = options.mpi;
  bool isLinked = false;
  if (mpi.empty() && record::kindOfProgram(program) == record::ProgramKind::kDynamic) {
    std::string libraries;
    // What ldd does: the dynamic linker lists the libraries and doesn't run the program.
    setenv("LD_TRACE_LOADED_OBJECTS", "1", 1);
    if (record::runProgram({program}, {}, &libraries) == 0) mpi = mpiOf(libraries);
    unsetenv("LD_TRACE_LOADED_OBJECTS");
    isLinked = !mpi.empty();
  }
  if (mpi.empty()) mpi = mpiOfLauncher();
  const std::string library = libraryPath(mpi);
  if (library.empty()) {
    std::fprintf(stderr,
                 "klt-record: %s can't be recorded: this installation has no library for "
                 "it; see klt-record --check\n",
                 mpi.c_str());
    return;
  }
  std::string preload = library;
  // A script or a wrapper loads its MPI library later, where the wrappers wouldn't find it.
  if (!isLinked && mpi != "none") preload += mpi == "openmpi" ? ":libmpi.so.40" : ":libmpich.so.12";
  const char* present = std::getenv("LD_PRELOAD");
  if (present != nullptr && present[0] != '\0') preload += std::string(":") + present;
  setenv("LD_PRELOAD", preload.c_str(), 1);
}

int runRecorded(const Options& options, char** argv) {
  const std::string program = findProgram(argv[options.program]);
  if (record::kindOfProgram(program) == record::ProgramKind::kStatic)
    std::fputs("klt-record: the program is linked statically and can't be recorded\n", stderr);
  setPreload(options, program);
  const std::string name = std::filesystem::absolute(options.name).lexically_normal().string();
  std::string flags;
  if (options.finish.raw) flags += "raw,";
  if (options.finish.summary) flags += "sumdata,";
  if (options.finish.quiet) flags += "quiet,";
  setenv("KLT_RECORD_NAME", name.c_str(), 1);
  setenv("KLT_RECORD_DIR", (name + ".rec").c_str(), 1);
  setenv("KLT_RECORD_EXE", (record::ownDirectory() + "/klt-record").c_str(), 1);
  setenv("KLT_RECORD_OPTIONS", flags.c_str(), 1);
  setenv("KLT_RECORD_COUNTERS", options.counters.c_str(), 1);
  setenv("KLT_RECORD_SKIP_POLLS", options.skipPolls ? "1" : "", 1);
  setenv("KLT_RECORD_PID", std::to_string(getpid()).c_str(), 1);
  execvp(argv[options.program], argv + options.program);
  const int error = errno;
  std::fprintf(stderr, "klt-record: %s: %s\n", argv[options.program], std::strerror(error));
  return error == ENOENT ? 127 : 126;
}

}  // namespace

int main(int argc, char** argv) {
  Options options = readOptions(argc, argv);
  if (options.isFinish) {
    if (options.program != argc) misuse("--finish takes one directory");
    if (options.hasName) options.finish.name = options.name;
    if (!options.job.empty()) options.finish.job = std::strtoull(options.job.c_str(), nullptr, 16);
    return record::finish(options.finish);
  }
  if (options.program >= argc) misuse("which program?");
  return runRecorded(options, argv);
}
