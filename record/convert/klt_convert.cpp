// Makes a raw trace of the spools of a run. See klt_convert.h.
#include "record/convert/klt_convert.h"

#include <algorithm>
#include <cstring>
#include <ctime>

#include "klt/klt_writer.h"
#include "record/convert/klt_names.h"
#include "record/convert/klt_thread.h"
#include "record/convert/klt_time.h"

namespace record {
namespace {

// The processes by rank. If a rank has two spools, the newer one counts.
std::vector<const Process*> byRank(std::span<const Process> processes) {
  std::vector<const Process*> ranks(processes.front().header.size, nullptr);
  for (const Process& process : processes) {
    if (process.header.rank >= ranks.size()) ranks.resize(process.header.rank + 1, nullptr);
    const Process*& place = ranks[process.header.rank];
    if (place == nullptr || place->header.realtime < process.header.realtime) place = &process;
  }
  return ranks;
}

uint32_t recordedThreads(const Process& process) {
  return std::clamp(process.header.threads, 1U, KLT_MOST_THREADS);
}

void describeProcess(KLT_TraceWriter* trace, const Process& process) {
  const klt_spool_header& header = process.header;
  const uint32_t threads = recordedThreads(process);
  const std::string name = "Process " + std::to_string(header.rank);
  for (uint32_t t = 0; t < threads; ++t) {
    const uint32_t gtp = KLT_ThreadOf(header.rank, t);
    const std::string thread = t == 0 ? name : name + " Thread " + std::to_string(t);
    KLT_DefineThreadName(trace, gtp, thread.c_str());
    if (t == 0) KLT_DefineHost(trace, gtp, header.host, header.pid);
  }
}

void describeRun(KLT_TraceWriter* trace, std::span<const Process> processes, bool hasOutsiders) {
  const klt_spool_header& header = processes.front().header;
  const auto seconds = static_cast<time_t>(header.realtime / 1000000000U);
  char when[64] = "";
  tm parts{};
  if (gmtime_r(&seconds, &parts) != nullptr)
    std::strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S UTC", &parts);
  KLT_DefineInfo(trace, (std::string("program: ") + header.program).c_str());
  KLT_DefineInfo(trace, (std::string("started: ") + when).c_str());
  if ((header.flags & KLT_SPOOL_SKIPS_POLLS) != 0)
    KLT_DefineInfo(trace, "not recorded: calls that ask for completion and find nothing");
  if (hasOutsiders)
    KLT_DefineInfo(trace, "not recorded: messages with processes outside of this run");
}

class Converter {
 public:
  Converter(KLT_TraceWriter* trace, std::span<const Process> processes, ConvertResult& result)
      : trace_(trace), clock_(processes), names_(trace), result_(result) {}

  void convertProcess(const Process& process) {
    const MappedFile defs(process.defsPath());
    LocalIds ids = names_.define(Process::definitions(defs));
    const MappedFile spool(process.spoolPath());
    const std::vector<ThreadRecords> threads = Process::threads(spool);
    const CrossReferences references(threads);
    const TimeLine& line = clock_.lineOf(process);
    CollectiveCounters counters;
    for (const ThreadRecords& records : threads) {
      result_.records += records.count();
      const bool isMain = records.thread == 0;
      ThreadWriter writer(trace_, names_, ids, line, references, counters,
                          KLT_ThreadOf(process.header.rank, records.thread));
      writer.write(records, isMain ? process.header.start : 0, isMain ? process.header.stop : 0);
    }
    noteEnd(process, line);
  }

  void finish() {
    names_.finish();
    result_.lostCommunicators = names_.lostCommunicators();
  }

 private:
  // A comment where the record of a process ends before its run.
  void noteEnd(const Process& process, const TimeLine& line) {
    const klt_spool_header& header = process.header;
    result_.lostThreads += header.threads - std::min(header.threads, KLT_MOST_THREADS);
    if ((header.flags & KLT_SPOOL_STOPPED) != 0) {
      const std::string text =
          std::string("recording stopped: ") + std::strerror(static_cast<int>(header.stop_errno));
      const double time = std::max(0.0, line.at(header.stop));
      KLT_PutComment(trace_, static_cast<uint64_t>(time), header.rank, text.c_str());
      result_.stopped.push_back(header.rank);
    } else if ((header.flags & KLT_SPOOL_FINALIZED) == 0) {
      result_.unfinished.push_back(header.rank);
    }
  }

  KLT_TraceWriter* trace_;
  RunClock clock_;
  Names names_;
  ConvertResult& result_;
};

}  // namespace

ConvertResult convert(std::span<const Process> processes, const std::string& target) {
  ConvertResult result;
  const KLT_OwnedWriter owner(KLT_CreateTrace(target, {.raw = true}, result.error));
  KLT_TraceWriter* const trace = owner.get();
  if (trace == nullptr) return result;
  const std::vector<const Process*> ranks = byRank(processes);
  std::vector<uint32_t> threads(ranks.size(), 1);
  for (uint32_t p = 0; p < ranks.size(); ++p) {
    if (ranks[p] == nullptr)
      result.missing.push_back(p);
    else
      threads[p] = recordedThreads(*ranks[p]);
  }
  KLT_DefineProcesses(trace, threads);
  result.hasOutsiders = std::any_of(processes.begin(), processes.end(), [](const Process& one) {
    return (one.header.flags & KLT_SPOOL_OUTSIDERS) != 0;
  });
  describeRun(trace, processes, result.hasOutsiders);
  Converter converter(trace, processes, result);
  for (const Process* process : ranks) {
    if (process == nullptr) continue;
    describeProcess(trace, *process);
    converter.convertProcess(*process);
  }
  converter.finish();
  result.error = KLT_FinishTrace(trace);
  return result;
}

}  // namespace record
