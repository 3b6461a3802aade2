/* Records the operations on files of MPI. See klt_hooks.h. */
#include <pthread.h>
#include <string.h>

#include "record/mpi/klt_hooks.h"

enum { MOST_OPEN = 1024 };
static struct {
  uintptr_t handle;
  uint16_t id;
} files[MOST_OPEN]; /* open files; id 0: free */
static unsigned count;
static uint32_t lastId;
static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;

void klt_file_opened(MPI_Comm comm, MPI_File file, const char* name) {
  struct klt_thread* t = klt_self();
  const struct klt_comm* known = t == NULL ? NULL : klt_comm_of(t, comm);
  pthread_mutex_lock(&lock);
  unsigned i = 0;
  while (i < count && files[i].id != 0) ++i;
  if (i < MOST_OPEN && lastId < 0xffff) {
    files[i].handle = KLT_KEY(file);
    files[i].id = (uint16_t)++lastId;
    if (i == count) ++count;
    klt_define(KLT_DEF_FILE, lastId, known == NULL ? 0 : known->id, name, strnlen(name, 4096), NULL,
               0);
  }
  pthread_mutex_unlock(&lock);
}

static unsigned placeOf(MPI_File file) {
  unsigned i = 0;
  while (i < count && (files[i].id == 0 || files[i].handle != KLT_KEY(file))) ++i;
  return i;
}

void klt_file_closed(MPI_File file) {
  pthread_mutex_lock(&lock);
  const unsigned i = placeOf(file);
  if (i < count) files[i].id = 0;
  pthread_mutex_unlock(&lock);
}

static uint16_t idOf(MPI_File file) {
  pthread_mutex_lock(&lock);
  const unsigned i = placeOf(file);
  const uint16_t id = i < count ? files[i].id : 0;
  pthread_mutex_unlock(&lock);
  return id;
}

static void put(struct klt_thread* t, uint64_t time, int kind, int direction, uint16_t file,
                long long bytes) {
  struct klt_record record = {
      .time = time, .kind = (uint8_t)kind, .detail = (uint8_t)direction, .small = file};
  record.a = klt_bytes(bytes);
  if (file != 0) klt_put(t, record);
}

void klt_file_begin(struct klt_thread* t, int direction, MPI_File file, MPI_Count count_,
                    MPI_Datatype type) {
  MPI_Count size = 0;
  PMPI_Type_size_x(type, &size);
  put(t, t->now, KLT_FILE_BEGIN, direction, idOf(file), (long long)count_ * size);
}

void klt_file_end(struct klt_thread* t, int direction, MPI_File file, const MPI_Status* status) {
  put(t, klt_ticks(), KLT_FILE_END, direction, idOf(file),
      status == NULL ? 0 : KLT_STATUS_BYTES(status));
}

void klt_file_started(struct klt_thread* t, int direction, MPI_File file, MPI_Request request) {
  (void)t;
  const struct klt_request entry = {.handle = KLT_KEY(request),
                                    .number = idOf(file),
                                    .thread = (uint16_t)direction,
                                    .kind = KLT_REQUEST_FILE};
  klt_request_add(entry);
}

void klt_file_done(struct klt_thread* t, uint16_t direction, uint64_t file,
                   const MPI_Status* status) {
  put(t, klt_ticks(), KLT_FILE_END, direction, (uint16_t)file, KLT_STATUS_BYTES(status));
}
