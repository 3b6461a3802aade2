// Writes traces and reads them again: storage forms, seek points, records completed later, and
// values that don't fit.
#include "klt/write/klt_write.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "tests/unit/klt_reading.h"

namespace {

using reading::Lines;
using reading::window;

constexpr int64_t kUnknown = INT64_MIN;
constexpr uint64_t kTime = 1;

class KltWrite : public testing::Test {
 protected:
  [[nodiscard]] std::string path(const std::string& name) const { return directory_ / name; }

  // Writes a trace by `calls`; false if it is incomplete.
  template <class Calls>
  bool write(const std::string& name, Calls&& calls, int form = KLT_FORM_PLAIN,
             uint32_t flags = 2) const {
    const KLT_StatsParameters statistics;
    KLT_WFileHandle* w = KLT_WriterOpen(nullptr, path(name).c_str(), 1, form, flags, &statistics);
    calls(w);
    bool complete = false;
    EXPECT_EQ(KLT_WriterClose(w, &complete), nullptr);
    return complete;
  }
  [[nodiscard]] Lines read(const std::string& name, const KLT_Request& request) const {
    reading::Recorder recorder;
    KLT_FileHandle* trace = KLT_Open(path(name).c_str());
    auto reader = reading::openReader(trace, recorder.table, {request}, 1, KLT_MODE_EVENTS);
    EXPECT_EQ(reading::finish(reader.get()), std::vector<int>{KLT_STATUS_FINISHED});
    reader.reset();
    KLT_Close(trace);
    return std::move(recorder.lines);
  }

  tb::TempDir directory_;
};

// Streams with several seek points, at which calls, scopes and messages are open. The times of
// messages decrease as at a second window, and some messages are completed later or never.
void writeRun(KLT_WFileHandle* w, bool completesLater) {
  std::mt19937 random(5);
  KLT_Write<28>(w, nullptr, uint64_t{5}, 0U, 1U);
  KLT_Write<28>(w, nullptr, uint64_t{5}, 0x80000001U, 1U);
  KLT_Write<30>(w, nullptr, uint64_t{5}, 0U, 40U, 1U);
  struct Late {
    KLT_UpdateSlot slot;
    uint64_t time;
    int64_t span;
    uint32_t tag;
  };
  std::vector<Late> late(20);
  const auto message = [&](KLT_UpdateSlot* slot, uint64_t time, int64_t span, uint32_t tag) {
    EXPECT_EQ(KLT_Write<57>(w, slot, time, 0U, span, 1U, 1U, 8U, tag, 0U, 0U), 35U);
  };
  const auto complete = [&](Late& known) {
    if (known.slot.position != 0) message(&known.slot, known.time, known.span, known.tag);
  };
  for (uint32_t i = 0; i < 15000; ++i) {
    const uint64_t t = 10 + 10 * uint64_t{i}, value = i;
    const uint32_t counter = 1 + i % 40;
    KLT_Write<29>(w, nullptr, t, 0U, 2U, i % 3);
    KLT_Write<31>(w, nullptr, t, 0U, 41U, i, 7U);
    KLT_Write<22>(w, nullptr, t + 2, 0U, 1U, &value, &counter);
    KLT_Write<50>(w, nullptr, t + 5, 0U, 41U, i);
    KLT_Write<48>(w, nullptr, t + 5, 0U);
    const uint64_t sent = i / 5000 == 1 ? 5000 + i : t;
    const auto usual = static_cast<int64_t>(1 + random() % 3000);
    const int64_t span = i % 1000 == 0 ? kUnknown : i / 5000 == 1 ? 60000 : usual;
    Late& next = late[i % late.size()];
    complete(next);
    if (completesLater) next = {{}, sent, span, i};
    message(completesLater ? &next.slot : nullptr, sent, completesLater ? kUnknown : span, i);
  }
  for (Late& last : late) complete(last);
}

TEST_F(KltWrite, EveryFormIsReadBackTheSameWithSeekPointsAndWithout) {
  const auto run = [](bool later) { return [=](KLT_WFileHandle* w) { writeRun(w, later); }; };
  EXPECT_TRUE(write("t.klt", run(false)));
  EXPECT_TRUE(write("l.klt", run(true)));
  EXPECT_TRUE(tb::readFile(path("l.klt.msg")) == tb::readFile(path("t.klt.msg")));
  EXPECT_EQ(tb::readFile(path("t.klt.msg.anc"))[0], KLT_Row::history);  // no empty call stack
  reading::Messages messages;
  const KLT_Request whole = window(0, reading::kOpenEnd);
  const Lines all = read("t.klt", whole);
  EXPECT_EQ(reading::only(all, {"one_to_one_communication"}).size(), 15000U);
  for (const auto& [form, flags] : {std::pair{KLT_FORM_PLAIN, 0U},
                                    {KLT_FORM_PLAIN, 3U},
                                    {KLT_FORM_SINGLE, 2U},
                                    {KLT_FORM_SERIAL, 2U}}) {
    EXPECT_TRUE(write("f.klt", run(false), form, flags));
    EXPECT_EQ(reading::difference(all, read("f.klt", whole)), "") << form << " " << flags;
  }
  std::mt19937 random(1);
  std::vector<std::pair<KLT_Request, Lines>> windows;
  for (int i = 0; i < 24; ++i) {
    const uint32_t categories[] = {0x4, 0x8, 0x40, 0x80, 0x1, 0x8c};
    const uint64_t start = random() % 140000;
    const KLT_Request request = window(start, start + random() % 500, categories[i % 6]);
    windows.emplace_back(request, read("t.klt", request));
    EXPECT_EQ(reading::difference(windows.back().second, read("l.klt", request)), "");
  }
  for (const char* suffix : {".f.0", ".s.0", ".c.0", ".msg"}) {
    EXPECT_TRUE(std::filesystem::remove(path("t.klt" + std::string(suffix) + ".anc"))) << suffix;
  }
  EXPECT_TRUE(std::filesystem::exists(path("t.klt.f.-2147483647")));
  EXPECT_EQ(messages.take(), "");
  for (const auto& [request, lines] : windows) {
    EXPECT_EQ(reading::difference(lines, read("t.klt", request)), "") << request.start;
  }
}

TEST_F(KltWrite, AThreadHasOneProfileForEachFunction) {
  constexpr uint32_t kFunctions = 1000, kRounds = 3;
  write("t.klt", [](KLT_WFileHandle* w) {
    for (uint32_t i = 0; i < kRounds * kFunctions; ++i) {
      KLT_Write<28>(w, nullptr, uint64_t{2 * i}, 0U, 1 + i % kFunctions);
      KLT_Write<48>(w, nullptr, uint64_t{2 * i + 1}, 0U);
    }
  });
  const Lines all = read("t.klt", window(0, reading::kOpenEnd, 0x4000));
  EXPECT_EQ(reading::only(all, {"function_profile"}).size(), kFunctions);
}

// What exceeds a count is left out and reported with the source location; the output is incomplete.
TEST_F(KltWrite, WhatDoesNotFitIsReportedAndMakesTheOutputIncomplete) {
  const std::string text(65536, 'x');
  const std::pair<const char*, std::function<void(KLT_WFileHandle*)>> cases[] = {
      {"0x10001 to unsigned 2-byte",  // nothing is lost
       [](auto* w) { KLT_Write<53>(w, nullptr, kTime, 0U, 1U, 1U, 0x10001U, 8U, 0U, 0U, 0U); }},
      {"0x10000 to unsigned 2-byte",
       [&](auto* w) { KLT_Write<18>(w, nullptr, kTime, 0U, text.c_str()); }},
  };
  for (const auto& [report, calls] : cases) {
    reading::Messages messages;
    EXPECT_EQ(write("t.klt", calls), &report == &cases[0].first);
    const std::string written = messages.take();
    const size_t at =
        written.find("KLT Encoding Error: reducing unsigned 4-byte " + std::string(report));
    EXPECT_NE(written.find("klt/write/klt_write_row.h:", at), std::string::npos) << written;
  }
}

}  // namespace
