// Virtual file descriptors: as many open files as the caller likes.
//
// A virtual descriptor is a small integer that stays valid whether or not an operating-system
// descriptor stands behind it. Files are opened until the kernel says EMFILE; then the least
// recently used tenth of them is closed, and each comes back by itself, at its old position, on its
// next use. A relative path is resolved again at that moment, against the working directory of
// then.
//
// Every file of the storage layer goes through here (klt/klt_io, util/pal_util). The calls behave
// as their POSIX namesakes and fail as they do, with -1 and errno; EBADF for an unknown descriptor.
// All calls may be made from any thread. One mutex guards the table; it isn't held while a read or
// write runs.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>

// A new descriptor for `path`. EMFILE if no other file could be closed to make room for it.
// The file is close-on-exec.
[[nodiscard]] int Vfd_Open(const char* path, int flags, mode_t mode);

// A new descriptor on a duplicate of the operating-system descriptor `osDescriptor`, which stays
// the caller's. It is never closed to make room. EINVAL if the argument is negative.
[[nodiscard]] int Vfd_Adopt(int osDescriptor);

// A new descriptor on the same file. For a file opened by Vfd_Open it costs no operating-system
// descriptor until its first use; while any descriptor of the file is open, the next one to open
// shares its position.
[[nodiscard]] int Vfd_Dup(int descriptor);

// Releases the descriptor, whose number is the next one handed out. -1 if the operating system
// reports an error for this close, or reported one when the file was closed to make room and no
// call has told it yet; the descriptor is gone in every case but EBADF.
int Vfd_Close(int descriptor);

[[nodiscard]] ssize_t Vfd_Read(int descriptor, void* buffer, size_t bytes);
[[nodiscard]] ssize_t Vfd_Write(int descriptor, const void* buffer, size_t bytes);
[[nodiscard]] ssize_t Vfd_PRead(int descriptor, void* buffer, size_t bytes, off_t offset);
[[nodiscard]] ssize_t Vfd_PWrite(int descriptor, const void* buffer, size_t bytes, off_t offset);
off_t Vfd_Seek(int descriptor, off_t offset, int whence);
int Vfd_Stat(int descriptor, struct stat* info);

// The same transfers carried on after signals and short counts, and, when a write would block, once
// it can go on. The result is the number of bytes
// transferred; it is below `bytes` only at the end of a file read, with errno 0, or after a
// failure, with errno set. errno is untouched when all was transferred.
[[nodiscard]] size_t Vfd_WriteFully(int descriptor, const void* buffer, size_t bytes);
[[nodiscard]] size_t Vfd_PReadFully(int descriptor, void* buffer, size_t bytes, off_t offset);
[[nodiscard]] size_t Vfd_PWriteFully(int descriptor, const void* buffer, size_t bytes,
                                     off_t offset);

// With `on` nonzero adds one to the reasons that forbid closing the file to make room; with 0 takes
// one away, if there is one. A file that is closed at that moment opens on its next use, and stays.
int Vfd_Pin(int descriptor, int on);

// The system calls behind all of the above, and the seam for tests: a test that wants the n-th call
// to fail, or to be cut short, puts a function of its own into Vfd_systemCalls, and Vfd_osCalls
// back after it. Change it only while no other thread is in this module.
struct VfdSystemCalls {
  int (*open)(const char* path, int flags, mode_t mode);  // adds close-on-exec
  int (*dup)(int fd);                                     // the result is close-on-exec
  int (*close)(int fd);
  ssize_t (*read)(int fd, void* buffer, size_t bytes);
  ssize_t (*write)(int fd, const void* buffer, size_t bytes);
  ssize_t (*pread)(int fd, void* buffer, size_t bytes, off_t offset);
  ssize_t (*pwrite)(int fd, const void* buffer, size_t bytes, off_t offset);
  off_t (*lseek)(int fd, off_t offset, int whence);
  int (*fstat)(int fd, struct stat* info);
};
extern const VfdSystemCalls Vfd_osCalls;  // the operating system's
extern VfdSystemCalls Vfd_systemCalls;    // the ones in use
