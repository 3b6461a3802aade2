// Compares two runs: functions by name, processes and pairs of threads by number, waits by kind.
#pragma once

#include <string>
#include <vector>

#include "analyze/pass/kla_pass.h"
#include "analyze/tables/kla_table.h"

namespace kla {

[[nodiscard]] Wanted neededByComparison();

class Comparison {
 public:
  // Both analyses must have been run with neededByComparison().
  Comparison(const Analysis& first, const Analysis& second);

  // The tables, each with the largest differences first. Times are in seconds.
  [[nodiscard]] std::vector<Table> tables() const;
  // A sentence about the figure that is larger in the second run by the largest part, if that is
  // more than `percent`; else an empty text. Figures are the span and the exclusive times of
  // functions that have a hundredth of all time in one of the runs.
  [[nodiscard]] std::string worstAbove(double percent) const;

 private:
  struct Figure {
    std::vector<Cell> names;
    double counts[2] = {0, 0};
    double values[2] = {0, 0};
    [[nodiscard]] double difference() const { return values[1] - values[0]; }
  };
  using Figures = std::vector<Figure>;

  [[nodiscard]] static Table table(const char* name, std::vector<Column> columns, Figures figures,
                                   bool counts);
  [[nodiscard]] Figures whole() const;
  [[nodiscard]] Figures functions() const;
  [[nodiscard]] Figures processes() const;
  [[nodiscard]] Figures messages() const;
  [[nodiscard]] Figures waits() const;

  const Analysis* runs_[2];
};

}  // namespace kla
