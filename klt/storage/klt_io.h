// Opens, reads and writes the components of a trace as byte streams, in any storage form
// (klt_storage.h). This module doesn't interpret their content.
//
// All file access goes through util/vfd. Only one thread at a time may use a container and its
// components.
#pragma once

#include <cstddef>
#include <cstdint>

#include "klt/storage/klt_storage.h"

struct KLT_IoFile;

// Opens the component with this file name, which begins with the trace's base name. Null with errno
// on failure; ENOENT for a component that a read-only container doesn't have.
[[nodiscard]] KLT_IoFile* KLT_IoOpen(KLT_Container* container, const char* fileName);

// All calls below, if `file` is null, report "Illegal file descriptor: NULL\n", set errno to EBADF
// and return 0.

// Closes and frees `file` and sets it to null. Returns 0, or -1 with errno if closing fails.
int KLT_IoClose(KLT_IoFile*& file);

// Returns the number of bytes read, which is below `bytes` only at the component's end or before a
// failure. In the plain form, a failure before the first byte is negative, also for a component
// that isn't a regular file (EISDIR or ESPIPE). In a container, PAL_Perror reports a failure with
// the component's key.
[[nodiscard]] int64_t KLT_IoRead(KLT_IoFile* file, void* buffer, size_t bytes);

// Returns the number of bytes written; any value but `bytes` is a failure, with errno set. In the
// serial form a component can only be written at its end (else ESPIPE).
[[nodiscard]] int64_t KLT_IoWrite(KLT_IoFile* file, const void* buffer, size_t bytes);

// Returns the new offset within the component. In a container a target past the end is limited to
// the end, and a negative target fails with -1 and EINVAL. Clears errno on success.
int64_t KLT_IoSeek(KLT_IoFile* file, int64_t offset, int whence);

// The size in bytes of a component that was opened for reading; negative if it isn't known. If it
// has to be determined by seeks, the position is at the component's start afterwards.
[[nodiscard]] int64_t KLT_IoSize(KLT_IoFile* file);
