// Creates, opens and closes the storage of a trace: a named set of byte streams (components).
// klt_io.h opens the components.
//
// A trace has one of three forms on disk. Plain: a file for each component. Single: all components
// in one container file (klt_container.h). Serial: the same file format, written strictly in
// sequence, also to a pipe. Readers don't distinguish the last two.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

struct KLT_Container;

enum : int { KLT_FORM_PLAIN = 0, KLT_FORM_SINGLE = 1, KLT_FORM_SERIAL = 2 };

// Creates a trace with base name `name`, which is relative to `dir` unless that is null. `flags`
// and `mode` are those of open(2), for the container file or for each component. In the serial form
// the name "-" is standard output. Null, after a report, if the container can't be created or
// another process is writing the trace.
[[nodiscard]] KLT_Container* KLT_ContainerCreate(const char* dir, int flags, mode_t mode, int form,
                                                 const char* name);

// Opens an existing trace whose container or index file is `name`. Null if the file can't be opened
// (after PAL_Perror(name)) or is a container with an invalid directory (without a report). A file
// that isn't a container, or one of a newer version (after a report), is taken as the index of a
// plain trace. So is a FIFO, directory or device, but it isn't opened.
[[nodiscard]] KLT_Container* KLT_ContainerOpen(const char* dir, const char* name, int flags,
                                               mode_t mode);

[[nodiscard]] int KLT_ContainerForm(const KLT_Container* container);

// Frees `container`. If it is open for writing, writes its directory first. REQUIRES: all
// components are closed. Returns 0, or -1 after a failure, which PAL_Perror has reported.
int KLT_ContainerClose(KLT_Container* container);

// The keys of a container's components (what follows the base name in their file names; " " for the
// index itself), in the order in which a directory is written. Empty for a plain trace.
[[nodiscard]] std::vector<std::string> KLT_ContainerKeys(const KLT_Container* container);
