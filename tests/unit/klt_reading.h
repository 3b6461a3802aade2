// Reads built traces in tests, as lines of text.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "klt/index/klt_intern.h"
#include "klt/klt.h"
#include "tests/builder/recorder.h"
#include "tests/builder/trace_builder.h"

namespace reading {

// Captures standard error while the object exists.
class Messages {
 public:
  Messages() { testing::internal::CaptureStderr(); }
  ~Messages() { (void)take(); }
  Messages(const Messages&) = delete;
  Messages& operator=(const Messages&) = delete;

  // The first call ends the capture and returns its text.
  std::string take() {
    return std::exchange(taken_, true) ? "" : testing::internal::GetCapturedStderr();
  }

 private:
  bool taken_ = false;
};

// An open trace on disk; its definitions have been read into `definitions`.
class OpenTrace {
 public:
  explicit OpenTrace(const tb::Trace& trace) : OpenTrace(trace.files()) {}
  explicit OpenTrace(const tb::TraceFiles& files)
      : handle_(KLT_Open(files.writePlain(directory_).c_str())) {
    if (handle_ == nullptr) return;
    Recorder recorder;
    recorder.table.end_of_filter = nullptr;
    (void)KLT_ReadEvents(reader(recorder.table, {}, 1, KLT_MODE_DEFINITIONS).get(), -1);
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
    return openReader(handle_, table, requests, serial, mode);
  }
  // The lines of one pass to its end, also after errors. Sets `statuses` to all results.
  [[nodiscard]] Lines read(Recorder& recorder, const std::vector<KLT_Request>& requests = {},
                           int serial = 1, int mode = KLT_MODE_EVENTS) {
    const Reader open = reader(recorder.table, requests, serial, mode);
    statuses = finish(open.get());
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

// The lines of the trace with this name: definitions, then events.
inline Lines linesOf(const std::string& name) {
  KLT_FileHandle* handle = KLT_Open(name.c_str());
  Recorder recorder;
  recorder.table.end_of_filter = nullptr;
  for (const int mode : {KLT_MODE_DEFINITIONS, KLT_MODE_EVENTS})
    (void)finish(openReader(handle, recorder.table, {}, 1, mode).get());
  KLT_Close(handle);
  return std::move(recorder.lines);
}

// A request; without `threads` for all threads.
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

// Whether a line begins with one of the names.
inline bool hasName(const std::string& line, std::initializer_list<std::string_view> names) {
  const std::string_view name = std::string_view(line).substr(0, line.find(' '));
  return std::find(names.begin(), names.end(), name) != names.end();
}

inline Lines only(Lines lines, std::initializer_list<std::string_view> names) {
  std::erase_if(lines, [&](const std::string& line) { return !hasName(line, names); });
  return lines;
}

inline Lines without(Lines lines, std::initializer_list<std::string_view> names) {
  std::erase_if(lines, [&](const std::string& line) { return hasName(line, names); });
  return lines;
}

// The first difference between two passes; empty if there is none.
inline std::string difference(const Lines& expected, const Lines& got) {
  const auto [a, b] = std::mismatch(expected.begin(), expected.end(), got.begin(), got.end());
  if (a == expected.end() && b == got.end()) return "";
  return "line " + std::to_string(a - expected.begin() + 1) + " of " +
         std::to_string(expected.size()) + ": " + (a == expected.end() ? "(end)" : *a) +
         "\n  got, of " + std::to_string(got.size()) + ": " + (b == got.end() ? "(end)" : *b);
}

}  // namespace reading
