// Creates sockets by which the processes of a group could connect to each other.
//
// A socket is an endpoint (a TCP socket that listens on a free port, with a contact string that
// identifies it) or one of a pair of connected sockets. There are no functions to accept, send and
// receive, because a group has only one process. Failures are reported through pal_error.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

struct PAL_Socket {
  int descriptor;         // or -1
  unsigned char* buffer;  // received bytes, released by PAL_SocketClose
  size_t capacity;
  size_t fill;
  uint32_t token;  // authorisation token of an endpoint, 0 for a pair
};

// Opens an endpoint for process number `process` on the first free port from 1025 on. A `hostname`
// that is null or can't be resolved means the machine's own name. Sets `contact` to
// "process:port_token@host", and `socket`, which the caller releases with PAL_SocketClose. Returns
// 0, or 1 after one error message, with an empty contact and a null socket.
[[nodiscard]] int PAL_SocketListen(int process, int backlog, const char* hostname,
                                   std::string& contact, PAL_Socket*& socket);

// Creates two connected sockets. The caller releases each with PAL_SocketClose. Returns 0, or 1
// after one error message, with both null.
[[nodiscard]] int PAL_SocketPair(PAL_Socket* (&sockets)[2]);

// Closes the descriptor unless it is -1, and frees `socket`, which may be null.
void PAL_SocketClose(PAL_Socket* socket);
