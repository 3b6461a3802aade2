/* Starts and ends recording, makes rings, and writes full rings to the spool. See klt_runtime.h. */
#include "record/runtime/klt_runtime.h"

#include <errno.h>
#include <pthread.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>
#if defined(__x86_64__)
#include <cpuid.h>
#endif

#include "record/mpi/klt_calls.h"
#include "record/runtime/klt_files.h"

int klt_state = KLT_OFF;
int klt_use_tsc;
int klt_skip_polls;
__thread struct klt_thread klt_this __attribute__((tls_model("initial-exec")));
static struct klt_spool_header noHeader;
struct klt_spool_header* klt_header = &noHeader;

static atomic_uint_fast64_t nextSlot;
static atomic_uint threadCount;
static pthread_key_t threadKey;
static int begun;
static int isForked; /* this process is a fork of a recorded one */

/* --- clock --- */

/* Whether the processor has a counter that runs at a constant rate in all its states. */
static int hasInvariantCounter(void) {
  const char* wanted = getenv("KLT_RECORD_CLOCK");
  if (wanted != NULL && strcmp(wanted, "posix") == 0) return 0;
#if defined(__x86_64__)
  unsigned a, b, c, d;
  return __get_cpuid(0x80000007, &a, &b, &c, &d) && (d >> 8 & 1) != 0;
#elif defined(__aarch64__)
  return 1;
#else
  return 0;
#endif
}

/* The pair of the shortest of a few attempts, so that an interruption doesn't falsify it. */
static struct klt_clock_pair clockPair(void) {
  struct klt_clock_pair best = {0, 0};
  uint64_t shortest = UINT64_MAX;
  for (int i = 0; i < 5; ++i) {
    const uint64_t before = klt_ticks();
    const uint64_t now = klt_nanoseconds();
    const uint64_t after = klt_ticks();
    if (after - before >= shortest) continue;
    shortest = after - before;
    best.ticks = before + shortest / 2;
    best.other = now;
  }
  return best;
}

void klt_note_clock(void) { klt_header->last = clockPair(); }

/* --- threads --- */

/* Called when a thread ends. Its ring stays in the spool. */
static void endThread(void* pointer) {
  struct klt_thread* t = pointer;
  if (t->slot != NULL) munmap(t->slot, KLT_SLOT_BYTES);
  for (int i = 0; i < KLT_SCRATCHES; ++i) free(t->scratch[i].bytes);
  memset(t, 0, sizeof *t);
}

static void setRing(struct klt_thread* t, struct klt_spool_slot* slot) {
  t->slot = slot;
  t->next = (struct klt_record*)(void*)(slot + 1);
  t->end = t->next + KLT_SLOT_RECORDS;
}

/* Space for a ring in the spool. Its blocks are allocated now, because a store into a mapped page
 * without one would end the process when the disk is full. */
static struct klt_spool_slot* mapRing(void) {
  const off_t at = (off_t)(atomic_fetch_add(&nextSlot, 1) * KLT_SLOT_BYTES);
  return klt_map(at, KLT_SLOT_BYTES);
}

/* Notes that there are at least `count` threads; several may start at a time. */
static void noteThreads(uint32_t count) {
  uint32_t* threads = &klt_header->threads;
  uint32_t seen = __atomic_load_n(threads, __ATOMIC_RELAXED);
  while (seen < count && !__atomic_compare_exchange_n(threads, &seen, count, 0, __ATOMIC_RELAXED,
                                                      __ATOMIC_RELAXED)) {
  }
}

int klt_start_thread(struct klt_thread* t) {
  if (t->is_left_out) return 0;
  const int saved = errno;
  const unsigned number = atomic_fetch_add(&threadCount, 1);
  noteThreads(number + 1);
  t->is_left_out = number >= KLT_MOST_THREADS;
  if (t->is_left_out) return 0;
  struct klt_spool_slot* slot = mapRing();
  if (slot == NULL) {
    klt_stop("the record of a thread can't be begun", errno);
    errno = saved;
    return 0;
  }
  memset(t, 0, sizeof *t);
  t->number = number;
  slot->magic = KLT_SLOT_MAGIC;
  slot->thread = number;
  setRing(t, slot);
  if (number != 0) pthread_setspecific(threadKey, t);
  klt_note_clock();
  errno = saved;
  return 1;
}

int klt_flush(struct klt_thread* t) {
  const int saved = errno;
  const off_t at = (off_t)(atomic_fetch_add(&nextSlot, 1) * KLT_SLOT_BYTES);
  const int error = klt_write_slot(t->slot, KLT_SLOT_BYTES, at);
  if (error != 0) {
    klt_stop("the record can't be written", error);
    errno = saved;
    return 0;
  }
  t->flushed += t->slot->used;
  t->slot->sequence++;
  t->slot->used = 0;
  setRing(t, t->slot);
  klt_note_clock();
  errno = saved;
  return 1;
}

void* klt_scratch(struct klt_thread* t, int which, size_t bytes) {
  struct klt_scratch* scratch = &t->scratch[which];
  if (scratch->size < bytes) {
    void* larger = realloc(scratch->bytes, bytes * 2);
    if (larger == NULL) return NULL;
    scratch->bytes = larger;
    scratch->size = bytes * 2;
  }
  return scratch->bytes;
}

/* --- the process --- */

void klt_stop(const char* what, int error) {
  if (klt_state == KLT_OFF) return;
  klt_state = KLT_OFF;
  klt_header->stop = klt_ticks();
  klt_header->stop_errno = (uint32_t)error;
  klt_header->flags |= KLT_SPOOL_STOPPED;
  klt_say("recording of process %u stops, the program goes on: %s: %s", klt_header->rank, what,
          strerror(error));
}

/* A child of fork has the parent's rings, which only the parent may use. */
static void stopInChild(void) {
  klt_state = KLT_OFF;
  klt_header = &noHeader;
  memset(&klt_this, 0, sizeof klt_this);
  atomic_store(&nextSlot, 1);
  atomic_store(&threadCount, 0);
  begun = 0;
  isForked = 1;
  klt_forget_files();
}

static void fillHeader(struct klt_spool_header* header, uint64_t start) {
  struct timespec real;
  clock_gettime(CLOCK_REALTIME, &real);
  header->version = KLT_SPOOL_VERSION;
  header->slot_bytes = KLT_SLOT_BYTES;
  header->calls = KLT_CALL_COUNT;
  if (klt_use_tsc) header->flags |= KLT_SPOOL_TSC;
  if (klt_skip_polls) header->flags |= KLT_SPOOL_SKIPS_POLLS;
  header->pid = (uint32_t)getpid();
  header->size = 1;
  header->start = start;
  header->first = clockPair();
  header->last = header->first;
  header->realtime = (uint64_t)real.tv_sec * 1000000000U + (uint64_t)real.tv_nsec;
  header->job = header->realtime ^ (uint64_t)getpid() << 40;
  klt_name_host(header);
  klt_name_program(header);
  header->magic = KLT_SPOOL_MAGIC;
}

void klt_begin(void) {
  if (begun || getenv("KLT_RECORD_DIR") == NULL) return;
  begun = 1;
  const int saved = errno;
  klt_use_tsc = hasInvariantCounter();
  const char* skip = getenv("KLT_RECORD_SKIP_POLLS");
  klt_skip_polls = skip != NULL && skip[0] != '\0';
  const uint64_t start = klt_ticks();
  atomic_store(&nextSlot, 1);
  struct klt_spool_header* header = klt_open_spool(isForked);
  if (header == NULL) {
    klt_say("this process isn't recorded: %s: %s", getenv("KLT_RECORD_DIR"), strerror(errno));
    errno = saved;
    return;
  }
  fillHeader(header, start);
  klt_header = header;
  if (!isForked) {
    pthread_key_create(&threadKey, endThread);
    pthread_atfork(NULL, NULL, stopInChild);
  }
  klt_state = KLT_ON;
  klt_counters_init();
  klt_self();
  klt_define_maps();
  errno = saved;
}

void klt_end(uint32_t flags) {
  if (klt_state == KLT_OFF) return;
  klt_define_maps();
  klt_state = KLT_OFF;
  klt_header->stop = klt_ticks();
  klt_note_clock();
  klt_header->flags |= flags;
}

/* The process that klt-record has become records from its start, its children from MPI_Init. */
__attribute__((constructor)) static void startWithMain(void) {
  const char* pid = getenv("KLT_RECORD_PID");
  if (pid != NULL && strtol(pid, NULL, 10) == (long)getpid()) klt_begin();
}

__attribute__((destructor)) static void endWithMain(void) {
  if (klt_state == KLT_OFF) return;
  if ((klt_header->flags & KLT_SPOOL_MPI) != 0) {
    klt_end(0);
    if (klt_header->rank == 0)
      klt_say("MPI wasn't finalized; make the trace by: klt-record --finish %s",
              getenv("KLT_RECORD_DIR"));
    return;
  }
  klt_end(KLT_SPOOL_FINALIZED);
  if (klt_has_spool()) klt_finish_run();
}
