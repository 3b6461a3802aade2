// Passes that look at every byte that handlers are given, so that a sanitizer sees what is wrong.
#pragma once

#include <vector>

#include "tests/builder/recorder.h"

namespace tb {

// One pass to its end.
inline void touchAll(KLT_FileHandle* trace, int mode, const std::vector<KLT_Request>& requests,
                     int serial) {
  reading::Recorder recorder;
  recorder.keeps = false;
  const auto reader = reading::openReader(trace, recorder.table, requests, serial, mode);
  if (reader != nullptr) (void)reading::finish(reader.get());
}

}  // namespace tb
