// Calls handlers directly and compares the resulting text.
#include <gtest/gtest.h>

#include <bit>
#include <cfloat>
#include <cmath>
#include <fstream>
#include <functional>
#include <iterator>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "generic/extract/kltt_extract.h"
#include "generic/extract/kltt_print.h"
#include "generic/handlers/kltt_collops.h"
#include "generic/handlers/kltt_context.h"
#include "generic/handlers/kltt_events.h"
#include "generic/handlers/kltt_messages.h"
#include "generic/handlers/kltt_tables.h"
#include "generic/options/RK_conf.h"
#include "generic/sink/RK_wtrace.h"
#include "generic/text/RK_line.h"
#include "generic/text/RK_rkf.h"
#include "klt/write/klt_write.h"
#include "tests/unit/klt_reading.h"

namespace {

constexpr uint64_t kOut = ~uint64_t{0};  // took no part

class KlttText : public testing::Test {
 protected:
  KlttText() {
    RK_ConfigDefaults();
    sink_ = context.sink = RK_SinkOpenAscii((directory_ / "text").c_str(), 0);
    context.listing = sink_->output;
    sink_->timeShift = 13;
    const uint32_t threads[] = {2, 2, 2};
    const PAL_Triplet ranks[] = {{4, 0, -2}};
    KLTT_ProcessDeclaration(c, 3, threads);
    KLTT_ClassDefinition(c, 1, "App", nullptr, 0);
    for (const uint32_t id : {10U, 11U}) KLTT_FunctionDefinition(c, id, "main", 1);
    KLTT_CommunicatorDefinition(c, 2, "", 1, ranks, -2);
    KLTT_CommunicatorDefinition(c, 7, "", 0, nullptr, -2);
    for (const uint32_t id : {1U, 2U, 3U, 4U}) KLTT_CollectiveOperationDefinition(c, id, "", id);
    (void)text();
  }
  ~KlttText() override {
    RK_SinkClose(sink_, 0);
    RK_ConfigDefaults();
  }

  // What has been written since the last call.
  std::string text() {
    KLTT_DrainDelayed(context);
    return written();
  }
  std::string written() {
    RK_OutputFlush(sink_->output);
    std::ifstream file(sink_->name);
    file.seekg(seen_);
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    seen_ += static_cast<std::streamoff>(text.size());
    return text;
  }
  void enter(uint64_t time, uint32_t gtp, uint32_t function) {
    KLTT_EnterFunction(c, time, gtp, function, 0);
  }
  void message(uint64_t time, uint64_t delta) {
    KLTT_OneToOneCommunication(c, time, 0, static_cast<int64_t>(delta), 1, 2, 64, 9, 0, 0, 0, 0, 0,
                               0);
  }
  void endOfFilter(uint64_t time, std::vector<PAL_Triplet> threads, uint32_t categories = 0xc) {
    KLTT_EndOfFilter(c, time, categories, static_cast<uint32_t>(threads.size()), threads.data());
  }

  tb::TempDir directory_;
  KLTT_Context context;
  KLTT_Context* const c = &context;
  RK_Sink* sink_ = nullptr;
  std::streamoff seen_ = 0;
};

TEST_F(KlttText, DelayedRecordsAreWrittenAtTheirTime) {
  const std::string host(1000, 'h');
  const uint64_t zero[] = {0, 0, 0};
  const uint64_t deltas[] = {44, 45, 50};
  KLTT_WillyDefinition(c, 0x20001, host.c_str(), "", 7, 8, 0, 1);
  KLTT_BeginOfHistory(c, 100, 1, 0, nullptr);
  message(60, 70);
  KLTT_EnterScope(c, 50, 0, 3, 1, 0);
  KLTT_AllCommunication(c, 55, 2, 4, 3, zero, deltas, nullptr);  // ends at 99, 100 and 105
  KLTT_EndOfHistory(c, 100, 1, 0, nullptr);
  EXPECT_EQ(text(), "0 C " + ("process #1, thread #2: host \"" + host).substr(0, 511) +
                        "\n100 BEGINSCOPE CPU 1 SCOPE 3 SEQNR 1\n"
                        "100 SENDMSG 2 9 FROM 1 TO 2 LEN 64\n100 GLOBALOP 4 ON 3 2 5 -1 -1 0\n"
                        "100 GLOBALOP 4 ON 1 2 5 -1 -1 5\n130 RECVMSG 2 9 BY 2 FROM 1 LEN 64\n");
}

// The kind is that of the definition. A record may have more members than its communicator. An
// operation without a definition isn't an event.
TEST_F(KlttText, MatchedOperations) {
  const uint64_t starts[] = {5, kOut - 1}, deltas[] = {10, 20}, late = kOut - 3;
  const uint32_t size = 1;
  context.matched = true;
  KLTT_OneToAllCommunication(c, 400, 2, 99, 7, 3, 1, starts, deltas, &size, nullptr);
  KLTT_AllCommunication(c, 600, 2, 9, 2, starts, deltas, nullptr);
  EXPECT_EQ(text(), "400 COLLOP ALLTOALL 3 COM 7 ROOT 2 TIMES 405 DELTAS 10 SENTS 0 RCVDS 1\n");
  EXPECT_EQ(context.lastEventTime, 415U);
  KLTT_AllCommunication(c, 1, 2, 4, 1, &late, deltas, nullptr);
  EXPECT_EQ(context.lastEventTime, ~uint64_t{0});
}

TEST_F(KlttText, EndOfFilterClosesTheThreadsOfATripletInItsOrder) {
  std::mt19937 random(1);
  const auto number = [&](int32_t range) {
    return std::uniform_int_distribution(-range, range)(random);
  };
  for (int round = 0; round < 1000; ++round) {
    context.frames = RK_FrameWriterCreate();
    std::set<int32_t> open{INT32_MIN};
    for (int k = 0; k < 5; ++k) open.insert(number(9));
    const auto depth = [](int64_t gtp) { return static_cast<uint32_t>(gtp) % 19 + 1; };
    for (const int32_t gtp : open)
      for (uint32_t k = 0; k < depth(gtp); ++k) enter(1, static_cast<uint32_t>(gtp), 10 + k % 2);
    (void)text();
    PAL_Triplet t{number(12), number(12), number(3)};
    if (round % 16 == 0) t.first = INT32_MIN;  // too many numbers to look up each
    if (round % 8 == 0) t.last = INT32_MAX;
    std::string expected;
    for (const int64_t n : open) {
      if (t.stride == 0 || (n - t.first) % t.stride != 0) continue;
      if ((n - t.first) * t.stride < 0 || (t.last - n) * t.stride < 0) continue;
      std::string lines;
      for (uint32_t k = depth(n); k-- > 0;)
        lines += "2 EXCHEXT CPU " + std::to_string(n + 1) + " UPTO " +
                 (k == 0 ? "NOACT" : std::to_string(11 - k % 2)) + '\n';
      expected = t.stride > 0 ? expected + lines : lines + expected;
    }
    const reading::Messages messages;
    endOfFilter(2, {t});
    ASSERT_EQ(text(), expected) << t.first << ' ' << t.last << ' ' << t.stride;
  }
}

TEST_F(KlttText, EndOfFilterClosesDeclaredThreadsAndWhatEnds) {
  for (const uint32_t gtp : {0x10001U, 1U, 0x10000U, 2U, 0x20001U, 3U}) enter(1, gtp, 10);
  enter(1, 1, 11);
  for (const uint32_t scope : {7U, 8U, 9U}) KLTT_EnterScope(c, 2, 0x10000, scope, 1, 0);
  reading::Messages messages;
  for (const uint32_t seqnr : {1U, 2U}) KLTT_LeaveScope(c, 2, 0x10000, 7, seqnr, 0);
  (void)text();
  message(2, 0);
  endOfFilter(5, {}, 0xff0);
  endOfFilter(5, {{2, 1, 1}});  // no thread, so the message isn't written
  EXPECT_EQ(written(), "");
  endOfFilter(5, {{1, 2, 0}, {0x10000, 0x10000, 1}}, 0x8);
  endOfFilter(~uint64_t{0}, {});  // an open end: the time of the last event
  EXPECT_EQ(written(),
            "2 SENDMSG 2 9 FROM 1 TO 2 LEN 64\n2 RECVMSG 2 9 BY 2 FROM 1 LEN 64\n"
            "5 ENDSCOPE CPU 65537 SCOPE 9 SEQNR 1\n5 ENDSCOPE CPU 65537 SCOPE 8 SEQNR 1\n"
            "2 EXCHEXT CPU 65537 UPTO NOACT\n2 EXCHEXT CPU 2 UPTO 10\n"
            "2 EXCHEXT CPU 2 UPTO NOACT\n2 EXCHEXT CPU 65538 UPTO NOACT\n"
            "2 EXCHEXT CPU 3 UPTO NOACT\n");
  EXPECT_EQ(messages.take(),
            "ERROR: Leaving scope 7/2 which was never entered.\n"
            "ERROR: Wrong triplet syntax, stride == 0, ignoring triplet.\n");
}

TEST_F(KlttText, ValuesAtTheEdges) {
  const uint32_t counts[] = {1, 0, 0xffffffff};
  const uint32_t members[] = {0x80000000, 0xffffffff};
  const PAL_Triplet ranks[] = {{4, 0, -2}, {1, 1, 1}, {-1, -9, -4}};
  const PAL_Triplet huge[] = {{0, INT32_MAX, 1}};
  const uint32_t counter = 0xc0000002;
  uint64_t values[] = {0x700000009, ~uint64_t{0} << 32};
  reading::Messages messages;
  KLTT_ProcessDeclaration(c, 3, counts);
  KLTT_GroupDefinition(c, 8, "All", 2, members);
  KLTT_ScopeDefinition(c, 6, "phase", 1, 0x80000000, 0x7fffffff);
  KLTT_CommunicatorDefinition(c, 0x80000003, "odd", 3, ranks, -2);
  KLTT_CommunicatorDefinition(c, 0x80000003, "", 1, huge, -2);
  KLTT_FunctionDefinition(c, 10, nullptr, 1);  // the first definition stays valid
  KLTT_ClassDefinition(c, 3, nullptr, "", 1);
  KLTT_CounterDefinition(c, counter, "c", 0x83, values, 0x80000000, 1, "");
  KLTT_CounterValue(c, 3, 0x80000001, 1, &counter, values);
  KLTT_ClockResolution(c, 1, 0xffffffc0);
  for (const uint32_t gtp : {0U, 3U, 0x10000U})  // only declared threads are printed
    KLTT_ListThread(c, gtp, nullptr, ",10.0.0.1,,::1,", 7, 8, -0.5, 0.25);
  KLTT_CustomStatistics(c, 0, nullptr, 0, nullptr);  // with an output nothing is printed
  context.sink = nullptr;
  KLTT_Report(c, 5, 0x20001, "LOCAL:X", "warnings", nullptr, 0, nullptr, nullptr, nullptr, nullptr,
              nullptr, nullptr);
  EXPECT_EQ(text(),
            "NCPUS 0\nDEFTHREADNUMS 1 0 -1\nDEFGROUP 9 \"All\" NMEMBS 2 2147483649 0\n"
            "DEFSCOPE 6 ACT 1 \"phase\" START SCL 2147483648\n"
            "COMDEF -2147483645 7 4:0:-2 1:-1:-2 -5:-9:-4 NAME \"odd\"\nCOMDEF -2147483645 0\n"
            "DEFSTATE 10 ACT 1 \"(null)\"\nDEFSAMPCLASS 4 \"App:\"\nDEFACT 3 \"App:\"\n"
            "DEFSAMP -1073741821 CLASS 2 CPUSAMP FOR 2147483649 TYPE UINT MIN 7 9 MAX 4294967295 0 "
            "DIFF 1 RHINT 1 NAME \"c\" UNIT \"\"\n"
            "3 SAMP GROUP 2147483650 DEF -1073741821 UINT 7 9\nCLKPERIOD 1\nEVENTBITS -64\n"
            "PROCESS 0\nTHREAD 0\nHOSTNAME \nIP 10.0.0.1\nIP ::1\nPID 7\nTID 8\n"
            "START -0.750000\nEND -0.500000\n\n[1] ERROR: LOCAL:X\n\n\n");
  EXPECT_EQ(messages.take(), "ERROR: Invalid triplet data.\n");
  EXPECT_EQ(context.eventBits, 63U);
  EXPECT_EQ(KLTT_GetIndexInComm(context, 0x80000003, "").size(), 7U);
  EXPECT_STREQ(context.functions.find(10)->name, "main");
}

TEST_F(KlttText, TimesThatDoNotFitAreCutAndReportedOnce) {
  reading::Messages messages;
  KLTT_Clock clock{.eventBits = 20, .counterMask = 0xfffff};
  for (const auto& [raw, internal] : std::initializer_list<std::pair<uint64_t, uint64_t>>{
           {3U << 20 | 8191, 3U << 13 | 8191}, {3U << 20 | 8192, 3U << 13 | 8191}})
    EXPECT_EQ(KLTT_InternalTime(clock, raw), internal);
  clock = {};
  for (const uint64_t tick : {kKlttMaxTicks - 1, kKlttMaxTicks, ~uint64_t{0}})
    EXPECT_EQ(KLTT_InternalTime(clock, tick), ~uint64_t{0} << 13);
  EXPECT_EQ(messages.take(),
            "ERROR: time stamp 3153920 exceeds maximum number of events per clock tick supported "
            "(8192), truncating time\n"
            "ERROR: time stamp 2251799813685248 exceeds maximum number of clock ticks supported "
            "(2251799813685248), truncating time\n");
}

TEST_F(KlttText, InconsistentRecordsEndTheProcess) {
  const uint32_t ids[] = {10, 99, 0};
  const uint64_t zero[] = {0};
  uint64_t value = 0;
  const auto oneToAll = [&](uint32_t communicator) {
    KLTT_OneToAllCommunication(c, 1, 2, 9, communicator, 1, 1, zero, zero, ids, nullptr);
  };
  const auto others = [&](uint32_t id) {
    context.sink = nullptr;  // with an output nothing is printed
    KLTT_CustomStatistics(c, id, "x", 0, nullptr);
  };
  enter(1, 1, 10);
  const std::pair<const char*, std::function<void()>> rows[] = {
      {"ERROR: too many UPTOs for thread 0x65536", [&] { KLTT_LeaveFunction(c, 2, 0x10000, 0); }},
      {"ERROR: function history while stack of thread 0x1 already has 1 entries",
       [&] { KLTT_FunctionHistory(c, 3, 1, 1, ids, nullptr); }},
      {"undefined function #12", [&] { enter(1, 0, 12); }},
      {"CounterVal without counter id", [&] { KLTT_CounterValue(c, 1, 0, 1, ids + 2, &value); }},
      {"CounterVal with undefined id", [&] { KLTT_CounterValue(c, 1, 0, 1, ids + 1, &value); }},
      {"class def with invalid parent", [&] { KLTT_ClassDefinition(c, 2, "b", "b", 9); }},
      {"class def without nameself", [&] { KLTT_ClassDefinition(c, 2, "App:b", nullptr, 1); }},
      {"class def with broken hierarchy: App:b != App.b",
       [&] { KLTT_ClassDefinition(c, 2, "App.b", "b", 1); }},
      {"class def: unable to obtain full name: name (null), nameself (null), parent 0",
       [&] { KLTT_ClassDefinition(c, 2, nullptr, nullptr, 0); }},
      {"class def with different names: b != a", [&] { KLTT_ClassDefinition(c, 2, "a", "b", 0); }},
      {"duplicate class def: 1 = \\x1b[2J",
       [&] { KLTT_ClassDefinition(c, 1, "\x1b[2J", nullptr, 0); }},
      {"class id of function #4 (null) is zero",
       [&] { KLTT_FunctionDefinition(c, 4, nullptr, 0); }},
      {"function def record with an undefined class id",
       [&] { KLTT_FunctionDefinition(c, 4, nullptr, 9); }},
      {"class id of scope #4 s is zero", [&] { KLTT_ScopeDefinition(c, 4, "s", 0, 0, 0); }},
      {"scope def record with an undefined class id",
       [&] { KLTT_ScopeDefinition(c, 4, "s", 9, 0, 0); }},
      {"info record without a proper class id", [&] { KLTT_Info(c, 0, "text"); }},
      {"info record with an undefined class id", [&] { KLTT_Info(c, 9, "text"); }},
      {"OneToAll record without communicator id", [&] { oneToAll(0); }},
      {"OneToAll record with undefined communicator id", [&] { oneToAll(9); }},
      {"OneToAll record with undefined communicator id", [&] { oneToAll(7); }},
      {"function id is zero", [&] { KLTT_FunctionStatistics(c, 0, 0, 0, 0, 0, 0, 0, 0, 0); }},
      {"statistics for undefined function #9",
       [&] { KLTT_FunctionStatistics(c, 9, 0, 0, 0, 0, 0, 0, 0, 0); }},
      {"collective operation id is zero", [&] { KLTT_CollopStatistics(c, 1, 0, 0); }},
      {"statistics for undefined collection operation #9",
       [&] { KLTT_CollopStatistics(c, 1, 9, 0); }},
      {"stats id is zero", [&] { others(0); }},
      {"entry for undefined statistics #9", [&] { others(9); }},
  };
  for (const auto& [message, call] : rows) {
    const int status = std::string_view(message).starts_with("ERROR") ? 10 : 1;
    EXPECT_EXIT(call(), testing::ExitedWithCode(status), testing::Eq(std::string(message) + '\n'));
  }
}

TEST_F(KlttText, NumbersAreFormattedAsByPrintf) {
  RK_Output* const out = sink_->output;
  const auto check = [&](const char* format, auto... values) {
    char expected[200];
    std::snprintf(expected, sizeof expected, format, values...);
    ASSERT_EQ(std::string(out->buffer.get(), out->pos), expected);
    out->pos = out->buffer.get();
  };
  const auto whole = [&](uint64_t value) {
    const auto narrow = static_cast<uint32_t>(value);
    RK_Line line(out);
    line.time(value).fixed(" ").u64(value).fixed(" ").i64(value);
    line.fixed(" ").u32(narrow).fixed(" ").i32(narrow).end();
    check("%ld %lu %ld %u %d\n", value, value, value, narrow, narrow);
  };
  const auto real = [&](double value) {
    RK_Line(out).real(value).end();
    check("%G\n", value);
  };
  std::mt19937_64 random(42);
  for (uint64_t power = 1; power < UINT64_MAX / 10; power *= 10) {
    for (uint64_t value = power - 2; value != power + 3; ++value) whole(value), whole(0 - value);
  }
  for (uint64_t k = 0; k < 20000; ++k) {
    const uint64_t value = random() >> random() % 64;
    for (const uint64_t near : {k, value, value ^ k % 4096}) whole(near);
    real(std::bit_cast<double>(random()));
    real(static_cast<double>(value) / 1000);
  }
  for (const double value : std::initializer_list<double>{0.0, -0.0, 1e-4, 9.9999995e-5, 999999.5,
                                                          DBL_MAX, -HUGE_VAL, NAN, -NAN})
    real(value);
}

TEST_F(KlttText, ListsLongerThanTheBufferArriveWhole) {
  constexpr uint32_t n = 200000;
  const std::vector<uint32_t> ones(n, 1);
  std::vector<uint64_t> times(n, 1);
  const auto all = [](std::string_view item) {
    std::string result;
    for (uint32_t i = 0; i < n; ++i) result += item;
    return result;
  };
  const std::string bytes = all("\xab");
  KLTT_CounterDefinition(c, 1, "c", 1, times.data(), 0, 1, "u");
  (void)text();
  context.matched = true;
  RK_WriteThreadNums(sink_->output, ones);
  KLTT_SclDefinition(c, 1, n, ones.data(), ones.data(), nullptr, nullptr);
  KLTT_AllToAllCommunication(c, 1, 2, 4, n, times.data(), times.data(), ones.data(), nullptr,
                             nullptr);
  KLTT_OpaqueData(c, 2, 1, n, reinterpret_cast<const uint8_t*>(bytes.data()), 0);
  KLTT_CounterValue(c, 3, 1, n, ones.data(), times.data());
  EXPECT_TRUE(text() == "DEFTHREADNUMS" + all(" 1") + "\nDEFSCL 1 NLOCS 200000 LOCS" + all(" 1:1") +
                            "\n1 COLLOP ALL 4 COM 2 TIMES" + all(" 2") + " DELTAS" + all(" 1") +
                            " SENTS" + all(" 1") +
                            "\n2 KPARREGBARSUM 1 CPU 2 SEQN 0 OSIZE 200000 OSTREAM " + all("AB") +
                            "\n3 SAMP CPU 2" + all(" DEF 2 UINT 0 1") + '\n');
}

// A counter definition is written with one type and one rate hint, whatever bits its flags have. A
// start of all ones minus one is written unchanged, with its delta.
TEST_F(KlttText, BinaryOutputsKeepUnknownStarts) {
  const struct {
    uint32_t flags, kept;
    const char* hint;
  } rows[] = {{0, 2, "1"},       {3, 1, "1"},    {0x62, 2, "1"}, {0x85, 0x85, "3"},
              {0x1e, 0x12, "4"}, {0x0e, 6, "3"}, {0x0a, 10, "2"}};
  const std::string name = directory_ / "s.klt";
  const uint64_t zeros[2] = {}, starts[] = {5, kOut - 1, kOut}, deltas[] = {6, 7, 8};
  RK_Sink* const klt =
      RK_SinkOpenKlt(RK_OpenWriter(name.c_str(), {}, {}), name.c_str(), context.pending);
  reading::Lines expected;
  for (const auto& row : rows) {
    for (RK_Sink* const sink : {sink_, klt}) {
      context.sink = sink;
      KLTT_CounterDefinition(c, 1, "c", row.flags, zeros, 0, 0, "u");
    }
    EXPECT_NE(text().find(std::string("RHINT ") + row.hint), std::string::npos) << row.flags;
    expected.push_back("counter_definition 1 'c' " + std::to_string(row.kept) + " [0 0] 0 0 'u'");
  }
  context.matched = true;
  KLTT_AllCommunication(c, 1, 2, 4, 3, starts, deltas, nullptr);
  expected.push_back("event_summary 0 0 1 0 0");
  expected.push_back(
      "all_communication 8192 2 4 3 [40960 18446744073709551614 18446744073709551615] "
      "[49152 7 8] [null]");
  EXPECT_EQ(RK_SinkClose(klt, 0), 0);
  const reading::Messages messages;  // the communicator isn't defined in the output
  EXPECT_EQ(
      reading::difference(expected, reading::without(reading::linesOf(name), {"collop_profile"})),
      "");
}

}  // namespace
