// Prints listings. See kltt_print.h.
#include "generic/extract/kltt_print.h"

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "generic/handlers/kltt_context.h"
#include "generic/text/RK_output.h"
#include "generic/text/kltt_exit.h"
#include "klt/format/klt_values.h"
#include "klt/index/klt_files.h"

namespace {

using klt::processOf;
using klt::threadOf;
using Number = unsigned long long;  // the type of %llu

KLTT_Context& contextOf(void* user) { return *static_cast<KLTT_Context*>(user); }

const char* shown(const char* text) { return text == nullptr ? "(null)" : text; }

int result(const RK_Output* out) { return RK_OutputFailed(out) ? 1 : 0; }

void writeHeader(bool* written, RK_Output* out, std::string_view line) {
  if (*written) return;
  *written = true;
  RK_OutputWrite(out, line);
}

}  // namespace

// --- files and threads --------------------------------------------------------------------------

void KLTT_PrintFiles(const KLT_FileHandle* handle) {
  std::vector<std::string> names;
  std::vector<uint64_t> sizes;
  const size_t count = KLT_FileList(handle, &names, &sizes);
  size_t width = 0;
  for (const std::string& name : names) width = std::max(width, name.size());
  for (size_t i = 0; i < count; ++i) {
    RK_OutputPrintf(RK_Stdout(), "%-*s %10llu bytes\n", static_cast<int>(width), names[i].c_str(),
                    Number{sizes[i]});
  }
}

int KLTT_ListThread(void* user, uint32_t gtp, const char* hostname, const char* ip, uint32_t pid,
                    uint64_t tid, double offset, double skew) {
  const KLTT_Context& context = contextOf(user);
  const uint32_t process = processOf(gtp);
  if (process >= context.threadCounts.size()) return 0;
  if (threadOf(gtp) >= context.threadCounts[process]) return 0;
  RK_Output* out = context.listing;
  RK_OutputPrintf(out, "PROCESS %u\nTHREAD %u\nHOSTNAME %s\n", process, threadOf(gtp),
                  hostname == nullptr ? "" : hostname);
  std::string_view addresses = ip == nullptr ? "" : ip;
  while (!addresses.empty()) {
    const size_t comma = std::min(addresses.find(','), addresses.size());
    if (comma > 0) {
      RK_OutputWrite(out, "IP ");
      RK_OutputWrite(out, addresses.substr(0, comma));
      RK_OutputWrite(out, "\n");
    }
    addresses.remove_prefix(std::min(comma + 1, addresses.size()));
  }
  const auto local = [&](int64_t time) { return static_cast<double>(time) * skew + offset; };
  RK_OutputPrintf(out, "PID %llu\nTID %llu\nSTART %.6f\nEND %.6f\n\n", Number{pid}, Number{tid},
                  local(context.startTime), local(context.endTime));
  return result(out);
}

// --- statistics ---------------------------------------------------------------------------------

int KLTT_FunctionStatistics(void* user, uint32_t function, uint32_t gtp, uint32_t calls,
                            uint64_t minSelf, uint64_t maxSelf, uint64_t totalSelf,
                            uint64_t minInclusive, uint64_t maxInclusive, uint64_t totalInclusive) {
  const KLTT_Context& context = contextOf(user);
  if (function == 0) KLTT_Fatal("function id is zero");
  const KLTT_Named* named = context.functions.find(function);
  if (named == nullptr) {
    KLTT_Fatal("statistics for undefined function #%d", static_cast<int>(function));
  }
  const KLTT_Class* classOf = context.classes.find(named->extra);
  if (classOf == nullptr) {
    KLTT_Fatal("statistics for function #%d with undefined class", static_cast<int>(function));
  }
  const auto seconds = [&](uint64_t ticks) {
    return static_cast<double>(static_cast<int64_t>(ticks)) * context.clockPeriod;
  };
  RK_OutputWrite(context.listing, "INFO ACTSTATS ");
  for (const char* part : KLTT_ClassParts(context.classes, *classOf)) {
    RK_OutputWrite(context.listing, part);
    RK_OutputWrite(context.listing, ":");
  }
  RK_OutputPrintf(context.listing, "%s:%u:%u:%e:%e:%e:%e:%e:%e\n", named->name, gtp, calls,
                  seconds(minSelf), seconds(maxSelf), seconds(totalSelf), seconds(minInclusive),
                  seconds(maxInclusive), seconds(totalInclusive));
  return result(context.listing);
}

int KLTT_OneToOneStatistics(void* /*user*/, uint32_t /*sender*/, uint32_t /*receiver*/,
                            uint32_t /*count*/, uint32_t /*minSize*/, uint32_t /*maxSize*/,
                            uint32_t /*total*/) {
  return 0;
}

int KLTT_CollopStatistics(void* user, uint32_t /*numprocs*/, uint32_t type, uint32_t /*count*/) {
  if (type == 0) KLTT_Fatal("collective operation id is zero");
  if (contextOf(user).collops.indexOf(type) == 0) {
    KLTT_Fatal("statistics for undefined collection operation #%d", static_cast<int>(type));
  }
  return 0;
}

int KLTT_CustomStatisticsDefinition(void* user, uint32_t id, const char* name, uint32_t count,
                                    const char* const* labels, const char* const* units) {
  KLTT_Context& context = contextOf(user);
  if (context.sink != nullptr) {
    return context.sink->statisticsDefinition(id, name, count, labels, units);
  }
  KLTT_TableInsert(context.statistics, *context.names, id, shown(name), 0);
  RK_Output* out = context.listing;
  RK_OutputPrintf(out, "# %s ", shown(name));
  for (uint32_t i = 0; i < count; ++i) {
    RK_OutputPrintf(out, "%s<%s (%s)>", i == 0 ? "" : ":", shown(labels[i]), shown(units[i]));
  }
  RK_OutputWrite(out, "\n");
  return result(out);
}

int KLTT_CustomStatistics(void* user, uint32_t id, const char* name, uint32_t count,
                          const double* values) {
  const KLTT_Context& context = contextOf(user);
  if (context.sink != nullptr) return 0;
  if (id == 0) KLTT_Fatal("stats id is zero");
  const KLTT_Named* statistics = context.statistics.find(id);
  if (statistics == nullptr) {
    KLTT_Fatal("entry for undefined statistics #%d", static_cast<int>(id));
  }
  RK_Output* out = context.listing;
  RK_OutputPrintf(out, "INFO %s \"%s\"", statistics->name, shown(name));
  for (uint32_t i = 0; i < count; ++i) RK_OutputPrintf(out, ":%e", values[i]);
  RK_OutputWrite(out, "\n");
  return result(out);
}

int KLTT_LwStatistics(void* user, uint32_t gtp, uint32_t function, uint32_t receiver,
                      uint32_t bytesSent, int32_t commSize, uint32_t count, uint64_t minInclusive,
                      uint64_t maxInclusive, uint64_t sumInclusive, uint64_t minExclusive,
                      uint64_t maxExclusive, uint64_t sumExclusive) {
  const KLTT_Context& context = contextOf(user);
  if (context.sink != nullptr) return 0;
  RK_OutputPrintf(context.listing, "INFO LWSTATS %u:%u:%u:%u:%d:%u:%llu:%llu:%llu:%llu:%llu:%llu\n",
                  gtp, function, receiver, bytesSent, commSize, count, Number{minExclusive},
                  Number{maxExclusive}, Number{sumExclusive}, Number{minInclusive},
                  Number{maxInclusive}, Number{sumInclusive});
  return result(context.listing);
}

// --- profiles -----------------------------------------------------------------------------------

int KLTT_FunctionProfile(void* user, uint32_t gtp, uint32_t function, uint32_t count,
                         uint64_t minSelf, uint64_t maxSelf, uint64_t totalSelf,
                         uint64_t minInclusive, uint64_t maxInclusive, uint64_t totalInclusive) {
  KLTT_Context& context = contextOf(user);
  if (context.sink != nullptr) return 0;
  RK_Output* out = context.listing;
  writeHeader(&context.functionHeader, out,
              "# FUNCTION_PROFILE <willy>:<func>:<count>:<min_self>:<max_self>:<total_self>:"
              "<min_inclusive>:<max_inclusive>:<total_inclusive>\n");
  RK_OutputPrintf(out, "INFO FUNCTION_PROFILE %u:%u:%u:%llu:%llu:%llu:%llu:%llu:%llu\n", gtp,
                  function, count, Number{minSelf}, Number{maxSelf}, Number{totalSelf},
                  Number{minInclusive}, Number{maxInclusive}, Number{totalInclusive});
  return result(out);
}

int KLTT_OneToOneProfile(void* user, uint32_t sender, uint32_t receiver, uint32_t senderFunction,
                         uint32_t receiverFunction, uint32_t tag, uint32_t comm, uint32_t size,
                         uint32_t count, int64_t sumTime, int64_t minTime, int64_t maxTime) {
  KLTT_Context& context = contextOf(user);
  if (context.sink != nullptr) return 0;
  RK_Output* out = context.listing;
  writeHeader(&context.messageHeader, out,
              "# ONE2ONE_PROFILE  <sender>:<receiver>:<func_sender>:<func_receiver>:<tag>:"
              "<communicator>:<size>:<count>:<min_time>:<max_time>:<total_time>\n");
  RK_OutputPrintf(out, "INFO ONE2ONE_PROFILE %u:%u:%u:%u:%u:%u:%u:%u:%lld:%lld:%lld\n", sender,
                  receiver, senderFunction, receiverFunction, tag, comm, size, count,
                  static_cast<long long>(minTime), static_cast<long long>(maxTime),
                  static_cast<long long>(sumTime));
  return result(out);
}

int KLTT_CollopProfile(void* user, uint32_t type, uint32_t root, uint32_t comm, uint32_t n,
                       const uint32_t* counts, const uint32_t* minSent, const uint32_t* maxSent,
                       const uint32_t* sumSent, const uint32_t* minReceived,
                       const uint32_t* maxReceived, const uint32_t* sumReceived,
                       const double* minRate, const double* maxRate, const double* averageRate,
                       const uint64_t* minDuration, const uint64_t* maxDuration,
                       const uint64_t* sumDuration) {
  KLTT_Context& context = contextOf(user);
  if (context.sink != nullptr) return 0;
  RK_Output* out = context.listing;
  writeHeader(&context.collectiveHeader, out,
              "# COLLOP_PROFILE  <type>:<root>:<communicator>:<index of process>:<count>:"
              "<min_byte_sent>:<max_byte_sent>:<sum_byte_sent>:<min_byte_recv>:<max_byte_recv>:"
              "<sum_byte_recv>:<min_rate>:<max_rate>:<avg_rate>:<min_duration>:<max_duration>:"
              "<sum_duration>\n");
  for (uint32_t i = 0; i < n; ++i) {
    RK_OutputPrintf(out, "INFO COLLOP_PROFILE %u:%u:%u:%d", type, root, comm, static_cast<int>(i));
    RK_OutputPrintf(out, ":%u:%u:%u:%u:%u:%u:%u:%f:%f:%f", counts[i], minSent[i], maxSent[i],
                    sumSent[i], minReceived[i], maxReceived[i], sumReceived[i], minRate[i],
                    maxRate[i], averageRate[i]);
    RK_OutputPrintf(out, ":%llu:%llu:%llu\n", Number{minDuration[i]}, Number{maxDuration[i]},
                    Number{sumDuration[i]});
  }
  return result(out);
}

// --- reports ------------------------------------------------------------------------------------

namespace {

// Writes every line of `text` with `prefix` and `indent` before it, and a newline at the end. So an
// empty line follows a text that ends in a line break.
void writeLines(RK_Output* out, std::string_view prefix, std::string_view indent,
                const char* text) {
  std::string_view rest = text == nullptr ? "" : text;
  while (!rest.empty()) {
    const size_t end = std::min(rest.find_first_of("\r\n"), rest.size());
    RK_OutputWrite(out, prefix);
    RK_OutputWrite(out, indent);
    RK_OutputWrite(out, rest.substr(0, end));
    if (end < rest.size()) RK_OutputWrite(out, "\n");
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
  RK_OutputWrite(out, "\n");
}

}  // namespace

int KLTT_Report(void* user, uint64_t /*time*/, uint32_t gtp, const char* type, const char* level,
                const char* description, uint32_t n, const uint64_t* /*times*/,
                const uint32_t* /*gtps*/, const char* const* headers, const uint32_t* /*functions*/,
                const char* const* calls, const uint32_t* /*scls*/) {
  const KLTT_Context& context = contextOf(user);
  if (context.sink != nullptr) return 0;
  RK_Output* out = context.listing;
  const bool warning = level != nullptr && std::string_view(level) == "warning";
  const std::string prefix =
      '[' + std::to_string(processOf(gtp)) + (warning ? "] WARNING:" : "] ERROR:");
  RK_OutputPrintf(out, "%s %s\n", prefix.c_str(), shown(type));
  writeLines(out, prefix, "   ", description);
  for (uint32_t i = 0; i < n; ++i) {
    writeLines(out, prefix, "     ", headers[i]);
    RK_OutputPrintf(out, "%s     %s\n", prefix.c_str(), shown(calls[i]));
  }
  RK_OutputWrite(out, "\n");
  return result(out);
}
