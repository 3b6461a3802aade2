// The share of each function in each part of the time, by thread: what a page shows where calls are
// narrower than a pixel.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "analyze/core/kla_types.h"

namespace kla {

class Density {
 public:
  static constexpr size_t kRanks = 3;
  // The functions that take most of a bin, and their shares in 255ths.
  struct Cell {
    std::array<uint32_t, kRanks> functions{kNone, kNone, kNone};
    std::array<uint8_t, kRanks> shares{};
  };

  // REQUIRES: bins > 0, span.start < span.end.
  void begin(Window span, uint32_t bins);
  // A thread spends the time up to `to` in a function; kNone: in none. Times of a thread ascend.
  void add(uint32_t thread, uint32_t function, Time to);
  // Completes the last bin of each thread.
  void finish();

  [[nodiscard]] uint32_t bins() const { return bins_; }
  // The cells of a thread; empty if it has no calls.
  [[nodiscard]] const std::vector<Cell>& cells(uint32_t thread) const;

 private:
  struct Share {
    uint32_t function;
    Time ticks;
  };
  struct Row {
    Time at = 0;       // up to where the time is known
    uint32_t bin = 0;  // the bin of `at`
    Time edge = 0;     // its end
    std::vector<Share> shares;
    std::vector<Cell> cells;
  };

  [[nodiscard]] Time edge(uint32_t bin) const;
  Row& rowOf(uint32_t thread);
  static void addShare(Row& row, uint32_t function, Time ticks);
  void closeBin(Row& row);

  Window span_;
  uint32_t bins_ = 1;
  std::vector<Row> rows_;
};

}  // namespace kla
