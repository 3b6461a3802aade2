// Passes of the reader for fuzz targets: every handler looks at all that it is given.
#pragma once

#include <vector>

#include "klt/klt.h"
#include "tests/builder/touching.h"

namespace fuzz {

// One pass to its end. A stream that fails leaves the others.
inline void runPass(KLT_FileHandle* trace, int mode, const std::vector<KLT_Request>& requests,
                    int serial) {
  constexpr int kMostFailures = 1000;
  tb::Seen seen;
  const KLT_HandlerTable table = tb::touchingTable(seen);
  std::vector<const KLT_Request*> pointers;
  for (const KLT_Request& request : requests) pointers.push_back(&request);
  KLT_Reader* reader = KLT_OpenReader(trace, mode, static_cast<uint32_t>(pointers.size()),
                                      pointers.data(), &table, serial);
  if (reader == nullptr) return;
  for (int step = 0; step < kMostFailures; ++step) {
    const int status = KLT_ReadEvents(reader, -1);
    if (status == KLT_STATUS_FINISHED || status == KLT_STATUS_ABORTING) break;
  }
  KLT_CloseReader(reader);
}

}  // namespace fuzz
