// Computes profiles. See kla_profile.h.
#include "analyze/tables/kla_profile.h"

#include <algorithm>
#include <utility>

namespace kla {

namespace {

// The rows, and the values of the current process, which are folded into them at its end.
class Rows {
 public:
  struct Values {
    uint32_t row;
    uint64_t calls = 0;
    Sum inclusive = 0, exclusive = 0;
  };

  [[nodiscard]] uint32_t size() const { return static_cast<uint32_t>(rows_.size()); }
  void add(const ProfileRow& row) {
    rows_.push_back(row);
    places_.push_back(kNone);
  }
  Values& of(uint32_t row) {
    uint32_t& place = places_[row];
    if (place == kNone) {
      place = static_cast<uint32_t>(values_.size());
      values_.push_back({.row = row});
    }
    return values_[place];
  }
  void endProcess(uint32_t process) {
    for (const Values& values : values_) {
      ProfileRow& row = rows_[values.row];
      places_[values.row] = kNone;
      row.calls += values.calls;
      row.inclusive += values.inclusive;
      row.exclusive += values.exclusive;
      if (row.processes == 0 || values.exclusive > row.most) {
        row.most = values.exclusive;
        row.mostProcess = process;
      }
      row.least = row.processes == 0 ? values.exclusive : std::min(row.least, values.exclusive);
      ++row.processes;
    }
    values_.clear();
  }
  Profile finish(size_t processes) {
    for (ProfileRow& row : rows_) {
      if (row.processes < processes) row.least = 0;
    }
    return std::move(rows_);
  }

 private:
  Profile rows_;
  std::vector<uint32_t> places_;  // of the rows in `values_`; kNone: none
  std::vector<Values> values_;
};

// The exclusive times of a thread's paths; that of path 0 is the time outside of all calls.
void exclusiveTimes(const CallTree& tree, Time span, std::vector<Time>& times) {
  times.assign(tree.size(), 0);
  for (uint32_t i = tree.size(); i-- > 1;) {
    times[i] += tree[i].inclusive;
    times[tree.parent(i)] -= tree[i].inclusive;  // modulo 2^64, until the parent is added
  }
  times[0] += span;
}

}  // namespace

Profile functionProfile(const Analysis& analysis) {
  Rows rows;
  const auto functions = static_cast<uint32_t>(analysis.definitions.functions.size());
  for (uint32_t i = 0; i < functions; ++i) rows.add({.function = i});
  rows.add({});
  const Window span = analysis.span();
  const std::vector<Analysis::Process> processes = analysis.processes();
  for (const Analysis::Process& process : processes) {
    for (const uint32_t thread : process.threads) {
      Time outside = span.end - span.start;
      for (const FunctionSums& sums : analysis.calls[thread].functions()) {
        Rows::Values& values = rows.of(sums.function);
        values.calls += sums.calls;
        values.inclusive += sums.inclusive;
        values.exclusive += sums.exclusive;
        outside -= sums.exclusive;
      }
      Rows::Values& noCall = rows.of(functions);
      noCall.inclusive += outside;
      noCall.exclusive += outside;
    }
    rows.endProcess(process.process);
  }
  Profile all = rows.finish(processes.size());
  std::erase_if(all, [](const ProfileRow& row) { return row.processes == 0; });
  return all;
}

PathProfile pathProfile(const Analysis& analysis) {
  Rows rows;
  KeyIndex paths;  // row - 1
  rows.add({});
  const Window span = analysis.span();
  const std::vector<Analysis::Process> processes = analysis.processes();
  std::vector<uint32_t> rowOf, depth;
  std::vector<Time> exclusive;
  for (const Analysis::Process& process : processes) {
    for (const uint32_t thread : process.threads) {
      const CallTree& tree = *analysis.calls[thread].tree();
      exclusiveTimes(tree, span.end - span.start, exclusive);
      rowOf.assign(tree.size(), 0);
      depth.assign(tree.size(), 0);
      rows.of(0).exclusive += exclusive[0];
      rows.of(0).inclusive += exclusive[0];
      for (uint32_t i = 1; i < tree.size(); ++i) {
        const uint32_t parent = tree.parent(i), function = tree.function(i);
        const uint32_t above = rowOf[parent];
        depth[i] = depth[parent] + 1;
        const bool isShown = depth[i] <= kMostDepth;
        rowOf[i] = isShown ? paths[uint64_t{above} << 32 | function] + 1 : above;
        if (rowOf[i] == rows.size()) rows.add({.function = function});
        Rows::Values& values = rows.of(rowOf[i]);
        values.exclusive += exclusive[i];
        if (!isShown) continue;
        values.calls += tree[i].calls;
        values.inclusive += tree[i].inclusive;
      }
    }
    rows.endProcess(process.process);
  }
  return {rows.finish(processes.size()), std::move(paths).keys()};
}

}  // namespace kla
