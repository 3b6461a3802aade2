// The group of processes that the tool forms with itself alone.
//
// Configuration, output and merge speak in terms of groups; there is never a second process, so
// each operation here does what it means for a group of one. Starting up opens no port: nobody
// could connect. Owns the world communicator and its socket pair. All operations take the caller's
// source position first, written HERE, and return 0 on success.
#pragma once

#include <cstddef>
#include <cstdint>

#include "util/pal_socket.h"

// The one macro of this layer: it stands for two arguments.
#define HERE __FILE__, __LINE__

struct RK_IPCComm {
  int32_t rank;            // own process number
  int32_t size;            // number of processes
  PAL_Socket* sockets[2];  // pair of the process, null if it could not be made
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

// Forms the group of one; only the first call does anything. The group is formed even if its socket
// pair can't be made, which is reported, on the debug channel too.
int RK_IPCInit(const char* file, int line);

// The host's name as recorded by RK_IPCInit, or "process_0" where the host has none to tell.
[[nodiscard]] const char* RK_IPCHostName();

int RK_IPCCommRank(const char* file, int line, const RK_IPCComm* comm, int32_t* rank);
int RK_IPCCommSize(const char* file, int line, const RK_IPCComm* comm, int32_t* size);

// Leaves `buffer` as it is.
int RK_IPCBcast(const char* file, int line, void* buffer, size_t count, RK_IPCType type,
                int32_t root, const RK_IPCComm* comm);

// Copy `count` elements from `send` to `receive`, which may be the same.
int RK_IPCReduce(const char* file, int line, const void* send, void* receive, size_t count,
                 RK_IPCType type, RK_IPCOperation operation, int32_t root, const RK_IPCComm* comm);
int RK_IPCAllreduce(const char* file, int line, const void* send, void* receive, size_t count,
                    RK_IPCType type, RK_IPCOperation operation, const RK_IPCComm* comm);

// Closes the communicator's sockets, releases it and makes `comm` null, which it may be already.
int RK_IPCCommFree(const char* file, int line, RK_IPCComm** comm);

// Releases the layer and ends the process with `status`; what was written so far stays.
[[noreturn]] void RK_IPCAbort(const char* file, int line, int status);
