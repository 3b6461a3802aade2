// Implements the helpers for files, directories, time and random numbers. See pal_util.h.
#include "util/pal_util.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "util/pal_error.h"
#include "util/pal_strings.h"
#include "util/vfd.h"

namespace {

constexpr size_t kCwdStepBytes = 256;
constexpr size_t kReadBytes = 65536;

bool IsDot(const char* directory) {
  return std::strcmp(directory, ".") == 0 || std::strcmp(directory, "./") == 0;
}

uint32_t ReadRandom() {
  uint32_t value = 0;
  const int descriptor = open("/dev/urandom", O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) return 0;
  if (read(descriptor, &value, sizeof value) != static_cast<ssize_t>(sizeof value)) value = 0;
  close(descriptor);
  return value;
}

uint32_t MixedRand() {
  // rand() is weak, but only used if /dev/urandom can't be read.
  // NOLINTNEXTLINE(cert-msc30-c,cert-msc50-cpp)
  const auto part = [] { return static_cast<uint32_t>(std::rand()); };
  uint32_t value = part() << 24;
  value ^= part() << 16;
  value ^= part() << 8;
  return value ^ part();
}

PAL_Fast FastFromEnvironment() {
  const char* text = std::getenv("KLT_FAST");
  if (text == nullptr || std::strlen(text) != 1) return PAL_Fast::kIfUseful;
  return text[0] == '0'   ? PAL_Fast::kNever
         : text[0] == '2' ? PAL_Fast::kAlways
                          : PAL_Fast::kIfUseful;
}

}  // namespace

PAL_Fast PAL_fast = FastFromEnvironment();

std::optional<std::string> PAL_GetCwd() {
  for (size_t size = kCwdStepBytes;; size += kCwdStepBytes) {
    std::string buffer(size, '\0');
    if (getcwd(buffer.data(), size - 1) != nullptr) {
      buffer.resize(std::strlen(buffer.c_str()));
      return buffer;
    }
    if (errno != ERANGE) return std::nullopt;
  }
}

PAL_DirectoryScope::PAL_DirectoryScope(const char* directory) {
  if (directory == nullptr || IsDot(directory)) return;
  std::optional<std::string> current = PAL_GetCwd();
  if (!current) {
    PAL_Error("cannot determine cwd: %s", std::strerror(errno));
    return;
  }
  if (*current == directory) return;
  if (chdir(directory) != 0) {
    PAL_Error("cannot cd into %s: %s", PAL_Printable(directory).c_str(), std::strerror(errno));
    return;
  }
  previous_ = std::move(current);
}

PAL_DirectoryScope::~PAL_DirectoryScope() {
  if (!previous_) return;
  const int saved = errno;
  if (chdir(previous_->c_str()) != 0) {
    PAL_Error("cannot cd back into %s: %s", PAL_Printable(*previous_).c_str(),
              std::strerror(errno));
  }
  errno = saved;
}

std::string PAL_PathInDir(const char* directory, const std::string& path) {
  if (directory == nullptr || path.starts_with('/')) return path;
  std::string joined = directory;
  if (!joined.ends_with('/')) joined += '/';
  return joined += path;
}

int PAL_OpenInDir(const char* directory, const char* path, int flags, mode_t mode) {
  if (path[0] == '/') return Vfd_Open(path, flags, mode);
  if (directory != nullptr && directory[0] != '\0' && !IsDot(directory)) {
    // vfd may close the file and later open it again by this path, from the working directory of
    // that time. So the path includes the directory, and the working directory isn't changed.
    const int descriptor = Vfd_Open(PAL_PathInDir(directory, path).c_str(), flags, mode);
    if (descriptor >= 0) return descriptor;
  }
  return PAL_InDir(directory, [&] { return Vfd_Open(path, flags, mode); });
}

PAL_FileLock::~PAL_FileLock() {
  if (descriptor_ >= 0) close(descriptor_);
}

bool PAL_FileLock::acquire(const char* directory, const char* path, mode_t mode) {
  const std::string name = PAL_PathInDir(directory, path);
  struct stat info {};
  if (stat(name.c_str(), &info) == 0 && !S_ISREG(info.st_mode)) return true;
  constexpr int kFlags = O_WRONLY | O_CREAT | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
  descriptor_ = open(name.c_str(), kFlags, mode);
  if (descriptor_ < 0 || flock(descriptor_, LOCK_EX | LOCK_NB) == 0) return true;
  if (errno != EWOULDBLOCK) return true;
  PAL_Error("Another process is writing %s.", PAL_Printable(name).c_str());
  return false;
}

int PAL_RemoveInDir(const char* directory, const char* path) {
  if (path[0] == '/') return std::remove(path);
  return PAL_InDir(directory, [&] { return std::remove(path); });
}

int PAL_IsDir(const char* path, int* error) {
  struct stat status;
  const bool failed = stat(path, &status) != 0;
  if (error != nullptr) *error = failed && errno != ENOENT ? 1 : 0;
  return !failed && S_ISDIR(status.st_mode) ? 1 : 0;
}

uint64_t PAL_FileSize(const char* path) {
  struct stat status;
  return stat(path, &status) == 0 ? static_cast<uint64_t>(status.st_size) : 0;
}

std::optional<std::string> PAL_ReadFile(const char* path) {
  const int descriptor = Vfd_Open(path, O_RDONLY, 0);
  if (descriptor < 0) return std::nullopt;
  std::string data;
  size_t length = 0;
  ssize_t count;
  do {
    data.resize(length + kReadBytes);
    count = Vfd_Read(descriptor, data.data() + length, kReadBytes);
    if (count > 0) length += static_cast<size_t>(count);
  } while (count > 0);
  const int saved = errno;
  Vfd_Close(descriptor);
  errno = saved;
  if (count < 0) return std::nullopt;
  data.resize(length);
  return data;
}

int PAL_System(const char* command) { return std::system(command); }

double PAL_Time() {
  timeval now = {};
  gettimeofday(&now, nullptr);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_usec) / 1000000;
}

uint32_t PAL_RandomSeed() {
  uint32_t seed = ReadRandom();
  while (seed == 0) seed = MixedRand();
  return seed;
}

uint64_t PAL_RandomSeed64() { return uint64_t{PAL_RandomSeed()} << 32 | PAL_RandomSeed(); }
