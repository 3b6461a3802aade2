// Handlers called one after another, and the text that results.
#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <cfloat>
#include <cmath>
#include <functional>
#include <map>
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
#include "tests/unit/klt_reading.h"

namespace {

constexpr uint64_t kOut = ~uint64_t{0};  // took no part

class KlttText : public testing::Test {
 protected:
  KlttText() {
    RK_ConfigDefaults();
    sink_ = context.sink = RK_SinkOpenAscii((directory_ / "text").c_str(), 0);
    context.listing = sink_->output;
    clock(0);
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
    RK_OutputFlush(sink_->output);
    const std::string all = tb::readFile(sink_->name);
    return all.substr(std::exchange(seen_, all.size()));
  }
  std::string drained() {
    KLTT_DrainDelayed(context);
    return text();
  }
  void clock(uint32_t eventBits) {
    KLTT_ClockResolution(c, 1e-6, eventBits);
    sink_->timeShift = 13 - static_cast<int32_t>(context.eventBits);
    (void)text();
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
  size_t seen_ = 0;
};

TEST_F(KlttText, WhatIsDelayedComesAtItsTime) {
  const std::string host(1000, 'h');
  const uint64_t zero[] = {0, 0, 0};
  const uint64_t deltas[] = {44, 45, 50};
  KLTT_WillyDefinition(c, 0x20001, host.c_str(), "", 7, 8, 0, 1);
  KLTT_BeginOfHistory(c, 100, 1, 0, nullptr);
  EXPECT_EQ(context.lastEventTime, 100U);
  message(60, 70);
  KLTT_EnterScope(c, 50, 0, 3, 1, 0);
  KLTT_AllCommunication(c, 55, 2, 4, 3, zero, deltas, nullptr);  // ends at 99, 100 and 105
  KLTT_EndOfHistory(c, 100, 1, 0, nullptr);
  enter(110, 0, 10);
  EXPECT_EQ(drained(), "0 C " + ("process #1, thread #2: host \"" + host).substr(0, 511) +
                           "\n100 BEGINSCOPE CPU 1 SCOPE 3 SEQNR 1\n"
                           "100 SENDMSG 2 9 FROM 1 TO 2 LEN 64\n100 GLOBALOP 4 ON 3 2 5 -1 -1 0\n"
                           "100 GLOBALOP 4 ON 1 2 5 -1 -1 5\n110 EXCHEXT CPU 1 DOWNTO 10\n"
                           "130 RECVMSG 2 9 BY 2 FROM 1 LEN 64\n");
  // Without a sink nothing is written, and the stacks are kept.
  context.sink = nullptr;
  enter(140, 0, 11);
  context.sink = sink_;
  KLTT_LeaveFunction(c, 147, 0, 0);
  message(150, KLTT_RECEIVE_UNKNOWN);
  EXPECT_EQ(context.lastEventTime, 147U);
  EXPECT_EQ(drained(), "147 EXCHEXT CPU 1 UPTO 10\n150 SENDMSG 2 9 FROM 1 TO 2 LEN 64\n");
  clock(13);
  message(~uint64_t{0}, KLTT_RECEIVE_UNKNOWN);
  EXPECT_EQ(drained(), "-1 SENDMSG 2 9 FROM 1 TO 2 LEN 64\n");
}

// The third member took no part, the time of the fourth isn't known.
TEST_F(KlttText, CollectiveOperations) {
  const uint64_t starts[] = {5, 0, kOut, kOut - 1};
  const uint64_t deltas[] = {10, 20, 30, 40};
  const uint32_t sizes[] = {1, 2, 3, 0x80000000};
  const uint32_t others[] = {7, 8, 9, 0};
  const uint32_t scls[] = {0, 6, 0x7fffffff, 1};
  KLTT_OneToAllCommunication(c, 100, 2, 99, 2, 1, 4, starts, deltas, sizes, scls);
  EXPECT_EQ(drained(), "100 GLOBALOP 1 ON 3 2 3 99 2 20 SCL 6\n105 GLOBALOP 1 ON 5 2 3 -1 1 10\n");
  RK_conf.matched_rkf = 1;
  const auto all = [&](uint32_t n) {
    KLTT_OneToAllCommunication(c, 100, 2, 99, 2, 1, n, starts, deltas, sizes, scls);
    KLTT_AllToOneCommunication(c, 200, 4, 99, 2, 2, n, starts, deltas, sizes, nullptr);
    KLTT_AllToAllCommunication(c, 300, 2, 3, n, starts, deltas, sizes, others, nullptr);
    KLTT_AllCommunication(c, 400, 2, 4, n, starts, deltas, nullptr);
    return text();
  };
  // Which sizes are known doesn't depend on how many members there are.
  EXPECT_EQ(all(0),
            "100 COLLOP ONETOALL 1 COM 2 ROOT 2 TIMES DELTAS SENTS RCVDS SCLS\n"
            "200 COLLOP ALLTOONE 2 COM 2 ROOT 4 TIMES DELTAS SENTS RCVDS\n"
            "300 COLLOP ALLTOALL 3 COM 2 TIMES DELTAS SENTS RCVDS\n"
            "400 COLLOP ALL 4 COM 2 TIMES DELTAS\n");
  const std::string end = " UNKNOWN UNKNOWN DELTAS 10 20 UNKNOWN UNKNOWN";
  EXPECT_EQ(all(4), "100 COLLOP ONETOALL 1 COM 2 ROOT 2 TIMES 105 100" + end +
                        " SENTS 0 99 0 0 RCVDS 1 2 3 2147483648 SCLS 0 6 2147483647 1\n"
                        "200 COLLOP ALLTOONE 2 COM 2 ROOT 4 TIMES 205 200" +
                        end +
                        " SENTS 1 2 3 2147483648 RCVDS 99 0 0 0\n"
                        "300 COLLOP ALLTOALL 3 COM 2 TIMES 305 300" +
                        end +
                        " SENTS 1 2 3 2147483648 RCVDS 7 8 9 0\n"
                        "400 COLLOP ALL 4 COM 2 TIMES 405 400" +
                        end + '\n');
  // The kind is the operation's. Members that the communicator lacks are forgiven, an operation
  // that isn't defined is left out and no event.
  KLTT_OneToAllCommunication(c, 500, 2, 99, 7, 3, 1, starts, deltas, sizes, nullptr);
  KLTT_AllCommunication(c, 600, 2, 9, 2, starts, deltas, nullptr);
  EXPECT_EQ(text(), "500 COLLOP ALLTOALL 3 COM 7 ROOT 2 TIMES 505 DELTAS 10 SENTS 0 RCVDS 1\n");
  EXPECT_EQ(context.lastEventTime, 515U);
  const uint64_t late = kOut - 3;
  KLTT_AllCommunication(c, 1, 2, 4, 1, &late, deltas, nullptr);
  EXPECT_EQ(context.lastEventTime, ~uint64_t{0});
}

TEST_F(KlttText, EndOfFilterClosesTheThreadsOfATripletInItsOrder) {
  std::mt19937 random(1);
  const auto number = [&](int32_t range) {
    return std::uniform_int_distribution(-range, range)(random);
  };
  for (int round = 0; round < 1000; ++round) {
    context.willys = {};
    std::set<int32_t> open;
    for (int k = 0; k < 5; ++k) open.insert(number(9));
    for (const int32_t gtp : open) enter(1, static_cast<uint32_t>(gtp), 10);
    (void)text();
    const PAL_Triplet t{number(12), number(12), number(3)};
    std::string expected;
    for (int32_t n = t.first; t.stride != 0 && (t.stride > 0 ? n <= t.last : n >= t.last);
         n += t.stride) {
      if (open.contains(n)) expected += "2 EXCHEXT CPU " + std::to_string(n + 1) + " UPTO NOACT\n";
    }
    const reading::Messages told;
    endOfFilter(2, {t});
    ASSERT_EQ(text(), expected) << t.first << ' ' << t.last << ' ' << t.stride;
  }
  // Far more numbers than anybody could look up, from either end.
  context.willys = {};
  for (int i = 0; i < 100; ++i) {
    for (const uint32_t gtp : {0x80000001U, 5U, 2U}) enter(3, gtp, 10);
    (void)text();
    endOfFilter(3, {{1001, -2147483647, -2}, {INT32_MIN, INT32_MAX, 1}});
    ASSERT_EQ(text(),
              "3 EXCHEXT CPU 6 UPTO NOACT\n3 EXCHEXT CPU -2147483646 UPTO NOACT\n"
              "3 EXCHEXT CPU 3 UPTO NOACT\n");
  }
}

TEST_F(KlttText, EndOfFilterClosesDeclaredThreadsAndWhatEnds) {
  for (const uint32_t gtp : {0x10001U, 1U, 0x10000U, 2U, 0x20001U, 3U}) enter(1, gtp, 10);
  enter(1, 1, 11);
  for (const uint32_t scope : {7U, 8U, 9U}) KLTT_EnterScope(c, 2, 0x10000, scope, 1, 0);
  reading::Messages told;
  for (const uint32_t seqnr : {1U, 2U}) KLTT_LeaveScope(c, 2, 0x10000, 7, seqnr, 0);
  (void)text();
  message(2, 0);
  endOfFilter(5, {}, 0xff0);
  EXPECT_EQ(text(), "");
  endOfFilter(5, {{1, 2, 0}, {0x10000, 0x10000, 1}}, 0x8);
  EXPECT_EQ(text(),
            "2 SENDMSG 2 9 FROM 1 TO 2 LEN 64\n2 RECVMSG 2 9 BY 2 FROM 1 LEN 64\n"
            "5 ENDSCOPE CPU 65537 SCOPE 9 SEQNR 1\n5 ENDSCOPE CPU 65537 SCOPE 8 SEQNR 1\n");
  endOfFilter(~uint64_t{0}, {});  // an open end: the time of the last event
  EXPECT_EQ(text(),
            "2 EXCHEXT CPU 65537 UPTO NOACT\n2 EXCHEXT CPU 2 UPTO 10\n"
            "2 EXCHEXT CPU 2 UPTO NOACT\n2 EXCHEXT CPU 65538 UPTO NOACT\n"
            "2 EXCHEXT CPU 3 UPTO NOACT\n");
  EXPECT_EQ(told.take(),
            "ERROR: Leaving scope 7/2 which was never entered.\n"
            "ERROR: Wrong triplet syntax, stride == 0, ignoring triplet.\n");
}

TEST_F(KlttText, DefinitionsWithValuesAtTheEdges) {
  const uint32_t counts[] = {1, 0, 0xffffffff};
  const uint32_t members[] = {0x80000000, 0xffffffff};
  const PAL_Triplet ranks[] = {{4, 0, -2}, {1, 1, 1}, {-1, -9, -4}};
  const PAL_Triplet huge[] = {{0, INT32_MAX, 1}};
  const uint64_t reals[] = {std::bit_cast<uint64_t>(-1.25), std::bit_cast<uint64_t>(1e12)};
  uint64_t values[] = {0x700000009, ~uint64_t{0} << 32};
  const uint32_t counter = 0xc0000002;
  reading::Messages told;
  KLTT_ProcessDeclaration(c, 3, counts);
  KLTT_GroupDefinition(c, 8, "All", 2, members);
  KLTT_ScopeDefinition(c, 6, "phase", 1, 0x80000000, 0x7fffffff);
  KLTT_ScopeDefinition(c, 6, "phase", 1, 0x7fffffff, 0xffffffff);
  KLTT_CollectiveOperationDefinition(c, 8, nullptr, 1);
  KLTT_CommunicatorDefinition(c, 0x80000003, "odd", 3, ranks, -2);
  KLTT_CommunicatorDefinition(c, 0x80000003, "", 1, huge, -2);
  KLTT_FunctionDefinition(c, 10, "other", 1);  // the first one stays
  KLTT_ClassDefinition(c, 3, nullptr, "", 1);
  KLTT_CounterDefinition(c, counter, "c", 0x83, values, 0x80000000, 1, nullptr);
  for (const uint32_t flags : {0x0eU, 0x1eU, 0x0aU, 2U})
    KLTT_CounterDefinition(c, counter, "c", flags, reals, 0, 1, "u");
  KLTT_CounterValue(c, 3, 0x80000001, 1, &counter, values);
  KLTT_Comment(c, 8, 1, nullptr);
  KLTT_ClockResolution(c, 1, 0xffffffc0);
  const std::string counterHead = "DEFSAMP -1073741821 CLASS 2 CPUSAMP FOR ";
  const auto real = [&](int hint) {
    return counterHead + "1 TYPE FLOAT MIN -1.25 MAX 1E+12 DIFF 0 RHINT " + std::to_string(hint) +
           " NAME \"c\" UNIT \"u\"\n";
  };
  EXPECT_EQ(text(),
            "NCPUS 0\nDEFTHREADNUMS 1 0 -1\nDEFGROUP 9 \"All\" NMEMBS 2 2147483649 0\n"
            "DEFSCOPE 6 ACT 1 \"phase\" START SCL 2147483648\n"
            "DEFSCOPE 6 ACT 1 \"phase\" END SCL 4294967295\nGLOBALOPTOKEN 8 \"(null)\"\n"
            "COMDEF -2147483645 7 4:0:-2 1:-1:-2 -5:-9:-4 NAME \"odd\"\nCOMDEF -2147483645 0\n"
            "DEFSTATE 10 ACT 1 \"other\"\nDEFSAMPCLASS 4 \"App:\"\nDEFACT 3 \"App:\"\n" +
                counterHead +
                "2147483649 TYPE UINT MIN 7 9 MAX 4294967295 0 DIFF 1 RHINT 1 NAME \"c\" UNIT "
                "\"(null)\"\n" +
                real(3) + real(4) + real(2) + real(1) +
                "3 SAMP GROUP 2147483650 DEF -1073741821 UINT 7 9\n8 C (null)\nCLKPERIOD "
                "1\nEVENTBITS -64\n");
  EXPECT_EQ(told.take(), "ERROR: Invalid triplet data.\n");
  EXPECT_EQ(context.eventBits, 63U);
  EXPECT_EQ(KLTT_GetIndexInComm(context, 0x80000003, "").size(), 7U);
  EXPECT_STREQ(context.functions.find(10)->name, "main");
}

TEST_F(KlttText, WhatCannotBeTrueEndsTheProcess) {
  const uint32_t ids[] = {10, 99, 0};
  const uint64_t zero[] = {0};
  uint64_t values[] = {0};
  const auto oneToAll = [&](uint32_t communicator) {
    KLTT_OneToAllCommunication(c, 1, 2, 9, communicator, 1, 1, zero, zero, ids, nullptr);
  };
  const auto functionStatistics = [&](uint32_t id) {
    KLTT_FunctionStatistics(c, id, 0, 0, 0, 0, 0, 0, 0, 0);
  };
  const auto customStatistics = [&](uint32_t id) {
    context.sink = nullptr;  // with an output nothing is printed
    KLTT_CustomStatistics(c, id, "x", 0, nullptr);
  };
  enter(1, 1, 10);
  const std::pair<const char*, std::function<void()>> rows[] = {
      {"ERROR: too many UPTOs for thread 0x65536", [&] { KLTT_LeaveFunction(c, 2, 0x10000, 0); }},
      {"ERROR: function history while stack of thread 0x1 already has 1 entries",
       [&] { KLTT_FunctionHistory(c, 3, 1, 1, ids, nullptr); }},
      {"undefined function #12", [&] { enter(1, 0, 12); }},
      {"CounterVal without counter id", [&] { KLTT_CounterValue(c, 1, 0, 1, ids + 2, values); }},
      {"CounterVal with undefined id", [&] { KLTT_CounterValue(c, 1, 0, 1, ids + 1, values); }},
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
       [&] { KLTT_FunctionDefinition(c, 4, "f", 9); }},
      {"class id of scope #4 s is zero", [&] { KLTT_ScopeDefinition(c, 4, "s", 0, 0, 0); }},
      {"scope def record with an undefined class id",
       [&] { KLTT_ScopeDefinition(c, 4, "s", 9, 0, 0); }},
      {"info record without a proper class id", [&] { KLTT_Info(c, 0, "text"); }},
      {"info record with an undefined class id", [&] { KLTT_Info(c, 9, "text"); }},
      {"OneToAll record without communicator id", [&] { oneToAll(0); }},
      {"OneToAll record with undefined communicator id", [&] { oneToAll(9); }},
      {"OneToAll record with undefined communicator id", [&] { oneToAll(7); }},
      {"function id is zero", [&] { functionStatistics(0); }},
      {"statistics for undefined function #9", [&] { functionStatistics(9); }},
      {"collective operation id is zero", [&] { KLTT_CollopStatistics(c, 1, 0, 0); }},
      {"statistics for undefined collection operation #9",
       [&] { KLTT_CollopStatistics(c, 1, 9, 0); }},
      {"stats id is zero", [&] { customStatistics(0); }},
      {"entry for undefined statistics #9", [&] { customStatistics(9); }},
  };
  for (const auto& [message, call] : rows) {
    const int status = std::string_view(message).starts_with("ERROR") ? 10 : 1;
    EXPECT_EXIT(call(), testing::ExitedWithCode(status), testing::Eq(std::string(message) + '\n'));
  }
}

TEST_F(KlttText, ListingsLeaveOutWhatIsNotDeclared) {
  const char* label = nullptr;
  const double value = 1.5;
  for (RK_Sink* sink : {sink_, static_cast<RK_Sink*>(nullptr)}) {
    context.sink = sink;  // with an output nothing is printed
    KLTT_CustomStatisticsDefinition(c, 4, "cache", 1, &label, &label);
    KLTT_CustomStatisticsDefinition(c, 4, nullptr, 0, &label, &label);
    KLTT_CustomStatistics(c, 4, nullptr, 1, &value);
    for (const char* level : {"warning", "warnings", static_cast<const char*>(nullptr)}) {
      KLTT_Report(c, 5, 0x20001, "LOCAL:X", level, nullptr, 0, nullptr, nullptr, nullptr, nullptr,
                  nullptr, nullptr);
    }
  }
  for (const uint32_t gtp : {0x20000U, 3U, 0x10002U})
    KLTT_ListThread(c, gtp, nullptr, ",10.0.0.1,,::1,", 7, 8, -0.5, 0.25);
  EXPECT_EQ(
      text(),
      "# cache <(null) ((null))>\n# (null) \nINFO cache \"(null)\":1.500000e+00\n"
      "[1] WARNING: LOCAL:X\n\n\n[1] ERROR: LOCAL:X\n\n\n[1] ERROR: LOCAL:X\n\n\n"
      "PROCESS 2\nTHREAD 1\nHOSTNAME \nIP 10.0.0.1\nIP ::1\nPID 7\nTID 8\nSTART -0.750000\nEND "
      "-0.500000\n\n");
}

TEST_F(KlttText, NumbersComeOutAsPrintfWritesThem) {
  RK_Output* const out = sink_->output;
  char expected[200];
  const auto check = [&] {
    ASSERT_EQ(std::string(out->buffer.get(), out->pos), expected);
    out->pos = out->buffer.get();
  };
  const auto whole = [&](uint64_t value) {
    const auto narrow = static_cast<uint32_t>(value);
    RK_Line line(out);
    line.time(value).fixed(" ").u64(value).fixed(" ").i64(value);
    line.fixed(" ").u32(narrow).fixed(" ").i32(narrow).end();
    std::snprintf(expected, sizeof expected, "%ld %lu %ld %u %d\n", static_cast<int64_t>(value),
                  value, static_cast<int64_t>(value), narrow, static_cast<int32_t>(narrow));
    check();
  };
  const auto real = [&](double value) {
    RK_Line(out).real(value).end();
    std::snprintf(expected, sizeof expected, "%G\n", value);
    check();
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
  for (const double value :
       std::initializer_list<double>{0.0, -0.0, 1e-4, 9.9999995e-5, 999999.4, 999999.5, 1e6,
                                     DBL_MAX, DBL_TRUE_MIN, -HUGE_VAL, HUGE_VAL, NAN, -NAN})
    real(value);
}

TEST_F(KlttText, ListsLongerThanTheBufferArriveWhole) {
  constexpr uint32_t n = 200000;
  const std::vector<uint32_t> ones(n, 1);
  std::vector<uint64_t> times(n, 1);
  const std::vector<uint8_t> bytes(n, 0xab);
  KLTT_CounterDefinition(c, 1, "c", 1, times.data(), 0, 1, "u");
  (void)text();
  RK_conf.matched_rkf = 1;
  RK_WriteThreadNums(sink_->output, ones);
  KLTT_SclDefinition(c, 1, n, ones.data(), ones.data(), nullptr, nullptr);
  KLTT_AllCommunication(c, 1, 2, 4, n, times.data(), times.data(), nullptr);
  KLTT_OpaqueData(c, 2, 1, n, bytes.data(), 0);
  KLTT_CounterValue(c, 3, 1, n, ones.data(), times.data());
  std::string expected;
  for (const auto& [start, item] :
       {std::pair{"DEFTHREADNUMS", " 1"},
        {"\nDEFSCL 1 NLOCS 200000 LOCS", " 1:1"},
        {"\n1 COLLOP ALL 4 COM 2 TIMES", " 2"},
        {" DELTAS", " 1"},
        {"\n2 KPARREGBARSUM 1 CPU 2 SEQN 0 OSIZE 200000 OSTREAM ", "AB"},
        {"\n3 SAMP CPU 2", " DEF 2 UINT 0 1"}}) {
    expected += start;
    for (uint32_t i = 0; i < n; ++i) expected += item;
  }
  EXPECT_TRUE(text() == expected + '\n');
}

// A counter has an integer or a floating value and one hint at the rate, whatever bits a file sets.
// A start of all ones minus one is passed on and counts nowhere. Paths of classes are kept as far
// as a record holds them.
TEST_F(KlttText, BinaryOutputsKeepWhatHasNoValue) {
  tb::Trace trace;
  reading::Lines expected;
  trace.clock(1e-6, 12).processes({1, 1, 1}).communicator(1, "", {{0, 2, 1}}).operation(4, "B", 4);
  const uint32_t kept[][2] = {{}, {0, 2}, {3, 1}, {0x62, 2}, {0x85, 0x85}, {0x1f, 0x11}, {0x0e, 6}};
  const std::string part(13000, 'p');
  std::string path = part;
  for (uint32_t id = 1; id < std::size(kept); ++id, path += ':' + part) {
    const std::string head = "_definition " + std::to_string(id);
    trace.counter(id, "c", {.type = kept[id][0], .unit = "u"});
    expected.push_back("counter" + head + " 'c' " + std::to_string(kept[id][1]) + " [0 0] 0 0 'u'");
    trace.declarations().record(12,
                                {{"id", id}, {"nameself", trace.text(part)}, {"parent", id - 1}});
    expected.push_back("class" + head + (path.size() < 65536 ? " '" + path + "' '" : " (null) '") +
                       part + "' " + std::to_string(id - 1));
  }
  tb::Collective operation{.communicator = 1, .operation = 4};
  operation.start = {5, kOut - 1, kOut};
  operation.duration = {6, 7, 8};
  trace.streamOf("cop", tb::COLLOPS, {{0, 2, 1}}).at(8192).collective(operation);
  expected.push_back(
      "all_communication 16384 1 4 3 [5 18446744073709551614 18446744073709551615] [6 7 8] [null]");
  reading::OpenTrace open(trace);
  for (const uint64_t start : {8202U, 8203U}) {  // the operation lasts to 8203
    const reading::Lines lines = open.read({reading::window(start, 9500)});
    EXPECT_EQ(reading::only(lines, {"all_communication"}).size(), 8203 - start);
  }
  RK_conf.logfile_name = directory_ / "s.klt";
  RK_conf.logfile_name_set = true;
  RK_conf.output_format = RK_conf.matched_rkf = 1;
  EXPECT_EQ(KLTT_Extract(open.handle(), 1), 0);
  KLT_FileHandle* handle = KLT_Open(RK_conf.logfile_name.c_str());
  reading::Recorder recorder;
  for (const int mode : {KLT_MODE_DEFINITIONS, KLT_MODE_EVENTS}) {
    const reading::Reader reader(KLT_OpenReader(handle, mode, 0, nullptr, &recorder.table, 1));
    EXPECT_EQ(KLT_ReadEvents(reader.get(), -1), KLT_STATUS_FINISHED);
  }
  KLT_Close(handle);
  const reading::Lines lines = reading::only(
      recorder.lines, {"counter_definition", "class_definition", "all_communication"});
  EXPECT_TRUE(lines == expected) << lines.back();
}

TEST(KlttIdIndex, AgreesWithAMapForAnyIds) {
  std::mt19937 random(5);
  std::map<uint32_t, uint32_t> model;
  KLT_IdIndex index(KLTT_DIRECT_IDS);
  KLT_IdIndex hashed;  // without an array for small ids
  for (uint32_t k = 1; k < 40000; ++k) {
    const uint32_t id = k % 2 == 0 ? k << 15 : static_cast<uint32_t>(random()) >> k % 32;
    if (!model.emplace(id, k).second) continue;
    index.add(id, k);
    hashed.add(id, k);
  }
  for (uint32_t k = 1; k < 40000; ++k) model.emplace(random(), 0);
  for (const auto& [id, expected] : model) {
    ASSERT_EQ(index.find(id), expected);
    ASSERT_EQ(hashed.find(id), expected);
  }
}

}  // namespace
