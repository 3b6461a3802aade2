// Refuses outputs that would overwrite the input.
//
// A link, a second path or a shared base name can make an output a file of the trace that is being
// read. So files are compared by device and inode, before anything is opened for writing.
#pragma once

#include "klt/storage/klt_fileset.h"

struct KLT_FileHandle;

// Whether `name` is the index or container of the open trace, or one of its components. "-" is the
// file to which standard output is redirected. A file that doesn't exist is a component if the
// trace declares its name.
[[nodiscard]] bool KLTT_OutputIsInput(const KLT_FileHandle* handle, const char* name);

// If `name` is a file of the input, reports that it can't be opened and ends the process, status 1.
void KLTT_RefuseInput(const KLT_FileHandle* handle, const char* name);

// The files of the trace, and the names of declared files that don't exist.
[[nodiscard]] KLT_FileSet KLTT_InputFiles(const KLT_FileHandle* handle);
