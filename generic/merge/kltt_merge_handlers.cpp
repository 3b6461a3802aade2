// Handles the records of a merge. See kltt_merge_handlers.h.
#include "generic/merge/kltt_merge_handlers.h"

#include <algorithm>
#include <charconv>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>

#include "generic/text/RK_output.h"
#include "generic/text/kltt_exit.h"
#include "klt/format/klt_values.h"
#include "klt/write/klt_write.h"

namespace {

KLTM_Context& contextOf(void* user) { return *static_cast<KLTM_Context*>(user); }

// The result of a handler whose write returned `written` bytes.
int result(uint32_t written) { return written == 0 ? 1 : 0; }

using klt::isScl;
bool isScl(const uint32_t* scls) { return scls != nullptr; }

// --- copying ------------------------------------------------------------------------------------

// The field of row To that corresponds to a field of row From. In the variants of a record fields
// have the same names; counts have no name, but the same order.
template <int From, int To>
constexpr size_t sameField(size_t field) {
  const KLT_Row& from = kKltRows[From - 1];
  const KLT_Row& to = kKltRows[To - 1];
  if (!from.fields[field].isCount()) return to.find(from.fields[field].name);
  size_t countsBefore = 0;
  for (size_t f = 0; f < field; ++f) countsBefore += from.fields[f].isCount() ? 1 : 0;
  for (size_t f = 0; f < to.numFields; ++f) {
    if (to.fields[f].isCount() && countsBefore-- == 0) return f;
  }
  return to.numFields;
}

// Writes row N with the arguments of row Long, which may have more fields.
template <int N, int Long, size_t F = 0, class... Picked>
uint32_t writeAs(KLT_WFileHandle* writer, const klt::WriteArguments<Long>& arguments,
                 Picked... picked) {
  constexpr const KLT_Row& row = kKltRows[N - 1];
  if constexpr (F == row.numFields) {
    return KLT_Write<N>(writer, nullptr, picked...);
  } else if constexpr (klt::argumentKind(row, F, klt::isArrayField(row, F)) ==
                       klt::ArgumentKind::kNone) {
    return writeAs<N, Long, F + 1>(writer, arguments, picked...);
  } else {
    constexpr size_t from = klt::argumentIndex<Long>(sameField<N, Long>(F));
    return writeAs<N, Long, F + 1>(writer, arguments, picked..., std::get<from>(arguments));
  }
}

constexpr int shortestRow(std::string_view name) {
  int best = 0;
  unsigned fields = kKltMaxFields + 1;
  for (const KLT_Row& row : kKltRows) {
    if (row.name != name || row.numFields >= fields) continue;
    best = row.number;
    fields = row.numFields;
  }
  return best;
}

// Writes a record in the row with source locations if the record has any, else in the shortest row.
template <KLT_NameText Name, class... Args>
uint32_t copyRecord(KLT_WFileHandle* writer, Args... args) {
  constexpr int kLong = klt::longestRow(Name.view());
  constexpr int kShort = shortestRow(Name.view());
  const klt::WriteArguments<kLong> arguments(args...);
  if constexpr (kShort != kLong) {
    constexpr size_t scl = klt::argumentIndex<kLong>(kKltRows[kLong - 1].find("scl"));
    if (!isScl(std::get<scl>(arguments))) return writeAs<kShort, kLong>(writer, arguments);
  }
  return writeAs<kLong, kLong>(writer, arguments);
}

template <>
uint32_t copyRecord<"one_to_one_communication">(KLT_WFileHandle* writer, uint64_t time,
                                                uint32_t sender, int64_t receiveTime,
                                                uint32_t receiver, uint32_t communicator,
                                                uint32_t size, uint32_t tag, uint32_t senderScl,
                                                uint32_t receiverScl, uint32_t senderChecksum,
                                                uint32_t receiverChecksum, uint32_t senderFunction,
                                                uint32_t receiverFunction) {
  constexpr int kLong = KLT_Row::oneToOneCommunicationChecksums;
  const klt::WriteArguments<kLong> arguments(time, sender, receiveTime, receiver, communicator,
                                             size, tag, senderScl, receiverScl, senderChecksum,
                                             receiverChecksum, senderFunction, receiverFunction);
  if (senderChecksum != 0 || receiverChecksum != 0) return writeAs<kLong, kLong>(writer, arguments);
  const bool located = isScl(senderScl) || isScl(receiverScl);
  if (tag < 0x10000) {
    return located ? writeAs<KLT_Row::oneToOneCommunicationScl, kLong>(writer, arguments)
                   : writeAs<KLT_Row::oneToOneCommunication, kLong>(writer, arguments);
  }
  return located ? writeAs<KLT_Row::oneToOneCommunicationWideScl, kLong>(writer, arguments)
                 : writeAs<KLT_Row::oneToOneCommunicationWide, kLong>(writer, arguments);
}

// --- the summary --------------------------------------------------------------------------------

// SummaryEvent<Name>::report passes a record to the summary; it exists only for some records.
template <KLT_NameText Name>
struct SummaryEvent {};

template <>
struct SummaryEvent<"enter_function"> {
  static void report(KLTT_Summary& summary, uint64_t time, uint32_t thread, uint32_t function,
                     uint32_t scl) {
    summary.function_event(time, thread, function, scl, true);
  }
};
template <>
struct SummaryEvent<"leave_function"> {
  static void report(KLTT_Summary& summary, uint64_t time, uint32_t thread, uint32_t scl) {
    summary.function_event(time, thread, 0, scl, false);
  }
};
template <>
struct SummaryEvent<"report"> {
  static void report(KLTT_Summary& summary, uint64_t time, uint32_t thread, const char* type,
                     const char* level, const char* description, uint32_t n, const uint64_t* times,
                     const uint32_t* willys, const char* const* headers, const uint32_t* functions,
                     const char* const* calls, const uint32_t* scls) {
    summary.report_event({time, thread, type, level, description, n, times, willys, headers,
                          functions, calls, scls});
  }
};
template <>
struct SummaryEvent<"one_to_one_communication"> {
  static void report(KLTT_Summary& summary, uint64_t time, uint32_t sender, int64_t receiveTime,
                     uint32_t receiver, uint32_t communicator, uint32_t size, uint32_t tag,
                     uint32_t senderScl, uint32_t receiverScl, uint32_t /*senderChecksum*/,
                     uint32_t /*receiverChecksum*/, uint32_t senderFunction,
                     uint32_t receiverFunction) {
    summary.message_event({time, receiveTime, sender, receiver, communicator, size, tag, senderScl,
                           receiverScl, senderFunction, receiverFunction});
  }
};
template <>
struct SummaryEvent<"all_communication"> {
  static void report(KLTT_Summary& summary, uint64_t time, uint32_t communicator, uint32_t type,
                     uint32_t n, const uint64_t* start, const uint64_t* delta,
                     const uint32_t* scl) {
    summary.collective_event(time, klt::kNoRoot, communicator, type,
                             {n, start, delta, nullptr, nullptr, scl});
  }
};
template <>
struct SummaryEvent<"all_to_all_communication"> {
  static void report(KLTT_Summary& summary, uint64_t time, uint32_t communicator, uint32_t type,
                     uint32_t n, const uint64_t* start, const uint64_t* delta, const uint32_t* sent,
                     const uint32_t* received, const uint32_t* scl) {
    summary.collective_event(time, klt::kNoRoot, communicator, type,
                             {n, start, delta, sent, received, scl});
  }
};
template <>
struct SummaryEvent<"all_to_one_communication"> {
  static void report(KLTT_Summary& summary, uint64_t time, uint32_t root, uint32_t /*received*/,
                     uint32_t communicator, uint32_t type, uint32_t n, const uint64_t* start,
                     const uint64_t* delta, const uint32_t* sent, const uint32_t* scl) {
    summary.collective_event(time, root, communicator, type, {n, start, delta, sent, nullptr, scl});
  }
};
template <>
struct SummaryEvent<"one_to_all_communication"> {
  static void report(KLTT_Summary& summary, uint64_t time, uint32_t root, uint32_t /*sent*/,
                     uint32_t communicator, uint32_t type, uint32_t n, const uint64_t* start,
                     const uint64_t* delta, const uint32_t* received, const uint32_t* scl) {
    summary.collective_event(time, root, communicator, type,
                             {n, start, delta, nullptr, received, scl});
  }
};

template <KLT_NameText Name, class Handler = KLT_Handler<Name>>
struct Copier;
template <KLT_NameText Name, class... Args>
struct Copier<Name, int (*)(void*, Args...)> {
  static constexpr bool kIsSummarised = requires(KLTT_Summary & s, Args... args) {
    SummaryEvent<Name>::report(s, args...);
  };

  static int handle(void* user, Args... args) {
    KLTM_Context& context = contextOf(user);
    if constexpr (kIsSummarised) {
      if (context.summary != nullptr) SummaryEvent<Name>::report(*context.summary, args...);
      if (context.writer == nullptr) return 0;
    }
    return result(copyRecord<Name>(context.writer, args...));
  }
};

// The handler that copies records with this name.
template <KLT_NameText Name>
constexpr KLT_Handler<Name> kCopy = &Copier<Name>::handle;

// --- other records ------------------------------------------------------------------------------

// The reader swaps values to host order; the handlers of counters swap them back.
int counterDefinition(void* user, uint32_t id, const char* name, uint32_t flags,
                      const uint64_t* bounds, uint32_t gtp, uint32_t classId, const char* unit) {
  constexpr uint32_t kDifferential = 0x80;
  KLTM_Context& context = contextOf(user);
  if (context.summary != nullptr) context.summary->counter_definition(id, flags);
  if (context.writer == nullptr) return 0;
  return result(KLT_Write<KLT_Row::counterDefinition>(
      context.writer, nullptr, id, name, flags & ~kDifferential,
      uint32_t{(flags & kDifferential) != 0}, klt::bigEndian(bounds[0]), klt::bigEndian(bounds[1]),
      gtp, classId, unit));
}

int counterValue(void* user, uint64_t time, uint32_t gtp, uint32_t n, const uint32_t* counters,
                 uint64_t* values) {
  KLTM_Context& context = contextOf(user);
  if (context.summary != nullptr) {
    context.summary->counter_event(time, gtp, n, counters, values);
  }
  if (context.writer == nullptr) return 0;
  for (uint32_t i = 0; i < n; ++i) values[i] = klt::bigEndian(values[i]);
  return result(
      KLT_Write<KLT_Row::counterValue>(context.writer, nullptr, time, gtp, n, values, counters));
}

int communicatorDefinition(void* user, uint32_t id, const char* name, uint32_t n,
                           const PAL_Triplet* members, int32_t leftSize) {
  KLTM_Context& context = contextOf(user);
  KLTM_RegisterCommunicator(context.matching, id, KLTM_ExpandMembers(id, {members, n}));
  const std::vector<int32_t> parts = PAL_TripletsToParallel({members, n});
  const auto* gtps = reinterpret_cast<const uint32_t*>(parts.data());
  return result(KLT_Write<KLT_Row::communicatorDefinition>(context.writer, nullptr, id, name, n,
                                                           gtps, gtps + n,
                                                           parts.data() + 2 * size_t{n}, leftSize));
}

int processDeclaration(void* user, uint32_t n, const uint32_t* threads) {
  KLTM_Context& context = contextOf(user);
  KLTM_DeclareProcesses(context.matching, n);
  return result(KLT_Write<KLT_Row::processDeclaration>(context.writer, nullptr, n, threads));
}

bool isCountsText(const char* text) {
  return text != nullptr && std::string_view(text).starts_with(kKltCountsText);
}

int info(void* user, uint32_t classId, const char* text) {
  KLTM_Context& context = contextOf(user);
  if (!isCountsText(text))
    return result(KLT_Write<KLT_Row::info>(context.writer, nullptr, classId, text));
  context.countsClass = classId;
  return 0;
}

int eventSummary(void* user, uint32_t functions, uint32_t oneToOnes, uint32_t collectives,
                 uint32_t scopes, uint32_t counters) {
  KLTM_Context& context = contextOf(user);
  if (!std::exchange(context.countsSeen, true)) {
    context.counts = {functions, oneToOnes, collectives, scopes, counters};
  }
  return 0;
}

int messageRawEvent(void* user, uint64_t time, uint32_t /*gtp*/, uint32_t kind, uint32_t other,
                    uint32_t tag, uint32_t size, uint32_t comm, uint32_t function, uint32_t scl) {
  KLTM_MatchMessage(contextOf(user).matching, {time, kind, other, tag, size, comm, function, scl});
  return 0;
}

int collopRawEvent(void* user, uint64_t time, uint32_t /*gtp*/, uint32_t kind, uint32_t operation,
                   uint32_t comm, uint32_t counter, uint32_t root, uint32_t send, uint32_t recv,
                   int64_t endtime, uint32_t scl) {
  KLTM_MatchCollective(contextOf(user).matching, {time, static_cast<uint64_t>(endtime), kind,
                                                  operation, comm, counter, root, send, recv, scl});
  return 0;
}

// The statistics of a raw trace aren't copied: new ones are computed for the merged trace.
int functionStatistics(void* /*user*/, uint32_t, uint32_t, uint32_t, uint64_t, uint64_t, uint64_t,
                       uint64_t, uint64_t, uint64_t) {
  RK_OutputWrite(RK_Stdout(), "KLTM_FunctionStatHandler\n");
  return 0;
}
int oneToOneStatistics(void* /*user*/, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t) {
  RK_OutputWrite(RK_Stdout(), "KLTM_OneToOneStatHandler\n");
  return 0;
}

// --- the scan ------------------------------------------------------------------------------------

void skipBlanks(std::string_view& text) {
  text.remove_prefix(std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size()));
}

// Reads `separator` and a number, and removes both from `text`. A blank in `separator` matches any
// number of blanks, including none.
bool readCount(std::string_view& text, std::string_view separator, uint32_t& count) {
  for (const char c : separator) {
    if (c == ' ') {
      skipBlanks(text);
    } else {
      if (!text.starts_with(c)) return false;
      text.remove_prefix(1);
    }
  }
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), count);
  text.remove_prefix(static_cast<size_t>(end - text.data()));
  return error == std::errc();
}

// Also needed without a summary: the counts of the merged trace start from this text or from an
// event_summary record.
int scanInfo(void* user, uint32_t /*classId*/, const char* text) {
  KLTM_Context& context = contextOf(user);
  if (context.countsSeen || !isCountsText(text)) return 0;
  std::string_view rest = std::string_view(text).substr(kKltCountsText.size());
  KLT_EventCounts counts;
  context.countsSeen = readCount(rest, " ", counts.functions) &&
                       readCount(rest, " functions, ", counts.oneToOnes) &&
                       readCount(rest, " onetoones, ", counts.collectives) &&
                       readCount(rest, " collectives, ", counts.scopes) &&
                       readCount(rest, " scopes, ", counts.counters);
  if (context.countsSeen) context.counts = counts;
  return 0;
}

// A slice declares the number of its events only in this record.
int scanEventSummary(void* user, uint32_t functions, uint32_t oneToOnes, uint32_t collectives,
                     uint32_t scopes, uint32_t counters) {
  contextOf(user).sliceCounts = {functions, oneToOnes, collectives, scopes, counters};
  return 0;
}

int scanClock(void* user, double /*resolution*/, uint32_t eventBits) {
  contextOf(user).eventBits = eventBits;
  return 0;
}

int scanDuration(void* user, uint64_t start, uint64_t end) {
  contextOf(user).startTime = start;
  contextOf(user).timeSpan = end - start;
  return 0;
}

int scanThread(void* user, uint32_t gtp, const char*, const char*, uint32_t, uint64_t, double,
               double) {
  contextOf(user).threads.push_back(gtp);
  return 0;
}

int scanCommunicator(void* user, uint32_t id, const char* /*name*/, uint32_t n,
                     const PAL_Triplet* members, int32_t /*leftSize*/) {
  contextOf(user).communicators.insertFirst(id, KLTM_ExpandMembers(id, {members, n}));
  return 0;
}

void setSharedHandlers(KLT_HandlerTable& table) {
  table.all_communication = kCopy<"all_communication">;
  table.all_to_all_communication = kCopy<"all_to_all_communication">;
  table.all_to_one_communication = kCopy<"all_to_one_communication">;
  table.one_to_all_communication = kCopy<"one_to_all_communication">;
  table.one_to_one_communication = kCopy<"one_to_one_communication">;
  table.enter_function = kCopy<"enter_function">;
  table.leave_function = kCopy<"leave_function">;
  table.report = kCopy<"report">;
  table.counter_definition = &counterDefinition;
  table.counter_value = &counterValue;
}

}  // namespace

void KLTM_SetScanHandlers(KLT_HandlerTable& table, KLTM_Context& context) {
  table = KLT_HandlerTable{};
  table.user_data = &context;
  table.clock_resolution = &scanClock;
  table.duration = &scanDuration;
  table.info = &scanInfo;
  table.willy_definition = &scanThread;
  table.communicator_definition = &scanCommunicator;
}

void KLTM_SetCountHandler(KLT_HandlerTable& table, KLTM_Context& context) {
  table = KLT_HandlerTable{};
  table.user_data = &context;
  table.event_summary = &scanEventSummary;
}

void KLTM_SetCopyHandlers(KLT_HandlerTable& table, KLTM_Context& context) {
  table = KLT_HandlerTable{};
  table.user_data = &context;
  setSharedHandlers(table);
  if (context.writer == nullptr) return;
  table.class_definition = kCopy<"class_definition">;
  table.clock_resolution = kCopy<"clock_resolution">;
  table.collective_operation_definition = kCopy<"collective_operation_definition">;
  table.collop_statistics = kCopy<"collop_statistics">;
  table.comment = kCopy<"comment">;
  table.custom_statistics = kCopy<"custom_statistics">;
  table.custom_statistics_definition = kCopy<"custom_statistics_definition">;
  table.duration = kCopy<"duration">;
  table.enter_scope = kCopy<"enter_scope">;
  table.file_definition = kCopy<"file_definition">;
  table.file_io_begin = kCopy<"file_io_begin">;
  table.file_io_end = kCopy<"file_io_end">;
  table.file_io_file_definition = kCopy<"file_io_file_definition">;
  table.function_definition = kCopy<"function_definition">;
  table.group_definition = kCopy<"group_definition">;
  table.leave_scope = kCopy<"leave_scope">;
  table.lw_statistics = kCopy<"lw_statistics">;
  table.opaque_data = kCopy<"opaque_data">;
  table.scl_definition = kCopy<"scl_definition">;
  table.scope_definition = kCopy<"scope_definition">;
  table.willy_definition = kCopy<"willy_definition">;
  table.willy_name = kCopy<"willy_name">;
  table.communicator_definition = &communicatorDefinition;
  table.process_declaration = &processDeclaration;
  table.info = &info;
  table.event_summary = &eventSummary;
  table.message_raw_event = &messageRawEvent;
  table.collop_raw_event = &collopRawEvent;
  table.function_statistics = &functionStatistics;
  table.onetoone_statistics = &oneToOneStatistics;
}

const uint32_t* KLTM_GetIndexInComm(void* context, uint32_t communicator, size_t most,
                                    size_t* count) {
  KLTM_Communicators& communicators = contextOf(context).communicators;
  if (communicator == 0) KLTT_Fatal("%s record without communicator id", "KLTM_GetIndexInComm");
  if (communicators.find(communicator) == nullptr) {
    KLTT_Fatal("%s record with undefined communicator id", "KLTM_GetIndexInComm");
  }
  const std::vector<uint32_t>& members = communicators.membersOf(communicator, most);
  *count = std::min(most, members.size());
  return members.data();
}
