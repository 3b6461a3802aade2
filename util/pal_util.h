// Files, directories, time and chance: small helpers over the system's calls.
//
// Whole files are read, and files in another directory are opened, through vfd. Changing the
// working directory concerns the whole process for the time of one call.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

// The working directory, or nothing (with errno) if it can't be read.
[[nodiscard]] std::optional<std::string> PAL_GetCwd();

// Holds the process in `directory` and takes it back at the end of the scope. Does nothing if
// `directory` is null or already the working directory. A failure is reported by PAL_Error and
// leaves the process where it is. The destructor keeps errno.
class PAL_DirectoryScope {
 public:
  explicit PAL_DirectoryScope(const char* directory);
  ~PAL_DirectoryScope();
  PAL_DirectoryScope(const PAL_DirectoryScope&) = delete;
  PAL_DirectoryScope& operator=(const PAL_DirectoryScope&) = delete;

 private:
  std::optional<std::string> previous_;
};

// Runs call() in `directory` and returns its result; a directory that can't be entered is
// reported, and the call runs all the same where the process is.
template <class F>
auto PAL_InDir(const char* directory, F&& call) {
  PAL_DirectoryScope scope(directory);
  return std::forward<F>(call)();
}

// `path` as it counts from `directory`; as it is if that is null or the path absolute.
[[nodiscard]] std::string PAL_PathInDir(const char* directory, const std::string& path);

// Opens `path`, which counts from `directory` if that isn't null; a virtual descriptor, or -1 and
// errno. The descriptor finds its file again after an eviction.
[[nodiscard]] int PAL_OpenInDir(const char* directory, const char* path, int flags, mode_t mode);

// remove() of `path` in `directory`.
int PAL_RemoveInDir(const char* directory, const char* path);

// 1 if `path` is a directory, else 0. `error`, if not null, receives 1 when the test failed for
// another reason than a missing file, else 0.
[[nodiscard]] int PAL_IsDir(const char* path, int* error);

// The size in bytes, 0 if it can't be told.
[[nodiscard]] uint64_t PAL_FileSize(const char* path);

// All bytes of a file, or nothing (with errno) if it can't be read.
[[nodiscard]] std::optional<std::string> PAL_ReadFile(const char* path);

// Runs `command` in a shell; the result is that of system().
int PAL_System(const char* command);

// Wall-clock time in seconds.
[[nodiscard]] double PAL_Time();

// A nonzero number from the system's source of randomness.
[[nodiscard]] uint32_t PAL_RandomSeed();
// 64 bits of it.
[[nodiscard]] uint64_t PAL_RandomSeed64();
