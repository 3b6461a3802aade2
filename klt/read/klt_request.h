// What a caller asks of a reader: a time window, threads, categories.
//
// A request is owned by whoever made it; the reader keeps copies. KLT_NormaliseRequests turns the
// requests of one pass into a list that a stream can work off from front to back: sorted by time,
// no two of them overlapping. Who decides about single records is the filter, not this module.
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

// A request for nothing yet, without an end. KLT_RequestRelease frees it; null is ignored.
[[nodiscard]] KLT_Request* KLT_RequestAlloc();
void KLT_RequestRelease(KLT_Request* request);

// A deep copy in which an `end` below `start` has become "no end".
[[nodiscard]] KLT_Request* KLT_RequestCopy(const KLT_Request* request);

// The requests as a list sorted by time without overlaps, which selects at each instant what any of
// them selects there (requests that share an instant unite both their categories and their
// threads). Each is taken as KLT_RequestCopy would; a single one passes as it is otherwise.
[[nodiscard]] std::vector<KLT_Request> KLT_NormaliseRequests(
    std::span<const KLT_Request* const> requests);
