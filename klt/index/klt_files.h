// Lists, moves, removes and copies the files of a trace.
//
// None of these operations decodes a record. They go through the file table of an opened trace and
// access its components through its storage (klt_io), so that a single-file trace has the same
// components as a plain one. Moving and removing process the index last, so that the rest of a
// trace can still be opened after a failure.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "klt/storage/klt_fileset.h"

struct KLT_FileHandle;

// Appends the names (without directory) and sizes in bytes of all components to `names` and
// `sizes`, either of which may be null: the index first, then the others in the order of the file
// table. A component that can't be opened has size 0. Returns the number of components.
size_t KLT_FileList(const KLT_FileHandle* handle, std::vector<std::string>* names,
                    std::vector<uint64_t>* sizes);

// Whether all files of the trace are known. False, after a message, if its index couldn't be read
// to the end, or gives an id twice. Then only a single-file trace can be moved or removed, and
// listings and copies are incomplete.
[[nodiscard]] bool KLT_FilesAreKnown(const KLT_FileHandle* handle);

// Moves the trace to the base name `target`, or into the directory of that name, like mv(1).
// Missing anchor files are skipped. Nothing is moved unless all other files exist, sources and
// existing targets are regular files, the target directory is writable, and no name of the input
// (`inputFiles`) is a target. A move that fails later stops and reports the place of each file. 0,
// or an exit status after a message: errno if `target` can't be examined.
[[nodiscard]] int KLT_Move(KLT_FileHandle* handle, const char* target,
                           const KLT_FileSet& inputFiles);

// Removes all files of the trace that exist; missing ones are reported, except anchor files. 0, or
// -1 after a message at the first file that can't be removed. A file of `outputs` is such a file.
[[nodiscard]] int KLT_Remove(KLT_FileHandle* handle, const KLT_FileSet& outputs = {});

// Copies the trace byte for byte to `target`, which is relative to `directory` unless that is null.
// If `single` is nonzero the copy is a single file, written strictly in sequence ("-" is standard
// output), otherwise a file for each component. Files in `inputFiles` are not overwritten. 0, or 1
// after a message; the files copied before a failure stay, without an index.
[[nodiscard]] int KLT_Convert(const KLT_FileHandle* handle, const char* directory,
                              const char* target, int single, const KLT_FileSet& inputFiles);
