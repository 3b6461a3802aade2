// Writing a trace.
//
// The writer decides which component a record goes to (klt_write_context), writes the record and
// what follows from it (klt_write_row), and writes the profiles and the index when it is closed
// (klt_write_stats, klt_write_index). A stream that can't be written is reported once and dropped;
// the others go on.
#pragma once

#include <cstdint>

#include "klt/storage/klt_fileset.h"
#include "klt/write/klt_write_row.h"
#include "util/triplets/pal_triplets.h"

// Opens a trace for writing under `name`, resolved in `dir` unless that is null; `form` is the
// storage form. With `writeIndex` the index component is opened at once, and written on closing.
// Of `flags` the bits 0xb go into the index; streams of functions and raw events are compressed if
// bits 0 and 1 are both set. With `stats` profiles are made. Files in `untouchable` are neither
// removed nor opened. Null after a report.
[[nodiscard]] KLT_WFileHandle* KLT_WriterOpen(const char* dir, const char* name, int writeIndex,
                                              int form, uint32_t flags,
                                              const KLT_StatsParameters* stats,
                                              KLT_FileSet untouchable = {});

// Makes the declared threads that are in `selection`, all for an empty one, part of the list of all
// threads. Components without a list of their own (messages, collective operations, reports) hold
// records of these threads, whether or not they have a component as well.
void KLT_WriterListThreads(KLT_WFileHandle* writer, PAL_Triplets selection);

// Writes profiles and index, and frees the handle. `complete` receives whether everything has
// reached its file. Returns the text of an error, or null.
[[nodiscard]] const char* KLT_WriterClose(KLT_WFileHandle* writer, bool* complete);

// Flushes and frees without writing profiles and index. False if something hasn't reached its file.
// In both cases a missing or incomplete index leaves an empty file.
bool KLT_WriterFree(KLT_WFileHandle* writer);
