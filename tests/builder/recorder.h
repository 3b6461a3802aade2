// Handlers that convert each call to a line of text: the record's name and its arguments.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "klt/klt.h"

namespace reading {

using Lines = std::vector<std::string>;
using Reader = KLT_OwnedReader;

// Has a handler in every slot of `table`. Tests set slots to null to receive fewer records.
struct Recorder {
  Recorder() {
    table.user_data = this;
    klt::forEachSlot(table, []<class Slot>(Slot, auto& handler) { handler = &print<Slot>; });
  }
  Recorder(const Recorder&) = delete;
  Recorder& operator=(const Recorder&) = delete;

  template <class Slot, class... Args>
  static int print(void* user, Args... args) {
    auto& recorder = *static_cast<Recorder*>(user);
    std::string line(Slot::name);
    size_t count = 0;
    (add(line, count, args), ...);
    if (!recorder.keeps) return 0;
    recorder.lines.push_back(std::move(line));
    return recorder.lines.size() == recorder.stopAt ? 1 : 0;
  }
  // An array has as many elements as the last number before it; the bounds of a counter are two.
  template <class T>
  static void add(std::string& line, size_t& count, T value) {
    if constexpr (std::is_arithmetic_v<T>) {
      if (std::is_integral_v<T>) count = static_cast<size_t>(value);
      line += ' ' + std::to_string(value);
    } else if constexpr (std::is_same_v<T, const char*>) {
      line += value == nullptr ? " (null)" : " '" + std::string(value) + '\'';
    } else if constexpr (std::is_same_v<T, const char* const*>) {
      for (size_t i = 0; i < count; ++i) add(line, count, value[i]);
    } else if constexpr (std::is_same_v<T, const PAL_Triplet*>) {
      for (const PAL_Triplet& t : std::span(value, count)) {
        line += ' ' + std::to_string(t.first) + ':' + std::to_string(t.last) + ':' +
                std::to_string(t.stride);
      }
    } else {
      line += " [";
      const size_t n = line.starts_with("counter_d") ? 2 : count;
      for (size_t i = 0; value != nullptr && i < n; ++i) {
        line += (i == 0 ? "" : " ") + std::to_string(value[i]);
      }
      line += value == nullptr ? "null]" : "]";
    }
  }

  KLT_HandlerTable table;
  Lines lines;
  bool keeps = true;  // false: lines are made but not stored
  size_t stopAt = 0;  // the handler that makes the line with this number returns 1; 0: none
};

[[nodiscard]] inline Reader openReader(KLT_FileHandle* trace, const KLT_HandlerTable& table,
                                       const std::vector<KLT_Request>& requests, int serial,
                                       int mode) {
  std::vector<const KLT_Request*> pointers;
  for (const KLT_Request& request : requests) pointers.push_back(&request);
  return Reader(KLT_OpenReader(trace, mode, static_cast<uint32_t>(requests.size()), pointers.data(),
                               &table, serial));
}

// Reads a pass to its end and returns all results. After a stream has failed, the others are still
// read. Without time order each stream may fail once.
inline std::vector<int> finish(KLT_Reader* reader) {
  constexpr size_t kMostFailures = 1000;
  std::vector<int> statuses;
  do {
    statuses.push_back(KLT_ReadEvents(reader, -1));
  } while (statuses.back() != KLT_STATUS_FINISHED && statuses.back() != KLT_STATUS_ABORTING &&
           statuses.size() < kMostFailures);
  return statuses;
}

}  // namespace reading
