// The operations of a group of processes, whose only process is the program itself.
//
// Configuration, output and merge are written for groups of processes. There is never a second
// process, so the operations need no communication, and no port is opened. Owns the world
// communicator and its socket pair. The first arguments of all operations are the caller's source
// position, HERE. They return 0 on success.
#pragma once

#include <cstddef>
#include <cstdint>

#include "util/pal_socket.h"

// A macro, because it expands to two arguments.
#define HERE __FILE__, __LINE__

struct RK_IPCComm {
  int32_t rank;            // own process number
  int32_t size;            // number of processes
  PAL_Socket* sockets[2];  // the process's socket pair; null if it couldn't be created
};

extern RK_IPCComm* RK_IPCcommworld;  // the group of all processes, null before RK_IPCInit
extern int32_t RK_procid;            // own number in it

enum class RK_IPCType { BYTE, CHAR, INT32, INT64, FLOAT64 };
inline constexpr RK_IPCType RK_IPC_BYTE = RK_IPCType::BYTE;
inline constexpr RK_IPCType RK_IPC_CHAR = RK_IPCType::CHAR;
inline constexpr RK_IPCType RK_IPC_INT32 = RK_IPCType::INT32;
inline constexpr RK_IPCType RK_IPC_INT64 = RK_IPCType::INT64;
inline constexpr RK_IPCType RK_IPC_FLOAT64 = RK_IPCType::FLOAT64;

enum class RK_IPCOperation { SUM, MIN, MAX, BOR };
inline constexpr RK_IPCOperation RK_IPC_SUM = RK_IPCOperation::SUM;
inline constexpr RK_IPCOperation RK_IPC_MIN = RK_IPCOperation::MIN;
inline constexpr RK_IPCOperation RK_IPC_MAX = RK_IPCOperation::MAX;
inline constexpr RK_IPCOperation RK_IPC_BOR = RK_IPCOperation::BOR;

// Creates the group; later calls do nothing. If the socket pair can't be created, this is reported,
// also on the debug channel, and the group exists without a pair.
int RK_IPCInit(const char* file, int line);

// The host's name as recorded by RK_IPCInit, or "process_0" if the host's name is unknown.
[[nodiscard]] const char* RK_IPCHostName();

int RK_IPCCommRank(const char* file, int line, const RK_IPCComm* comm, int32_t* rank);
int RK_IPCCommSize(const char* file, int line, const RK_IPCComm* comm, int32_t* size);

// Does nothing: the only process already has the data.
int RK_IPCBcast(const char* file, int line, void* buffer, size_t count, RK_IPCType type,
                int32_t root, const RK_IPCComm* comm);

// Copy `count` elements from `send` to `receive`, which may be the same.
int RK_IPCReduce(const char* file, int line, const void* send, void* receive, size_t count,
                 RK_IPCType type, RK_IPCOperation operation, int32_t root, const RK_IPCComm* comm);
int RK_IPCAllreduce(const char* file, int line, const void* send, void* receive, size_t count,
                    RK_IPCType type, RK_IPCOperation operation, const RK_IPCComm* comm);

// Closes the communicator's sockets, frees it and sets `*comm` to null. `*comm` may be null.
int RK_IPCCommFree(const char* file, int line, RK_IPCComm** comm);

// Frees the group and ends the process with `status`. Output written so far is kept.
[[noreturn]] void RK_IPCAbort(const char* file, int line, int status);
