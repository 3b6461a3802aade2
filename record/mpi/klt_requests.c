/* The table of the requests in progress: open addressing by handle. See klt_mpi.h. */
#include <pthread.h>
#include <stdlib.h>

#include "record/mpi/klt_mpi.h"

uint64_t klt_requests;
int klt_has_threads;

static struct klt_request* table;
static size_t places; /* a power of two */
static unsigned shift;
static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;

static void acquire(void) {
  if (klt_has_threads) pthread_mutex_lock(&lock);
}

static void release(void) {
  if (klt_has_threads) pthread_mutex_unlock(&lock);
}

static size_t placeOf(uintptr_t handle) {
  return (size_t)((uint64_t)handle * 0x9e3779b97f4a7c15ULL >> shift);
}

static void insert(struct klt_request request) {
  size_t i = placeOf(request.handle);
  while (table[i].kind != 0) i = (i + 1) & (places - 1);
  table[i] = request;
}

/* Makes the table four times as large. False if there is no memory: then the request isn't
 * followed. */
static int grow(void) {
  struct klt_request* old = table;
  const size_t oldPlaces = places;
  const size_t wanted = places == 0 ? 1024 : places * 4;
  struct klt_request* larger = calloc(wanted, sizeof *larger);
  if (larger == NULL) return 0;
  table = larger;
  places = wanted;
  shift = 64U - (unsigned)__builtin_ctzll(wanted);
  for (size_t i = 0; i < oldPlaces; ++i) {
    if (old[i].kind != 0) insert(old[i]);
  }
  free(old);
  return 1;
}

/* Empties place `i` and moves back entries that a search would no longer find. */
static void removeAt(size_t i) {
  const size_t mask = places - 1;
  size_t hole = i;
  for (size_t j = (i + 1) & mask; table[j].kind != 0; j = (j + 1) & mask) {
    const size_t home = placeOf(table[j].handle);
    if (((j - home) & mask) < ((j - hole) & mask)) continue;
    table[hole] = table[j];
    hole = j;
  }
  table[hole].kind = 0;
  __atomic_store_n(&klt_requests, klt_requests - 1, __ATOMIC_RELAXED);
}

void klt_request_add(struct klt_request request) {
  acquire();
  if (klt_requests * 2 < places || grow()) {
    insert(request);
    __atomic_store_n(&klt_requests, klt_requests + 1, __ATOMIC_RELAXED);
  }
  release();
}

/* The place of a request of the handle, persistent or not; `places` if there is none. */
static size_t find(uintptr_t handle, int persistent) {
  if (places == 0) return 0;
  for (size_t i = placeOf(handle); table[i].kind != 0; i = (i + 1) & (places - 1)) {
    if (table[i].handle == handle && (table[i].kind == KLT_REQUEST_PERSISTENT) == persistent)
      return i;
  }
  return places;
}

struct klt_request klt_request_take(uintptr_t handle) {
  struct klt_request found = {.kind = 0};
  acquire();
  const size_t i = find(handle, 0);
  if (i < places) {
    found = table[i];
    removeAt(i);
  }
  release();
  return found;
}

struct klt_persistent* klt_request_persistent(uintptr_t handle, int remove) {
  struct klt_persistent* found = NULL;
  acquire();
  const size_t i = find(handle, 1);
  if (i < places) {
    found = table[i].what;
    if (remove) removeAt(i);
  }
  release();
  return found;
}
