// Helpers for files, directories, time and random numbers.
//
// Files are opened and read through vfd. A call with another directory changes the working
// directory of the whole process while it runs.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

// The working directory, or nothing (with errno) if it can't be read.
[[nodiscard]] std::optional<std::string> PAL_GetCwd();

// Changes the working directory to `directory` until the end of the scope. Does nothing if
// `directory` is null or already the working directory. If it can't be changed, that is reported by
// PAL_Error. The destructor keeps errno.
class PAL_DirectoryScope {
 public:
  explicit PAL_DirectoryScope(const char* directory);
  ~PAL_DirectoryScope();
  PAL_DirectoryScope(const PAL_DirectoryScope&) = delete;
  PAL_DirectoryScope& operator=(const PAL_DirectoryScope&) = delete;

 private:
  std::optional<std::string> previous_;
};

// Runs call() in `directory` and returns its result. If the directory can't be entered, that is
// reported, and call() runs in the current working directory.
template <class F>
auto PAL_InDir(const char* directory, F&& call) {
  PAL_DirectoryScope scope(directory);
  return std::forward<F>(call)();
}

// `path` relative to `directory`; unchanged if that is null or `path` is absolute.
[[nodiscard]] std::string PAL_PathInDir(const char* directory, const std::string& path);

// Opens `path`, which is relative to `directory` unless that is null. Returns a virtual descriptor,
// or -1 with errno. The descriptor can be opened again after an eviction.
[[nodiscard]] int PAL_OpenInDir(const char* directory, const char* path, int flags, mode_t mode);

// An advisory lock on an output, so that two processes don't write one file at the same time.
class PAL_FileLock {
 public:
  PAL_FileLock() = default;
  ~PAL_FileLock();
  PAL_FileLock(const PAL_FileLock&) = delete;
  PAL_FileLock& operator=(const PAL_FileLock&) = delete;

  // Locks `path`, relative to `directory` unless that is null, and creates the file if it doesn't
  // exist. The lock is held until destruction. False, after a message, if another process holds
  // it. A file that isn't regular, can't be opened, or is on a file system without locks is left
  // alone, which is a success.
  [[nodiscard]] bool acquire(const char* directory, const char* path, mode_t mode);

 private:
  int descriptor_ = -1;
};

// Removes `path`, which is relative to `directory`, like remove().
int PAL_RemoveInDir(const char* directory, const char* path);

// 1 if `path` is a directory, else 0. `error`, if not null, receives 1 if stat() failed for another
// reason than a missing file, else 0.
[[nodiscard]] int PAL_IsDir(const char* path, int* error);

// The size of the file in bytes, 0 if it isn't known.
[[nodiscard]] uint64_t PAL_FileSize(const char* path);

// All bytes of a file, or nothing (with errno) if it can't be read.
[[nodiscard]] std::optional<std::string> PAL_ReadFile(const char* path);

// Runs `command` in a shell; the result is that of system().
int PAL_System(const char* command);

// Wall-clock time in seconds.
[[nodiscard]] double PAL_Time();

// A nonzero number from the system's source of randomness.
[[nodiscard]] uint32_t PAL_RandomSeed();
// 64 bits from the same source.
[[nodiscard]] uint64_t PAL_RandomSeed64();
