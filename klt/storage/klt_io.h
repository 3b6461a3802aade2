// One view of a trace's storage: a named set of byte streams (components).
//
// A trace lies on disk in one of three forms. Plain: a file per component beside the index file.
// Single: all components in one container file. Serial: the same file format, written strictly in
// sequence so that it can go to a pipe. A reader sees no difference between the last two. What the
// components hold is nothing to this module; see klt/storage/klt_container.h for the container's
// format.
//
// Neighbours: all file access goes through util/vfd; the reader and the writer of traces sit on
// top. One thread at a time works on a container and its components.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

struct KLT_Container;
struct KLT_IoFile;

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

// Opens the component of that file name (which begins with the trace's base name). Null with errno
// on failure; ENOENT for a component that a read-only container doesn't have.
[[nodiscard]] KLT_IoFile* KLT_IoOpen(KLT_Container* container, const char* fileName);

// All calls below, given no component, report "Illegal file descriptor: NULL\n", set errno to EBADF
// and return 0.

// Closes, frees and clears `file`. 0, or -1 with errno if closing the file behind it failed.
int KLT_IoClose(KLT_IoFile*& file);

// Bytes read; fewer than asked only at the end. A failure is negative in the plain form (also for a
// component that isn't a regular file: EISDIR or ESPIPE). In a container it ends the data: the
// bytes so far are returned, and the component's key has been reported by PAL_Perror.
[[nodiscard]] int64_t KLT_IoRead(KLT_IoFile* file, void* buffer, size_t bytes);

// Bytes written; anything but `bytes` is a failure, with errno set. In the serial form only the end
// of the component can be written (else ESPIPE).
[[nodiscard]] int64_t KLT_IoWrite(KLT_IoFile* file, const void* buffer, size_t bytes);

// The new offset within the component. In a container a target past the end stops at the end, and a
// negative one gives -1 with EINVAL. Clears errno on success.
int64_t KLT_IoSeek(KLT_IoFile* file, int64_t offset, int whence);

// The bytes of a component that was opened for reading; negative if they can't be told. Moves to
// its start, if it has to look.
[[nodiscard]] int64_t KLT_IoSize(KLT_IoFile* file);
