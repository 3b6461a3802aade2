// Operations on a trace as the set of files that it is: list, move, remove, copy.
//
// None of them decodes a record. They walk the file table of an opened trace, whose components they
// reach through its storage (klt_io), so that a single-file trace has the same components as a
// plain one. Moving and removing use up the input: the index goes last, so that what is left of a
// trace after a failure can still be opened.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "klt/klt_fileset.h"

struct KLT_FileHandle;

// Names (without directory) and sizes in bytes of all components, either of which may be null: the
// index first, then the others in the order of the file table. A component that can't be opened has
// size 0. Returns their number.
size_t KLT_FileList(const KLT_FileHandle* handle, std::vector<std::string>* names,
                    std::vector<uint64_t>* sizes);

// Whether all files of the trace are known; false after a message if its index couldn't be read to
// the end. Then nothing can be moved or removed but a single file, and no listing or copy is whole.
[[nodiscard]] bool KLT_FilesAreKnown(const KLT_FileHandle* handle);

// Moves the trace to the base name `target`, or into the directory of that name, as mv(1) does it.
// Files in `untouchable`, those of the input, are not overwritten. Stops at the first failure, told
// by mv itself or by a message: an exit status, errno if `target` can't be examined. 0 if all files
// have been moved.
[[nodiscard]] int KLT_Move(KLT_FileHandle* handle, const char* target,
                           const KLT_FileSet& untouchable);

// Removes all files of the trace; anchors that aren't there are passed over. 0, or -1 after a
// message at the first file that can't be removed.
[[nodiscard]] int KLT_Remove(KLT_FileHandle* handle);

// Copies the trace byte for byte to `target`, resolved in `directory` unless that is null: into a
// single file, written strictly in sequence ("-" is standard output), if `single` is nonzero, else
// into a file for each component. Files in `untouchable` are not overwritten. 0, or 1 after a
// message; what has been copied until then stays, without an index.
[[nodiscard]] int KLT_Convert(const KLT_FileHandle* handle, const char* directory,
                              const char* target, int single, const KLT_FileSet& untouchable);
