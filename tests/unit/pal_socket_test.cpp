// Endpoints, and the operations of a group of one process.
#include "util/pal_socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <regex>
#include <string>

#include "generic/RK_socketpc.h"

namespace {

bool isOpen(int descriptor) { return fcntl(descriptor, F_GETFD) != -1; }

TEST(PalSocket, EndpointsListenAtTheirContacts) {
  std::string text;
  PAL_Socket* first;
  // A number, which needs no look-up. For the loopback address the contact has the name.
  ASSERT_EQ(PAL_SocketListen(7, 2, "127.1", text, first), 0);
  std::smatch parts;
  const std::string token = std::to_string(first->token);
  ASSERT_TRUE(std::regex_match(text, parts, std::regex("7:(\\d{4,5})_" + token + "@127\\.1")));
  const auto port = static_cast<uint16_t>(std::stoul(parts[1]));
  const sockaddr_in address = {AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
  const int peer = socket(AF_INET, SOCK_STREAM, 0);
  EXPECT_EQ(connect(peer, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  close(peer);
  const int descriptor = first->descriptor;
  PAL_SocketClose(first);
  EXPECT_FALSE(isOpen(descriptor));
}

TEST(PalSocket, WithoutANameThisHostListens) {
  char name[256] = "";
  addrinfo* found = nullptr;
  ASSERT_EQ(gethostname(name, sizeof name - 1), 0);
  if (getaddrinfo(name, nullptr, nullptr, &found) != 0) GTEST_SKIP() << "this host has no address";
  freeaddrinfo(found);
  std::string text;
  PAL_Socket* socket;
  EXPECT_EQ(PAL_SocketListen(7, 2, nullptr, text, socket), 0);
  PAL_SocketClose(socket);
}

TEST(RkSocketpc, GroupOfOneKeepsItsDataAndClosesItsPair) {
  ASSERT_EQ(RK_IPCInit(HERE), 0);
  RK_IPCComm* comm = RK_IPCcommworld;
  int32_t rank = -1, size = -1;
  EXPECT_EQ(RK_IPCCommRank(HERE, comm, &rank) + RK_IPCCommSize(HERE, comm, &size), 0);
  EXPECT_TRUE(rank == 0 && size == 1 && *RK_IPCHostName() != '\0');
  std::string text = "................";
  EXPECT_EQ(RK_IPCBcast(HERE, text.data(), 2, RK_IPC_INT64, 0, comm), 0);
  EXPECT_EQ(RK_IPCReduce(HERE, "abcdefgh", text.data(), 2, RK_IPC_INT32, RK_IPC_SUM, 0, comm), 0);
  EXPECT_EQ(text, "abcdefgh........");
  const int ends[] = {comm->sockets[0]->descriptor, comm->sockets[1]->descriptor};
  for (int i = 0; i < 2; ++i) EXPECT_EQ(RK_IPCCommFree(HERE, &comm), 0);
  EXPECT_TRUE(comm == nullptr && RK_IPCcommworld == nullptr);
  EXPECT_FALSE(isOpen(ends[0]) || isOpen(ends[1]));
}

}  // namespace
