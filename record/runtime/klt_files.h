/* The files of a spool. Used by the runtime only. All functions are safe to call from any thread.
 *
 * The program may close descriptors that it doesn't know, so a descriptor is checked before use and
 * opened again if it isn't that of the spool. */
#ifndef KLT_FILES_H
#define KLT_FILES_H

#include <sys/types.h>

#include "record/runtime/klt_runtime.h"

/* Creates the files of this process; removes those of a program that it was before an exec and,
 * unless `keep_parent`, those of the process that klt-record became. Returns the mapped header, or
 * null with errno. */
KLT_HIDDEN struct klt_spool_header* klt_open_spool(int keep_parent);
/* Forgets the files in a child of fork. */
KLT_HIDDEN void klt_forget_files(void);
/* Maps `bytes` bytes of the spool at `at`, which are allocated on disk. Null with errno. */
KLT_HIDDEN void* klt_map(off_t at, size_t bytes);
/* Returns 0 or the error. */
KLT_HIDDEN int klt_write_slot(const void* bytes, size_t size, off_t at);
/* Whether the spool still exists: a child that uses MPI removes that of its parent. */
KLT_HIDDEN int klt_has_spool(void);
KLT_HIDDEN void klt_name_host(struct klt_spool_header* header);
KLT_HIDDEN void klt_name_program(struct klt_spool_header* header);
/* Defines which code is where in memory, to find the names of functions later. */
KLT_HIDDEN void klt_define_maps(void);

#endif
