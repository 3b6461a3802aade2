#include "generic/kltt_collops.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "generic/kltt_extract.h"
#include "klt/klt.h"
#include "kltt_fixture.h"
#include "tests/unit/klt_reading.h"

namespace {

constexpr uint64_t kOut = ~uint64_t{0};  // took no part

class KlttCollops : public KlttFixture {
 protected:
  void SetUp() override {
    KlttFixture::SetUp();
    const PAL_Triplet ranks[] = {{4, 0, -2}};
    KLTT_CommunicatorDefinition(&context, 2, "", 1, ranks, -2);
    KLTT_CommunicatorDefinition(&context, 7, "", 0, nullptr, -2);
    const char* names[] = {"Bcast", "Gather", "Allgather", "Barrier"};
    for (uint32_t kind = 1; kind <= 4; ++kind)
      KLTT_CollectiveOperationDefinition(&context, kind, names[kind - 1], kind);
    text();
  }

  const std::vector<uint64_t> starts_ = {5, 0, kOut};
  const std::vector<uint64_t> deltas_ = {10, 20, 30};
  const std::vector<uint32_t> sizes_ = {1, 2, 3};
  const std::vector<uint32_t> others_ = {7, 8, 9};
  const std::vector<uint32_t> scls_ = {0, 6, 0x7fffffff};

  int oneToAll(uint64_t time, uint32_t type, uint32_t communicator = 2) {
    return KLTT_OneToAllCommunication(&context, time, 2, 99, communicator, type, 3, starts_.data(),
                                      deltas_.data(), sizes_.data(), scls_.data());
  }
  int allToOne(uint64_t time, uint32_t type) {
    return KLTT_AllToOneCommunication(&context, time, 4, 99, 2, type, 3, starts_.data(),
                                      deltas_.data(), sizes_.data(), nullptr);
  }
  int allToAll(uint64_t time, uint32_t type) {
    return KLTT_AllToAllCommunication(&context, time, 2, type, 3, starts_.data(), deltas_.data(),
                                      sizes_.data(), others_.data(), nullptr);
  }
  int all(uint64_t time, uint32_t type, uint32_t communicator = 2, uint32_t n = 3) {
    return KLTT_AllCommunication(&context, time, communicator, type, n, starts_.data(),
                                 deltas_.data(), nullptr);
  }
};
using KlttCollopsDeathTest = KlttCollops;

TEST_F(KlttCollops, UnmatchedGivesALineToEachMemberThatTookPart) {
  oneToAll(100, 1);
  EXPECT_EQ(drained(),
            "100 GLOBALOP 1 ON 3 2 3 99 2 20 SCL 6\n"
            "105 GLOBALOP 1 ON 5 2 3 -1 1 10\n");
  allToOne(200, 2);
  EXPECT_EQ(drained(),
            "200 GLOBALOP 2 ON 3 2 5 2 -1 20\n"
            "205 GLOBALOP 2 ON 5 2 5 1 99 10\n");
  allToAll(300, 3);
  EXPECT_EQ(drained(),
            "300 GLOBALOP 3 ON 3 2 5 2 8 20\n"
            "305 GLOBALOP 3 ON 5 2 5 1 7 10\n");
  all(400, 4);
  EXPECT_EQ(drained(),
            "400 GLOBALOP 4 ON 3 2 5 -1 -1 20\n"
            "405 GLOBALOP 4 ON 5 2 5 -1 -1 10\n");
  EXPECT_EQ(context.lastEventTime, 420u);
}

TEST_F(KlttCollops, MatchedIsOneLineOfTheKindThatTheOperationHas) {
  RK_conf.matched_rkf = 1;
  oneToAll(100, 1);
  oneToAll(110, 3);
  allToOne(200, 2);
  allToAll(300, 3);
  all(400, 4);
  EXPECT_EQ(text(),
            "100 COLLOP ONETOALL 1 COM 2 ROOT 2 TIMES 105 100 UNKNOWN DELTAS 10 20 UNKNOWN SENTS 0 "
            "99 0 RCVDS 1 2 3 SCLS 0 6 2147483647\n"
            "110 COLLOP ALLTOALL 3 COM 2 ROOT 2 TIMES 115 110 UNKNOWN DELTAS 10 20 UNKNOWN SENTS 0 "
            "99 0 RCVDS 1 2 3 SCLS 0 6 2147483647\n"
            "200 COLLOP ALLTOONE 2 COM 2 ROOT 4 TIMES 205 200 UNKNOWN DELTAS 10 20 UNKNOWN SENTS 1 "
            "2 3 RCVDS 99 0 0\n"
            "300 COLLOP ALLTOALL 3 COM 2 TIMES 305 300 UNKNOWN DELTAS 10 20 UNKNOWN SENTS 1 2 3 "
            "RCVDS 7 8 9\n"
            "400 COLLOP ALL 4 COM 2 TIMES 405 400 UNKNOWN DELTAS 10 20 UNKNOWN\n");
  EXPECT_EQ(context.lastEventTime, 420u);
}

TEST_F(KlttCollops, MatchedLeavesOutUnknownOperationsAndForgivesMissingMembers) {
  RK_conf.matched_rkf = 1;
  EXPECT_EQ(oneToAll(100, 9), 0);
  EXPECT_EQ(text(), "");
  EXPECT_EQ(context.lastEventTime, 0u);
  EXPECT_EQ(oneToAll(100, 1, 7), 0);
  EXPECT_EQ(text(),
            "100 COLLOP ONETOALL 1 COM 7 ROOT 2 TIMES 105 100 UNKNOWN DELTAS 10 20 UNKNOWN SENTS 0 "
            "0 0 RCVDS 1 2 3 SCLS 0 6 2147483647\n");
}

// Which sizes are known doesn't depend on how many members there are, nor on what came before.
TEST_F(KlttCollops, MatchedWithoutMembersStillNamesWhatItKnows) {
  RK_conf.matched_rkf = 1;
  const uint32_t none = 0;
  KLTT_AllToOneCommunication(&context, 100, 2, 99, 2, 2, 0, starts_.data(), deltas_.data(), &none,
                             nullptr);
  KLTT_OneToAllCommunication(&context, 200, 2, 99, 2, 1, 0, starts_.data(), deltas_.data(), &none,
                             nullptr);
  all(300, 4, 2, 0);
  EXPECT_EQ(text(),
            "100 COLLOP ALLTOONE 2 COM 2 ROOT 2 TIMES DELTAS SENTS RCVDS\n"
            "200 COLLOP ONETOALL 1 COM 2 ROOT 2 TIMES DELTAS SENTS RCVDS\n"
            "300 COLLOP ALL 4 COM 2 TIMES DELTAS\n");
}

TEST_F(KlttCollops, HistoryCutsMembersAtTheStartOfTheWindow) {
  KLTT_BeginOfHistory(&context, 118, 1, 0, nullptr);
  all(100, 4);  // members run to 115 and 120
  KLTT_EndOfHistory(&context, 118, 1, 0, nullptr);
  EXPECT_EQ(drained(), "118 GLOBALOP 4 ON 3 2 5 -1 -1 2\n");
}

TEST_F(KlttCollops, NothingToQueueForNoMembers) {
  EXPECT_EQ(all(100, 4, 7, 0), 0);
  EXPECT_EQ(drained(), "");
  EXPECT_EQ(context.lastEventTime, 0u);
}

TEST_F(KlttCollops, TheLastTimeSaturates) {
  const uint64_t starts[] = {kOut - 3, kOut};
  const uint64_t deltas[] = {5, kOut};
  KLTT_AllCommunication(&context, 1, 2, 4, 2, starts, deltas, nullptr);
  EXPECT_EQ(context.lastEventTime, ~uint64_t{0});
}

// A start of all ones minus one is passed on and counts nowhere.
TEST_F(KlttCollops, AMemberWhoseStartIsNotKnownHasNoTimes) {
  tb::Trace trace;
  trace.clock(1e-6, 13).processes({1, 1, 1}).communicator(1, "", {{0, 2, 1}}).operation(4, "B", 4);
  trace.streamOf("cop", tb::COLLOPS, {{0, 2, 1}})
      .at(8192)
      .collective(
          {.communicator = 1, .operation = 4, .start = {5, kOut - 1, kOut}, .duration = {6, 7, 8}})
      .at(9000)
      .collective({.communicator = 1, .operation = 4, .start = {0, 0, 0}, .duration = {1, 1, 1}});
  const std::string first =
      "all_communication 8192 1 4 3 [5 18446744073709551614 "
      "18446744073709551615] [6 7 8] [null]";
  const std::string second = "all_communication 9000 1 4 3 [0 0 0] [1 1 1] [null]";
  reading::OpenTrace open(trace);
  const auto lines = [](reading::OpenTrace& from, const std::vector<KLT_Request>& requests) {
    return reading::only(from.read(requests), {"all_communication"});
  };
  EXPECT_EQ(lines(open, {reading::window(8202, 9500)}), (reading::Lines{first, second}));
  EXPECT_EQ(lines(open, {reading::window(8203, 9500)}), reading::Lines{second});

  const tb::TempDir directory;
  RK_conf.logfile_name = directory / "out.klt";
  RK_conf.logfile_name_set = true;
  RK_conf.output_format = 1;
  RK_conf.matched_rkf = 1;
  EXPECT_EQ(KLTT_Extract(open.handle(), 1), 0);
  KLT_FileHandle* slice = KLT_Open(RK_conf.logfile_name.c_str());
  ASSERT_NE(slice, nullptr);
  reading::Recorder recorder;
  {
    const reading::Reader reader(
        KLT_OpenReader(slice, KLT_MODE_EVENTS, 0, nullptr, &recorder.table, 1));
    EXPECT_EQ(KLT_ReadEvents(reader.get(), -1), KLT_STATUS_FINISHED);
  }
  KLT_Close(slice);
  EXPECT_EQ(reading::only(recorder.lines, {"all_communication"}), (reading::Lines{first, second}));

  const uint64_t starts[] = {5, kOut - 1, kOut};
  KLTT_AllCommunication(&context, 100, 2, 4, 3, starts, deltas_.data(), nullptr);
  RK_conf.matched_rkf = 0;
  KLTT_AllCommunication(&context, 100, 2, 4, 3, starts, deltas_.data(), nullptr);
  EXPECT_EQ(drained(),
            "100 COLLOP ALL 4 COM 2 TIMES 105 UNKNOWN UNKNOWN DELTAS 10 UNKNOWN UNKNOWN\n"
            "105 GLOBALOP 4 ON 5 2 5 -1 -1 10\n");
  EXPECT_EQ(context.lastEventTime, 115u);
}

TEST_F(KlttCollopsDeathTest, UnknownCommunicatorsAndMembersEndTheProcess) {
  const auto fatal = testing::ExitedWithCode(1);
  EXPECT_EXIT(oneToAll(1, 1, 0), fatal, "^OneToAll record without communicator id\n$");
  EXPECT_EXIT(all(1, 4, 9), fatal, "^AllToAll record with undefined communicator id\n$");
  EXPECT_EXIT(oneToAll(1, 1, 7), fatal, "^OneToAll record with undefined communicator id\n$");
}

}  // namespace
