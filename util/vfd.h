// Provides virtual file descriptors, more of which can be open than the system allows.
//
// A virtual descriptor is a small integer that stays valid while its operating-system descriptor is
// closed. Files are opened until the kernel returns EMFILE; then about a tenth of them, the least
// recently used ones, are closed. A closed file is opened again at its old position on its next
// use. A relative path is then resolved against the working directory of that moment.
//
// Files that are read or written are opened here. The functions behave and fail like the POSIX
// functions of the same name; an unknown descriptor fails with EBADF. Any thread may call them. One
// mutex guards the table; it isn't held during a read or write.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>

// Opens `path` and returns a new descriptor. Fails with EMFILE if no file can be closed to make
// room. The file is close-on-exec.
[[nodiscard]] int Vfd_Open(const char* path, int flags, mode_t mode);

// A new descriptor for a duplicate of the operating-system descriptor `osDescriptor`, which the
// caller keeps. The duplicate is never closed to make room. A negative argument fails with EINVAL.
[[nodiscard]] int Vfd_Adopt(int osDescriptor);

// A new descriptor for the same file. For a file opened by Vfd_Open it uses no operating-system
// descriptor before its first use. If the file is open through another descriptor at that time,
// both share one position.
[[nodiscard]] int Vfd_Dup(int descriptor);

// Releases the descriptor, whose number is used for the next new one. Returns -1 if this close
// fails, or if a close to make room failed and no call has returned that error yet. The descriptor
// is released in every case except EBADF.
int Vfd_Close(int descriptor);

[[nodiscard]] ssize_t Vfd_Read(int descriptor, void* buffer, size_t bytes);
[[nodiscard]] ssize_t Vfd_Write(int descriptor, const void* buffer, size_t bytes);
[[nodiscard]] ssize_t Vfd_PRead(int descriptor, void* buffer, size_t bytes, off_t offset);
[[nodiscard]] ssize_t Vfd_PWrite(int descriptor, const void* buffer, size_t bytes, off_t offset);
off_t Vfd_Seek(int descriptor, off_t offset, int whence);
int Vfd_Stat(int descriptor, struct stat* info);

// The same transfers, continued after signals and short counts, and after a write that would block.
// They return the number of bytes transferred. It is below `bytes` only at the end of a file that
// is read, with errno 0, or after a failure, with errno set. Otherwise errno is unchanged.
[[nodiscard]] size_t Vfd_WriteFully(int descriptor, const void* buffer, size_t bytes);
[[nodiscard]] size_t Vfd_PReadFully(int descriptor, void* buffer, size_t bytes, off_t offset);
[[nodiscard]] size_t Vfd_PWriteFully(int descriptor, const void* buffer, size_t bytes,
                                     off_t offset);

// Increments (`on` nonzero) or decrements the number of pins of the descriptor, down to 0. A pinned
// file isn't closed to make room. Pinning doesn't open a closed file; its next use does.
int Vfd_Pin(int descriptor, int on);

// The system calls that this module uses, except poll(). Tests replace functions in Vfd_systemCalls
// to make the n-th call fail or transfer less, and restore Vfd_osCalls afterwards. The table may
// only be changed while no other thread uses this module.
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
extern VfdSystemCalls Vfd_systemCalls;    // the functions in use
