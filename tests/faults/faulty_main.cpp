// The program with faults: the n-th call of a kind fails or is cut short, as the environment says.
//
//   KLT_FAULT=CALL N ERROR SIGNAL CALLS
//     CALL    open, read, write, seek, close, stat or alloc
//     N       the number of the first call with the fault, from 1
//     ERROR   errno of the failing call; 0: it transfers half of its bytes
//     SIGNAL  a signal sent before the call; if negative, -SIGNAL is sent after it; 0: none
//     CALLS   calls with the fault: 0 only call N, 1 all from N on, 2 every second call from N on
//   KLT_FAULT_HIT=FILE is created when call N is reached
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "generic/kltt_main.h"
#include "util/pal_mem.h"
#include "util/vfd.h"

namespace {

struct Fault {
  char call[16] = {};
  unsigned long at = 0, calls = 0;
  int error = 0, signal = 0, which = 0;
} fault;

// Counts a call of this kind and returns whether it has the fault. Allocates no memory.
bool hasFault(const char* call) {
  if (strcmp(fault.call, call) != 0) return false;
  ++fault.calls;
  if (fault.calls < fault.at || (fault.calls > fault.at && fault.which == 0)) return false;
  if (fault.which == 2 && (fault.calls - fault.at) % 2 != 0) return false;
  if (fault.calls == fault.at) {
    if (const char* file = std::getenv("KLT_FAULT_HIT")) close(creat(file, 0666));
  }
  if (fault.signal > 0) kill(getpid(), fault.signal);
  errno = fault.error;
  return fault.signal <= 0;  // the call works if its signal is blocked
}

// Returns the result of a transfer. If SIGNAL is negative, the process ends instead.
ssize_t afterTransfer(ssize_t result) {
  if (fault.signal < 0 && fault.calls == fault.at) kill(getpid(), -fault.signal);
  return result;
}

// Whether the call fails. If it is to be cut short instead, halves `bytes`.
bool failed(const char* call, size_t& bytes) {
  if (!hasFault(call)) return false;
  if (fault.error != 0) return true;
  bytes = bytes > 1 ? bytes / 2 : bytes;
  return false;
}

void install() {
  Vfd_systemCalls.open = [](const char* path, int flags, mode_t mode) {
    return hasFault("open") ? -1 : Vfd_osCalls.open(path, flags, mode);
  };
  Vfd_systemCalls.close = [](int fd) {
    const bool bad = hasFault("close");  // the descriptor is closed even then
    const int error = errno;
    const int result = Vfd_osCalls.close(fd);
    if (bad) errno = error;
    return bad ? -1 : result;
  };
  Vfd_systemCalls.read = [](int fd, void* buffer, size_t bytes) {
    return failed("read", bytes) ? -1 : Vfd_osCalls.read(fd, buffer, bytes);
  };
  Vfd_systemCalls.pread = [](int fd, void* buffer, size_t bytes, off_t offset) {
    return failed("read", bytes) ? -1 : Vfd_osCalls.pread(fd, buffer, bytes, offset);
  };
  Vfd_systemCalls.write = [](int fd, const void* buffer, size_t bytes) {
    if (failed("write", bytes)) return ssize_t{-1};
    return afterTransfer(Vfd_osCalls.write(fd, buffer, bytes));
  };
  Vfd_systemCalls.pwrite = [](int fd, const void* buffer, size_t bytes, off_t offset) {
    if (failed("write", bytes)) return ssize_t{-1};
    return afterTransfer(Vfd_osCalls.pwrite(fd, buffer, bytes, offset));
  };
  Vfd_systemCalls.lseek = [](int fd, off_t offset, int whence) {
    return hasFault("seek") ? off_t{-1} : Vfd_osCalls.lseek(fd, offset, whence);
  };
  Vfd_systemCalls.fstat = [](int fd, struct stat* info) {
    return hasFault("stat") ? -1 : Vfd_osCalls.fstat(fd, info);
  };
  PAL_allocators.malloc = [](size_t bytes) {
    return hasFault("alloc") ? nullptr : std::malloc(bytes);
  };
  PAL_allocators.calloc = [](size_t count, size_t bytes) {
    return hasFault("alloc") ? nullptr : std::calloc(count, bytes);
  };
  PAL_allocators.realloc = [](void* block, size_t bytes) {
    return hasFault("alloc") ? nullptr : std::realloc(block, bytes);
  };
}

}  // namespace

int main(int argc, char** argv) {
  if (const char* text = std::getenv("KLT_FAULT")) {
    if (std::sscanf(text, "%15s %lu %d %d %d", fault.call, &fault.at, &fault.error, &fault.signal,
                    &fault.which) != 5)
      std::_Exit(99);
    install();
  }
  KLTT_Main(argc, argv);
}
