// Reading built traces in tests: every call of a handler becomes a line of text, the record's name
// and its arguments.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "klt/klt.h"
#include "klt/klt_intern.h"
#include "tests/builder/trace_builder.h"

namespace reading {

using Lines = std::vector<std::string>;

// What goes to standard error while it lives.
class Messages {
 public:
  Messages() { testing::internal::CaptureStderr(); }
  ~Messages() {
    if (!taken_) (void)testing::internal::GetCapturedStderr();
  }
  Messages(const Messages&) = delete;
  Messages& operator=(const Messages&) = delete;

  [[nodiscard]] std::string take() {
    taken_ = true;
    return testing::internal::GetCapturedStderr();
  }

 private:
  bool taken_ = false;
};

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
  Recorder();
  Recorder(const Recorder&) = delete;
  Recorder& operator=(const Recorder&) = delete;

  KLT_HandlerTable table;
  Lines lines;
  size_t stopAt = 0;  // the handler that makes this many lines returns an error; 0: none does
};

template <auto Member, KLT_NameText Name>
struct Catcher;
template <class... Args, int (*KLT_HandlerTable::*Member)(void*, Args...), KLT_NameText Name>
struct Catcher<Member, Name> {
  static int call(void* user, Args... args) {
    auto& recorder = *static_cast<Recorder*>(user);
    LinePrinter printer(Name.view());
    (printer.add(args), ...);
    recorder.lines.push_back(std::move(printer.line));
    return recorder.lines.size() == recorder.stopAt ? 1 : 0;
  }
};

inline Recorder::Recorder() {
  table.user_data = this;
#define CATCH(name) table.name = &Catcher<&KLT_HandlerTable::name, #name>::call
  // clang-format off
  CATCH(all_to_all_communication); CATCH(all_to_one_communication); CATCH(begin_of_history);
  CATCH(class_definition); CATCH(clock_resolution); CATCH(all_communication);
  CATCH(collective_operation_definition); CATCH(collop_statistics); CATCH(collop_profile);
  CATCH(collop_raw_event); CATCH(comment); CATCH(communicator_definition);
  CATCH(counter_definition); CATCH(counter_value); CATCH(custom_statistics_definition);
  CATCH(custom_statistics); CATCH(duration); CATCH(end_of_filter); CATCH(end_of_history);
  CATCH(enter_function); CATCH(enter_scope); CATCH(event_summary); CATCH(file_io_begin);
  CATCH(file_io_end); CATCH(file_io_file_definition); CATCH(function_profile);
  CATCH(function_definition); CATCH(function_history); CATCH(function_statistics);
  CATCH(group_definition); CATCH(info); CATCH(leave_function); CATCH(leave_scope);
  CATCH(lw_statistics); CATCH(message_raw_event); CATCH(one_to_all_communication);
  CATCH(one_to_one_communication); CATCH(onetoone_profile); CATCH(onetoone_statistics);
  CATCH(opaque_data); CATCH(report); CATCH(scl_definition); CATCH(file_definition);
  CATCH(scope_definition); CATCH(process_declaration); CATCH(willy_definition);
  CATCH(willy_name);
  // clang-format on
#undef CATCH
}

using Reader = KLT_OwnedReader;

// A trace on disk, open; its definitions have been read into `definitions`.
class OpenTrace {
 public:
  explicit OpenTrace(const tb::Trace& trace) : OpenTrace(trace.files()) {}
  explicit OpenTrace(const tb::TraceFiles& files)
      : handle_(KLT_Open(files.writePlain(directory_).c_str())) {
    if (handle_ == nullptr) return;
    Recorder recorder;
    recorder.table.end_of_filter = nullptr;
    const Reader reader(
        KLT_OpenReader(handle_, KLT_MODE_DEFINITIONS, 0, nullptr, &recorder.table, 1));
    (void)KLT_ReadEvents(reader.get(), -1);
    definitions = std::move(recorder.lines);
  }
  ~OpenTrace() { KLT_Close(handle_); }
  OpenTrace(const OpenTrace&) = delete;
  OpenTrace& operator=(const OpenTrace&) = delete;

  [[nodiscard]] KLT_FileHandle* handle() const { return handle_; }

  // A reader of events.
  [[nodiscard]] Reader reader(const KLT_HandlerTable& table,
                              const std::vector<KLT_Request>& requests = {}, int serial = 1,
                              int mode = KLT_MODE_EVENTS) const {
    std::vector<const KLT_Request*> pointers;
    for (const KLT_Request& request : requests) pointers.push_back(&request);
    return Reader(KLT_OpenReader(handle_, mode, static_cast<uint32_t>(requests.size()),
                                 pointers.data(), &table, serial));
  }
  // The lines of one pass up to the end, errors passed over. `statuses` gets all results.
  [[nodiscard]] Lines read(Recorder& recorder, const std::vector<KLT_Request>& requests = {},
                           int serial = 1, int mode = KLT_MODE_EVENTS) {
    const Reader open = reader(recorder.table, requests, serial, mode);
    statuses.clear();
    do {
      statuses.push_back(KLT_ReadEvents(open.get(), -1));
    } while (statuses.back() != KLT_STATUS_FINISHED && statuses.back() != KLT_STATUS_ABORTING &&
             statuses.size() < 1000);
    lostData = KLT_ReaderLostData(open.get());
    return std::move(recorder.lines);
  }
  [[nodiscard]] Lines read(const std::vector<KLT_Request>& requests = {}, int serial = 1) {
    Recorder recorder;
    return read(recorder, requests, serial);
  }

  Lines definitions;
  std::vector<int> statuses;
  bool lostData = false;

 private:
  tb::TempDir directory_;
  KLT_FileHandle* handle_;
};

// A request; without threads of all.
inline KLT_Request window(uint64_t start, uint64_t end, uint32_t categories = 1,
                          std::initializer_list<uint32_t> threads = {}) {
  KLT_Request request;
  request.start = start;
  request.end = end;
  request.categories = categories;
  for (const uint32_t thread : threads) {
    const auto number = static_cast<int32_t>(thread);
    request.threads.push_back({number, number, 1});
  }
  return request;
}

inline constexpr uint64_t kOpenEnd = ~uint64_t{0};

// The lines that begin with one of the names.
inline Lines only(const Lines& lines, std::initializer_list<std::string_view> names) {
  Lines result;
  for (const std::string& line : lines) {
    const std::string_view name = std::string_view(line).substr(0, line.find(' '));
    if (std::find(names.begin(), names.end(), name) != names.end()) result.push_back(line);
  }
  return result;
}

// The lines without those that begin with one of the names.
inline Lines without(Lines lines, std::initializer_list<std::string_view> names) {
  const Lines unwanted = only(lines, names);
  std::erase_if(lines, [&](const std::string& line) {
    return std::find(unwanted.begin(), unwanted.end(), line) != unwanted.end();
  });
  return lines;
}

// Where two passes differ first; empty if they don't.
inline std::string difference(const Lines& expected, const Lines& got) {
  const auto [a, b] = std::mismatch(expected.begin(), expected.end(), got.begin(), got.end());
  if (a == expected.end() && b == got.end()) return "";
  return "line " + std::to_string(a - expected.begin() + 1) + " of " +
         std::to_string(expected.size()) + ": " + (a == expected.end() ? "(end)" : *a) +
         "\n  got, of " + std::to_string(got.size()) + ": " + (b == got.end() ? "(end)" : *b);
}

}  // namespace reading
