/* The runtime of the recorder in a recorded process: clock, rings, spool. Used by the wrappers.
 *
 * Everything of a thread is in its klt_thread. A record is three stores into the thread's ring; no
 * function on this path locks or allocates. The runtime never ends the process, never writes to
 * its standard output, and keeps errno. */
#ifndef KLT_RUNTIME_H
#define KLT_RUNTIME_H

#include <stddef.h>
#include <stdint.h>
#include <time.h>
#if defined(__x86_64__)
#include <x86intrin.h>
#endif

#include "record/runtime/klt_spool.h"

#define KLT_HIDDEN __attribute__((visibility("hidden")))
#define KLT_RARE(condition) __builtin_expect(!!(condition), 0)

/* Temporary memory of a thread, kept from call to call. */
struct klt_scratch {
  void* bytes;
  size_t size;
};
enum { KLT_SCRATCHES = 5, KLT_CACHED = 8 };
struct klt_comm;

struct klt_thread {
  struct klt_record* next; /* null: this thread hasn't recorded yet */
  struct klt_record* end;
  struct klt_spool_slot* slot; /* the ring */
  uint64_t flushed;            /* records before those in the ring */
  uint64_t now;                /* the time of the current call */
  uint64_t sampled;            /* the time of the last samples */
  uint32_t number;
  int is_left_out; /* the process has too many threads */
  uint32_t inside; /* nonzero within a recorded call: calls of the library itself aren't recorded */
  uint32_t hidden; /* functions that were entered during a pause */
  uint32_t post;   /* number of the receive of the current call */
  uint64_t sent;   /* number of the send record of the current call */
  struct klt_scratch scratch[KLT_SCRATCHES];
  /* For record/mpi: the last communicators by handle, and what the current call has noted. */
  struct {
    uintptr_t handle;
    struct klt_comm* comm;
  } comms[KLT_CACHED];
  uint32_t generation; /* of the cached communicators */
  int kept;            /* requests in scratch 0 */
  int taken;           /* requests in scratch 4 */
  uintptr_t type;      /* a datatype whose size is known while `types` is klt_types_freed */
  int type_size;
  uint32_t types;
  int mode; /* of the collective operation of the current call, enum klt_mode */
  struct klt_record operation;
  const struct klt_comm* message_comm; /* of the message that is being received */
};

enum klt_state { KLT_OFF = 0, KLT_ON = 1, KLT_PAUSED = 2 };

extern KLT_HIDDEN int klt_state;
extern KLT_HIDDEN int klt_use_tsc;
extern KLT_HIDDEN __thread struct klt_thread klt_this __attribute__((tls_model("initial-exec")));
/* The header of this process's spool; never null, but not in a file before klt_begin. */
extern KLT_HIDDEN struct klt_spool_header* klt_header;
/* A record of samples follows a call if this many ticks have passed; 0: there are no counters. */
extern KLT_HIDDEN uint64_t klt_sample_ticks;

/* Whether polls that find nothing leave no record (--skip-polls). */
extern KLT_HIDDEN int klt_skip_polls;

/* Starts recording in this process; nothing if it has been started. */
KLT_HIDDEN void klt_begin(void);
/* Ends recording. `flags` are added to those of the spool. */
KLT_HIDDEN void klt_end(uint32_t flags);
/* Makes a trace of the spools of the run by running klt-record, and waits for it. */
KLT_HIDDEN void klt_finish_run(void);
/* Makes the ring of this thread. False if that isn't possible. */
KLT_HIDDEN int klt_start_thread(struct klt_thread* t);
/* Copies a full ring to the spool. False if recording has stopped. */
KLT_HIDDEN int klt_flush(struct klt_thread* t);
/* Appends a definition to the spool. `bytes` may be in two parts. */
KLT_HIDDEN void klt_define(uint32_t kind, uint32_t id, uint32_t other, const void* first,
                           size_t first_bytes, const void* second, size_t second_bytes);
/* Notes ticks and nanoseconds of this moment in the header. */
KLT_HIDDEN void klt_note_clock(void);
/* Samples the counters that the user has asked for. */
KLT_HIDDEN void klt_sample(struct klt_thread* t, uint64_t now);
/* Reads the option with the names of counters. Called once. */
KLT_HIDDEN void klt_counters_init(void);
/* At least `bytes` bytes, or null. */
KLT_HIDDEN void* klt_scratch(struct klt_thread* t, int which, size_t bytes);
/* Writes one line to standard error. */
KLT_HIDDEN void klt_say(const char* format, ...) __attribute__((format(printf, 1, 2)));
/* Stops recording in this process, with one message. */
KLT_HIDDEN void klt_stop(const char* what, int error);

static inline uint64_t klt_nanoseconds(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (uint64_t)now.tv_sec * 1000000000U + (uint64_t)now.tv_nsec;
}

static inline uint64_t klt_ticks(void) {
  if (KLT_RARE(!klt_use_tsc)) return klt_nanoseconds();
#if defined(__x86_64__)
  return __rdtsc();
#elif defined(__aarch64__)
  uint64_t ticks;
  __asm__ volatile("mrs %0, cntvct_el0" : "=r"(ticks));
  return ticks;
#else
  return klt_nanoseconds();
#endif
}

/* The thread's state if it records, otherwise null. */
static inline struct klt_thread* klt_self(void) {
  if (KLT_RARE(klt_state == KLT_OFF)) return NULL;
  struct klt_thread* t = &klt_this;
  if (KLT_RARE(t->next == NULL) && !klt_start_thread(t)) return NULL;
  return t;
}

/* During a pause the functions that were entered before it can still be left. */
static inline int klt_is_leave(unsigned kind) {
  return kind == KLT_LEAVE || kind == KLT_LEAVE_CODE || kind == KLT_LEAVE_USER;
}

static inline void klt_put(struct klt_thread* t, struct klt_record record) {
  if (KLT_RARE(klt_state != KLT_ON) && !(klt_state == KLT_PAUSED && klt_is_leave(record.kind)))
    return;
  if (KLT_RARE(t->next == t->end) && !klt_flush(t)) return;
  *t->next++ = record;
  /* The count is stored after the record, so that a killed process leaves whole records. */
  __asm__ volatile("" ::: "memory");
  t->slot->used = t->slot->used + 1;
}

/* The number of the next record of the thread. */
static inline uint64_t klt_next_number(const struct klt_thread* t) {
  return t->flushed + t->slot->used;
}

/* A byte count as it is stored. */
static inline uint32_t klt_bytes(long long bytes) {
  if (bytes < 0) return 0;
  return bytes > 0xffffffffLL ? 0xffffffffU : (uint32_t)bytes;
}

static inline void klt_put_plain(struct klt_thread* t, uint64_t time, unsigned kind, uint32_t a) {
  struct klt_record record = {.time = time, .kind = (uint8_t)kind, .a = a};
  klt_put(t, record);
}

static inline void klt_put_wide(struct klt_thread* t, uint64_t time, unsigned kind, uint32_t a,
                                uint64_t wide) {
  struct klt_record record = {.time = time, .kind = (uint8_t)kind, .a = a, .u.wide = wide};
  klt_put(t, record);
}

/* Begins a recorded call. Null if nothing is to be recorded: the wrapper then only calls the
 * library. */
static inline struct klt_thread* klt_call(uint32_t call) {
  struct klt_thread* t = klt_self();
  if (KLT_RARE(t == NULL) || KLT_RARE(t->inside)) return NULL;
  t->inside = 1;
  t->now = klt_ticks();
  klt_put_plain(t, t->now, KLT_ENTER, call);
  return t;
}

/* Ends it. */
static inline void klt_return(struct klt_thread* t, uint32_t call) {
  const uint64_t now = klt_ticks();
  klt_put_plain(t, now, KLT_LEAVE, call);
  if (KLT_RARE(klt_sample_ticks != 0) && now - t->sampled >= klt_sample_ticks) klt_sample(t, now);
  t->inside = 0;
}

/* Removes the record with which the current call has begun. False if it isn't the last one. */
static inline int klt_take_back_enter(struct klt_thread* t, uint32_t call) {
  if (t->slot->used == 0) return 0;
  const struct klt_record* last = t->next - 1;
  if (last->kind != KLT_ENTER || last->a != call || last->time != t->now) return 0;
  t->slot->used = t->slot->used - 1;
  /* The place is used again after the count is stored. */
  __asm__ volatile("" ::: "memory");
  --t->next;
  return 1;
}

/* Ends a call that asks whether something is complete; `is_idle`: it isn't. */
static inline void klt_return_poll(struct klt_thread* t, uint32_t call, int is_idle) {
  if (KLT_RARE(klt_skip_polls) && is_idle && klt_take_back_enter(t, call))
    t->inside = 0;
  else
    klt_return(t, call);
}

#endif
