// Group operations for a single process. See RK_socketpc.h.
#include "generic/RK_socketpc.h"

#include <unistd.h>

#include <climits>
#include <cstring>
#include <string>

#include "generic/text/kltt_exit.h"
#include "util/pal_debug.h"
#include "util/pal_error.h"
#include "util/pal_mem.h"
#include "util/pal_strings.h"

RK_IPCComm* RK_IPCcommworld = nullptr;
int32_t RK_procid = 0;

namespace {

constexpr int32_t kOwnRank = 0;
constexpr int32_t kGroupSize = 1;

std::string& HostName() {
  static std::string name;
  return name;
}

std::string FindHostName() {
  char name[HOST_NAME_MAX + 1] = "";
  if (gethostname(name, sizeof name - 1) == 0) return name;
  return PAL_asprintf("process_%d", kOwnRank);
}

size_t TypeSize(RK_IPCType type) {
  switch (type) {
    case RK_IPCType::INT32:
      return 4;
    case RK_IPCType::INT64:
    case RK_IPCType::FLOAT64:
      return 8;
    case RK_IPCType::BYTE:
    case RK_IPCType::CHAR:
      break;
  }
  return 1;
}

}  // namespace

int RK_IPCInit(const char*, int) {
  if (RK_IPCcommworld != nullptr) return 0;
  RK_procid = kOwnRank;
  HostName() = FindHostName();
  RK_IPCComm* comm;
  PAL_CALLOC(comm, 1, sizeof *comm);
  comm->rank = kOwnRank;
  comm->size = kGroupSize;
  // The pair is never used by a single process, so a failure is harmless.
  const int result = PAL_SocketPair(comm->sockets);
  if (result != 0) PAL_Debug(HERE, "%s = %d\n", "PAL_SocketPair(comm->sockets)", result);
  RK_IPCcommworld = comm;
  return 0;
}

const char* RK_IPCHostName() { return HostName().c_str(); }

int RK_IPCCommRank(const char*, int, const RK_IPCComm* comm, int32_t* rank) {
  *rank = comm->rank;
  return 0;
}

int RK_IPCCommSize(const char*, int, const RK_IPCComm* comm, int32_t* size) {
  *size = comm->size;
  return 0;
}

int RK_IPCBcast(const char*, int, void*, size_t, RK_IPCType, int32_t, const RK_IPCComm*) {
  return 0;
}

int RK_IPCReduce(const char*, int, const void* send, void* receive, size_t count, RK_IPCType type,
                 RK_IPCOperation, int32_t, const RK_IPCComm*) {
  if (count != 0) std::memmove(receive, send, count * TypeSize(type));
  return 0;
}

int RK_IPCAllreduce(const char* file, int line, const void* send, void* receive, size_t count,
                    RK_IPCType type, RK_IPCOperation operation, const RK_IPCComm* comm) {
  return RK_IPCReduce(file, line, send, receive, count, type, operation, kOwnRank, comm);
}

int RK_IPCCommFree(const char*, int, RK_IPCComm** comm) {
  if (*comm == nullptr) return 0;
  RK_IPCComm* released = *comm;
  if (released == RK_IPCcommworld) RK_IPCcommworld = nullptr;
  for (PAL_Socket* socket : released->sockets) PAL_SocketClose(socket);
  PAL_FREE(released);
  *comm = nullptr;
  return 0;
}

void RK_IPCAbort(const char* file, int line, int status) {
  RK_IPCCommFree(file, line, &RK_IPCcommworld);
  KLTT_Exit(status);
}
