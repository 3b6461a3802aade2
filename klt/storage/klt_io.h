// The components of a trace as byte streams, whatever the storage form (klt_storage.h). What they
// hold is nothing to this module.
//
// All file access goes through util/vfd. One thread at a time works on a container and its
// components.
#pragma once

#include <cstddef>
#include <cstdint>

#include "klt/storage/klt_storage.h"

struct KLT_IoFile;

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
