// Builds tables. See kla_tables.h.
#include "analyze/tables/kla_tables.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <memory>
#include <numeric>
#include <tuple>
#include <utility>

#include "analyze/tables/kla_profile.h"
#include "analyze/tables/kla_text.h"

namespace kla {

namespace {

constexpr std::array<TableKind, 10> kKinds{{
    {"overview",
     "the run at a glance (the default)",
     &overviewTable,
     {.messages = true, .collectives = true, .scopes = true, .counters = true, .files = true}},
    {"functions", "calls and times of functions, compared over processes", &functionsTable, {}},
    {"callpaths", "the same by call path", &callPathsTable, {.paths = true}},
    {"messages", "messages by sender and receiver", &messagesTable, {.messages = true}},
    {"message_sizes", "messages by size", &messageSizesTable, {.messages = true}},
    {"collectives", "collective operations", &collectivesTable, {.collectives = true}},
    {"waits", "who waits in which call for whom", &waitsTable, {.waits = true}},
    {"efficiency", "parallel efficiency, also over time with --bins", &efficiencyTable, {}},
    {"counters", "samples of counters", &countersTable, {.counters = true}},
    {"io", "operations on files", &filesTable, {.files = true}},
}};

std::string label(const Analysis& analysis, uint32_t thread) {
  return thread == kNone ? "" : threadLabel(analysis.calls[thread].gtp());
}
// A key that sorts threads by process, then by thread.
uint32_t order(const Analysis& analysis, uint32_t thread) {
  if (thread == kNone) return kNone;
  return threadOrder(analysis.calls[thread].gtp());
}

Real ratio(double part, double whole) { return {whole > 0 ? part / whole : 0}; }
Cell meanOf(const Analysis& analysis, const MessageTotals& totals) {
  if (totals.timed == 0) return {};
  return Real{analysis.seconds(totals.ticks) / static_cast<double>(totals.timed)};
}

// The cells that functions and call paths have in common, after their names.
void appendTimes(std::vector<Cell>& cells, const ProfileRow& row, size_t processes, Sum whole) {
  const double mean = row.mean(processes);
  cells.insert(cells.end(),
               {row.calls, Ticks{row.inclusive}, Ticks{row.exclusive},
                ratio(100 * static_cast<double>(row.exclusive), static_cast<double>(whole)),
                Ticks{row.least}, Ticks{static_cast<Sum>(std::round(mean))}, Ticks{row.most},
                ratio(static_cast<double>(row.most), mean), uint64_t{row.mostProcess}});
}
void appendTimeColumns(std::vector<Column>& columns) {
  columns.insert(columns.end(), {{"calls"},
                                 {"inclusive_s"},
                                 {"exclusive_s"},
                                 {"percent", true, "%"},
                                 {"exclusive_min_s", false, "min_s"},
                                 {"exclusive_mean_s", false, "mean_s"},
                                 {"exclusive_max_s", false, "max_s"},
                                 {"imbalance", false, "max/mean"},
                                 {"max_process", false, "at"}});
}

bool isCostlier(const ProfileRow& a, const ProfileRow& b) {
  return a.exclusive != b.exclusive ? a.exclusive > b.exclusive : a.function < b.function;
}

Sum wholeTime(const Analysis& analysis) {
  const Window span = analysis.span();
  return Sum{span.end - span.start} * analysis.threadCount();
}

// The call paths and their texts: names joined by ";".
class PathTexts {
 public:
  // `change` is applied to each name. `analysis` must be kept.
  PathTexts(const Analysis& analysis, std::string (*change)(const std::string&))
      : analysis_(analysis),
        change_(change),
        profile_(pathProfile(analysis)),
        names_(analysis.definitions.functions.size()) {}

  [[nodiscard]] const Profile& rows() const { return profile_.rows; }
  [[nodiscard]] std::string text(uint32_t row) {
    if (row == 0) return functionName(analysis_, kNone);
    functions_.clear();
    for (; row != 0; row = static_cast<uint32_t>(profile_.paths[row - 1] >> 32)) {
      functions_.push_back(static_cast<uint32_t>(profile_.paths[row - 1]));
    }
    std::string text;
    text.reserve(longest_);
    for (size_t i = functions_.size(); i-- > 0;) {
      text += name(functions_[i]);
      if (i != 0) text += ';';
    }
    longest_ = std::max(longest_, text.size());
    return text;
  }

 private:
  const std::string& name(uint32_t function) {
    std::string& name = names_[function];
    if (name.empty()) name = change_(analysis_.definitions.functionName(function));
    return name;
  }

  const Analysis& analysis_;
  std::string (*change_)(const std::string&);
  PathProfile profile_;
  std::vector<std::string> names_;  // by function; empty until they are used
  std::vector<uint32_t> functions_;
  size_t longest_ = 0;  // text
};

// The numbers of the rows, the one with the longest exclusive time first.
std::vector<uint32_t> costliestFirst(const Profile& profile) {
  // A sum of times of 64 bits over at most 2^31 threads.
  struct Key {
    uint32_t high, row;
    uint64_t low;
  };
  std::vector<Key> keys;
  keys.reserve(profile.size());
  for (const ProfileRow& row : profile) {
    keys.push_back({static_cast<uint32_t>(row.exclusive >> 64), static_cast<uint32_t>(keys.size()),
                    static_cast<uint64_t>(row.exclusive)});
  }
  std::sort(keys.begin(), keys.end(), [](const Key& a, const Key& b) {
    return std::tuple(a.high, a.low, b.row) > std::tuple(b.high, b.low, a.row);
  });
  std::vector<uint32_t> rows;
  rows.reserve(keys.size());
  for (const Key& key : keys) rows.push_back(key.row);
  return rows;
}

// Adds the five functions with the longest exclusive time.
void appendCostliest(const Analysis& analysis, Table& table) {
  Profile profile = functionProfile(analysis);
  std::erase_if(profile, [](const ProfileRow& row) { return row.function == kNone; });
  std::sort(profile.begin(), profile.end(), &isCostlier);
  for (size_t i = 0; i < std::min<size_t>(5, profile.size()); ++i) {
    table.rows.push_back({"costliest_" + std::to_string(i + 1) + "_s", Ticks{profile[i].exclusive},
                          functionName(analysis, profile[i].function)});
  }
}

// The bytes of a class of message sizes.
std::pair<uint64_t, uint64_t> sizesOf(size_t sizeClass) {
  if (sizeClass == 0) return {0, 0};
  return {uint64_t{1} << (sizeClass - 1), (uint64_t{1} << sizeClass) - 1};
}

}  // namespace

std::span<const TableKind> tableKinds() { return kKinds; }

const TableKind* findTable(std::string_view name) {
  const auto found = std::find_if(kKinds.begin(), kKinds.end(),
                                  [&](const TableKind& kind) { return kind.name == name; });
  return found == kKinds.end() ? nullptr : &*found;
}

std::string functionName(const Analysis& analysis, uint32_t function) {
  return function == kNone ? "(no call)" : analysis.definitions.functionName(function);
}

EfficiencyRow wholeEfficiency(const Analysis& analysis) {
  std::vector<Time> mpi;
  for (const Analysis::Process& process : analysis.processes()) {
    mpi.push_back(analysis.calls[process.threads.front()].mpiTime);
  }
  return efficiencyOf(analysis.span(), mpi);
}

Table overviewTable(const Analysis& analysis) {
  Table table{"overview", {{"item"}, {"value"}, {"name"}}, {}};
  const auto add = [&](const char* item, Cell value) {
    table.rows.push_back({item, std::move(value), ""});
  };
  const Window span = analysis.span();
  Sum inMpi = 0;
  const std::vector<Analysis::Process> processes = analysis.processes();
  for (const Analysis::Process& process : processes) {
    for (const uint32_t thread : process.threads) inMpi += analysis.calls[thread].mpiTime;
  }
  uint64_t fileOperations = 0;
  for (const auto& row : analysis.files.rows()) fileOperations += row.count;
  add("from_s", Ticks{span.start});
  add("to_s", Ticks{span.end});
  add("span_s", Ticks{span.end - span.start});
  add("processes", uint64_t{processes.size()});
  add("threads", analysis.threadCount());
  add("calls", analysis.enters);
  add("messages", analysis.messages.count);
  add("collectives", analysis.collectives.count());
  add("scopes", analysis.scopes);
  add("counter_samples", analysis.samples.count);
  add("file_operations", fileOperations);
  add("mpi_s", Ticks{inMpi});
  add("outside_mpi_s", Ticks{wholeTime(analysis) - inMpi});
  appendCostliest(analysis, table);
  const EfficiencyRow efficiency = wholeEfficiency(analysis);
  add("parallel_efficiency", Real{efficiency.parallel});
  add("load_balance", Real{efficiency.loadBalance});
  add("communication_efficiency", Real{efficiency.communication});
  add("unmatched_messages", analysis.messages.unmatched);
  add("received_before_sent", analysis.messages.reversed);
  return table;
}

Table functionsTable(const Analysis& analysis) {
  Table table{"functions", {{"function"}, {"class"}}, {}};
  appendTimeColumns(table.columns);
  Profile profile = functionProfile(analysis);
  std::sort(profile.begin(), profile.end(), &isCostlier);
  const size_t processes = analysis.processes().size();
  const Sum whole = wholeTime(analysis);
  for (const ProfileRow& row : profile) {
    std::vector<Cell> cells{functionName(analysis, row.function)};
    cells.emplace_back(row.function == kNone ? ""
                                             : analysis.definitions.className(
                                                   analysis.definitions.functions[row.function]));
    appendTimes(cells, row, processes, whole);
    table.rows.push_back(std::move(cells));
  }
  return table;
}

Table callPathsTable(const Analysis& analysis) {
  Table table{"callpaths", {{"path"}}, {}};
  appendTimeColumns(table.columns);
  const auto paths =
      std::make_shared<PathTexts>(analysis, [](const std::string& name) { return name; });
  table.count = paths->rows().size();
  const size_t processes = analysis.processes().size();
  const Sum whole = wholeTime(analysis);
  table.rowAt = [=, order = costliestFirst(paths->rows())](size_t index) {
    Row cells{paths->text(order[index])};
    appendTimes(cells, paths->rows()[order[index]], processes, whole);
    return cells;
  };
  return table;
}

Table messagesTable(const Analysis& analysis) {
  Table table{
      "messages", {{"sender"}, {"receiver"}, {"count"}, {"bytes"}, {"mean_s"}, {"max_s"}}, {}};
  const std::vector<uint64_t>& pairs = analysis.messages.pairs().keys();
  std::vector<size_t> rows(pairs.size());
  std::iota(rows.begin(), rows.end(), size_t{0});
  const auto sender = [&](size_t i) { return static_cast<uint32_t>(pairs[i] >> 32); };
  const auto receiver = [&](size_t i) { return static_cast<uint32_t>(pairs[i]); };
  std::sort(rows.begin(), rows.end(), [&](size_t a, size_t b) {
    return std::pair(order(analysis, sender(a)), order(analysis, receiver(a))) <
           std::pair(order(analysis, sender(b)), order(analysis, receiver(b)));
  });
  for (const size_t i : rows) {
    const MessageTotals& totals = analysis.messages.totals()[i];
    table.rows.push_back({label(analysis, sender(i)), label(analysis, receiver(i)), totals.count,
                          totals.bytes, meanOf(analysis, totals), Ticks{totals.longest}});
  }
  return table;
}

Table messageSizesTable(const Analysis& analysis) {
  Table table{"message_sizes",
              {{"bytes_from"}, {"bytes_to"}, {"count"}, {"bytes"}, {"mean_s"}, {"max_s"}},
              {}};
  for (size_t i = 0; i < Messages::kSizes; ++i) {
    const MessageTotals& totals = analysis.messages.bySize()[i];
    if (totals.count == 0) continue;
    const std::pair<uint64_t, uint64_t> sizes = sizesOf(i);
    table.rows.push_back({sizes.first, sizes.second, totals.count, totals.bytes,
                          meanOf(analysis, totals), Ticks{totals.longest}});
  }
  return table;
}

Table collectivesTable(const Analysis& analysis) {
  Table table{"collectives",
              {{"operation"},
               {"communicator"},
               {"count"},
               {"bytes_sent"},
               {"bytes_received"},
               {"seconds"},
               {"wait_s"}},
              {}};
  std::vector<Collectives::Row> rows = analysis.collectives.rows();
  std::stable_sort(rows.begin(), rows.end(),
                   [](const auto& a, const auto& b) { return a.ticks > b.ticks; });
  for (const Collectives::Row& row : rows) {
    table.rows.push_back({analysis.definitions.operationName(row.operation),
                          analysis.definitions.communicatorName(row.communicator), row.count,
                          row.sent, row.received, Ticks{row.ticks}, Ticks{row.wait}});
  }
  return table;
}

Table waitsTable(const Analysis& analysis) {
  Table table{
      "waits", {{"kind"}, {"process"}, {"function"}, {"caused_by"}, {"count"}, {"seconds"}}, {}};
  std::vector<Waits::Row> rows = analysis.waits.rows();
  std::sort(rows.begin(), rows.end(), [&](const Waits::Row& a, const Waits::Row& b) {
    const auto key = [&](const Waits::Row& row) {
      return std::tuple(~row.ticks, row.kind, order(analysis, row.thread),
                        order(analysis, row.cause), row.function);
    };
    return key(a) < key(b);
  });
  for (const Waits::Row& row : rows) {
    table.rows.push_back({kWaitKinds[static_cast<size_t>(row.kind)], label(analysis, row.thread),
                          functionName(analysis, row.function), label(analysis, row.cause),
                          row.count, Ticks{row.ticks}});
  }
  return table;
}

Table efficiencyTable(const Analysis& analysis) {
  Table table{
      "efficiency", {{"from_s"}, {"to_s"}, {"parallel"}, {"load_balance"}, {"communication"}}, {}};
  std::vector<EfficiencyRow> rows;
  if (analysis.bins != nullptr) {
    std::vector<uint32_t> processes;
    for (const auto& process : analysis.processes()) processes.push_back(process.process);
    rows = analysis.bins->rows(processes);
  } else {
    rows.push_back(wholeEfficiency(analysis));
  }
  for (const EfficiencyRow& row : rows) {
    table.rows.push_back({Ticks{row.from}, Ticks{row.to}, Real{row.parallel}, Real{row.loadBalance},
                          Real{row.communication}});
  }
  return table;
}

Table countersTable(const Analysis& analysis) {
  Table table{
      "counters",
      {{"process"}, {"counter"}, {"unit"}, {"samples"}, {"min"}, {"mean"}, {"max"}, {"rate_per_s"}},
      {}};
  std::vector<Samples::Row> rows = analysis.samples.rows();
  std::sort(rows.begin(), rows.end(), [&](const Samples::Row& a, const Samples::Row& b) {
    return std::pair(order(analysis, a.thread), a.counter) <
           std::pair(order(analysis, b.thread), b.counter);
  });
  for (const Samples::Row& row : rows) {
    if (!analysis.calls[row.thread].selected()) continue;
    const Definitions& d = analysis.definitions;
    const uint32_t index = d.counterIds.find(row.counter);
    Cell rate;
    if (row.lastTime > row.firstTime) {
      rate = Real{(row.last - row.first) / analysis.seconds(row.lastTime - row.firstTime)};
    }
    table.rows.push_back({label(analysis, row.thread), d.counterName(row.counter),
                          index == kNone ? "" : d.counters[index].unit, row.count,
                          Real{row.minimum}, Real{row.sum / static_cast<double>(row.count)},
                          Real{row.maximum}, rate});
  }
  return table;
}

Table filesTable(const Analysis& analysis) {
  Table table{
      "io",
      {{"process"}, {"file"}, {"operation"}, {"count"}, {"bytes"}, {"seconds"}, {"bytes_per_s"}},
      {}};
  std::vector<FileOperations::Row> rows = analysis.files.rows();
  std::sort(rows.begin(), rows.end(), [&](const auto& a, const auto& b) {
    return std::tuple(order(analysis, a.thread), a.file, a.type) <
           std::tuple(order(analysis, b.thread), b.file, b.type);
  });
  for (const FileOperations::Row& row : rows) {
    if (row.count == 0 || !analysis.calls[row.thread].selected()) continue;
    const double seconds = analysis.seconds(row.ticks);
    const char* type = row.type == 1 ? "read" : row.type == 2 ? "write" : "other";
    Cell bandwidth;
    if (seconds > 0) bandwidth = Real{static_cast<double>(row.bytes) / seconds};
    table.rows.push_back({label(analysis, row.thread), analysis.definitions.fileName(row.file),
                          type, row.count, row.bytes, Ticks{row.ticks}, bandwidth});
  }
  return table;
}

void foldedStacks(const Analysis& analysis, const std::function<void(const std::string&)>& put) {
  PathTexts paths(analysis, [](const std::string& name) {
    std::string safe = printable(name);
    std::replace(safe.begin(), safe.end(), ';', ':');
    return safe;
  });
  // The remainder of each line is carried to the next, so that the sum is right.
  long double exact = 0;
  long double written = 0;
  for (uint32_t row = 1; row < paths.rows().size(); ++row) {
    exact += static_cast<long double>(paths.rows()[row].exclusive) *
             analysis.definitions.resolution * 1e6L;
    const long double microseconds = std::floor(exact - written + 0.5L);
    if (microseconds < 1) continue;
    written += microseconds;
    put(paths.text(row) + " " + std::to_string(static_cast<uint64_t>(microseconds)) + "\n");
  }
}

std::vector<std::string> notesOn(const Analysis& analysis, const Wanted& wanted,
                                 const std::string& trace) {
  std::vector<std::string> notes;
  const auto add = [&](uint64_t count, const std::string& text) {
    if (count != 0) notes.push_back(std::to_string(count) + " " + text);
  };
  if (analysis.rawEvents != 0) {
    notes.push_back("The trace is raw: its " + std::to_string(analysis.rawEvents) +
                    " one-sided events are not analysed. Merge it first: klttool " + trace +
                    " --merge MERGED --logfile-format KLT");
  }
  if (!analysis.definitions.hasClock) {
    notes.emplace_back("The trace has no clock: a tick counts as a second.");
  }
  if (analysis.enters == 0) notes.emplace_back("The window has no function calls.");
  add(analysis.strayLeaves, "ends of calls without a start are left out.");
  if (wanted.waits) {
    add(analysis.messages.unmatched, "messages with one known side give no waiting time.");
    add(analysis.messages.reversed,
        "messages received before they were sent give no waiting time.");
    add(analysis.waits.missing.outside,
        "messages with a side outside of MPI calls give no waiting time.");
    add(analysis.waits.missing.cut,
        "messages with a side outside of the window give no waiting time.");
    add(analysis.waits.missing.unseen, "operations with unknown members give no waiting time.");
  }
  return notes;
}

}  // namespace kla
