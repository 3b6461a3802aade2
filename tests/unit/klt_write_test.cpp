// Traces that the writer makes, as the reader sees them: records, windows behind seek points,
// profiles, storage forms, and streams that can't be written.
#include "klt/klt_write.h"

#include <gtest/gtest.h>

#include <ctime>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "klt/klt.h"
#include "klt/klt_intern.h"
#include "tests/builder/trace_files.h"

namespace {

using Lines = std::vector<std::string>;

template <class... Args>
std::string line(const char* name, Args... args) {
  std::string text = name;
  ((text += ' ' + std::to_string(args)), ...);
  return text;
}
Lines& linesOf(void* user) { return *static_cast<Lines*>(user); }

// Handlers that note what the test writes.
KLT_HandlerTable notingTable(Lines& lines) {
  KLT_HandlerTable table;
  table.user_data = &lines;
  table.begin_of_history = [](void*, uint64_t, uint32_t, uint32_t, const PAL_Triplet*) {
    return 0;
  };
  table.end_of_history = table.begin_of_history;
  table.enter_function = [](void* user, uint64_t time, uint32_t gtp, uint32_t function,
                            uint32_t scl) {
    linesOf(user).push_back(line("enter", time, gtp, function, scl));
    return 0;
  };
  table.leave_function = [](void* user, uint64_t time, uint32_t gtp, uint32_t scl) {
    linesOf(user).push_back(line("leave", time, gtp, scl));
    return 0;
  };
  table.function_history = [](void* user, uint64_t time, uint32_t gtp, uint32_t n,
                              const uint32_t* functions, const uint32_t*) {
    for (uint32_t i = 0; i < n; ++i) {
      linesOf(user).push_back(line("stack", time, gtp, functions[i]));
    }
    return 0;
  };
  table.enter_scope = [](void* user, uint64_t time, uint32_t gtp, uint32_t scope, uint32_t seqnr,
                         uint32_t) {
    linesOf(user).push_back(line("scope", time, gtp, scope, seqnr));
    return 0;
  };
  table.leave_scope = table.enter_scope;
  table.counter_value = [](void* user, uint64_t time, uint32_t gtp, uint32_t n, const uint32_t* ids,
                           uint64_t* values) {
    for (uint32_t i = 0; i < n; ++i) {
      linesOf(user).push_back(line("sample", time, gtp, ids[i], values[i]));
    }
    return 0;
  };
  table.one_to_one_communication = [](void* user, uint64_t time, uint32_t sender, int64_t span,
                                      uint32_t receiver, uint32_t, uint32_t size, uint32_t tag,
                                      uint32_t, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t) {
    linesOf(user).push_back(line("message", time, sender, span, receiver, size, tag));
    return 0;
  };
  table.onetoone_profile = [](void* user, uint32_t sender, uint32_t receiver, uint32_t, uint32_t,
                              uint32_t tag, uint32_t, uint32_t, uint32_t count, int64_t sum,
                              int64_t min, int64_t max) {
    linesOf(user).push_back(line("route", sender, receiver, tag, count, sum, min, max));
    return 0;
  };
  table.function_profile = [](void* user, uint32_t gtp, uint32_t function, uint32_t count,
                              uint64_t minSelf, uint64_t, uint64_t totalSelf, uint64_t, uint64_t,
                              uint64_t totalInclusive) {
    linesOf(user).push_back(
        line("calls", gtp, function, count, minSelf, totalSelf, totalInclusive));
    return 0;
  };
  return table;
}

Lines read(const std::string& name, const std::vector<KLT_Request>& requests) {
  Lines lines;
  KLT_FileHandle* trace = KLT_Open(name.c_str());
  EXPECT_NE(trace, nullptr);
  if (trace == nullptr) return lines;
  const KLT_HandlerTable table = notingTable(lines);
  std::vector<const KLT_Request*> pointers;
  for (const KLT_Request& request : requests) pointers.push_back(&request);
  KLT_Reader* reader = KLT_OpenReader(
      trace, KLT_MODE_EVENTS, static_cast<uint32_t>(pointers.size()), pointers.data(), &table, 1);
  EXPECT_EQ(KLT_ReadEvents(reader, -1), KLT_STATUS_FINISHED);
  KLT_CloseReader(reader);
  KLT_Close(trace);
  return lines;
}

KLT_Request window(uint64_t start, uint64_t end, uint32_t categories) {
  return {.start = start, .end = end, .categories = categories, .threads = {}};
}

constexpr uint64_t kSteps = 20000;
// Messages whose receive isn't known have no duration and enter no profile.
constexpr uint64_t kRoutes = kSteps - kSteps / 1000;
constexpr uint64_t kMissing = uint64_t{1} << 63;

// Streams long enough for several seek points; calls, scopes and messages stay open across them.
void writeRun(KLT_WFileHandle* writer) {
  KLT_Write<28>(writer, nullptr, uint64_t{5}, 0U, 1U);
  KLT_Write<30>(writer, nullptr, uint64_t{5}, 0U, 40U, 1U);
  for (uint64_t i = 0; i < kSteps; ++i) {
    const uint64_t t = 10 + 10 * i;
    const auto n = static_cast<uint32_t>(i);
    KLT_Write<29>(writer, nullptr, t, 0U, 2U, n % 3);
    KLT_Write<31>(writer, nullptr, t, 0U, 41U, n, 7U);
    const auto never = static_cast<int64_t>(kMissing);
    KLT_Write<57>(writer, nullptr, t + 1, 0U, i % 1000 == 0 ? never : int64_t{3000}, 1U, 1U, 8U, n,
                  0U, 0U);
    const uint64_t value = i;
    const uint32_t counter = 1 + n % 40;
    KLT_Write<22>(writer, nullptr, t + 2, 0U, 1U, &value, &counter);
    KLT_Write<50>(writer, nullptr, t + 5, 0U, 41U, n);
    KLT_Write<48>(writer, nullptr, t + 5, 0U);
  }
}

class KltWrite : public testing::Test {
 protected:
  std::string path(const char* name) { return directory_ / name; }
  void write(const std::string& name, int form, uint32_t flags) {
    const KLT_StatsParameters statistics;
    KLT_WFileHandle* writer = KLT_WriterOpen(nullptr, name.c_str(), 1, form, flags, &statistics);
    ASSERT_NE(writer, nullptr);
    writeRun(writer);
    bool complete = false;
    EXPECT_EQ(KLT_WriterClose(writer, &complete), nullptr);
    EXPECT_TRUE(complete);
  }
  void removeAnchors() {
    for (const auto& entry : std::filesystem::directory_iterator(path(""))) {
      if (entry.path().extension() == ".anc") std::filesystem::remove(entry.path());
    }
  }

  tb::TempDir directory_;
};

TEST_F(KltWrite, EveryFormAndFlagIsReadBackTheSame) {
  write(path("p.klt"), KLT_FORM_PLAIN, 2);
  const Lines plain = read(path("p.klt"), {});
  EXPECT_EQ(plain.size(), 2 + 6 * kSteps + kRoutes + 1);  // the profiles are told too
  write(path("s.klt"), KLT_FORM_SINGLE, 2);
  EXPECT_EQ(read(path("s.klt"), {}), plain);
  write(path("q.klt"), KLT_FORM_SERIAL, 2);
  EXPECT_EQ(read(path("q.klt"), {}), plain);
  for (const uint32_t flags : {0U, 1U, 3U}) {
    write(path("f.klt"), KLT_FORM_PLAIN, flags);
    EXPECT_EQ(read(path("f.klt"), {}), plain) << flags;
  }
}

TEST_F(KltWrite, WindowsDoNotDependOnSeekPoints) {
  write(path("t.klt"), KLT_FORM_PLAIN, 2);
  ASSERT_GT(std::filesystem::file_size(path("t.klt.f.0.anc")), 0U);
  ASSERT_GT(std::filesystem::file_size(path("t.klt.msg.anc")), 0U);
  std::vector<std::vector<KLT_Request>> windows;
  for (const uint32_t categories : {0x4U, 0x8U, 0x40U, 0x80U, 0x1U}) {
    for (const uint64_t start : {60000U, 120004U, 190001U}) {
      windows.push_back({window(start, start + 50, categories)});
    }
  }
  windows.push_back({window(90000, 90100, 0x4), window(150000, 150100, 0x8c)});
  std::vector<Lines> with;
  for (const auto& requests : windows) with.push_back(read(path("t.klt"), requests));
  removeAnchors();
  for (size_t i = 0; i < windows.size(); ++i) {
    EXPECT_EQ(read(path("t.klt"), windows[i]), with[i]) << "window " << i;
    EXPECT_FALSE(with[i].empty()) << "window " << i;
  }
}

// As for a second window, whose history goes back to before the end of the first. There is no other
// component, so the threads are those of the declared processes.
TEST_F(KltWrite, StepsBackLeaveSeekPointsInOrder) {
  constexpr uint32_t kMany = 5000;  // of 26 bytes and more
  KLT_WFileHandle* writer =
      KLT_WriterOpen(nullptr, path("t.klt").c_str(), 1, KLT_FORM_PLAIN, 2, nullptr);
  const std::vector<uint32_t> threads = {1, 1};
  KLT_Write<65>(writer, nullptr, 2U, threads.data());
  const auto message = [&](uint64_t time, int64_t span, uint32_t tag) {
    KLT_Write<57>(writer, nullptr, time, 0U, span, 1U, 1U, 8U, tag, 0U, 0U);
  };
  for (uint32_t i = 0; i < kMany; ++i) message(10 * i, 100, i);
  for (uint32_t i = 0; i < kMany; ++i) message(5000 + i, 60000, kMany + i);
  for (uint32_t i = 0; i < kMany; ++i) message(60000 + 10 * i, 100, 2 * kMany + i);
  bool complete = false;
  EXPECT_EQ(KLT_WriterClose(writer, &complete), nullptr);
  ASSERT_GT(std::filesystem::file_size(path("t.klt.msg.anc")), 0U);
  testing::internal::CaptureStderr();
  const KLT_Request windows[] = {window(60000, 60001, 0x80), window(66000, 66500, 0x80),
                                 window(30000, 30010, 0x80), window(100000, 100010, 0x80)};
  std::vector<Lines> with;
  for (const KLT_Request& request : windows) with.push_back(read(path("t.klt"), {request}));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(with[0].size(), kMany + 1);
  EXPECT_EQ(with[3].size(), 10U);
  removeAnchors();
  for (size_t i = 0; i < with.size(); ++i) EXPECT_EQ(read(path("t.klt"), {windows[i]}), with[i]);
}

TEST_F(KltWrite, ProfilesCountWhatWasWritten) {
  write(path("t.klt"), KLT_FORM_PLAIN, 2);
  const Lines lines = read(path("t.klt"), {window(0, ~uint64_t{0}, 0x4000)});
  ASSERT_EQ(lines.size(), kRoutes + 1);
  EXPECT_EQ(lines.front(), line("route", 0, 1, 1, 1, 3000, 3000, 3000));
  EXPECT_EQ(lines.back(), line("calls", 0, 2, kSteps, 5, 5 * kSteps, 5 * kSteps));
}

// Functions and threads that meet in whatever finds their profiles quickly.
TEST_F(KltWrite, ProfilesKeepFunctionsAndThreadsApart) {
  const KLT_StatsParameters stats;
  KLT_WFileHandle* writer =
      KLT_WriterOpen(nullptr, path("t.klt").c_str(), 1, KLT_FORM_PLAIN, 2, &stats);
  ASSERT_NE(writer, nullptr);
  uint64_t time = 0;
  for (int round = 0; round < 3; ++round) {
    for (const uint32_t function : {2U, 10U, 18U}) {
      for (const uint32_t thread : {0U, 1U}) {
        EXPECT_NE(KLT_Write<28>(writer, nullptr, time, thread, function), 0U);
        time += function + thread;
        EXPECT_NE(KLT_Write<48>(writer, nullptr, time, thread), 0U);
      }
    }
  }
  bool complete = false;
  EXPECT_EQ(KLT_WriterClose(writer, &complete), nullptr);
  EXPECT_EQ(read(path("t.klt"), {window(0, ~uint64_t{0}, 0x4000)}),
            (Lines{line("calls", 0, 2, 3, 2, 6, 6), line("calls", 1, 2, 3, 3, 9, 9),
                   line("calls", 0, 10, 3, 10, 30, 30), line("calls", 1, 10, 3, 11, 33, 33),
                   line("calls", 0, 18, 3, 18, 54, 54), line("calls", 1, 18, 3, 19, 57, 57)}));
}

TEST_F(KltWrite, OnlyACommunicatorThatIsNotDefinedIsMissed) {
  KLT_StatsParameters stats;
  stats.memberLookup = [](void*, uint32_t communicator, size_t* count) -> const uint32_t* {
    if (communicator == 1) *count = 0;
    return nullptr;
  };
  KLT_WFileHandle* writer =
      KLT_WriterOpen(nullptr, path("t.klt").c_str(), 1, KLT_FORM_PLAIN, 2, &stats);
  ASSERT_NE(writer, nullptr);
  const uint64_t times[] = {0, 0};
  const uint32_t received[] = {3, 4};
  for (const uint32_t communicator : {1U, 2U}) {
    testing::internal::CaptureStderr();
    KLT_Write<55>(writer, nullptr, uint64_t{5}, 0U, 8U, communicator, 1U, 2U, times, times,
                  received);
    EXPECT_EQ(testing::internal::GetCapturedStderr().find("Could not retrieve communicator") ==
                  std::string::npos,
              communicator == 1);
  }
  bool complete = false;
  EXPECT_EQ(KLT_WriterClose(writer, &complete), nullptr);
}

// Numbers that a file likes to contain don't make profiles slow: here all low bits are zero.
TEST_F(KltWrite, ProfilesOfManyRoutesTakeLinearTime) {
  const KLT_StatsParameters stats;
  const auto timeFor = [&](unsigned shift) {
    KLT_WFileHandle* writer =
        KLT_WriterOpen(nullptr, path("t.klt").c_str(), 1, KLT_FORM_PLAIN, 2, &stats);
    const std::clock_t begin = std::clock();
    for (uint32_t i = 0; i < 1U << 18; ++i) {
      const uint32_t sender = (i & 63) << shift;
      const uint32_t function = (i >> 6 & 63) << shift;
      const uint32_t tag = i >> 12 << shift;
      writer->stats()->message({sender, 0, function, 0, tag, 1, 8}, 1);
    }
    const std::clock_t taken = std::clock() - begin;
    KLT_WriterFree(writer);
    return static_cast<double>(taken) / CLOCKS_PER_SEC;
  };
  EXPECT_LT(timeFor(26), 8 * timeFor(0) + 0.5);
}

TEST_F(KltWrite, ARecordIsCompletedInItsPlace) {
  KLT_WFileHandle* writer =
      KLT_WriterOpen(nullptr, path("t.klt").c_str(), 1, KLT_FORM_PLAIN, 2, nullptr);
  ASSERT_NE(writer, nullptr);
  const auto put = [&](KLT_UpdateSlot* slot, uint64_t time, int64_t span) {
    return KLT_Write<57>(writer, slot, time, 0U, span, 1U, 1U, 8U, 7U, 0U, 0U);
  };
  KLT_UpdateSlot flushed;
  KLT_UpdateSlot buffered;
  const auto unknown = static_cast<int64_t>(kMissing);
  EXPECT_EQ(put(&flushed, 100, unknown), 35U);
  for (uint64_t i = 0; i < 5000; ++i) put(nullptr, 200 + i, 1);
  EXPECT_EQ(put(&buffered, 90000, unknown), 35U);
  EXPECT_EQ(put(&flushed, 100, 11), 35U);
  EXPECT_EQ(put(&buffered, 90000, 12), 35U);
  put(nullptr, 90001, 1);
  bool complete = false;
  EXPECT_EQ(KLT_WriterClose(writer, &complete), nullptr);
  EXPECT_TRUE(complete);
  const Lines lines = read(path("t.klt"), {});
  ASSERT_EQ(lines.size(), 5003U);
  EXPECT_EQ(lines[0], line("message", 100, 0, 11, 1, 8, 7));
  EXPECT_EQ(lines[5001], line("message", 90000, 0, 12, 1, 8, 7));
}

TEST_F(KltWrite, AStreamThatCannotBeOpenedIsToldOnceAndTheOthersGoOn) {
  std::filesystem::create_directory(path("t.klt.f.0"));
  std::filesystem::create_directory(path("t.klt.f.0/x"));  // so that it can't be removed
  testing::internal::CaptureStderr();
  KLT_WFileHandle* writer =
      KLT_WriterOpen(nullptr, path("t.klt").c_str(), 1, KLT_FORM_PLAIN, 2, nullptr);
  ASSERT_NE(writer, nullptr);
  for (uint64_t i = 0; i < 10; ++i) {
    EXPECT_EQ(KLT_Write<28>(writer, nullptr, i, 0U, 1U), 0U);
    EXPECT_NE(KLT_Write<28>(writer, nullptr, i, 1U, 1U), 0U);
  }
  bool complete = true;
  EXPECT_EQ(KLT_WriterClose(writer, &complete), nullptr);
  EXPECT_FALSE(complete);
  const std::string text = testing::internal::GetCapturedStderr();
  EXPECT_NE(text.find("Could not open data file"), std::string::npos);
  EXPECT_EQ(text.find("Could not open data file"), text.rfind("Could not open data file"));
  EXPECT_EQ(read(path("t.klt"), {}).size(), 10U);
}

TEST_F(KltWrite, AComponentIsNamedAfterItsCategoriesAndThread) {
  KLT_WFileHandle* writer =
      KLT_WriterOpen(nullptr, path("t").c_str(), 1, KLT_FORM_PLAIN, 0, nullptr);
  ASSERT_NE(writer, nullptr);
  KLT_Write<28>(writer, nullptr, uint64_t{1}, 65537U, 1U);
  KLT_Write<50>(writer, nullptr, uint64_t{1}, 0x80000001U, 1U, 1U);
  KLT_Write<18>(writer, nullptr, uint64_t{1}, 7U, "text");
  bool complete = false;
  EXPECT_EQ(KLT_WriterClose(writer, &complete), nullptr);
  for (const char* name : {"t.f.65537", "t.s.-2147483647", "t.x.7"}) {
    EXPECT_TRUE(std::filesystem::exists(path(name))) << name;
  }
}

// What a field can't count is left out, told with the place that finds it, and missed at the end.
TEST_F(KltWrite, WhatDoesNotFitIsToldAndCostsTheOutputItsCompleteness) {
  struct Case {
    const char* told;
    bool isLost;
    std::function<uint32_t(KLT_WFileHandle*)> write;
  };
  const std::string text(65536, 'x');
  const std::vector<uint32_t> ids(70000, 1);
  const std::vector<uint64_t> values(256, 1);
  const Case cases[] = {
      {"0x10000 to unsigned 2-byte", true,
       [&](KLT_WFileHandle* w) {
         return KLT_Write<18>(w, nullptr, uint64_t{1}, 0U, text.c_str());
       }},
      {"0x11170 to unsigned 2-byte", true,
       [&](KLT_WFileHandle* w) {
         return KLT_Write<45>(w, nullptr, 1U, "g", static_cast<uint32_t>(ids.size()), ids.data());
       }},
      {"0x10000 to unsigned 2-byte", true,
       [&](KLT_WFileHandle* w) { return KLT_Write<40>(w, nullptr, 1U, text.c_str(), 1U); }},
      {"0x100 to unsigned 1-byte", true,
       [&](KLT_WFileHandle* w) {
         return KLT_Write<22>(w, nullptr, uint64_t{1}, 0U, 256U, values.data(), ids.data());
       }},
      {"0x10001 to unsigned 2-byte", false,
       [&](KLT_WFileHandle* w) {
         return KLT_Write<57>(w, nullptr, uint64_t{1}, 0U, int64_t{1}, 1U, 1U, 8U, 0x10001U, 0U,
                              0U);
       }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.told);
    testing::internal::CaptureStderr();
    KLT_WFileHandle* writer =
        KLT_WriterOpen(nullptr, path("t.klt").c_str(), 1, KLT_FORM_PLAIN, 0, nullptr);
    ASSERT_NE(writer, nullptr);
    EXPECT_NE(c.write(writer), 0U);
    bool complete = c.isLost;
    EXPECT_EQ(KLT_WriterClose(writer, &complete), nullptr);
    EXPECT_NE(complete, c.isLost);
    const std::string message = testing::internal::GetCapturedStderr();
    const std::string expected = std::string("KLT Encoding Error: reducing unsigned 4-byte ") +
                                 c.told + " (klt/klt_write.h:";
    EXPECT_NE(message.find(expected), std::string::npos) << message;
  }
}

TEST_F(KltWrite, FilesOfTheInputStayAsTheyAre) {
  tb::writeFile(path("t.klt.f.0"), "input");
  KLT_FileSet input;
  input.add(path("t.klt.f.0"));
  testing::internal::CaptureStderr();
  KLT_WFileHandle* writer =
      KLT_WriterOpen(nullptr, path("t.klt").c_str(), 1, KLT_FORM_PLAIN, 2, nullptr, input);
  ASSERT_NE(writer, nullptr);
  EXPECT_EQ(KLT_Write<28>(writer, nullptr, uint64_t{1}, 0U, 1U), 0U);
  bool complete = true;
  EXPECT_EQ(KLT_WriterClose(writer, &complete), nullptr);
  EXPECT_FALSE(complete);
  (void)testing::internal::GetCapturedStderr();
  EXPECT_EQ(std::filesystem::file_size(path("t.klt.f.0")), 5U);
}

}  // namespace
