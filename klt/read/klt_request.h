// Defines a request: the time window, threads and categories that a caller wants from a reader.
//
// A request is owned by its creator; the reader keeps copies. KLT_NormaliseRequests converts the
// requests of one pass to a list that a stream can process sequentially: sorted by time, without
// overlaps. The filter, not this module, applies requests to records.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

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

// The requests as a list sorted by time without overlaps. At each instant the list selects the
// union of the categories and the union of the threads of the requests that include the instant. An
// `end` below `start` means "no end"; a single request is otherwise unchanged.
[[nodiscard]] std::vector<KLT_Request> KLT_NormaliseRequests(
    std::span<const KLT_Request* const> requests);
