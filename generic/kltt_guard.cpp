// Outputs and the input. See kltt_guard.h.
#include "generic/kltt_guard.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "generic/kltt_exit.h"
#include "klt/klt_intern.h"
#include "util/pal_error.h"

bool KLTT_OutputIsInput(const KLT_FileHandle* handle, const char* name) {
  if (std::strcmp(name, "-") == 0) return KLTT_InputFiles(handle).containsOpen(STDOUT_FILENO);
  // An output that isn't there yet needs no look at the input's many files.
  return access(name, F_OK) == 0 && KLTT_InputFiles(handle).contains(name);
}

void KLTT_RefuseInput(const KLT_FileHandle* handle, const char* name) {
  if (!KLTT_OutputIsInput(handle, name)) return;
  std::fprintf(stderr, "Could not open file %s for writing.\n", PAL_Printable(name).c_str());
  KLTT_Exit(1);
}

KLT_FileSet KLTT_InputFiles(const KLT_FileHandle* handle) {
  KLT_FileSet files;
  files.add(KLT_ComponentName(*handle, handle->indexEntry, false));
  for (const auto& entry : handle->files.entries()) {
    // Which of the two a file is shows only in its use.
    for (const bool anchors : {false, true}) {
      files.add(KLT_ComponentName(*handle, *entry.value, anchors));
    }
  }
  return files;
}
