// What the group operations do when there is nobody else.
#include "generic/RK_socketpc.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <cstdlib>
#include <cstring>

#include "util/pal_error.h"

namespace {

class RkSocketpc : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(RK_IPCInit(HERE), 0); }
  void TearDown() override { RK_IPCCommFree(HERE, &RK_IPCcommworld); }
};

TEST_F(RkSocketpc, InitFormsOneGroupWithoutNamingTheProcess) {
  RK_IPCComm* comm = RK_IPCcommworld;
  EXPECT_EQ(RK_IPCInit(HERE), 0);
  EXPECT_EQ(RK_IPCcommworld, comm) << "a second call changes nothing";
  int32_t rank = -1;
  int32_t size = -1;
  EXPECT_EQ(RK_IPCCommRank(HERE, comm, &rank), 0);
  EXPECT_EQ(RK_IPCCommSize(HERE, comm, &size), 0);
  EXPECT_EQ(rank, 0);
  EXPECT_EQ(size, 1);
  EXPECT_EQ(RK_procid, 0);
  EXPECT_STRNE(RK_IPCHostName(), "");
  EXPECT_EQ(PAL_messages.processName, nullptr);
}

TEST_F(RkSocketpc, NothingListensOnTheNetwork) {
  for (int descriptor = 0; descriptor < 256; ++descriptor) {
    int listening = 0;
    socklen_t length = sizeof listening;
    if (getsockopt(descriptor, SOL_SOCKET, SO_ACCEPTCONN, &listening, &length) == 0) {
      EXPECT_EQ(listening, 0) << descriptor;
    }
  }
}

TEST_F(RkSocketpc, ReductionsCopyElementsOfTheirType) {
  const int64_t send[3] = {-1, INT64_MAX, 3};
  int64_t receive[3] = {0, 0, 9};
  EXPECT_EQ(RK_IPCReduce(HERE, send, receive, 2, RK_IPC_INT64, RK_IPC_SUM, 0, RK_IPCcommworld), 0);
  EXPECT_EQ(receive[0], -1);
  EXPECT_EQ(receive[1], INT64_MAX);
  EXPECT_EQ(receive[2], 9);
  EXPECT_EQ(RK_IPCReduce(HERE, nullptr, nullptr, 0, RK_IPC_CHAR, RK_IPC_MAX, 0, RK_IPCcommworld),
            0);
  double value = 1.5;
  EXPECT_EQ(RK_IPCAllreduce(HERE, &value, &value, 1, RK_IPC_FLOAT64, RK_IPC_MIN, RK_IPCcommworld),
            0);
  EXPECT_EQ(value, 1.5);
  const int32_t words[2] = {5, 6};
  int32_t copies[2] = {0, 0};
  EXPECT_EQ(RK_IPCAllreduce(HERE, words, copies, 1, RK_IPC_INT32, RK_IPC_BOR, RK_IPCcommworld), 0);
  EXPECT_EQ(copies[0], 5);
  EXPECT_EQ(copies[1], 0);
}

TEST_F(RkSocketpc, BroadcastLeavesTheBuffer) {
  char buffer[] = "mine";
  EXPECT_EQ(RK_IPCBcast(HERE, buffer, sizeof buffer, RK_IPC_BYTE, 0, RK_IPCcommworld), 0);
  EXPECT_STREQ(buffer, "mine");
}

TEST_F(RkSocketpc, FreeClosesThePairAndForgetsTheWorld) {
  RK_IPCComm* comm = RK_IPCcommworld;
  const int descriptor = comm->sockets[0]->descriptor;
  ASSERT_NE(fcntl(descriptor, F_GETFD), -1);
  EXPECT_EQ(RK_IPCCommFree(HERE, &comm), 0);
  EXPECT_EQ(comm, nullptr);
  EXPECT_EQ(RK_IPCcommworld, nullptr);
  EXPECT_EQ(fcntl(descriptor, F_GETFD), -1);
  EXPECT_EQ(RK_IPCCommFree(HERE, &comm), 0);
}

TEST(RkSocketpcDeathTest, ACallThatFailsIsReportedOnTheDebugChannel) {
  EXPECT_EXIT(
      {
        rlimit none{};
        none.rlim_cur = none.rlim_max = 3;
        setrlimit(RLIMIT_NOFILE, &none);
        std::_Exit(RK_IPCInit(HERE));
      },
      testing::ExitedWithCode(0),
      "cannot create socket pair: .*\n\\[.*@RK_socketpc\\.cpp:[0-9]+\\] "
      "PAL_SocketPair\\(comm->sockets\\) = 1\n$");
}

TEST(RkSocketpcDeathTest, AbortEndsWithTheLowByteOfTheStatus) {
  EXPECT_EXIT(
      {
        RK_IPCInit(HERE);
        RK_IPCAbort(HERE, 999);
      },
      testing::ExitedWithCode(999 & 0xff), "");
}

}  // namespace
