// Defines a request: the time window, threads and categories that a caller wants from a reader.
//
// A request is owned by its creator; the reader keeps what it needs of it (klt_plan).
#pragma once

#include <cstdint>

#include "util/triplets/pal_triplets.h"

struct KLT_Request {
  uint64_t start = 0;           // first raw time wanted
  uint64_t end = ~uint64_t{0};  // first raw time not wanted; all ones: no end
  uint32_t categories = 0;      // category mask; bit 0 means all
  PAL_Triplets threads;         // empty means all
};

// A request for no categories, from time 0, without an end. KLT_RequestRelease frees it and ignores
// null.
[[nodiscard]] KLT_Request* KLT_RequestAlloc();
void KLT_RequestRelease(KLT_Request* request);

// A deep copy. An `end` below `start` is replaced by "no end".
[[nodiscard]] KLT_Request* KLT_RequestCopy(const KLT_Request* request);
