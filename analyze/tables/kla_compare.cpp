// Compares two runs. See kla_compare.h.
#include "analyze/tables/kla_compare.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <map>
#include <utility>

#include "analyze/tables/kla_profile.h"
#include "analyze/tables/kla_tables.h"

namespace kla {

namespace {

constexpr double kLeastShare = 0.01;  // of all time, for a function that can fail a comparison

double spanOf(const Analysis& run) { return run.seconds(run.span().end - run.span().start); }

std::string percentText(double part) {
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "%.1f %%", 100 * part);
  return text.data();
}

// The values of a map, in its order.
template <class Map>
auto valuesOf(Map found) {
  std::vector<typename Map::mapped_type> values;
  for (auto& [key, value] : found) values.push_back(std::move(value));
  return values;
}

}  // namespace

Wanted neededByComparison() { return {.messages = true, .collectives = true, .waits = true}; }

Comparison::Comparison(const Analysis& first, const Analysis& second) : runs_{&first, &second} {}

Table Comparison::table(const char* name, std::vector<Column> columns, Figures figures,
                        bool counts) {
  Table table{name, std::move(columns), {}};
  if (counts) table.columns.insert(table.columns.end(), {{"count_a"}, {"count_b"}});
  table.columns.insert(table.columns.end(), {{"a"}, {"b"}, {"difference"}, {"ratio"}});
  std::stable_sort(figures.begin(), figures.end(), [](const Figure& a, const Figure& b) {
    return std::fabs(a.difference()) > std::fabs(b.difference());
  });
  for (Figure& figure : figures) {
    std::vector<Cell> cells = std::move(figure.names);
    if (counts) {
      for (const double count : figure.counts) cells.emplace_back(static_cast<uint64_t>(count));
    }
    cells.insert(cells.end(),
                 {Real{figure.values[0]}, Real{figure.values[1]}, Real{figure.difference()}});
    cells.emplace_back();
    if (figure.values[0] > 0) cells.back() = Real{figure.values[1] / figure.values[0]};
    table.rows.push_back(std::move(cells));
  }
  return table;
}

Comparison::Figures Comparison::whole() const {
  Figures figures{{{"span_s"}},
                  {{"processes"}},
                  {{"threads"}},
                  {{"messages"}},
                  {{"message_bytes"}},
                  {{"collectives"}},
                  {{"parallel_efficiency"}},
                  {{"load_balance"}},
                  {{"communication_efficiency"}}};
  for (size_t i = 0; i < 2; ++i) {
    const Analysis& run = *runs_[i];
    const EfficiencyRow efficiency = wholeEfficiency(run);
    double bytes = 0;
    for (const MessageTotals& totals : run.messages.totals())
      bytes += static_cast<double>(totals.bytes);
    const double values[] = {spanOf(run),
                             static_cast<double>(run.processes().size()),
                             static_cast<double>(run.threadCount()),
                             static_cast<double>(run.messages.count),
                             bytes,
                             static_cast<double>(run.collectives.count()),
                             efficiency.parallel,
                             efficiency.loadBalance,
                             efficiency.communication};
    for (size_t f = 0; f < figures.size(); ++f) figures[f].values[i] = values[f];
  }
  return figures;
}

Comparison::Figures Comparison::functions() const {
  std::map<std::pair<std::string, std::string>, Figure> found;
  for (size_t i = 0; i < 2; ++i) {
    const Definitions& definitions = runs_[i]->definitions;
    for (const ProfileRow& row : functionProfile(*runs_[i])) {
      const std::string className =
          row.function == kNone ? "" : definitions.className(definitions.functions[row.function]);
      const auto key = std::pair(functionName(*runs_[i], row.function), className);
      Figure& figure = found[key];
      figure.names = {key.first, key.second};
      figure.counts[i] += static_cast<double>(row.calls);
      figure.values[i] += runs_[i]->seconds(row.exclusive);
    }
  }
  return valuesOf(std::move(found));
}

// The time of each process outside MPI.
Comparison::Figures Comparison::processes() const {
  std::map<uint32_t, Figure> found;
  for (size_t i = 0; i < 2; ++i) {
    const Analysis& run = *runs_[i];
    for (const Analysis::Process& process : run.processes()) {
      Figure& figure = found[process.process];
      figure.names = {std::to_string(process.process)};
      figure.values[i] = spanOf(run) - run.seconds(run.calls[process.threads.front()].mpiTime);
    }
  }
  return valuesOf(std::move(found));
}

Comparison::Figures Comparison::messages() const {
  std::map<std::pair<uint32_t, uint32_t>, Figure> found;  // by the order of threads
  for (size_t i = 0; i < 2; ++i) {
    const Messages& messages = runs_[i]->messages;
    for (size_t pair = 0; pair < messages.totals().size(); ++pair) {
      const uint64_t key = messages.pairs().keys()[pair];
      const uint32_t sender = runs_[i]->calls[static_cast<uint32_t>(key >> 32)].gtp();
      const uint32_t receiver = runs_[i]->calls[static_cast<uint32_t>(key)].gtp();
      Figure& figure = found[{threadOrder(sender), threadOrder(receiver)}];
      figure.names = {threadLabel(sender), threadLabel(receiver)};
      figure.counts[i] = static_cast<double>(messages.totals()[pair].count);
      figure.values[i] = static_cast<double>(messages.totals()[pair].bytes);
    }
  }
  return valuesOf(std::move(found));
}

Comparison::Figures Comparison::waits() const {
  Figures figures;
  for (const char* kind : kWaitKinds) figures.push_back({{kind}});
  for (size_t i = 0; i < 2; ++i) {
    for (const Waits::Row& row : runs_[i]->waits.rows()) {
      Figure& figure = figures[static_cast<size_t>(row.kind)];
      figure.counts[i] += static_cast<double>(row.count);
      figure.values[i] += runs_[i]->seconds(row.ticks);
    }
  }
  return figures;
}

std::vector<Table> Comparison::tables() const {
  return {table("compare_overview", {{"item"}}, whole(), false),
          table("compare_functions", {{"function"}, {"class"}}, functions(), true),
          table("compare_processes", {{"process"}}, processes(), false),
          table("compare_waits", {{"kind"}}, waits(), true),
          table("compare_messages", {{"sender"}, {"receiver"}}, messages(), true)};
}

std::string Comparison::worstAbove(double percent) const {
  std::string name;
  double worst = percent / 100;
  const auto check = [&](const std::string& what, double before, double after) {
    if (after <= before || (before > 0 && after / before - 1 <= worst)) return;
    worst = before > 0 ? after / before - 1 : HUGE_VAL;
    name = what;
  };
  check("the span", spanOf(*runs_[0]), spanOf(*runs_[1]));
  double whole[2];
  for (size_t i = 0; i < 2; ++i) {
    whole[i] = spanOf(*runs_[i]) * static_cast<double>(runs_[i]->threadCount());
  }
  for (const Figure& figure : functions()) {
    const bool isLarge =
        figure.values[0] >= kLeastShare * whole[0] || figure.values[1] >= kLeastShare * whole[1];
    if (isLarge) check(std::get<std::string>(figure.names[0]), figure.values[0], figure.values[1]);
  }
  if (name.empty()) return "";
  if (worst == HUGE_VAL) return name + " has time in the second run only";
  return name + " takes " + percentText(worst) + " longer in the second run";
}

}  // namespace kla
