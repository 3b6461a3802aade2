// Outputs and the input. See kltt_guard.h.
#include "generic/kltt_guard.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "generic/kltt_exit.h"
#include "klt/klt_intern.h"
#include "klt/klt_write.h"
#include "util/pal_error.h"

namespace {

bool isFile(const std::string& name, const struct stat& wanted) {
  struct stat found {};
  return stat(name.c_str(), &found) == 0 && found.st_dev == wanted.st_dev &&
         found.st_ino == wanted.st_ino;
}

}  // namespace

bool KLTT_OutputIsInput(const KLT_FileHandle* handle, const char* name) {
  struct stat output {};
  if (std::strcmp(name, "-") == 0) {
    if (fstat(STDOUT_FILENO, &output) != 0 || !S_ISREG(output.st_mode)) return false;
  } else if (stat(name, &output) != 0) {
    return false;
  }
  if (isFile(KLT_ComponentName(*handle, handle->indexEntry, false), output)) return true;
  for (const auto& entry : handle->files.entries()) {
    // Which of the two a file is shows only in its use.
    for (const bool anchors : {false, true}) {
      if (isFile(KLT_ComponentName(*handle, *entry.value, anchors), output)) return true;
    }
  }
  return false;
}

void KLTT_RefuseInput(const KLT_FileHandle* handle, const char* name) {
  if (!KLTT_OutputIsInput(handle, name)) return;
  std::fprintf(stderr, "Could not open file %s for writing.\n", PAL_Printable(name).c_str());
  KLTT_Exit(1);
}

std::vector<KLT_FileIdentity> KLTT_InputFiles(const KLT_FileHandle* handle) {
  std::vector<KLT_FileIdentity> files;
  const auto add = [&files](const std::string& name) {
    struct stat found {};
    if (stat(name.c_str(), &found) == 0) files.push_back({found.st_dev, found.st_ino});
  };
  add(KLT_ComponentName(*handle, handle->indexEntry, false));
  for (const auto& entry : handle->files.entries()) {
    for (const bool anchors : {false, true}) add(KLT_ComponentName(*handle, *entry.value, anchors));
  }
  return files;
}
