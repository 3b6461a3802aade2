#include "generic/kltt_events.h"

#include <gtest/gtest.h>

#include <bit>
#include <chrono>
#include <string>
#include <vector>

#include "generic/kltt_messages.h"
#include "kltt_fixture.h"

namespace {

constexpr int64_t kReceiveUnknown = static_cast<int64_t>(KLTT_RECEIVE_UNKNOWN);
constexpr int64_t kSendUnknown = static_cast<int64_t>(KLTT_SEND_UNKNOWN);

class KlttEvents : public KlttFixture {
 protected:
  int enter(uint64_t time, uint32_t gtp, uint32_t function, uint32_t scl = 0) {
    return KLTT_EnterFunction(&context, time, gtp, function, scl);
  }
  int leave(uint64_t time, uint32_t gtp, uint32_t scl = 0) {
    return KLTT_LeaveFunction(&context, time, gtp, scl);
  }
  // From thread 0 of process 0 to thread 0 of process 1, told apart by the tag.
  int message(uint64_t time, int64_t delta, uint32_t tag) {
    return KLTT_OneToOneCommunication(&context, time, 0, delta, 1, 1, 64, tag, 5, 6, 0, 0, 10, 11);
  }
  int endOfFilter(uint64_t time, std::vector<PAL_Triplet> threads, uint32_t categories = 0xc) {
    return KLTT_EndOfFilter(&context, time, categories, static_cast<uint32_t>(threads.size()),
                            threads.data());
  }
};

TEST_F(KlttEvents, CallsNestPerThreadAndNameTheFunctionReturnedTo) {
  enter(1, 0, 10);
  enter(2, 0x10000, 10, 7);
  enter(3, 0, 11, 0x7fffffff);
  leave(4, 0, 8);
  leave(5, 0x10000);
  leave(6, 0);
  EXPECT_EQ(text(),
            "1 EXCHEXT CPU 1 DOWNTO 10\n"
            "2 EXCHEXT CPU 65537 DOWNTO 10 SCL 7\n"
            "3 EXCHEXT CPU 1 DOWNTO 11\n"
            "4 EXCHEXT CPU 1 UPTO 10 SCL 8\n"
            "5 EXCHEXT CPU 65537 UPTO NOACT\n"
            "6 EXCHEXT CPU 1 UPTO NOACT\n");
}

TEST_F(KlttEvents, DelayedRecordsFollowTheEventsOfTheirTime) {
  message(5, 4, 1);
  enter(5, 2, 10);
  enter(9, 2, 11);
  leave(10, 2);
  EXPECT_EQ(text(),
            "5 EXCHEXT CPU 3 DOWNTO 10\n"
            "5 SENDMSG 1 1 FROM 1 TO 2 LEN 64 SCL 5 FUNCTION 10\n"
            "9 EXCHEXT CPU 3 DOWNTO 11\n"
            "9 RECVMSG 1 1 BY 2 FROM 1 LEN 64 SCL 6 FUNCTION 11\n"
            "10 EXCHEXT CPU 3 UPTO 10\n");
}

TEST_F(KlttEvents, EqualTimesLeaveTheQueueInOrderOfArrival) {
  message(1, 9, 1);
  message(2, 8, 2);
  message(3, 7, 3);
  message(10, 0, 4);
  EXPECT_EQ(drained(),
            "1 SENDMSG 1 1 FROM 1 TO 2 LEN 64 SCL 5 FUNCTION 10\n"
            "2 SENDMSG 1 2 FROM 1 TO 2 LEN 64 SCL 5 FUNCTION 10\n"
            "3 SENDMSG 1 3 FROM 1 TO 2 LEN 64 SCL 5 FUNCTION 10\n"
            "10 RECVMSG 1 1 BY 2 FROM 1 LEN 64 SCL 6 FUNCTION 11\n"
            "10 RECVMSG 1 2 BY 2 FROM 1 LEN 64 SCL 6 FUNCTION 11\n"
            "10 RECVMSG 1 3 BY 2 FROM 1 LEN 64 SCL 6 FUNCTION 11\n"
            "10 SENDMSG 1 4 FROM 1 TO 2 LEN 64 SCL 5 FUNCTION 10\n"
            "10 RECVMSG 1 4 BY 2 FROM 1 LEN 64 SCL 6 FUNCTION 11\n");
  EXPECT_EQ(context.lastEventTime, 10u);
}

TEST_F(KlttEvents, UnmatchedMessagesTellTheKnownSides) {
  message(20, -5, 1);
  message(21, kReceiveUnknown, 2);
  message(22, kSendUnknown, 3);
  EXPECT_EQ(drained(),
            "20 RECVMSG 1 1 BY 2 FROM 1 LEN 64 SCL 6 FUNCTION 11\n"
            "21 SENDMSG 1 2 FROM 1 TO 2 LEN 64 SCL 5 FUNCTION 10\n"
            "22 RECVMSG 1 3 BY 2 FROM 1 LEN 64 SCL 6 FUNCTION 11\n"
            "25 SENDMSG 1 1 FROM 1 TO 2 LEN 64 SCL 5 FUNCTION 10\n");
  EXPECT_EQ(context.lastEventTime, 25u);  // unknown sides don't count
}

TEST_F(KlttEvents, MatchedMessagesAreOneLineWithUnknownSidesNamed) {
  RK_conf.matched_rkf = 1;
  setClock(1e-6, 2);
  message(20, 6, 1);
  message(40, -8, 2);
  message(44, kReceiveUnknown, 3);
  message(48, kSendUnknown, 4);
  EXPECT_EQ(text(),
            "20 ONETOONE CPU 1 TO 2 DELTA 6 COM 1 LEN 64 TAG 1 SCLS 5 6 SENDER_FUNCTION 10 "
            "RECEIVER_FUNCTION 11\n"
            "48 ONETOONE CPU 1 TO 2 DELTA -8 COM 1 LEN 64 TAG 2 SCLS 5 6 SENDER_FUNCTION 10 "
            "RECEIVER_FUNCTION 11\n"
            "44 ONETOONE CPU 1 TO 2 DELTA UNKNOWN COM 1 LEN 64 TAG 3 SCLS 5 6 SENDER_FUNCTION 10 "
            "RECEIVER_FUNCTION 11\n"
            "UNKNOWN ONETOONE CPU 1 TO 2 DELTA 48 COM 1 LEN 64 TAG 4 SCLS 5 6 SENDER_FUNCTION 10 "
            "RECEIVER_FUNCTION 11\n");
  EXPECT_TRUE(context.pending.empty());
}

TEST_F(KlttEvents, HistoryTellsMessagesAndScopesAtItsOwnTime) {
  KLTT_BeginOfHistory(&context, 100, 1, 0, nullptr);
  message(60, 70, 1);
  KLTT_EnterScope(&context, 50, 0, 3, 1, 0);
  KLTT_EndOfHistory(&context, 100, 1, 0, nullptr);
  KLTT_EnterScope(&context, 110, 0, 3, 2, 0);
  EXPECT_EQ(drained(),
            "100 BEGINSCOPE CPU 1 SCOPE 3 SEQNR 1\n"
            "100 SENDMSG 1 1 FROM 1 TO 2 LEN 64 SCL 5 FUNCTION 10\n"
            "110 BEGINSCOPE CPU 1 SCOPE 3 SEQNR 2\n"
            "130 RECVMSG 1 1 BY 2 FROM 1 LEN 64 SCL 6 FUNCTION 11\n");
}

TEST_F(KlttEvents, LinesShowTheTickAndWhatInternalTimeHoldsOfTheCounter) {
  const auto shown = [&](uint32_t eventBits, uint64_t tick, uint64_t counter) {
    setClock(1e-6, eventBits);
    KLTT_Comment(&context, tick << eventBits | counter, 0, "here");
    return text();
  };
  EXPECT_EQ(shown(0, 12345, 0), "12345 C here\n");
  EXPECT_EQ(shown(4, 3, 9), std::to_string(3 << 4) + " C here\n");
  EXPECT_EQ(shown(13, 3, 9), std::to_string(3 << 13 | 9) + " C here\n");
  EXPECT_EQ(shown(14, 3, 9), std::to_string(3 << 14 | 9 << 1) + " C here\n");
}

TEST_F(KlttEvents, TimesThatDontFitAreCutAndToldOnce) {
  setClock(1e-6, 20);
  testing::internal::CaptureStderr();
  EXPECT_EQ(KLTT_InternalTime(context, uint64_t{3} << 20 | 8191), uint64_t{3} << 13 | 8191);
  EXPECT_EQ(KLTT_InternalTime(context, uint64_t{3} << 20 | 8192), uint64_t{3} << 13 | 8191);
  EXPECT_EQ(KLTT_InternalTime(context, uint64_t{3} << 20 | 9000), uint64_t{3} << 13 | 8191);
  setClock(1e-6, 0);
  EXPECT_EQ(KLTT_InternalTime(context, (uint64_t{1} << 51) - 1), ~uint64_t{0} << 13);
  EXPECT_EQ(KLTT_InternalTime(context, uint64_t{1} << 51), ~uint64_t{0} << 13);
  EXPECT_EQ(KLTT_InternalTime(context, ~uint64_t{0}), ~uint64_t{0} << 13);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "ERROR: time stamp 3153920 exceeds maximum number of events per clock tick supported "
            "(8192), truncating time\n"
            "ERROR: time stamp 2251799813685248 exceeds maximum number of clock ticks supported "
            "(2251799813685248), truncating time\n");
}

TEST_F(KlttEvents, TheLastDrainAlsoWritesTheEndOfTime) {
  setClock(1e-6, 13);
  message(~uint64_t{0}, kReceiveUnknown, 1);
  EXPECT_EQ(KLTT_LogFormatRecord(context, ~uint64_t{0}), 0);
  EXPECT_EQ(text(), "");
  EXPECT_EQ(drained(), "-1 SENDMSG 1 1 FROM 1 TO 2 LEN 64 SCL 5 FUNCTION 10\n");
}

TEST_F(KlttEvents, ScopesMayEndInAnyOrder) {
  KLTT_EnterScope(&context, 1, 0, 7, 1, 0);
  KLTT_EnterScope(&context, 2, 0, 8, 2, 9);
  testing::internal::CaptureStderr();
  KLTT_LeaveScope(&context, 3, 0, 7, 1, 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  testing::internal::CaptureStderr();
  KLTT_LeaveScope(&context, 4, 0, 8, 3, 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "ERROR: Leaving scope 8/3 which was never entered.\n");
  endOfFilter(9, {});
  EXPECT_EQ(text(),
            "1 BEGINSCOPE CPU 1 SCOPE 7 SEQNR 1\n"
            "2 BEGINSCOPE CPU 1 SCOPE 8 SEQNR 2 SCL 9\n"
            "3 ENDSCOPE CPU 1 SCOPE 7 SEQNR 1\n"
            "4 ENDSCOPE CPU 1 SCOPE 8 SEQNR 3\n"
            "9 ENDSCOPE CPU 1 SCOPE 8 SEQNR 2\n");
}

TEST_F(KlttEvents, HistoryOfAStackOpensItWithoutLocations) {
  const uint32_t functions[] = {10, 11};
  const uint32_t scls[] = {1, 2};
  KLTT_FunctionHistory(&context, 50, 1, 2, functions, scls);
  leave(60, 1);
  EXPECT_EQ(text(),
            "50 EXCHEXT CPU 2 DOWNTO 10\n"
            "50 EXCHEXT CPU 2 DOWNTO 11\n"
            "60 EXCHEXT CPU 2 UPTO 10\n");
}

TEST_F(KlttEvents, ADeepStackOpensAndCloses) {
  constexpr uint32_t kDepth = 70000;
  const std::vector<uint32_t> functions(65535, 10);
  KLTT_FunctionHistory(&context, 1, 0, 65535, functions.data(), nullptr);
  for (uint32_t i = 65535; i < kDepth; ++i) enter(1, 0, 11);
  text();
  endOfFilter(2, {});
  std::string expected;
  for (uint32_t left = kDepth - 1; left > 0; --left)
    expected += "2 EXCHEXT CPU 1 UPTO " + std::to_string(left > 65535 ? 11 : 10) + "\n";
  EXPECT_EQ(text(), expected + "2 EXCHEXT CPU 1 UPTO NOACT\n");
}

TEST_F(KlttEvents, EndOfFilterClosesTheThreadsOfATripletInItsOrder) {
  const uint32_t threads[] = {1, 1, 1, 1, 1, 1, 1, 1};
  KLTT_ProcessDeclaration(&context, 8, threads);
  for (uint32_t gtp = 0; gtp < 8; ++gtp) enter(1, gtp, 10);
  text();
  endOfFilter(5, {{6, 2, -2}});
  EXPECT_EQ(text(),
            "5 EXCHEXT CPU 7 UPTO NOACT\n5 EXCHEXT CPU 5 UPTO NOACT\n5 EXCHEXT CPU 3 UPTO NOACT\n");
  testing::internal::CaptureStderr();
  endOfFilter(6, {{0, 7, 0}, {1, 0, 1}, {7, 8, 1}});
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "ERROR: Wrong triplet syntax, stride == 0, ignoring triplet.\n");
  EXPECT_EQ(text(), "6 EXCHEXT CPU 8 UPTO NOACT\n");
  // More numbers than threads, from either end.
  enter(7, 0x80000001, 10);
  text();
  endOfFilter(7, {{1001, -2147483647, -2}});
  EXPECT_EQ(text(),
            "7 EXCHEXT CPU 6 UPTO NOACT\n7 EXCHEXT CPU 4 UPTO NOACT\n7 EXCHEXT CPU 2 UPTO NOACT\n"
            "7 EXCHEXT CPU -2147483646 UPTO NOACT\n");
  for (const uint32_t gtp : {5, 1, 3}) enter(8, gtp, 10);
  text();
  endOfFilter(8, {{INT32_MIN, INT32_MAX, 1}});
  EXPECT_EQ(text(),
            "8 EXCHEXT CPU 1 UPTO NOACT\n8 EXCHEXT CPU 2 UPTO NOACT\n8 EXCHEXT CPU 4 UPTO NOACT\n"
            "8 EXCHEXT CPU 6 UPTO NOACT\n");
}

TEST_F(KlttEvents, EndOfFilterWithoutTripletsGoesThroughTheDeclaredThreads) {
  for (const uint32_t gtp : {0x10001u, 1u, 0x10000u, 2u, 0x50001u, 9u}) enter(1, gtp, 10);
  KLTT_EnterScope(&context, 2, 0x10000, 3, 4, 5);
  text();
  endOfFilter(~uint64_t{0}, {});  // an open end: the last event's time
  EXPECT_EQ(text(),
            "2 EXCHEXT CPU 65537 UPTO NOACT\n"
            "2 ENDSCOPE CPU 65537 SCOPE 3 SEQNR 4\n"
            "2 EXCHEXT CPU 2 UPTO NOACT\n"
            "2 EXCHEXT CPU 65538 UPTO NOACT\n"
            "2 EXCHEXT CPU 3 UPTO NOACT\n");
}

TEST_F(KlttEvents, EndOfFilterClosesOnlyTheCategoriesThatEnd) {
  enter(1, 0, 10);
  KLTT_EnterScope(&context, 1, 0, 3, 4, 0);
  message(1, 0, 1);
  text();
  endOfFilter(5, {}, 0xff0);
  EXPECT_EQ(text(), "");
  endOfFilter(5, {}, 0x8);
  EXPECT_EQ(text(),
            "1 SENDMSG 1 1 FROM 1 TO 2 LEN 64 SCL 5 FUNCTION 10\n"
            "1 RECVMSG 1 1 BY 2 FROM 1 LEN 64 SCL 6 FUNCTION 11\n"
            "5 ENDSCOPE CPU 1 SCOPE 3 SEQNR 4\n");
  leave(6, 0);
  EXPECT_EQ(text(), "6 EXCHEXT CPU 1 UPTO NOACT\n");
}

TEST_F(KlttEvents, HugeDeclarationsCostNothing) {
  const auto start = std::chrono::steady_clock::now();
  const std::vector<uint32_t> threads(65535, ~uint32_t{0});
  KLTT_ProcessDeclaration(&context, 65535, threads.data());
  enter(1, 0xfffefffe, 10);
  text();
  for (int i = 0; i < 1000; ++i) endOfFilter(2, {{0, INT32_MAX, 1}, {INT32_MIN, -70000, 7}});
  endOfFilter(3, {});
  EXPECT_EQ(text(), "3 EXCHEXT CPU -65537 UPTO NOACT\n");
  EXPECT_EQ(context.totalThreads, uint64_t{65535} * 0xffffffff);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

TEST_F(KlttEvents, CounterValuesTakeTheTypeOfTheirDefinition) {
  const uint64_t bounds[2] = {0, 1};
  KLTT_CounterDefinition(&context, 1, "ints", 1, bounds, 0, 1, "");
  KLTT_CounterDefinition(&context, 0xc0000002, "floats", 2, bounds, 0, 1, "");
  text();
  const uint32_t counters[] = {1, 0xc0000002};
  uint64_t values[] = {0x0000000700000009, std::bit_cast<uint64_t>(1.5)};
  KLTT_CounterValue(&context, 3, 0, 2, counters, values);
  EXPECT_EQ(text(), "3 SAMP CPU 1 DEF 2 UINT 7 9 DEF -1073741821 FLOAT 1.5\n");
}

TEST_F(KlttEvents, FileIoCommentsAndBytesAreWrittenInOrder) {
  KLTT_FileIoBegin(&context, 1, 0, 2, 4, 100, 0);
  KLTT_FileIoEnd(&context, 2, 0, 7, 4, 100, 3);
  const uint8_t data[] = {0, 0xab};
  KLTT_OpaqueData(&context, 3, 1, 2, data, 0);
  KLTT_Comment(&context, 4, 1, "QMC: odd\nthing");
  KLTT_Comment(&context, 5, 1, nullptr);
  EXPECT_EQ(text(),
            "1 FILEIOBEGIN WRITE ON CPUID 1 4 100\n"
            "2 FILEIOEND ? on CPUID 1 4 100 SCL 3\n"
            "3 KPARREGBARSUM 1 CPU 2 SEQN 0 OSIZE 2 OSTREAM 00AB\n"
            "4 C CPU 2 QMC: odd thing\n"
            "5 C (null)\n");
}

TEST_F(KlttEvents, WithoutASinkNothingIsWrittenAndTheStacksAreKept) {
  RK_Sink* sink = context.sink;
  context.sink = nullptr;
  enter(1, 0, 10);
  message(2, 3, 1);
  KLTT_EnterScope(&context, 3, 0, 1, 1, 0);
  context.sink = sink;
  enter(9, 1, 10);
  leave(10, 0);
  EXPECT_EQ(text(),
            "5 RECVMSG 1 1 BY 2 FROM 1 LEN 64 SCL 6 FUNCTION 11\n"
            "9 EXCHEXT CPU 2 DOWNTO 10\n"
            "10 EXCHEXT CPU 1 UPTO NOACT\n");
}

using KlttEventsDeathTest = KlttEvents;

TEST_F(KlttEventsDeathTest, BrokenStacksAndIdsEndTheProcess) {
  const uint32_t functions[] = {10};
  const uint32_t unknown[] = {99};
  const uint32_t zero[] = {0};
  uint64_t values[] = {1};
  enter(1, 1, 10);
  EXPECT_EXIT(leave(2, 0x10000), testing::ExitedWithCode(10),
              "^ERROR: too many UPTOs for thread 0x65536\n$");
  EXPECT_EXIT(KLTT_FunctionHistory(&context, 3, 1, 1, functions, nullptr),
              testing::ExitedWithCode(10),
              "^ERROR: function history while stack of thread 0x1 already has 1 entries\n$");
  EXPECT_EXIT(enter(1, 0, 12), testing::ExitedWithCode(1), "^undefined function #12\n$");
  EXPECT_EXIT(KLTT_CounterValue(&context, 1, 0, 1, zero, values), testing::ExitedWithCode(1),
              "^CounterVal without counter id\n$");
  EXPECT_EXIT(KLTT_CounterValue(&context, 1, 0, 1, unknown, values), testing::ExitedWithCode(1),
              "^CounterVal with undefined id\n$");
}

}  // namespace
