// Adds up counter samples and file operations. See kla_samples.h.
#include "analyze/sums/kla_samples.h"

#include <algorithm>
#include <utility>

namespace kla {

void Samples::add(uint32_t thread, uint32_t counter, Time time, double value) {
  ++count;
  const uint32_t index = keys_[uint64_t{thread} << 32 | counter];
  if (index == rows_.size()) {
    rows_.push_back({thread, counter, 0, value, value, 0, value, value, time, time});
  }
  Row& row = rows_[index];
  ++row.count;
  row.minimum = std::min(row.minimum, value);
  row.maximum = std::max(row.maximum, value);
  row.sum += value;
  row.last = value;
  row.lastTime = std::max(row.lastTime, time);
}

uint32_t FileOperations::rowOf(uint32_t thread, uint32_t file, uint32_t type) {
  const uint64_t key = files_[uint64_t{thread} << 32 | file];
  const uint32_t index = keys_[key << 32 | type];
  if (index == rows_.size()) {
    rows_.push_back({thread, file, type});
    begins_.push_back(kNever);
  }
  return index;
}

void FileOperations::begin(uint32_t thread, uint32_t file, uint32_t type, Time time) {
  begins_[rowOf(thread, file, type)] = time;
}

Time FileOperations::end(uint32_t thread, uint32_t file, uint32_t type, uint32_t bytes, Time time) {
  const uint32_t index = rowOf(thread, file, type);
  const Time begin = std::exchange(begins_[index], kNever);
  Row& row = rows_[index];
  ++row.count;
  row.bytes += bytes;
  if (begin > time) return time;
  row.ticks += time - begin;
  return begin;
}

}  // namespace kla
