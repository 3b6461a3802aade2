// Runs the passes of an extraction. See kltt_extract.h.
#include "generic/extract/kltt_extract.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "generic/extract/kltt_by_thread.h"
#include "generic/extract/kltt_pass.h"
#include "generic/extract/kltt_perf.h"
#include "generic/extract/kltt_print.h"
#include "generic/extract/kltt_requests.h"
#include "generic/extract/kltt_unmatched.h"
#include "generic/handlers/kltt_collops.h"
#include "generic/handlers/kltt_context.h"
#include "generic/handlers/kltt_events.h"
#include "generic/handlers/kltt_messages.h"
#include "generic/handlers/kltt_tables.h"
#include "generic/options/RK_hint.h"
#include "generic/options/RK_options.h"
#include "generic/sink/RK_wtrace.h"
#include "generic/text/kltt_exit.h"
#include "generic/text/kltt_guard.h"
#include "klt/format/klt_handlers.h"
#include "klt/format/klt_schema.h"
#include "klt/index/klt_intern.h"
#include "klt/klt.h"
#include "klt/write/klt_write.h"
#include "util/pal_error.h"
#include "util/pal_mem.h"
#include "util/pal_util.h"

namespace {

void setTraceHandlers(KLT_HandlerTable& table) {
  table.begin_of_history = &KLTT_BeginOfHistory;
  table.end_of_history = &KLTT_EndOfHistory;
  table.end_of_filter = &KLTT_EndOfFilter;
  table.function_history = &KLTT_FunctionHistory;
  table.function_statistics = &KLTT_FunctionStatistics;
  table.onetoone_statistics = &KLTT_OneToOneStatistics;
  table.collop_statistics = &KLTT_CollopStatistics;
  table.class_definition = &KLTT_ClassDefinition;
  table.collective_operation_definition = &KLTT_CollectiveOperationDefinition;
  table.communicator_definition = &KLTT_CommunicatorDefinition;
  table.counter_definition = &KLTT_CounterDefinition;
  table.file_definition = &KLTT_FileDefinition;
  table.function_definition = &KLTT_FunctionDefinition;
  table.group_definition = &KLTT_GroupDefinition;
  table.process_declaration = &KLTT_ProcessDeclaration;
  table.scl_definition = &KLTT_SclDefinition;
  table.scope_definition = &KLTT_ScopeDefinition;
  table.willy_definition = &KLTT_WillyDefinition;
  table.willy_name = &KLTT_WillyName;
  table.one_to_one_communication = &KLTT_OneToOneCommunication;
  KLTT_Collectives::install(table);
}

void setStatisticsHandlers(KLT_HandlerTable& table) {
  table.custom_statistics_definition = &KLTT_CustomStatisticsDefinition;
  table.custom_statistics = &KLTT_CustomStatistics;
  table.function_profile = &KLTT_FunctionProfile;
  table.onetoone_profile = &KLTT_OneToOneProfile;
  table.collop_profile = &KLTT_CollopProfile;
  table.lw_statistics = &KLTT_LwStatistics;
}

void setEventHandlers(KLT_HandlerTable& table) {
  table.comment = &KLTT_Comment;
  table.counter_value = &KLTT_CounterValue;
  table.enter_function = &KLTT_EnterFunction;
  table.enter_scope = &KLTT_EnterScope;
  table.file_io_begin = &KLTT_FileIoBegin;
  table.file_io_end = &KLTT_FileIoEnd;
  table.file_io_file_definition = &KLTT_FileIoFileDefinition;
  table.info = &KLTT_Info;
  table.leave_function = &KLTT_LeaveFunction;
  table.leave_scope = &KLTT_LeaveScope;
  table.opaque_data = &KLTT_OpaqueData;
}

// Opens the sink that the options select; null if they select none. Ends the process if it can't be
// opened.
RK_Sink* openSink(const KLT_FileHandle* handle, KLTT_Context& context) {
  const PAL_Place here;
  if (!RK_conf.logfile_name_set || RK_conf.remove != 0 || RK_conf.move != 0) return nullptr;
  const char* name = RK_conf.logfile_name.c_str();
  const std::string& directory = RK_conf.current_dir;
  const RK_SinkSettings settings{.directory = directory.empty() ? nullptr : directory.c_str(),
                                 .extended = RK_conf.extended_rkf != 0,
                                 .singleFile = RK_conf.output_single_file != 0};
  RK_Sink* sink = nullptr;
  if (RK_conf.output_format == 0) {
    sink = RK_SinkOpenAscii(name, 0, settings);
  } else {
    if (handle->flags & 1) {
      PAL_Warning("raw events of %s are not extracted, merge the trace first",
                  PAL_Printable(handle->base).c_str());
    }
    // The profiles drop the bits of internal times that can count events within a tick.
    const KLT_StatsParameters statistics{&KLTT_MembersForStats, &context,
                                         std::min(context.eventBits, kKlttEventBits)};
    KLT_WFileHandle* const writer =
        RK_OpenWriter(name, statistics, KLTT_InputFiles(handle), settings);
    if (writer != nullptr) writer->texts = handle->texts;
    sink = RK_SinkOpenKlt(writer, name, context.pending);
  }
  if (sink == nullptr) {
    const int error = errno;
    const std::string shown = PAL_Printable(RK_conf.logfile_name);
    std::fprintf(stderr, "Could not open file %s for writing.\n", shown.c_str());
    // The writer of a trace has already reported the reason.
    if (RK_conf.output_format == 0) RK_Hint("%s: %s", shown.c_str(), std::strerror(error));
    KLTT_Exit(1);
  }
  // With PRINT-STATISTICS the output has definitions only, and their times stay internal.
  if (RK_conf.print_statistics == 0) {
    sink->timeShift =
        static_cast<int32_t>(kKlttEventBits) - static_cast<int32_t>(context.eventBits);
  }
  // A listing must not be written into a trace.
  if (sink->kind == 1 && sink->name == "-") context.listing = RK_Stderr();
  return sink;
}

// The threads that at least one request selects; empty for all.
PAL_Triplets selectedThreads(const std::vector<KLT_Request>& requests) {
  PAL_Triplets all;
  for (const KLT_Request& request : requests) {
    if (request.threads.empty()) return {};
    all.insert(all.end(), request.threads.begin(), request.threads.end());
  }
  return PAL_TripletsUnite(all, {});
}

// Completes the output, if there is one. False if it is incomplete.
bool closeSink(KLTT_Context& context) {
  return RK_SinkClose(std::exchange(context.sink, nullptr), 0) == 0;
}

// Frees the sink if the extraction is left early: KLTT_exitHook may throw instead of ending the
// process.
class SinkKeeper {
 public:
  explicit SinkKeeper(KLTT_Context& context) : context_(context) {}
  ~SinkKeeper() { RK_SinkAbandon(context_.sink); }
  SinkKeeper(const SinkKeeper&) = delete;
  SinkKeeper& operator=(const SinkKeeper&) = delete;

 private:
  KLTT_Context& context_;
};

// Says that a listing which began at `start` bytes of output is empty.
void noteEmptyListing(const KLTT_Context& context, uint64_t start, const char* what) {
  if (RK_OutputBytes(context.listing) == start) RK_Hint("The trace contains no %s.", what);
}

void listThreads(KLTT_PassRunner& passes, KLTT_Context& context) {
  const uint64_t start = RK_OutputBytes(context.listing);
  KLT_HandlerTable table;
  table.user_data = &context;
  table.willy_definition = &KLTT_ListThread;
  passes.run(KLT_MODE_DEFINITIONS, table, {}, 1);
  noteEmptyListing(context, start, "information about native threads");
}

// Lists statistics or reports. `table` is that of the definition pass; its handlers of statistics
// print because there is no sink.
void list(KLTT_PassRunner& passes, KLTT_Context& context, KLT_HandlerTable& table, int serial,
          uint64_t start) {
  const bool reports = RK_conf.print_statistics == 0;
  KLT_Request request;
  request.categories = klt::kStatistics;
  if (reports) {
    request.categories = klt::kErrors;
    KLTT_InitHandlers(table, context, KLTT_SET_REPORTS);
  }
  passes.run(KLT_MODE_EVENTS, table, std::span(&request, 1), serial);
  noteEmptyListing(context, start, reports ? "reports" : "statistics");
}

// Gathers the operations of the trace and measures how fast the reader finds them.
void testPerformance(KLTT_PassRunner& passes, KLTT_Context& context, int serial) {
  std::fputs("Gettings collops for performance test...\n", stderr);
  KLT_HandlerTable table;
  KLTT_InitHandlers(table, context, KLTT_SET_PERFTEST);
  KLT_Request request;
  request.categories = klt::kCollops;
  passes.run(KLT_MODE_EVENTS, table, std::span(&request, 1), serial);
  std::fprintf(stderr, "Doing performance test, %d different collective operations.\n",
               static_cast<int>(context.perfEnds.size()));

  // The events that the readers deliver are handled as usual, but must not be written.
  RK_Sink* const sink = std::exchange(context.sink, nullptr);
  KLTT_InitHandlers(table, context, KLTT_SET_EVENTS);
  for (const bool allProcesses : {false, true}) {
    for (const bool subset : {true, false}) {
      KLTT_PerfTest(context, table, passes, RK_conf.perftest, {subset, allProcesses});
    }
  }
  context.sink = sink;
}

// Whether to show progress: on request, on a terminal, and only if the output is a file.
bool showsProgress() {
  return RK_conf.verbose >= 2 && RK_conf.logfile_name_set && RK_conf.logfile_name != "-" &&
         isatty(STDERR_FILENO) == 1;
}

// The requests of the event pass. None, as always with CONVERT and MERGE, means all events.
std::vector<KLT_Request> requestsOf(const KLTT_Context& context) {
  if (RK_conf.convert != 0 || RK_conf.merge != 0) return {};
  return KLTT_BuildRequests(context, RK_conf.request, RK_conf.ticks != 0);
}

}  // namespace

void KLTT_InitHandlers(KLT_HandlerTable& table, KLTT_Context& context, uint32_t sets) {
  table = KLT_HandlerTable{};
  table.user_data = &context;
  if ((sets & KLTT_SET_TRACE) != 0) setTraceHandlers(table);
  if ((sets & KLTT_SET_STATISTICS) != 0) setStatisticsHandlers(table);
  if ((sets & KLTT_SET_CLOCK) != 0) {
    table.clock_resolution = &KLTT_ClockResolution;
    table.duration = &KLTT_Duration;
  }
  if ((sets & KLTT_SET_PROCESSES) != 0) table.process_declaration = &KLTT_ProcessDeclaration;
  if ((sets & KLTT_SET_EVENTS) != 0) setEventHandlers(table);
  if ((sets & KLTT_SET_PERFTEST) != 0) {
    KLTT_CollectiveHandlers<&KLTT_GatherCollective>::install(table);
  }
  if ((sets & KLTT_SET_REPORTS) != 0) table.report = &KLTT_Report;
}

namespace {

constexpr int kRefused = -1;

// Writes the events that the requests select. False if they have to be merged by time and aren't.
bool extractEvents(const KLT_FileHandle* handle, KLTT_PassRunner& passes, KLTT_Context& context,
                   const KLT_HandlerTable& table, int serial, bool byThread) {
  const RK_Sink& sink = *context.sink;
  const std::vector<KLT_Request> requests = requestsOf(context);
  const bool isTrace = sink.kind == 1;
  if (isTrace) KLT_WriterListThreads(sink.writer, selectedThreads(requests));
  context.frames = RK_FrameWriterCreate();
  // A trace must contain each record once, even if several windows contain it.
  const int mode = isTrace ? KLT_MODE_EVENTS_ONCE : KLT_MODE_EVENTS;
  const auto events = [&] { return sink.amount() - context.commentAmount; };
  const uint64_t before = events();
  if (isTrace && byThread) {
    const auto threads = std::make_unique<KLTT_ByThread>(context, table);
    if (!passes.runByThread(mode, *threads, requests)) return false;
  } else {
    passes.run(mode, table, requests, serial);
  }
  KLTT_DrainDelayed(context);
  RK_FrameWriterFinish(context.frames);
  if (events() == before) KLTT_ExplainNothing(context, requests);
  if (!isTrace && (handle->flags & 1) != 0) {
    RK_Hint("%s is a raw trace. Its messages and collective operations appear after --merge.",
            PAL_Printable(handle->base).c_str());
  }
  return true;
}

// An extraction. Returns the status, or kRefused if `byThread` isn't possible.
int extract(KLT_FileHandle* handle, int serial, bool byThread) {
  const auto owner = std::make_unique<KLTT_Context>();  // it is too large for a small stack
  KLTT_Context& context = *owner;
  context.names = handle->texts;
  const SinkKeeper keeper(context);
  KLT_HandlerTable table;
  KLTT_PassRunner passes(handle, context, showsProgress());
  context.matched = RK_conf.matched_rkf != 0;

  KLTT_InitHandlers(table, context, KLTT_SET_CLOCK | KLTT_SET_PROCESSES);
  passes.run(KLT_MODE_DEFINITIONS, table, {}, serial);
  if (RK_conf.print_threads != 0) {
    listThreads(passes, context);
    return passes.status();
  }

  const bool listing = RK_conf.print_statistics != 0 || RK_conf.print_reports != 0;
  RK_Sink* sink = openSink(handle, context);
  context.sink = sink;
  const uint64_t listingStart = RK_OutputBytes(context.listing);
  uint32_t sets = KLTT_SET_TRACE | KLTT_SET_EVENTS | KLTT_SET_CLOCK | KLTT_SET_PROCESSES;
  if (RK_conf.print_statistics != 0) sets |= KLTT_SET_STATISTICS;
  KLTT_InitHandlers(table, context, sets);
  passes.run(KLT_MODE_DEFINITIONS, table, {}, serial);
  if (sink != nullptr && sink->output != nullptr) RK_OutputFlush(sink->output);

  if (listing) {
    passes.noteOutput(closeSink(context));
    list(passes, context, table, serial, listingStart);
  } else if (sink != nullptr && RK_conf.perftest != 0) {
    testPerformance(passes, context, serial);
    passes.noteOutput(closeSink(context));
  } else if (sink != nullptr) {
    if (!extractEvents(handle, passes, context, table, serial, byThread)) return kRefused;
    passes.noteOutput(closeSink(context));
  }
  return passes.status();
}

}  // namespace

int KLTT_Extract(KLT_FileHandle* handle, int serial) {
  const PAL_Place here;
  const bool byThread = serial != 0 && PAL_fast != PAL_Fast::kNever;
  const int status = extract(handle, serial, byThread);
  return status == kRefused ? extract(handle, serial, false) : status;
}
