// Compares outputs with the files of the input. See kltt_guard.h.
#include "generic/text/kltt_guard.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string_view>

#include "generic/text/kltt_exit.h"
#include "klt/index/klt_intern.h"
#include "util/pal_error.h"
#include "util/pal_hash.h"
#include "util/pal_strings.h"

// The input may have many files, so they are looked up only if the output is an existing regular
// file, or doesn't exist and its name begins with that of the input.
bool KLTT_OutputIsInput(const KLT_FileHandle* handle, const char* name) {
  struct stat info {};
  const bool isStandard = std::strcmp(name, "-") == 0;
  if ((isStandard ? fstat(STDOUT_FILENO, &info) : stat(name, &info)) == 0) {
    return S_ISREG(info.st_mode) && KLTT_InputFiles(handle).contains(info);
  }
  const std::string_view own = PAL_BaseName(name);
  return !isStandard && own.starts_with(PAL_BaseName(handle->base.c_str())) &&
         KLTT_InputFiles(handle).contains(std::string(name));
}

void KLTT_RefuseInput(const KLT_FileHandle* handle, const char* name) {
  if (!KLTT_OutputIsInput(handle, name)) return;
  std::fprintf(stderr, "Could not open file %s for writing.\n", PAL_Printable(name).c_str());
  KLTT_Exit(1);
}

KLT_FileSet KLTT_InputFiles(const KLT_FileHandle* handle) {
  KLT_FileSet files;
  files.add(KLT_ComponentName(*handle, handle->indexEntry, false));
  PAL_HashSet<std::string_view> seen;
  for (const auto& entry : handle->files.entries()) {
    // An entry doesn't say whether its suffix is used for data, anchors or both.
    if (!seen.insert(entry.value->suffix).second) continue;
    for (const bool anchors : {false, true}) {
      files.add(KLT_ComponentName(*handle, *entry.value, anchors));
    }
  }
  return files;
}
