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
    uint64_t calls = 0;
    Sum inclusive = 0, exclusive = 0;
    bool used = false;
  };

  [[nodiscard]] uint32_t size() const { return static_cast<uint32_t>(rows_.size()); }
  uint32_t add(const ProfileRow& row) {
    rows_.push_back(row);
    values_.emplace_back();
    return static_cast<uint32_t>(rows_.size() - 1);
  }
  Values& of(uint32_t row) {
    if (!std::exchange(values_[row].used, true)) used_.push_back(row);
    return values_[row];
  }
  void endProcess(uint32_t process) {
    for (const uint32_t index : used_) {
      ProfileRow& row = rows_[index];
      const Values values = std::exchange(values_[index], {});
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
    used_.clear();
  }
  std::vector<ProfileRow> finish(size_t processes) {
    for (ProfileRow& row : rows_) {
      if (row.processes < processes) row.least = 0;
    }
    return std::move(rows_);
  }

 private:
  std::vector<ProfileRow> rows_;
  std::vector<Values> values_;
  std::vector<uint32_t> used_;
};

// The exclusive times of a thread's paths; that of path 0 is the time outside of all calls.
std::vector<Time> exclusiveTimes(const std::vector<PathNode>& nodes, Time span) {
  std::vector<Time> times(nodes.size());
  for (size_t i = nodes.size(); i-- > 1;) {
    times[i] += nodes[i].inclusive;
    times[nodes[i].parent] -= nodes[i].inclusive;  // modulo 2^64, until the parent is added
  }
  times[0] += span;
  return times;
}

// For each path, whether its function doesn't call itself through it: the paths in depth-first
// order, with the number of times that each function is open.
std::vector<bool> outermost(const std::vector<PathNode>& nodes, std::vector<uint32_t>& open) {
  std::vector<uint32_t> firstChild(nodes.size(), kNone), sibling(nodes.size(), kNone);
  for (auto i = static_cast<uint32_t>(nodes.size()); i-- > 1;) {
    sibling[i] = std::exchange(firstChild[nodes[i].parent], i);
  }
  std::vector<bool> result(nodes.size());
  for (uint32_t at = firstChild[0]; at != kNone && at != 0;) {
    result[at] = open[nodes[at].function]++ == 0;
    if (firstChild[at] != kNone) {
      at = firstChild[at];
      continue;
    }
    while (at != 0) {
      --open[nodes[at].function];
      if (sibling[at] != kNone) break;
      at = nodes[at].parent;
    }
    if (at != 0) at = sibling[at];
  }
  return result;
}

}  // namespace

std::vector<ProfileRow> functionProfile(const Analysis& analysis) {
  Rows rows;
  const auto functions = static_cast<uint32_t>(analysis.definitions.functions.size());
  for (uint32_t i = 0; i < functions; ++i) (void)rows.add({.function = i});
  (void)rows.add({});
  const Window span = analysis.span();
  std::vector<uint32_t> open(functions);
  const std::vector<Analysis::Process> processes = analysis.processes();
  for (const Analysis::Process& process : processes) {
    for (const uint32_t thread : process.threads) {
      const std::vector<PathNode>& nodes = analysis.calls[thread].nodes();
      const std::vector<Time> exclusive = exclusiveTimes(nodes, span.end - span.start);
      const std::vector<bool> isOutermost = outermost(nodes, open);
      rows.of(functions).exclusive += exclusive[0];
      rows.of(functions).inclusive += exclusive[0];
      for (size_t i = 1; i < nodes.size(); ++i) {
        Rows::Values& values = rows.of(nodes[i].function);
        values.calls += nodes[i].calls;
        values.exclusive += exclusive[i];
        if (isOutermost[i]) values.inclusive += nodes[i].inclusive;
      }
    }
    rows.endProcess(process.process);
  }
  std::vector<ProfileRow> all = rows.finish(processes.size());
  std::erase_if(all, [](const ProfileRow& row) { return row.processes == 0; });
  return all;
}

std::vector<ProfileRow> pathProfile(const Analysis& analysis) {
  Rows rows;
  KeyIndex paths;  // row - 1 of the parent's row and the function
  (void)rows.add({});
  const Window span = analysis.span();
  const std::vector<Analysis::Process> processes = analysis.processes();
  std::vector<uint32_t> rowOf, depth;
  for (const Analysis::Process& process : processes) {
    for (const uint32_t thread : process.threads) {
      const std::vector<PathNode>& nodes = analysis.calls[thread].nodes();
      const std::vector<Time> exclusive = exclusiveTimes(nodes, span.end - span.start);
      rowOf.assign(nodes.size(), 0);
      depth.assign(nodes.size(), 0);
      rows.of(0).exclusive += exclusive[0];
      rows.of(0).inclusive += exclusive[0];
      for (size_t i = 1; i < nodes.size(); ++i) {
        const uint32_t parent = nodes[i].parent;
        const uint32_t above = rowOf[parent];
        depth[i] = depth[parent] + 1;
        const bool isShown = depth[i] <= kMostDepth;
        rowOf[i] = isShown ? paths[uint64_t{above} << 32 | nodes[i].function] + 1 : above;
        if (rowOf[i] == rows.size())
          (void)rows.add({.function = nodes[i].function, .parent = above});
        Rows::Values& values = rows.of(rowOf[i]);
        values.exclusive += exclusive[i];
        if (!isShown) continue;
        values.calls += nodes[i].calls;
        values.inclusive += nodes[i].inclusive;
      }
    }
    rows.endProcess(process.process);
  }
  return rows.finish(processes.size());
}

}  // namespace kla
