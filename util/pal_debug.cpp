// Implements the debug channel and PAL_Abort. Owns the channel's state.
#include "util/pal_debug.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <string_view>

#include "util/pal_error.h"
#include "util/pal_strings.h"
#include "util/pal_util.h"
#include "util/vfd.h"

namespace {

constexpr size_t kTextBytes = 2048;
constexpr size_t kTagBytes = 80;
constexpr size_t kNameBytes = 128;

struct DebugChannel {
  std::mutex mutex;
  int file = -1;                   // virtual descriptor of the file that is open, or -1
  char openName[kNameBytes] = "";  // the process name whose file is open
  const char* sourceFile = "";     // source location of the previous message
  int sourceLine = 0;
  bool lineOpen = false;  // the previous message didn't end with a newline
};

DebugChannel& Channel() {
  static DebugChannel channel;
  return channel;
}

// Whether this thread is inside PAL_Debug. A nested call would lock the mutex twice, so it returns.
thread_local bool insideChannel = false;

std::string DebugPrefix(const char* file, int line) {
  char tag[kTagBytes];
  std::snprintf(tag, sizeof tag, "%s/%#lx/%d", "init", static_cast<unsigned long>(pthread_self()),
                static_cast<int>(getpid()));
  return PAL_asprintf("[%.6lf %s@%s:%d] ", PAL_Time(), tag, PAL_BaseName(file), line);
}

std::string DebugFileName(const char* processName) {
  std::string name = PAL_asprintf("PAL-debug-%s.out", processName);
  for (char& c : name) {
    if (c == ' ' || c == '/' || c == '\\') c = '_';
  }
  return name;
}

bool OpenDebugFile(DebugChannel& channel, const char* processName) {
  const std::string name = DebugFileName(processName);
  const int file = Vfd_Open(name.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  if (file < 0) {
    PAL_Warning("cannot open %s in %s", PAL_Printable(name).c_str(),
                PAL_Printable(PAL_GetCwd().value_or("(null)")).c_str());
    return false;
  }
  if (channel.file >= 0) Vfd_Close(channel.file);
  channel.file = file;
  std::snprintf(channel.openName, sizeof channel.openName, "%s", processName);
  return true;
}

bool IsOpenFor(const DebugChannel& channel, const char* processName) {
  return channel.file >= 0 && std::strncmp(channel.openName, processName, kNameBytes - 1) == 0;
}

// The destination of messages.
enum class DebugTarget : uint8_t { kNowhere, kDescriptor, kFile };

DebugTarget PickTarget(DebugChannel& channel, int& descriptor) {
  const char* forced = std::getenv("PAL_DEBUG_FD");
  if (forced != nullptr) {
    descriptor = static_cast<int>(std::strtol(forced, nullptr, 10));
    return DebugTarget::kDescriptor;
  }
  const char* process = PAL_messages.processName;
  if (process != nullptr && !IsOpenFor(channel, process) && !OpenDebugFile(channel, process)) {
    return DebugTarget::kNowhere;
  }
  descriptor = STDERR_FILENO;
  return channel.file >= 0 ? DebugTarget::kFile : DebugTarget::kDescriptor;
}

// `text` with a prefix before each line. If the previous message didn't end with a newline, `text`
// continues its line if it is from the same source location, and begins a new line otherwise.
std::string LayOutDebugText(DebugChannel& channel, std::string_view text, const char* file,
                            int line) {
  std::string result;
  const bool isNewSource = line != channel.sourceLine || std::strcmp(file, channel.sourceFile) != 0;
  if (isNewSource && channel.lineOpen) {
    result += '\n';
    channel.lineOpen = false;
  }
  const std::string prefix = DebugPrefix(file, line);
  while (!text.empty()) {
    const size_t newline = text.find('\n');
    const size_t end = newline == std::string_view::npos ? text.size() : newline + 1;
    if (!channel.lineOpen) result += prefix;
    result += text.substr(0, end);
    channel.lineOpen = newline == std::string_view::npos;
    text.remove_prefix(end);
  }
  channel.sourceFile = file;
  channel.sourceLine = line;
  return result;
}

}  // namespace

void PAL_Debug(const char* file, int line, const char* format, ...) {
  const int savedErrno = errno;
  if (insideChannel) return;
  char text[kTextBytes];
  va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  if (length < 0) {
    errno = savedErrno;
    return;
  }
  DebugChannel& channel = Channel();
  const std::lock_guard lock(channel.mutex);
  insideChannel = true;
  int descriptor = -1;
  const DebugTarget target = PickTarget(channel, descriptor);
  if (target != DebugTarget::kNowhere) {
    const std::string output = LayOutDebugText(channel, text, file, line);
    // There is nowhere left to report a failed write.
    [[maybe_unused]] const ssize_t written =
        target == DebugTarget::kFile ? Vfd_Write(channel.file, output.data(), output.size())
                                     : write(descriptor, output.data(), output.size());
  }
  insideChannel = false;
  errno = savedErrno;
}

void PAL_Abort() {
  PAL_Debug(__builtin_FILE(), __builtin_LINE(), "aborting in PAL_abort()");
  std::abort();
}
