// The endpoint through which the peers of a process could reach it.
//
// A listening TCP socket on a free port with a contact string that names it, and pairs of
// connected sockets. Sending, receiving and accepting have no caller in a group of one. Failures
// are told through pal_error.
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

// Opens an endpoint for process number `process` on the first free port from 1025 up. `hostname`
// may be null for the machine's own name. Fills `contact` with "process:port_token@host" and
// `socket`, which the caller releases with PAL_SocketClose. 0, or 1 after one error message, with
// an empty contact and a null socket.
[[nodiscard]] int PAL_SocketListen(int process, int backlog, const char* hostname,
                                   std::string& contact, PAL_Socket*& socket);

// Two connected sockets, released one by one with PAL_SocketClose. 0, or 1 after one error message,
// with both null.
[[nodiscard]] int PAL_SocketPair(PAL_Socket* (&sockets)[2]);

// Closes the descriptor unless it is -1 and releases the record; a null socket is allowed.
void PAL_SocketClose(PAL_Socket* socket);
