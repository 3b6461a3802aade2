// Creates and copies requests.
#include "klt/read/klt_request.h"

#include <memory>

KLT_Request* KLT_RequestAlloc() { return std::make_unique<KLT_Request>().release(); }

void KLT_RequestRelease(KLT_Request* request) { delete request; }

KLT_Request* KLT_RequestCopy(const KLT_Request* request) {
  auto copy = std::make_unique<KLT_Request>(*request);
  if (copy->end < copy->start) copy->end = ~uint64_t{0};
  return copy.release();
}
