// Summary data of events stated by a test, and the files read back.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "generic/kltt_summary.h"
#include "tests/builder/trace_files.h"

// A file's bytes, read from front to back.
class SummaryBytes {
 public:
  explicit SummaryBytes(std::string data) : data_(std::move(data)) {}

  template <class T>
  T take() {
    T value{};
    EXPECT_LE(position_ + sizeof value, data_.size());
    if (position_ + sizeof value <= data_.size()) {
      std::memcpy(&value, data_.data() + position_, sizeof value);
    }
    position_ += sizeof value;
    return value;
  }
  uint32_t u32() { return take<uint32_t>(); }
  uint64_t u64() { return take<uint64_t>(); }
  double f64() { return take<double>(); }
  std::string text() {
    const uint32_t length = u32();
    position_ += length;
    return data_.substr(position_ - length, length);
  }
  void skip(size_t bytes) { position_ += bytes; }
  [[nodiscard]] bool atEnd() const { return position_ == data_.size(); }

 private:
  std::string data_;
  size_t position_ = 0;
};

struct SummaryCall {
  uint32_t function;
  uint64_t self, inclusive;
  uint32_t calls, scl, children, firstChild, moreSiblings, parent;
};
struct SummaryThread {
  uint64_t start, width;
  uint32_t thread, events;
  std::vector<SummaryCall> calls;
};

class SummaryTest : public testing::Test {
 protected:
  // 1,000 events give 62 bins; with this span they are 10 ticks wide, and 3 ticks remain.
  static constexpr uint64_t kEvents = 1000;
  static constexpr uint64_t kSpan = 623;

  KLTT_Summary& open(uint64_t start, uint64_t span, int32_t eventBits, uint64_t events,
                     const std::vector<uint32_t>& threads = {}) {
    summary_ = KLTT_SumOpen(base_.c_str(), start, span, eventBits, events, threads);
    return *summary_;
  }
  KLTT_Summary& open(const std::vector<uint32_t>& threads = {}) {
    return open(0, kSpan, 0, kEvents, threads);
  }
  bool close() { return KLTT_SumClose(summary_); }
  void removeFiles() const {
    for (const char* kind : {"fnc", "cop", "msg", "cnt", "rep"}) unlink(path(kind).c_str());
  }

  [[nodiscard]] std::string path(const char* kind) const { return base_ + ".sum." + kind; }

  // The records of a file behind its header, whose number goes to `records`.
  SummaryBytes body(const char* kind, uint64_t* records = nullptr) {
    SummaryBytes bytes(tb::readFile(path(kind)));
    EXPECT_EQ(bytes.u64(), 1U);
    width_ = bytes.u64();
    const uint64_t count = bytes.u64();
    if (records != nullptr) *records = count;
    return bytes;
  }

  std::vector<SummaryThread> threads() {
    uint64_t count = 0;
    SummaryBytes bytes = body("fnc", &count);
    std::vector<SummaryThread> all;
    for (; count > 0; --count) {
      SummaryThread& thread = all.emplace_back();
      thread.start = bytes.u64();
      thread.width = bytes.u64();
      thread.thread = bytes.u32();
      thread.events = bytes.u32();
      const uint32_t calls = bytes.u32();
      EXPECT_EQ(bytes.u32(), 0U);
      for (uint32_t i = 0; i < calls; ++i) {
        EXPECT_EQ(bytes.u32(), 0U);
        SummaryCall& call = thread.calls.emplace_back();
        call.function = bytes.u32();
        call.self = bytes.u64();
        call.inclusive = bytes.u64();
        for (uint32_t* field : {&call.calls, &call.scl, &call.children, &call.firstChild,
                                &call.moreSiblings, &call.parent}) {
          *field = bytes.u32();
        }
      }
    }
    EXPECT_TRUE(bytes.atEnd());
    return all;
  }

  tb::TempDir directory_;
  std::string base_ = directory_ / "run.klt";
  KLTT_Summary* summary_ = nullptr;
  uint64_t width_ = 0;  // of a bin, in the header read last
};
