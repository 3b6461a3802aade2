// Buffered text output through virtual descriptors. See RK_output.h.
#include "generic/text/RK_output.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <vector>

#include "util/pal_error.h"
#include "util/pal_util.h"
#include "util/vfd.h"

namespace {

constexpr mode_t kFileMode = 0666;

// The open outputs, in the order of opening. Never destroyed, because the outputs are closed at the
// exit of the process, wherever that happens.
struct Registry {
  std::vector<RK_Output*> open;
  bool anyFailed = false;
};

Registry& registry() {
  static Registry& instance = *new Registry;
  return instance;
}

std::unique_ptr<RK_Output> makeOutput(std::string_view name) {
  auto output = std::make_unique<RK_Output>();
  output->buffer = std::make_unique_for_overwrite<char[]>(RK_Output::kBlock + RK_Output::kSlack);
  output->pos = output->buffer.get();
  output->limit = output->pos + RK_Output::kBlock;
  output->name = name;
  return output;
}

RK_Output* registerOutput(std::unique_ptr<RK_Output> output) {
  registry().open.push_back(output.get());
  return output.release();
}

RK_Output* openStandard(const char* name, int descriptor) {
  std::unique_ptr<RK_Output> output = makeOutput(name);
  output->standard = descriptor;
  return registerOutput(std::move(output));
}

// Marks the output as failed and reports the error in errno, once for each output.
void fail(RK_Output* output) {
  if (output->failed) return;
  output->failed = true;
  registry().anyFailed = true;
  const int error = errno;
  PAL_Error("writing to %s failed: %s", PAL_Printable(output->name).c_str(), strerror(error));
}

void writeBytes(RK_Output* output, size_t bytes) {
  output->written += bytes;
  if (output->failed || bytes == 0) return;
  errno = 0;
  if (output->vfd < 0) output->vfd = Vfd_Adopt(output->standard);
  if (output->vfd < 0 || Vfd_WriteFully(output->vfd, output->buffer.get(), bytes) < bytes) {
    fail(output);
  }
}

// Flushes the output and closes its descriptor.
void complete(RK_Output* output) {
  RK_OutputFlush(output);
  if (output->vfd >= 0 && Vfd_Close(output->vfd) < 0) fail(output);
  output->vfd = -1;
}

}  // namespace

RK_Output* RK_Stdout() {
  static RK_Output* const output = openStandard("stdout", STDOUT_FILENO);
  return output;
}

RK_Output* RK_Stderr() {
  static RK_Output* const output = openStandard("stderr", STDERR_FILENO);
  return output;
}

RK_Output* RK_OutputOpen(const char* path, const char* directory) {
  std::unique_ptr<RK_Output> output = makeOutput(path);
  if (!output->lock.acquire(directory, path, kFileMode)) return nullptr;
  const int vfd = PAL_OpenInDir(directory, path, O_WRONLY | O_CREAT | O_TRUNC, kFileMode);
  if (vfd < 0) return nullptr;
  // The descriptor stays open: the path may name a pipe, which can't be opened a second time.
  Vfd_Pin(vfd, 1);
  output->vfd = vfd;
  return registerOutput(std::move(output));
}

int RK_OutputFlush(RK_Output* output) {
  char* const begin = output->buffer.get();
  writeBytes(output, static_cast<size_t>(output->pos - begin));
  output->pos = begin;
  return output->failed;
}

int RK_OutputClose(RK_Output* output) {
  complete(output);
  const int failed = output->failed;
  if (output->standard < 0) {
    std::erase(registry().open, output);
    delete output;
  }
  return failed;
}

int RK_OutputCloseAll() {
  const std::vector<RK_Output*> open = registry().open;
  for (RK_Output* output : open) RK_OutputClose(output);
  return registry().anyFailed;
}

void RK_OutputWrite(RK_Output* output, std::string_view text) {
  while (!text.empty()) {
    const size_t room = static_cast<size_t>(output->limit - output->pos);
    const size_t bytes = std::min(room, text.size());
    memcpy(output->pos, text.data(), bytes);
    output->pos += bytes;
    text.remove_prefix(bytes);
    if (output->pos == output->limit) RK_OutputDrain(output);
  }
}

void RK_OutputPrintf(RK_Output* output, const char* format, ...) {
  char text[1024];
  va_list arguments;
  va_start(arguments, format);
  const int needed = vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  if (needed < static_cast<int>(sizeof text)) {
    if (needed > 0) RK_OutputWrite(output, {text, static_cast<size_t>(needed)});
    return;
  }
  std::string large(static_cast<size_t>(needed) + 1, '\0');
  va_start(arguments, format);
  vsnprintf(large.data(), large.size(), format, arguments);
  va_end(arguments);
  large.pop_back();
  RK_OutputWrite(output, large);
}

void RK_OutputDrain(RK_Output* output) {
  char* const begin = output->buffer.get();
  writeBytes(output, RK_Output::kBlock);
  const size_t rest = static_cast<size_t>(output->pos - output->limit);
  memcpy(begin, output->limit, rest);
  output->pos = begin + rest;
}
