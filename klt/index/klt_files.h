// Lists, moves, removes and copies the files of a trace.
//
// None of these operations decodes a record. They find the components in the file table of an
// opened trace. Listing and copying access them through klt_io, so that they work in the same way
// on a single-file trace. Moving and removing process the index last, so that the trace can still
// be opened after a failure.
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

// The bytes of the trace's files. A file counts once, however often and by whatever names the index
// declares it.
[[nodiscard]] uint64_t KLT_FileBytes(const KLT_FileHandle* handle);

// Whether all files of the trace are known. False, after a message, if its index couldn't be read
// to the end, or declares two files with the same id. Then only a single-file trace can be moved or
// removed, and listings and copies are incomplete.
[[nodiscard]] bool KLT_FilesAreKnown(const KLT_FileHandle* handle);

// Moves the trace to the base name `target`, or into the directory of that name, like mv(1).
// Missing anchor files are skipped. Nothing is moved unless all other files exist, sources and
// existing targets are regular files, the target directory is writable, and no target is a file of
// the input (`inputFiles`). If a file can't be moved, the files after it aren't moved either, and
// the place of each file is reported. Returns 0 or, after a message, an exit status, which is errno
// if `target` can't be examined.
[[nodiscard]] int KLT_Move(KLT_FileHandle* handle, const char* target,
                           const KLT_FileSet& inputFiles);

// Removes all files of the trace that exist; missing ones are reported, except anchor files. Ends
// with -1, after a message, at the first file that can't be removed or is one of `outputs`. Returns
// 1, after a message, if not all files are known, else 0.
[[nodiscard]] int KLT_Remove(KLT_FileHandle* handle, const KLT_FileSet& outputs = {});

// Copies the trace byte for byte to `target`, which is relative to `directory` unless that is null.
// If `single` is nonzero the copy is a single file, written strictly in sequence ("-" is standard
// output), otherwise a file for each component. Nothing is copied if that would overwrite a file of
// `inputFiles`. Returns 0, or 1 after a message. After a failure the files that were already copied
// stay, with an empty index.
[[nodiscard]] int KLT_Convert(const KLT_FileHandle* handle, const char* directory,
                              const char* target, int single, const KLT_FileSet& inputFiles);
