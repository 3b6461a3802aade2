// Endpoints listen where their contact string says, and leave nothing open.
#include "util/pal_socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

struct Contact {
  int process = -1;
  unsigned port = 0;
  unsigned token = 0;
  char host[256] = "";
};

Contact Parse(const std::string& text) {
  Contact contact;
  // The count tells whether all of it was read. NOLINTNEXTLINE(cert-err34-c)
  EXPECT_EQ(std::sscanf(text.c_str(), "%d:%u_%u@%255s", &contact.process, &contact.port,
                        &contact.token, contact.host),
            4)
      << text;
  return contact;
}

bool CanConnect(unsigned port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const int peer = socket(AF_INET, SOCK_STREAM, 0);
  const bool connected =
      connect(peer, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  close(peer);
  return connected;
}

// A bare system may lack a hosts file, and then no name resolves.
bool HasNames() {
  addrinfo* addresses = nullptr;
  if (getaddrinfo("localhost", nullptr, nullptr, &addresses) != 0) return false;
  freeaddrinfo(addresses);
  return true;
}

TEST(PalSocket, EndpointsListenOnDifferentPorts) {
  if (!HasNames()) GTEST_SKIP() << "the name of the loopback doesn't resolve here";
  std::string texts[2];
  PAL_Socket* sockets[2];
  ASSERT_EQ(PAL_SocketListen(0, 2, "localhost", texts[0], sockets[0]), 0);
  ASSERT_EQ(PAL_SocketListen(7, 2, "localhost", texts[1], sockets[1]), 0);
  const Contact first = Parse(texts[0]);
  const Contact second = Parse(texts[1]);
  EXPECT_EQ(first.process, 0);
  EXPECT_EQ(second.process, 7);
  EXPECT_GE(first.port, 1025U);
  EXPECT_GT(second.port, first.port);
  EXPECT_NE(first.token, 0U);
  EXPECT_EQ(first.token, sockets[0]->token);
  EXPECT_TRUE(CanConnect(first.port));
  EXPECT_TRUE(CanConnect(second.port));
  for (PAL_Socket* socket : sockets) PAL_SocketClose(socket);
  EXPECT_FALSE(CanConnect(first.port));
}

TEST(PalSocket, ContactPrefersAnAddressToTheNameOfTheLoopback) {
  if (!HasNames()) GTEST_SKIP() << "the name of the loopback doesn't resolve here";
  std::string text;
  PAL_Socket* socket;
  ASSERT_EQ(PAL_SocketListen(0, 2, "localhost", text, socket), 0);
  EXPECT_STREQ(Parse(text).host, "localhost");
  PAL_SocketClose(socket);
  ASSERT_EQ(PAL_SocketListen(0, 2, "127.0.0.2", text, socket), 0);
  EXPECT_STREQ(Parse(text).host, "127.0.0.2");
  PAL_SocketClose(socket);
}

TEST(PalSocket, PairIsConnected) {
  PAL_Socket* sockets[2];
  ASSERT_EQ(PAL_SocketPair(sockets), 0);
  EXPECT_EQ(write(sockets[0]->descriptor, "ping", 4), 4);
  char text[8] = "";
  EXPECT_EQ(read(sockets[1]->descriptor, text, sizeof text), 4);
  EXPECT_STREQ(text, "ping");
  const int descriptor = sockets[0]->descriptor;
  for (PAL_Socket* socket : sockets) PAL_SocketClose(socket);
  EXPECT_EQ(fcntl(descriptor, F_GETFD), -1);
  PAL_SocketClose(nullptr);
}

void ForbidDescriptors() {
  const rlimit none = {3, 3};
  setrlimit(RLIMIT_NOFILE, &none);
}

TEST(PalSocketDeathTest, FailuresGiveOneMessageAndNoOutput) {
  EXPECT_EXIT(
      {
        ForbidDescriptors();
        PAL_Socket* sockets[2];
        std::_Exit(PAL_SocketPair(sockets) == 1 && sockets[0] == nullptr ? 5 : 6);
      },
      testing::ExitedWithCode(5),
      "^ERROR: cannot create socket pair: socketpair\\(\\): Too many open files\n$");
  EXPECT_EXIT(
      {
        std::string text = "old";
        PAL_Socket* socket = nullptr;
        ForbidDescriptors();
        // A numeric host needs no look-up, so the socket is the first to fail.
        const int result = PAL_SocketListen(0, 2, "127.0.0.1", text, socket);
        std::_Exit(result != 0 && text.empty() && socket == nullptr ? 5 : 6);
      },
      testing::ExitedWithCode(5),
      "^ERROR: cannot create socket: socket\\(\\): Too many open files\n$");
}

}  // namespace
