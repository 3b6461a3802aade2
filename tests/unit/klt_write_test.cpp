// Traces that the writer makes, as the reader sees them: storage forms, seek points, records
// completed later, profiles, and what doesn't fit.
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

constexpr auto kUnknown = static_cast<int64_t>(uint64_t{1} << 63);

class KltWrite : public testing::Test {
 protected:
  [[nodiscard]] std::string path(const std::string& name) const { return directory_ / name; }

  // Writes a trace by `calls`; false if something is missing in it.
  bool write(const std::string& name, const std::function<void(KLT_WFileHandle*)>& calls,
             int form = KLT_FORM_PLAIN, uint32_t flags = 2) const {
    KLT_StatsParameters statistics;
    statistics.eventBits = 1;
    statistics.memberLookup = [](void*, uint32_t communicator, size_t* count) -> const uint32_t* {
      static constexpr uint32_t kMembers[] = {3, 4};
      if (communicator < 2) *count = 2 * communicator;
      return communicator == 1 ? kMembers : nullptr;
    };
    KLT_WFileHandle* writer =
        KLT_WriterOpen(nullptr, path(name).c_str(), 1, form, flags, &statistics);
    calls(writer);
    bool complete = false;
    EXPECT_EQ(KLT_WriterClose(writer, &complete), nullptr);
    return complete;
  }
  [[nodiscard]] Lines read(const std::string& name,
                           const KLT_Request& request = window(0, reading::kOpenEnd)) const {
    reading::Recorder recorder;
    const KLT_Request* const pointer = &request;
    KLT_FileHandle* trace = KLT_Open(path(name).c_str());
    reading::Reader reader(KLT_OpenReader(trace, KLT_MODE_EVENTS, 1, &pointer, &recorder.table, 1));
    EXPECT_EQ(KLT_ReadEvents(reader.get(), -1), KLT_STATUS_FINISHED);
    reader.reset();
    KLT_Close(trace);
    return std::move(recorder.lines);
  }

  tb::TempDir directory_;
};

// Streams of several seek points. Calls, scopes and messages stay open across them, messages step
// back in time as those of a second window do, and some are known only later or never.
void writeRun(KLT_WFileHandle* writer, bool completesLater) {
  std::mt19937 random(5);
  const std::vector<uint32_t> threads = {1, 1};
  KLT_Write<65>(writer, nullptr, 2U, threads.data());
  KLT_Write<28>(writer, nullptr, uint64_t{5}, 0U, 1U);
  KLT_Write<28>(writer, nullptr, uint64_t{5}, 0x80000001U, 1U);
  KLT_Write<30>(writer, nullptr, uint64_t{5}, 0U, 40U, 1U);
  struct Late {
    KLT_UpdateSlot slot;
    uint64_t time;
    int64_t span;
    uint32_t tag;
  };
  std::vector<Late> late(20);
  const auto message = [&](KLT_UpdateSlot* slot, uint64_t time, int64_t span, uint32_t tag) {
    EXPECT_EQ(KLT_Write<57>(writer, slot, time, 0U, span, 1U, 1U, 8U, tag, 0U, 0U), 35U);
  };
  for (uint32_t i = 0; i < 15000; ++i) {
    const uint64_t t = 10 + 10 * uint64_t{i};
    KLT_Write<29>(writer, nullptr, t, 0U, 2U, i % 3);
    KLT_Write<31>(writer, nullptr, t, 0U, 41U, i, 7U);
    const uint64_t value = i;
    const uint32_t counter = 1 + i % 40;
    KLT_Write<22>(writer, nullptr, t + 2, 0U, 1U, &value, &counter);
    KLT_Write<50>(writer, nullptr, t + 5, 0U, 41U, i);
    KLT_Write<48>(writer, nullptr, t + 5, 0U);
    const uint64_t sent = i / 5000 == 1 ? 5000 + i : t;
    const int64_t span = i % 1000 == 0 ? kUnknown : i / 5000 == 1 ? 60000 : 1 + random() % 3000;
    if (Late& next = late[i % late.size()]; completesLater) {
      if (next.slot.position != 0) message(&next.slot, next.time, next.span, next.tag);
      next = {{}, sent, span, i};
      message(&next.slot, sent, kUnknown, i);
    } else {
      message(nullptr, sent, span, i);
    }
  }
  for (Late& last : late) {
    if (completesLater) message(&last.slot, last.time, last.span, last.tag);
  }
}

TEST_F(KltWrite, EveryFormIsReadBackTheSameWithSeekPointsAndWithout) {
  const auto run = [](bool later) { return [=](KLT_WFileHandle* w) { writeRun(w, later); }; };
  EXPECT_TRUE(write("t.klt", run(false)));
  EXPECT_TRUE(write("l.klt", run(true)));
  EXPECT_TRUE(tb::readFile(path("l.klt.msg")) == tb::readFile(path("t.klt.msg")));
  reading::Messages messages;
  const Lines all = read("t.klt");
  EXPECT_EQ(reading::only(all, {"one_to_one_communication"}).size(), 15000U);
  for (const auto& [form, flags] : {std::pair{KLT_FORM_PLAIN, 0U},
                                    {KLT_FORM_PLAIN, 1U},
                                    {KLT_FORM_PLAIN, 3U},
                                    {KLT_FORM_SINGLE, 2U},
                                    {KLT_FORM_SERIAL, 2U}}) {
    EXPECT_TRUE(write("f.klt", run(false), form, flags));
    EXPECT_EQ(reading::difference(all, read("f.klt")), "") << form << " " << flags;
  }
  std::mt19937 random(1);
  std::vector<KLT_Request> requests;
  std::vector<Lines> lines;
  for (int i = 0; i < 24; ++i) {
    const uint32_t categories[] = {0x4, 0x8, 0x40, 0x80, 0x1, 0x8c};
    const uint64_t start = random() % 140000;
    requests.push_back(window(start, start + random() % 500, categories[i % 6]));
    lines.push_back(read("t.klt", requests.back()));
    EXPECT_EQ(reading::difference(lines.back(), read("l.klt", requests.back())), "");
  }
  for (const char* suffix : {".f.0", ".s.0", ".c.0", ".msg"}) {
    EXPECT_GT(std::filesystem::file_size(path("t.klt" + std::string(suffix) + ".anc")), 0U);
    std::filesystem::remove(path("t.klt" + std::string(suffix) + ".anc"));
  }
  EXPECT_TRUE(std::filesystem::exists(path("t.klt.f.-2147483647")));
  EXPECT_EQ(messages.take(), "");
  for (size_t i = 0; i < requests.size(); ++i) {
    EXPECT_EQ(reading::difference(lines[i], read("t.klt", requests[i])), "") << i;
  }
}

// Functions and threads that meet in whatever finds their profiles quickly; messages by route; an
// operation of members without one, of two, and of unknown ones.
TEST_F(KltWrite, ProfilesCountWhatWasWritten) {
  EXPECT_TRUE(write("t.klt", [](KLT_WFileHandle* writer) {
    const uint64_t starts[] = {0, 2};
    const uint64_t deltas[] = {4, 8};
    const uint32_t sent[] = {8, 16};
    reading::Messages messages;
    for (const uint32_t communicator : {0U, 1U, 2U}) {
      KLT_Write<7>(writer, nullptr, uint64_t{1}, 4U, 6U, communicator, 9U, 2U, starts, deltas,
                   sent);
    }
    EXPECT_EQ(messages.take(), "ERROR: Could not retrieve communicator definiton for FileStats.\n");
    uint64_t time = 2;
    for (uint64_t round = 0; round < 3; ++round) {
      for (const uint32_t function : {2U, 18U}) {
        for (const uint32_t thread : {0U, 1U}) {
          KLT_Write<28>(writer, nullptr, time, thread, function);
          KLT_Write<28>(writer, nullptr, time + 2, thread, 3U);
          time += 2 * (function + thread + round);
          KLT_Write<48>(writer, nullptr, time, thread);
          KLT_Write<48>(writer, nullptr, time, thread);
        }
        const int64_t span = function == 18 ? kUnknown : static_cast<int64_t>(2 * round);
        KLT_Write<57>(writer, nullptr, time, 0U, span, 1U, 4U, 8U, 6U, function, 0U);
      }
    }
  }));
  const std::string sent = " 2 [1 1] [8 16] [8 16] [8 16] [0 ";
  const std::string two = "[2.000000 2.000000] ";
  const std::string more = "[2.000000 2.750000] ";
  const std::string end = "[4 8] [4 8] [4 8]";
  EXPECT_EQ(
      read("t.klt", window(0, reading::kOpenEnd, 0x4000)),
      (Lines{"onetoone_profile 0 1 2 0 6 4 8 3 6 0 4",
             "collop_profile 9 4 0" + sent + "0] [0 0] [0 0] " + two + two + two + end,
             "collop_profile 9 4 1" + sent + "6] [0 6] [0 6] " + more + more + more + end,
             "collop_profile 9 4 2" + sent + "0] [0 0] [0 0] " + two + two + two + end,
             "function_profile 0 3 6 2 38 120 2 38 120", "function_profile 0 2 3 2 2 6 4 8 18",
             "function_profile 1 3 6 4 40 132 4 40 132", "function_profile 1 2 3 2 2 6 6 10 24",
             "function_profile 0 18 3 2 2 6 36 40 114", "function_profile 1 18 3 2 2 6 38 42 120",
             "end_of_filter 18446744073709551615 16384 1 0:1:1"}));
}

// What a field can't count is left out, told with the place that finds it, and missed at the end.
TEST_F(KltWrite, WhatDoesNotFitIsToldAndCostsTheOutputItsCompleteness) {
  const std::string text(65536, 'x');
  const std::vector<uint32_t> ids(70000, 1);
  const std::vector<uint64_t> values(256, 1);
  struct Case {
    const char* told;
    bool isLost;
    std::function<void(KLT_WFileHandle*)> write;
  };
  const uint64_t time = 1;
  const Case cases[] = {
      {"0x10000 to unsigned 2-byte", true,
       [&](auto* w) { KLT_Write<18>(w, nullptr, time, 0U, text.c_str()); }},
      {"0x11170 to unsigned 2-byte", true,
       [&](auto* w) { KLT_Write<45>(w, nullptr, 1U, "g", 70000U, ids.data()); }},
      {"0x10000 to unsigned 2-byte", true,
       [&](auto* w) { KLT_Write<40>(w, nullptr, 1U, text.c_str(), 1U); }},
      {"0x100 to unsigned 1-byte", true,
       [&](auto* w) { KLT_Write<22>(w, nullptr, time, 0U, 256U, values.data(), ids.data()); }},
      {"0x10001 to unsigned 2-byte", false,
       [&](auto* w) { KLT_Write<53>(w, nullptr, time, 0U, 1U, 1U, 0x10001U, 8U, 0U, 0U, 0U); }},
  };
  for (const Case& c : cases) {
    reading::Messages messages;
    EXPECT_NE(write("t.klt", c.write), c.isLost);
    const std::string said = messages.take();
    const std::string told = "KLT Encoding Error: reducing unsigned 4-byte " + std::string(c.told);
    EXPECT_NE(said.find("klt/write/klt_write_row.h:", said.find(told)), std::string::npos) << said;
  }
}

}  // namespace
