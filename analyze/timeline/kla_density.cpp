// Adds up the shares of functions. See kla_density.h.
#include "analyze/timeline/kla_density.h"

#include <algorithm>
#include <cmath>

namespace kla {

void Density::begin(Window span, uint32_t bins) {
  span_ = span;
  bins_ = bins;
}

Time Density::edge(uint32_t bin) const { return edgeOf(span_, bin, bins_); }

Density::Row& Density::rowOf(uint32_t thread) {
  if (rows_.size() <= thread) rows_.resize(thread + 1);
  Row& row = rows_[thread];
  if (row.cells.empty()) {
    row.cells.resize(bins_);
    row.at = span_.start;
    row.edge = edge(1);
  }
  return row;
}

void Density::addShare(Row& row, uint32_t function, Time ticks) {
  if (function == kNone) return;
  for (Share& share : row.shares) {
    if (share.function != function) continue;
    share.ticks += ticks;
    return;
  }
  row.shares.push_back({function, ticks});
}

void Density::closeBin(Row& row) {
  const Time start = edge(row.bin);
  const auto length = static_cast<double>(std::max<Time>(1, row.edge - start));
  std::sort(row.shares.begin(), row.shares.end(),
            [](const Share& a, const Share& b) { return a.ticks > b.ticks; });
  Cell& cell = row.cells[row.bin];
  for (size_t rank = 0; rank < std::min(kRanks, row.shares.size()); ++rank) {
    cell.functions[rank] = row.shares[rank].function;
    cell.shares[rank] = static_cast<uint8_t>(
        std::lround(static_cast<double>(row.shares[rank].ticks) * 255 / length));
  }
  row.shares.clear();
}

void Density::add(uint32_t thread, uint32_t function, Time to) {
  Row& row = rowOf(thread);
  to = std::min(to, span_.end);
  while (row.at < to) {
    const Time until = std::min(to, row.edge);
    addShare(row, function, until - row.at);
    row.at = until;
    if (until < row.edge || row.bin + 1 >= bins_) return;
    closeBin(row);
    ++row.bin;
    row.edge = edge(row.bin + 1);
  }
}

void Density::finish() {
  for (Row& row : rows_) {
    if (!row.cells.empty()) closeBin(row);
  }
}

const std::vector<Density::Cell>& Density::cells(uint32_t thread) const {
  static const std::vector<Cell> kEmpty;
  return thread < rows_.size() ? rows_[thread].cells : kEmpty;
}

}  // namespace kla
