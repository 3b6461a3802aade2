// Handlers that turn every call into a line of text: the record's name and its arguments.
#pragma once

#include <concepts>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "klt/klt.h"

namespace reading {

using Lines = std::vector<std::string>;
using Reader = KLT_OwnedReader;

// Arguments as text. An array has as many elements as the number ahead of it says.
class LinePrinter {
 public:
  explicit LinePrinter(std::string_view name)
      : line(name), isCounter_(name.starts_with("counter_d")) {}

  template <class T>
  requires std::integral<T> || std::floating_point<T>
  void add(T value) {
    if constexpr (std::integral<T>) count_ = static_cast<size_t>(value);
    line += ' ' + std::to_string(value);
  }
  void add(const char* text) {
    line += text == nullptr ? " (null)" : " '" + std::string(text) + '\'';
  }
  void add(const char* const* texts) {
    for (size_t i = 0; i < count_; ++i) add(texts[i]);
  }
  void add(const PAL_Triplet* triplets) {
    for (size_t i = 0; i < count_; ++i) {
      const PAL_Triplet& t = triplets[i];
      line += ' ' + std::to_string(t.first) + ':' + std::to_string(t.last) + ':' +
              std::to_string(t.stride);
    }
  }
  template <class T>
  requires std::integral<T> || std::floating_point<T>
  void add(const T* array) {
    line += " [";
    const size_t n = isCounter_ ? 2 : count_;  // the bounds of a counter are always two
    for (size_t i = 0; array != nullptr && i < n; ++i) {
      line += (i == 0 ? "" : " ") + std::to_string(array[i]);
    }
    line += array == nullptr ? "null]" : "]";
  }

  std::string line;

 private:
  size_t count_ = 0;
  bool isCounter_;
};

// A handler in every slot of `table`. Empty slots to stand for a consumer that wants less.
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
    LinePrinter printer(Slot::name);
    (printer.add(args), ...);
    if (!recorder.keeps) return 0;
    recorder.lines.push_back(std::move(printer.line));
    return recorder.lines.size() == recorder.stopAt ? 1 : 0;
  }

  KLT_HandlerTable table;
  Lines lines;
  bool keeps = true;  // otherwise lines are made and dropped
  size_t stopAt = 0;  // the handler that makes this many lines returns an error; 0: none does
};

[[nodiscard]] inline Reader openReader(KLT_FileHandle* trace, const KLT_HandlerTable& table,
                                       const std::vector<KLT_Request>& requests, int serial,
                                       int mode) {
  std::vector<const KLT_Request*> pointers;
  for (const KLT_Request& request : requests) pointers.push_back(&request);
  return Reader(KLT_OpenReader(trace, mode, static_cast<uint32_t>(requests.size()), pointers.data(),
                               &table, serial));
}

// One pass to its end: all results. A stream that fails leaves the others; corruption without time
// order may be met once a stream.
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
