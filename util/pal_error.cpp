// Formats and writes messages. Owns PAL_messages. A message is built in one block and written to
// each target by one call, so that messages of several threads don't mix.
#include "util/pal_error.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <ctime>
#include <mutex>
#include <unordered_map>

#include "util/pal_strings.h"

constinit PAL_MessageSettings PAL_messages = {nullptr, nullptr, 0, 1, 1, nullptr, nullptr};

namespace {

class ErrnoKeeper {
 public:
  ErrnoKeeper() : saved_(errno) {}
  ~ErrnoKeeper() { errno = saved_; }
  ErrnoKeeper(const ErrnoKeeper&) = delete;
  ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;

 private:
  int saved_;
};

// A formatted message. A short one needs no heap memory, so that exhausted heap memory can be
// reported.
class MessageText {
 public:
  __attribute__((format(printf, 2, 0))) MessageText(const char* format, va_list arguments) {
    va_list copy;
    va_copy(copy, arguments);
    const int length = std::vsnprintf(short_, sizeof short_, format, copy);
    va_end(copy);
    text_ = short_;
    if (length >= static_cast<int>(sizeof short_)) {
      long_ = PAL_vasprintf(format, arguments);
      text_ = long_;
    }
  }
  ~MessageText() = default;
  MessageText(const MessageText&) = delete;
  MessageText& operator=(const MessageText&) = delete;

  [[nodiscard]] std::string_view view() const { return text_; }

 private:
  char short_[1024] = "";
  std::string long_;
  std::string_view text_;
};

// The state of PAL_MessagesOnce.
struct WrittenMessages {
  enum class Reading { kNone, kFirst, kSecond };

  std::mutex mutex;
  Reading reading = Reading::kNone;
  // The first reading counts its messages here, the second one counts them down.
  std::unordered_map<std::string, uint64_t> texts;
};

WrittenMessages& Written() {
  static WrittenMessages written;
  return written;
}

// Whether the message repeats one of the first reading. Storing a message allocates memory. If that
// fails, this function is called again for the report of it, which never counts as a repetition.
bool IsRepeated(std::string_view text) {
  static thread_local bool isInside = false;
  if (isInside) return false;
  WrittenMessages& written = Written();
  const std::lock_guard lock(written.mutex);
  if (written.reading == WrittenMessages::Reading::kNone) return false;
  isInside = true;
  bool isRepeated = false;
  if (written.reading == WrittenMessages::Reading::kFirst) {
    ++written.texts[std::string(text)];
  } else if (const auto found = written.texts.find(std::string(text));
             found != written.texts.end()) {
    isRepeated = found->second > 0;
    if (isRepeated) --found->second;
  }
  isInside = false;
  return isRepeated;
}

struct TimeText {
  char text[32];
};

// The date and time; empty if messages don't show them.
TimeText CurrentTimeText() {
  TimeText result = {};
  if (PAL_messages.showTime == 0) return result;
  const time_t now = std::time(nullptr);
  if (ctime_r(&now, result.text) == nullptr) return TimeText{};
  result.text[std::strcspn(result.text, "\n")] = '\0';
  return result;
}

// Formats the prefix of the lines of a message. Returns its full length, also if that is above
// `size`, like snprintf.
int FormatPrefix(char* prefix, size_t size, const char* level) {
  const TimeText now = CurrentTimeText();
  const char* timeGap = PAL_messages.showTime != 0 ? " " : "";
  const char* program = PAL_messages.programName != nullptr ? PAL_messages.programName : "";
  const char* gap = program[0] != '\0' ? " " : "";
  const char* process = PAL_messages.processName;
  if (process != nullptr && std::strcmp(process, program) != 0) {
    return std::snprintf(prefix, size, "[%s%s%s] %s%s%s%s%*s", process, timeGap, now.text, program,
                         gap, level, ":", 1, "");
  }
  return std::snprintf(prefix, size, "%s%s%s%s%s:%*s", now.text, timeGap, program, gap, level, 1,
                       "");
}

bool HasVisibleCharacter(std::string_view text) {
  for (const char c : text) {
    if (!PAL_IsSpace(c)) return true;
  }
  return false;
}

char* Append(char* to, std::string_view text) {
  std::memcpy(to, text.data(), text.size());
  return to + text.size();
}

// Writes each non-empty line of `text` with prefix and newline to `block`. Returns the end of the
// written bytes.
char* JoinLines(char* block, std::string_view prefix, std::string_view text) {
  while (!text.empty()) {
    const size_t end = std::min(text.find('\n'), text.size());
    if (end != 0) {
      block = Append(block, prefix);
      block = Append(block, text.substr(0, end));
      *block++ = '\n';
    }
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return block;
}

void WriteToTargets(const char* block, size_t length) {
  if (PAL_messages.replacement != nullptr) {
    PAL_messages.replacement(PAL_messages.replacementContext, block, length);
    return;
  }
  std::fwrite(block, 1, length, stderr);
  std::fflush(stderr);
  if (PAL_messages.logStream != nullptr) std::fwrite(block, 1, length, PAL_messages.logStream);
  if (PAL_messages.logCallback != nullptr) PAL_messages.logCallback(nullptr, block, length);
}

__attribute__((format(printf, 2, 0))) void WriteMessage(const char* level, const char* format,
                                                        va_list arguments) {
  const ErrnoKeeper keeper;
  const MessageText message(format, arguments);
  const std::string_view text = message.view();
  if (!HasVisibleCharacter(text) || IsRepeated(text)) return;
  const int prefixLength = FormatPrefix(nullptr, 0, level);
  if (prefixLength < 0) return;
  const size_t prefixSize = static_cast<size_t>(prefixLength) + 1;
  size_t lines = 1;
  for (const char c : text) lines += c == '\n' ? 1 : 0;
  // The block contains the prefix and, after it, the finished lines. A short message needs no heap
  // memory.
  const size_t size = prefixSize + text.size() + lines * prefixSize;
  char shortBlock[4096];
  std::string longBlock;
  if (size > sizeof shortBlock) longBlock.resize(size);
  char* prefix = longBlock.empty() ? shortBlock : longBlock.data();
  FormatPrefix(prefix, prefixSize, level);
  char* start = prefix + prefixSize;
  const char* end = JoinLines(start, prefix, text);
  WriteToTargets(start, static_cast<size_t>(end - start));
}

}  // namespace

void PAL_Info(const char* format, ...) {
  if (PAL_messages.infoEnabled == 0) return;
  va_list arguments;
  va_start(arguments, format);
  WriteMessage("INFO", format, arguments);
  va_end(arguments);
}

void PAL_Warning(const char* format, ...) {
  if (PAL_messages.infoEnabled == 0) return;
  va_list arguments;
  va_start(arguments, format);
  WriteMessage("WARNING", format, arguments);
  va_end(arguments);
}

void PAL_Error(const char* format, ...) {
  if (PAL_messages.errorEnabled == 0) return;
  va_list arguments;
  va_start(arguments, format);
  WriteMessage("ERROR", format, arguments);
  va_end(arguments);
}

PAL_MessagesOnce::PAL_MessagesOnce() {
  const std::lock_guard lock(Written().mutex);
  Written().reading = WrittenMessages::Reading::kFirst;
}

void PAL_MessagesOnce::beginSecond() {
  const std::lock_guard lock(Written().mutex);
  Written().reading = WrittenMessages::Reading::kSecond;
}

PAL_MessagesOnce::~PAL_MessagesOnce() {
  const std::lock_guard lock(Written().mutex);
  Written().reading = WrittenMessages::Reading::kNone;
  Written().texts.clear();
}

void PAL_SetLogStream(FILE* stream) { PAL_messages.logStream = stream; }

void PAL_SetLogCallback(void (*callback)(void* context, const char* text, size_t length)) {
  PAL_messages.logCallback = callback;
}

void PAL_Perror(const char* text) {
  const ErrnoKeeper keeper;
  const char* reason = std::strerror(errno);
  std::string line;
  if (text != nullptr && text[0] != '\0') line = PAL_Printable(text) + ": ";
  line += reason;
  line += '\n';
  if (PAL_messages.replacement != nullptr) {
    PAL_messages.replacement(PAL_messages.replacementContext, line.data(), line.size());
    return;
  }
  std::fwrite(line.data(), 1, line.size(), stderr);
  std::fflush(stderr);
}
