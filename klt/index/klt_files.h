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

#include "klt/storage/klt_fileset.h"

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
// Anchors that aren't there are passed over. Nothing is moved unless all other files are there, the
// target is a place to write to, and none of the files in `untouchable`, those of the input, would
// be overwritten. A move that fails later stops there and tells where each file is. 0, or an exit
// status after a message: errno if `target` can't be examined.
[[nodiscard]] int KLT_Move(KLT_FileHandle* handle, const char* target,
                           const KLT_FileSet& untouchable);

// Removes all files of the trace that are there; those that aren't are told, but for anchors. 0, or
// -1 after a message at the first file that can't be removed.
[[nodiscard]] int KLT_Remove(KLT_FileHandle* handle);

// Copies the trace byte for byte to `target`, resolved in `directory` unless that is null: into a
// single file, written strictly in sequence ("-" is standard output), if `single` is nonzero, else
// into a file for each component. Files in `untouchable` are not overwritten. 0, or 1 after a
// message; what has been copied until then stays, without an index.
[[nodiscard]] int KLT_Convert(const KLT_FileHandle* handle, const char* directory,
                              const char* target, int single, const KLT_FileSet& untouchable);
