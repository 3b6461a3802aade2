// A table of results, and its forms: text for people, CSV and JSON for programs.
//
// Names come from traces: control characters and invalid UTF-8 are escaped.
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "analyze/core/kla_types.h"

namespace kla {

struct Ticks {
  Sum value;
};
// A ratio, a bandwidth or a counter's value.
struct Real {
  double value;
};
using Cell = std::variant<std::monostate, std::string, uint64_t, Ticks, Real>;

struct Column {
  const char* name;
  bool onlyText = false;          // not in CSV and JSON
  const char* heading = nullptr;  // in text, if it is shorter than the name
};

using Row = std::vector<Cell>;

struct Table {
  const char* name;
  std::vector<Column> columns;
  std::vector<Row> rows;
  // Instead of `rows`, for tables that are too long to be kept: their number, and what makes one.
  size_t count = 0;
  std::function<Row(size_t)> rowAt{};

  [[nodiscard]] size_t size() const { return rowAt ? count : rows.size(); }
  [[nodiscard]] Row row(size_t index) const { return rowAt ? rowAt(index) : rows[index]; }
};

enum class Format : uint8_t { kText, kCsv, kJson, kFolded };

// Writes tables to a file. Owns its buffer, not the file.
class TableWriter {
 public:
  // `width`: columns of the terminal; `resolution`: seconds of a tick; `mostRows`: of each table.
  TableWriter(FILE* file, Format format, size_t width, double resolution, size_t mostRows);
  ~TableWriter() { (void)finish(); }
  TableWriter(const TableWriter&) = delete;
  TableWriter& operator=(const TableWriter&) = delete;

  void write(const Table& table);
  // Completes the output. Returns whether everything was written.
  bool finish();

 private:
  void put(std::string_view text);
  void writeText(const Table& table);
  void writeCsv(const Table& table);
  void writeJson(const Table& table);
  [[nodiscard]] std::string cell(const Cell& cell) const;
  [[nodiscard]] size_t rowsOf(const Table& table) const;

  FILE* file_;
  Format format_;
  size_t width_;
  double resolution_;
  int decimals_;  // of times
  size_t mostRows_;
  bool failed_ = false, finished_ = false;
  uint32_t tables_ = 0;
  std::string buffer_;
};

// The number of decimals with which two different times of this resolution look different.
[[nodiscard]] int decimalsOf(double resolution);
// Ticks as seconds with that many decimals.
[[nodiscard]] std::string secondsText(Sum ticks, double resolution);

}  // namespace kla
