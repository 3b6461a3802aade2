// Keeps outputs off the input.
//
// Names lie: a link, a second path or a shared base name can make an output the trace that is being
// read. Files are compared by what they are, before anything is opened for writing.
#pragma once

#include "klt/storage/klt_fileset.h"

struct KLT_FileHandle;

// Whether `name` is the index or container of the open trace, or one of its components, by device
// and inode. "-" stands for what standard output leads to. A file that doesn't exist is none of
// them.
[[nodiscard]] bool KLTT_OutputIsInput(const KLT_FileHandle* handle, const char* name);

// Ends the process with status 1, as for an output that can't be opened, if `name` is the input.
void KLTT_RefuseInput(const KLT_FileHandle* handle, const char* name);

// The files that the trace consists of, those that are there.
[[nodiscard]] KLT_FileSet KLTT_InputFiles(const KLT_FileHandle* handle);
