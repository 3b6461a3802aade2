// Counter samples and file operations, by thread.
#pragma once

#include <cstdint>
#include <vector>

#include "analyze/core/kla_keys.h"
#include "analyze/core/kla_types.h"

namespace kla {

class Samples {
 public:
  struct Row {
    uint32_t thread, counter;  // index and id
    uint64_t count;
    double minimum, maximum, sum, first, last;
    Time firstTime, lastTime;
  };
  void add(uint32_t thread, uint32_t counter, Time time, double value);
  [[nodiscard]] const std::vector<Row>& rows() const { return rows_; }
  uint64_t count = 0;

 private:
  KeyIndex keys_;
  std::vector<Row> rows_;
};

class FileOperations {
 public:
  struct Row {
    uint32_t thread, file, type;  // 1: read, 2: write
    uint64_t count = 0, bytes = 0;
    Time ticks = 0;
  };
  void begin(uint32_t thread, uint32_t file, uint32_t type, Time time);
  // Returns the start of the operation; `time` if that isn't known.
  Time end(uint32_t thread, uint32_t file, uint32_t type, uint32_t bytes, Time time);
  [[nodiscard]] const std::vector<Row>& rows() const { return rows_; }

 private:
  uint32_t rowOf(uint32_t thread, uint32_t file, uint32_t type);

  KeyIndex files_, keys_;
  std::vector<Row> rows_;
  std::vector<Time> begins_;  // of the operation in progress of a row; kNever: none
};

}  // namespace kla
