// The storage of a trace: a named set of byte streams (components), which klt_io.h opens.
//
// A trace has one of three forms on disk. Plain: a file per component beside the index file.
// Single: all components in one container file (klt_container.h). Serial: the same file format,
// written strictly in sequence so that it can go to a pipe. A reader sees no difference between the
// last two.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

struct KLT_Container;

enum : int { KLT_FORM_PLAIN = 0, KLT_FORM_SINGLE = 1, KLT_FORM_SERIAL = 2 };

// A new trace with base name `name`, resolved in `dir` unless that is null. `flags` and `mode` are
// those of open(2), for the container file or for each component. The name "-" in the serial form
// is standard output. Null after PAL_Perror(name) if the container can't be created.
[[nodiscard]] KLT_Container* KLT_ContainerCreate(const char* dir, int flags, mode_t mode, int form,
                                                 const char* name);

// An existing trace whose container or index file is `name`. Null if the file can't be opened
// (after PAL_Perror(name)) or is a container whose directory makes no sense (silently). Anything
// that isn't a container is taken as the index of a plain trace; a FIFO, directory or device is
// never opened.
[[nodiscard]] KLT_Container* KLT_ContainerOpen(const char* dir, const char* name, int flags,
                                               mode_t mode);

[[nodiscard]] int KLT_ContainerForm(const KLT_Container* container);

// Completes the file, if it is a container open for writing, and frees the record; components must
// be closed before. This is the act that makes a written container valid. 0, or -1 if it failed,
// which has been reported by PAL_Perror then.
int KLT_ContainerClose(KLT_Container* container);

// The keys of a container's components (what follows the base name in their file names; " " for the
// index itself), in the order in which a directory is written. Empty for a plain trace.
[[nodiscard]] std::vector<std::string> KLT_ContainerKeys(const KLT_Container* container);
