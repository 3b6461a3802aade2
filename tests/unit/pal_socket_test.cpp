// Endpoints, and the group operations when there is nobody else.
#include "util/pal_socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <regex>
#include <string>

#include "generic/RK_socketpc.h"

namespace {

bool isOpen(int descriptor) { return fcntl(descriptor, F_GETFD) != -1; }

TEST(PalSocket, EndpointsListenWhereTheirContactsSay) {
  std::string text, otherPort;
  PAL_Socket* sockets[2];
  // Numbers, which need no look-up. The loopback's name is preferred to its address.
  for (const int i : {0, 1}) {
    ASSERT_EQ(PAL_SocketListen(7 + i, 2, i == 0 ? "127.1" : "127.2", text, sockets[i]), 0);
    std::smatch parts;
    ASSERT_TRUE(std::regex_match(text, parts, std::regex("(\\d):(\\d+)_([1-9]\\d*)@(.*)"))) << text;
    EXPECT_EQ(parts[1], std::to_string(7 + i));
    EXPECT_NE(parts[2], otherPort);
    EXPECT_EQ(parts[3], std::to_string(sockets[i]->token));
    EXPECT_EQ(parts[4], i == 0 ? "127.1" : "127.0.0.2");
    otherPort = parts[2];
    const auto port = static_cast<uint16_t>(std::stoul(otherPort));
    EXPECT_GE(port, 1025U);
    const sockaddr_in address = {AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
    const int peer = socket(AF_INET, SOCK_STREAM, 0);
    EXPECT_EQ(connect(peer, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    close(peer);
  }
  const int descriptor = sockets[0]->descriptor;
  for (PAL_Socket* socket : {sockets[0], sockets[1], static_cast<PAL_Socket*>(nullptr)})
    PAL_SocketClose(socket);
  EXPECT_FALSE(isOpen(descriptor));
}

TEST(PalSocketDeathTest, FailuresAreToldAndLeaveNothing) {
  const auto withoutDescriptors = [](auto call) {
    const rlimit none = {3, 3};
    setrlimit(RLIMIT_NOFILE, &none);
    std::_Exit(call() ? 0 : 1);
  };
  const auto listen = [] {
    std::string text = "old";
    PAL_Socket* socket = nullptr;
    return PAL_SocketListen(0, 2, "127.1", text, socket) != 0 && text.empty() && !socket;
  };
  const auto join = [] { return RK_IPCInit(HERE) == 0 && !RK_IPCcommworld->sockets[0]; };
  EXPECT_EXIT(withoutDescriptors(listen), testing::ExitedWithCode(0),
              "^ERROR: cannot create socket: socket\\(\\): Too many open files\n$");
  EXPECT_EXIT(withoutDescriptors(join), testing::ExitedWithCode(0),
              "^ERROR: cannot create socket pair: socketpair\\(\\): Too many open files\n"
              "\\[.*@RK_socketpc\\.cpp:[0-9]+\\] PAL_SocketPair\\(comm->sockets\\) = 1\n$");
}

TEST(RkSocketpc, GroupOfOneKeepsItsDataAndClosesItsPair) {
  ASSERT_EQ(RK_IPCInit(HERE), 0);
  RK_IPCComm* comm = RK_IPCcommworld;
  EXPECT_EQ(RK_IPCInit(HERE), 0);
  EXPECT_EQ(RK_IPCcommworld, comm);
  int32_t rank = -1, size = -1;
  EXPECT_EQ(RK_IPCCommRank(HERE, comm, &rank) + rank, 0);
  EXPECT_EQ(RK_IPCCommSize(HERE, comm, &size) + size, 1);
  EXPECT_STRNE(RK_IPCHostName(), "");
  const std::pair<RK_IPCType, size_t> types[] = {
      {RK_IPC_CHAR, 1}, {RK_IPC_INT32, 4}, {RK_IPC_INT64, 8}, {RK_IPC_FLOAT64, 8}};
  for (const auto& [type, bytes] : types) {
    std::string text = "................";
    EXPECT_EQ(RK_IPCBcast(HERE, text.data(), 2, type, 0, comm), 0);
    EXPECT_EQ(RK_IPCAllreduce(HERE, "ABCDEFGHIJKLMNOP", text.data(), 1, type, RK_IPC_BOR, comm), 0);
    EXPECT_EQ(text.find('.'), bytes);
    EXPECT_EQ(RK_IPCReduce(HERE, "abcdefghijklmnop", text.data(), 2, type, RK_IPC_SUM, 0, comm), 0);
    EXPECT_EQ(text.find_first_not_of("abcdefghijklmnop"),
              bytes == 8 ? std::string::npos : 2 * bytes);
  }
  EXPECT_EQ(RK_IPCReduce(HERE, nullptr, nullptr, 0, RK_IPC_CHAR, RK_IPC_MAX, 0, comm), 0);
  const int ends[] = {comm->sockets[0]->descriptor, comm->sockets[1]->descriptor};
  char text[5] = "";
  EXPECT_EQ(write(ends[0], "ping", 4), 4);
  EXPECT_EQ(read(ends[1], text, 4), 4);
  EXPECT_STREQ(text, "ping");
  int listens = -1;  // nobody could connect
  socklen_t length = sizeof listens;
  EXPECT_EQ(getsockopt(ends[0], SOL_SOCKET, SO_ACCEPTCONN, &listens, &length) + listens, 0);
  EXPECT_EXIT(RK_IPCAbort(HERE, 999), testing::ExitedWithCode(999 & 0xff), "");
  for (int i = 0; i < 2; ++i) EXPECT_EQ(RK_IPCCommFree(HERE, &comm), 0);
  EXPECT_EQ(comm, nullptr);
  EXPECT_EQ(RK_IPCcommworld, nullptr);
  EXPECT_FALSE(isOpen(ends[0]) || isOpen(ends[1]));
}

}  // namespace
