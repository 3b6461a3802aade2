// The program on a system that fails: the n-th call of a kind goes wrong, as the environment says.
//
//   KLT_FAULT=CALL:N:WHAT[:on]   CALL open, read, write, seek, close, stat or alloc; N from 1;
//                                WHAT an error's name (EIO, ENOSPC, EINTR, EAGAIN, EMFILE,
//                                EACCES), or `short`, which transfers less, `kill`, which ends the
//                                process ahead of the call, or `torn`, which does after a short
//                                transfer; `on` repeats it for ever
//   KLT_FAULT_HIT=FILE           is created once the call was reached
//
// Everything else is the program itself.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "generic/kltt_main.h"
#include "util/pal_mem.h"
#include "util/vfd.h"

namespace {

struct Fault {
  char call[16] = {};
  unsigned long at = 0;
  int error = 0;  // 0: a short transfer
  bool kills = false;
  bool tears = false;
  bool stays = false;
  unsigned long calls = 0;
} fault;

// Whether this call of the kind goes wrong. Allocates nothing.
bool strikes(const char* call) {
  if (strcmp(fault.call, call) != 0) return false;
  ++fault.calls;
  if (fault.calls < fault.at || (fault.calls > fault.at && !fault.stays)) return false;
  if (fault.calls == fault.at) {
    if (const char* file = std::getenv("KLT_FAULT_HIT")) close(creat(file, 0666));
  }
  if (fault.kills) kill(getpid(), SIGKILL);
  errno = fault.error;
  return true;
}

// The transfer that a torn call is cut down to, behind which the process ends.
ssize_t tornOr(ssize_t result) {
  if (fault.tears && fault.calls == fault.at) kill(getpid(), SIGKILL);
  return result;
}

// The result of a call that fails, or fewer bytes to transfer.
bool failed(const char* call, size_t& bytes) {
  if (!strikes(call)) return false;
  if (fault.error != 0) return true;
  bytes = bytes > 1 ? bytes / 2 : bytes;
  return false;
}

void install() {
  Vfd_systemCalls.open = [](const char* path, int flags, mode_t mode) {
    return strikes("open") ? -1 : Vfd_osCalls.open(path, flags, mode);
  };
  Vfd_systemCalls.close = [](int fd) {
    const bool bad = strikes("close");  // the descriptor is gone all the same
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
    return tornOr(Vfd_osCalls.write(fd, buffer, bytes));
  };
  Vfd_systemCalls.pwrite = [](int fd, const void* buffer, size_t bytes, off_t offset) {
    if (failed("write", bytes)) return ssize_t{-1};
    return tornOr(Vfd_osCalls.pwrite(fd, buffer, bytes, offset));
  };
  Vfd_systemCalls.lseek = [](int fd, off_t offset, int whence) {
    return strikes("seek") ? off_t{-1} : Vfd_osCalls.lseek(fd, offset, whence);
  };
  Vfd_systemCalls.fstat = [](int fd, struct stat* info) {
    return strikes("stat") ? -1 : Vfd_osCalls.fstat(fd, info);
  };
  PAL_allocators.malloc = [](size_t bytes) {
    return strikes("alloc") ? nullptr : std::malloc(bytes);
  };
  PAL_allocators.calloc = [](size_t count, size_t bytes) {
    return strikes("alloc") ? nullptr : std::calloc(count, bytes);
  };
  PAL_allocators.realloc = [](void* block, size_t bytes) {
    return strikes("alloc") ? nullptr : std::realloc(block, bytes);
  };
}

int errorOf(std::string_view name) {
  struct Named {
    std::string_view name;
    int error;
  };
  for (const Named& known :
       {Named{"EIO", EIO}, Named{"ENOSPC", ENOSPC}, Named{"EINTR", EINTR}, Named{"EAGAIN", EAGAIN},
        Named{"EMFILE", EMFILE}, Named{"EACCES", EACCES}, Named{"ENOMEM", ENOMEM}}) {
    if (known.name == name) return known.error;
  }
  return 0;
}

// The next part of CALL:N:WHAT[:on].
std::string nextPart(std::string_view& text) {
  const size_t end = std::min(text.find(':'), text.size());
  std::string part(text.substr(0, end));
  text.remove_prefix(std::min(end + 1, text.size()));
  return part;
}

void configure(std::string_view text) {
  const std::string call = nextPart(text);
  call.copy(fault.call, sizeof fault.call - 1);
  fault.at = std::strtoul(nextPart(text).c_str(), nullptr, 10);
  const std::string what = nextPart(text);
  if (fault.at == 0 || what.empty()) {
    std::fputs("KLT_FAULT makes no sense\n", stderr);
    std::_Exit(99);
  }
  fault.error = errorOf(what);
  fault.kills = what == "kill";
  fault.tears = what == "torn" && call == "write";
  fault.stays = nextPart(text) == "on";
}

}  // namespace

int main(int argc, char** argv) {
  if (const char* text = std::getenv("KLT_FAULT")) {
    configure(text);
    install();
  }
  KLTT_Main(argc, argv);
}
