// Opens and closes writers of traces.
//
// The writer determines the component of a record (klt_write_context), writes the record and
// updates history and profiles (klt_write_row), and writes the profiles and the index when it is
// closed (klt_write_stats, klt_write_index). A component that can't be written is reported once and
// dropped; the others are still written.
#pragma once

#include <cstdint>
#include <string_view>

#include "klt/storage/klt_fileset.h"
#include "klt/write/klt_write_row.h"
#include "util/triplets/pal_triplets.h"

// Opens a trace for writing. `name` is relative to `dir` unless that is null; `form` is the storage
// form. With `writeIndex` the index component is opened at once, and written on closing. The bits
// 0xb of `flags` are stored in the index; components of functions and raw events are compressed if
// bits 0 and 1 are both set. With `stats` profiles are computed. Components whose file is in
// `inputFiles` are neither removed nor opened; `name` itself isn't checked. Null after a report.
[[nodiscard]] KLT_WFileHandle* KLT_WriterOpen(const char* dir, const char* name, int writeIndex,
                                              int form, uint32_t flags,
                                              const KLT_StatsParameters* stats,
                                              KLT_FileSet inputFiles = {});

// Adds the declared threads in `selection`, or all of them if it is empty, to the list of all
// threads. Components without a list of their own (messages, collective operations, reports) use
// this list. They also contain records of threads that have no component.
void KLT_WriterListThreads(KLT_WFileHandle* writer, PAL_Triplets selection);

// A caller that writes the calls of each thread on their own can let the index and the profiles
// have the order that they would get if the records of all threads were merged by time. While
// KLT_WriterDeferPlaces is on, new components and profiles of functions get no place in it. Then
// the caller gives them their places, in this order, while it writes the other records:
// KLT_WriterPlaceCalls to the component of a thread's calls, and
// KLT_WriterPlaceProfile to the profile that was created as number `number`, from 0. Seek points in
// the components of calls contain no ids of components, so they can be written before.
void KLT_WriterDeferPlaces(KLT_WFileHandle* writer, bool on);
void KLT_WriterPlaceCalls(KLT_WFileHandle* writer, uint32_t thread);
void KLT_WriterPlaceProfile(KLT_WFileHandle* writer, uint32_t number);
// The numbers of components and of profiles of functions that have been created.
struct KLT_WriterCounts {
  size_t components;
  size_t profiles;
  bool operator==(const KLT_WriterCounts&) const = default;
};
[[nodiscard]] KLT_WriterCounts KLT_WriterCount(const KLT_WFileHandle* writer);
// Writes and frees the buffers of the component of a thread's calls. More records may follow.
void KLT_WriterRestCalls(KLT_WFileHandle* writer, uint32_t thread);

// The numbers of events that a trace declares.
struct KLT_EventCounts {
  uint32_t functions = 0, oneToOnes = 0, collectives = 0, scopes = 0, counters = 0;
};
// How the text with these numbers begins.
inline constexpr std::string_view kKltCountsText = "number of events:";
// Writes them as a record, and as a text of class `textClass` unless that is 0: readers refuse a
// text without a class. False if that fails.
[[nodiscard]] bool KLT_WriteEventCounts(KLT_WFileHandle* writer, const KLT_EventCounts& counts,
                                        uint32_t textClass);

// Writes profiles and index, and frees the handle. `complete` receives whether all bytes have been
// written to the files. Returns the text of an error, or null.
[[nodiscard]] const char* KLT_WriterClose(KLT_WFileHandle* writer, bool* complete);

// Flushes and frees without writing profiles and index. False if a write has failed. With
// `writeIndex` both functions empty the file `name` if its index isn't complete, except in the
// serial form.
bool KLT_WriterFree(KLT_WFileHandle* writer);
