// Makes the trace of a run from its spools. See klt_finish.h.
#include "record/finish/klt_finish.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <utility>

#include "klt/klt_writer.h"
#include "record/convert/klt_convert.h"
#include "record/finish/klt_check.h"

namespace record {
namespace {

constexpr std::string_view kSpoolEnding = ".rec";

void say(const std::string& text) { std::fprintf(stderr, "klt-record: %s\n", text.c_str()); }

// The spools of one job: the wanted one, or the newest, if possible one with MPI.
std::vector<Process> processesOfJob(std::vector<Process> all, uint64_t job) {
  if (job == 0 && !all.empty()) {
    const auto newest =
        std::max_element(all.begin(), all.end(), [](const Process& a, const Process& b) {
          return std::pair(a.header.flags & KLT_SPOOL_MPI, a.header.realtime) <
                 std::pair(b.header.flags & KLT_SPOOL_MPI, b.header.realtime);
        });
    job = newest->header.job;
  }
  std::erase_if(all, [job](const Process& process) { return process.header.job != job; });
  return all;
}

std::string variable(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? "" : value;
}

// The number of this process in a parallel start, if there are several and they don't use MPI:
// then each has a trace of its own.
std::string rankOfLauncher() {
  constexpr std::array<std::pair<const char*, const char*>, 3> kNames = {
      {{"OMPI_COMM_WORLD_SIZE", "OMPI_COMM_WORLD_RANK"},
       {"PMI_SIZE", "PMI_RANK"},
       {"SLURM_NTASKS", "SLURM_PROCID"}}};
  for (const auto& [size, rank] : kNames) {
    if (!variable(size).empty() && variable(size) != "1") return variable(rank);
  }
  return {};
}

std::string targetName(const FinishOptions& options, const Process& process) {
  std::string name = options.name;
  if (name.empty()) {
    name = options.directory;
    while (name.ends_with('/')) name.pop_back();
    if (name.ends_with(kSpoolEnding)) name.resize(name.size() - kSpoolEnding.size());
  }
  if ((process.header.flags & KLT_SPOOL_MPI) != 0) return name;
  const std::string rank = rankOfLauncher();
  if (rank.empty() || options.job == 0) return name;
  const std::filesystem::path path(name);
  return (path.parent_path() / (path.stem().string() + "." + rank + path.extension().string()))
      .string();
}

// The environment without the settings of klttool, which would change the merge.
std::vector<std::string> mergeEnvironment() {
  std::vector<std::string> kept;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string_view text = *entry;
    if (!text.starts_with("RK_") && !text.starts_with("LD_PRELOAD=")) kept.emplace_back(text);
  }
  return kept;
}

int merge(const FinishOptions& options, const std::string& raw, const std::string& target) {
  std::string program = ownDirectory() + "/klttool";
  if (access(program.c_str(), X_OK) != 0) program = "klttool";
  std::vector<std::string> command = {program, raw,         "--merge", target, "--logfile-format",
                                      "KLT",   "--verbose", "0"};
  if (options.summary) command.emplace_back("--sumdata");
  if (!options.raw) command.emplace_back("--delete-raw-data");
  std::string output;
  const int status = runProgram(command, mergeEnvironment(), &output);
  if (status == 127) say("klttool, which merges the trace, can't be run; the raw trace is " + raw);
  if (status != 0 && status != 127)
    say("the merge of " + raw + " ends with status " + std::to_string(status));
  return status;
}

std::string listOf(const std::vector<uint32_t>& processes) {
  constexpr size_t kShown = 8;
  std::string text = processes.size() == 1 ? "process " : "processes ";
  for (size_t i = 0; i < processes.size() && i < kShown; ++i)
    text += (i == 0 ? "" : ", ") + std::to_string(processes[i]);
  if (processes.size() > kShown)
    text += " and " + std::to_string(processes.size() - kShown) + " more";
  return text;
}

void reportConversion(const ConvertResult& result) {
  if (!result.missing.empty()) say("there is no record of " + listOf(result.missing));
  if (!result.unfinished.empty())
    say("MPI_Finalize is missing in the record of " + listOf(result.unfinished));
  if (!result.stopped.empty()) say("recording has stopped early in " + listOf(result.stopped));
  if (result.hasOutsiders)
    say("messages with processes outside of this run (spawned, connected, or of a session without "
        "MPI_Init) aren't recorded");
  if (result.lostThreads != 0)
    say(std::to_string(result.lostThreads) +
        " threads exceed the 65536 of a process; they aren't recorded");
  if (result.lostCommunicators != 0)
    say(std::to_string(result.lostCommunicators) +
        " communicators exceed the 65535 of a trace; their messages are left out");
}

void reportTrace(const std::string& target, size_t processes, uint64_t records, bool quiet) {
  const TraceCheck check = checkTrace(target);
  if (!quiet) {
    say(target + ": " + std::to_string(processes) +
        (processes == 1 ? " process, " : " processes, ") + std::to_string(records) + " records, " +
        std::to_string(check.messages) + " messages");
  }
  if (check.unmatched != 0) say(std::to_string(check.unmatched) + " of the messages lack one side");
  if (check.early != 0) {
    char text[160];
    std::snprintf(text, sizeof text,
                  "%" PRIu64 " messages were received before they were sent, by at most %.3f us",
                  check.early, static_cast<double>(check.worst) / 1000);
    say(text);
  }
}

void removeSpools(const FinishOptions& options, const std::vector<Process>& processes) {
  for (const Process& process : processes) {
    unlink(process.spoolPath().c_str());
    unlink(process.defsPath().c_str());
  }
  rmdir(options.directory.c_str());  // fails if there are spools of another run
}

// Runs in the child.
[[noreturn]] void execute(const std::vector<std::string>& arguments,
                          const std::vector<std::string>& environment) {
  std::vector<char*> argv;
  std::vector<char*> envp;
  for (const std::string& one : arguments) argv.push_back(const_cast<char*>(one.c_str()));
  for (const std::string& one : environment) envp.push_back(const_cast<char*>(one.c_str()));
  argv.push_back(nullptr);
  envp.push_back(nullptr);
  execvpe(argv[0], argv.data(), environment.empty() ? environ : envp.data());
  _exit(127);
}

}  // namespace

std::string ownDirectory() {
  std::error_code error;
  return std::filesystem::read_symlink("/proc/self/exe", error).parent_path().string();
}

int runProgram(const std::vector<std::string>& arguments,
               const std::vector<std::string>& environment, std::string* output) {
  std::array<int, 2> ends = {-1, -1};
  if (output != nullptr && pipe2(ends.data(), O_CLOEXEC) != 0) return 127;
  const pid_t child = fork();
  if (child == 0) {
    if (output != nullptr) dup2(ends[1], STDOUT_FILENO);
    execute(arguments, environment);
  }
  if (output != nullptr) {
    close(ends[1]);
    std::array<char, 4096> buffer{};
    ssize_t got = 0;
    while ((got = read(ends[0], buffer.data(), buffer.size())) > 0)
      output->append(buffer.data(), static_cast<size_t>(got));
    close(ends[0]);
  }
  int status = 0;
  if (child < 0 || waitpid(child, &status, 0) != child) return 127;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int finish(const FinishOptions& options) {
  std::vector<std::string> problems;
  const std::vector<Process> processes =
      processesOfJob(readSpools(options.directory, problems), options.job);
  if (options.job == 0 || processes.empty()) {
    for (const std::string& problem : problems) say(problem);
  }
  if (processes.empty()) {
    say(options.directory + " has no records");
    return 1;
  }
  const std::string target = targetName(options, processes.front());
  const std::string raw = target + ".raw";
  const ConvertResult result = convert(processes, raw);
  if (!result.error.empty()) {
    say(raw + ": " + result.error);
    return 1;
  }
  reportConversion(result);
  if (merge(options, raw, target) != 0) return 1;
  reportTrace(target, processes.size(), result.records, options.quiet);
  removeSpools(options, processes);
  return 0;
}

}  // namespace record
