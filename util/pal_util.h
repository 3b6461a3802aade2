// Helpers for files, directories, time and random numbers.
//
// Files are opened and read through vfd. A function that is called with a directory other than the
// working directory may change the working directory of the whole process while it runs.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

// When shortcuts beside a general path are taken. The results are the same, so that tests compare
// them. KLT_FAST in the environment is the number at the start of the program, or the default.
enum class PAL_Fast : uint8_t {
  kNever = 0,
  kIfUseful = 1,  // the default
  kAlways = 2,    // also those that only save time in large traces
};
// Read when an object that has shortcuts is created.
extern PAL_Fast PAL_fast;

// The working directory, or nothing (with errno) if it can't be read.
[[nodiscard]] std::optional<std::string> PAL_GetCwd();

// Changes the working directory to `directory` until the end of the scope. Does nothing if
// `directory` is null or already the working directory. A failure is reported by PAL_Error, and the
// working directory stays as it is. The destructor doesn't change errno.
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

// The path of the file `path` of `directory`: both joined by a slash, or only `path` if `directory`
// is null or `path` is absolute.
[[nodiscard]] std::string PAL_PathInDir(const char* directory, const std::string& path);

// Opens `path`, which is relative to `directory` unless that is null. Returns a virtual descriptor,
// or -1 with errno. vfd may close the file to make room and open it again.
[[nodiscard]] int PAL_OpenInDir(const char* directory, const char* path, int flags, mode_t mode);

// An advisory lock on an output, so that two processes don't write one file at the same time.
class PAL_FileLock {
 public:
  PAL_FileLock() = default;
  ~PAL_FileLock();
  PAL_FileLock(const PAL_FileLock&) = delete;
  PAL_FileLock& operator=(const PAL_FileLock&) = delete;

  // Locks `path`, relative to `directory` unless that is null, and creates the file if it doesn't
  // exist. The lock is held until destruction. Returns false, after a message, if another process
  // holds the lock. Returns true without a lock if the file isn't regular, can't be opened, or is
  // on a file system without locks.
  [[nodiscard]] bool acquire(const char* directory, const char* path, mode_t mode);

 private:
  int descriptor_ = -1;
};

// Removes `path`, which is relative to `directory` unless that is null. Result and errno are those
// of remove().
int PAL_RemoveInDir(const char* directory, const char* path);

// 1 if `path` is a directory, else 0. If `error` isn't null, it receives 1 if stat() failed
// although the file may exist, else 0.
[[nodiscard]] int PAL_IsDir(const char* path, int* error);

// The size of the file in bytes, 0 if it isn't known.
[[nodiscard]] uint64_t PAL_FileSize(const char* path);

// All bytes of a file, or nothing (with errno) if it can't be read.
[[nodiscard]] std::optional<std::string> PAL_ReadFile(const char* path);

// Runs `command` in a shell; the result is that of system().
int PAL_System(const char* command);

// Wall-clock time in seconds.
[[nodiscard]] double PAL_Time();

// A nonzero random number from /dev/urandom, or from rand() if that can't be read.
[[nodiscard]] uint32_t PAL_RandomSeed();
// A random number of 64 bits, whose two halves are nonzero.
[[nodiscard]] uint64_t PAL_RandomSeed64();
