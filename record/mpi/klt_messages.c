/* Records messages and the completion of requests. See klt_hooks.h.
 *
 * A send is recorded when its call begins, a receive when it is complete: then its status has the
 * sender, the tag and the size, which are what a merge matches by. */
#include <stdlib.h>
#include <string.h>

#include "record/mpi/klt_hooks.h"

enum { KEPT = 0, STATUSES = 1, TAKEN = 4 };

uint32_t klt_types_freed = 1;

/* The size of a datatype, most often that of the last message. */
static int sizeOf(struct klt_thread* t, MPI_Datatype type) {
  if (t->type == KLT_KEY(type) && t->types == klt_types_freed) return t->type_size;
  t->type = KLT_KEY(type);
  t->types = klt_types_freed;
  PMPI_Type_size(type, &t->type_size);
  return t->type_size;
}

static struct klt_record sendRecord(struct klt_thread* t, MPI_Count count, MPI_Datatype type,
                                    int dest, int tag, MPI_Comm comm) {
  struct klt_record record = {.time = t->now, .kind = KLT_NONE};
  const struct klt_comm* to = dest < 0 ? NULL : klt_comm_of(t, comm);
  if (to == NULL || to->id == 0) return record;
  const uint32_t process = klt_process(to, dest);
  if (process == KLT_NO_PROCESS) return record;
  const int size = sizeOf(t, type);
  long long bytes = (long long)size * (long long)count;
  if (KLT_RARE(size == MPI_UNDEFINED)) {
    MPI_Count wide = 0;
    PMPI_Type_size_x(type, &wide);
    bytes = (long long)wide * count;
  }
  record.kind = KLT_SEND;
  record.small = to->id;
  record.a = klt_bytes(bytes);
  record.u.two.b = (uint32_t)tag;
  record.u.two.c = process;
  return record;
}

void klt_send(struct klt_thread* t, MPI_Count count, MPI_Datatype type, int dest, int tag,
              MPI_Comm comm) {
  const struct klt_record record = sendRecord(t, count, type, dest, tag, comm);
  t->sent = UINT64_MAX;
  if (record.kind == KLT_NONE) return;
  t->sent = klt_next_number(t);
  klt_put(t, record);
}

void klt_take_back(struct klt_thread* t) {
  if (t->sent != UINT64_MAX) klt_put_wide(t, klt_ticks(), KLT_TAKE_BACK, t->number, t->sent);
}

void klt_isent(struct klt_thread* t, MPI_Request request) {
  if (t->sent == UINT64_MAX) return;
  const struct klt_request entry = {.handle = KLT_KEY(request),
                                    .number = t->sent,
                                    .thread = (uint16_t)t->number,
                                    .kind = KLT_REQUEST_SENT};
  klt_request_add(entry);
}

void klt_persistent_add(MPI_Request request, struct klt_record record, struct klt_comm* comm) {
  struct klt_persistent* persistent = calloc(1, sizeof *persistent);
  if (persistent == NULL) return;
  persistent->record = record;
  persistent->comm = comm;
  const struct klt_request entry = {
      .handle = KLT_KEY(request), .what = persistent, .kind = KLT_REQUEST_PERSISTENT};
  klt_request_add(entry);
}

void klt_send_init(struct klt_thread* t, MPI_Count count, MPI_Datatype type, int dest, int tag,
                   MPI_Comm comm, MPI_Request request) {
  const struct klt_record record = sendRecord(t, count, type, dest, tag, comm);
  if (record.kind != KLT_NONE) klt_persistent_add(request, record, NULL);
}

static void putReceive(struct klt_thread* t, const struct klt_comm* comm, uint32_t post,
                       const MPI_Status* status) {
  if (comm == NULL || comm->id == 0 || status->MPI_SOURCE < 0) return;
  const uint32_t process = klt_process(comm, status->MPI_SOURCE);
  if (process == KLT_NO_PROCESS || KLT_STATUS_CANCELLED(status)) return;
  struct klt_record record = {.time = klt_ticks(), .kind = KLT_RECEIVE};
  record.small = comm->id;
  record.a = klt_bytes(KLT_STATUS_BYTES(status));
  record.u.two.b = (uint32_t)status->MPI_TAG;
  record.u.two.c = (process & 0xffff) | post << 16;
  klt_put(t, record);
}

void klt_received(struct klt_thread* t, MPI_Comm comm, const MPI_Status* status) {
  putReceive(t, klt_comm_of(t, comm), t->post, status);
}

static void addReceive(struct klt_thread* t, uintptr_t handle, const struct klt_comm* comm,
                       uint8_t kind) {
  const struct klt_request entry = {
      .handle = handle, .what = (void*)(uintptr_t)comm, .post = t->post, .kind = kind};
  if (comm != NULL) klt_request_add(entry);
}

void klt_ireceive(struct klt_thread* t, int source, MPI_Comm comm, MPI_Request request) {
  if (source != MPI_PROC_NULL)
    addReceive(t, KLT_KEY(request), klt_comm_of(t, comm), KLT_REQUEST_RECEIVE);
}

void klt_receive_init(struct klt_thread* t, int source, MPI_Comm comm, MPI_Request request) {
  const struct klt_record none = {.kind = KLT_NONE};
  if (source != MPI_PROC_NULL) klt_persistent_add(request, none, klt_comm_of(t, comm));
}

void klt_probed(struct klt_thread* t, MPI_Comm comm, MPI_Message message) {
  if (message != MPI_MESSAGE_NO_PROC && message != MPI_MESSAGE_NULL)
    addReceive(t, KLT_KEY(message), klt_comm_of(t, comm), KLT_REQUEST_MESSAGE);
}

void klt_message(struct klt_thread* t, MPI_Message message) {
  const struct klt_request probed = klt_request_take(KLT_KEY(message));
  t->message_comm = probed.kind == KLT_REQUEST_MESSAGE ? probed.what : NULL;
  t->post = probed.post;
}

void klt_message_received(struct klt_thread* t, const MPI_Status* status) {
  putReceive(t, t->message_comm, t->post, status);
}

void klt_message_ireceive(struct klt_thread* t, MPI_Request request) {
  addReceive(t, KLT_KEY(request), t->message_comm, KLT_REQUEST_RECEIVE);
}

/* --- completion --- */

void klt_start(struct klt_thread* t, MPI_Request request) {
  struct klt_persistent* persistent = klt_request_persistent(KLT_KEY(request), 0);
  if (persistent == NULL) return;
  persistent->isActive = 1;
  persistent->post = klt_next_post();
  persistent->thread = (uint16_t)t->number;
  persistent->number = klt_next_number(t);
  if (persistent->record.kind == KLT_NONE) return;
  persistent->record.time = t->now;
  klt_put(t, persistent->record);
}

/* With several threads a completed request's handle may be that of another thread's new request at
 * once. So the requests leave the table before the call. */
static void takeRequests(struct klt_thread* t, int n, const MPI_Request* requests) {
  struct klt_request* taken = klt_scratch(t, TAKEN, (size_t)n * sizeof *taken);
  if (taken == NULL) return;
  for (int i = 0; i < n; ++i) {
    taken[i].kind = 0;
    if (requests[i] != MPI_REQUEST_NULL) taken[i] = klt_request_take(KLT_KEY(requests[i]));
  }
  t->taken = n;
}

void klt_keep(struct klt_thread* t, int n, const MPI_Request* requests) {
  t->kept = 0;
  if (__atomic_load_n(&klt_requests, __ATOMIC_RELAXED) == 0 || n <= 0) return;
  const size_t bytes = (size_t)n * sizeof *requests;
  void* kept = klt_scratch(t, KEPT, bytes);
  if (kept == NULL) return;
  memcpy(kept, requests, bytes);
  t->kept = n;
  if (klt_has_threads) takeRequests(t, n, requests);
}

void klt_put_back(struct klt_thread* t) {
  const struct klt_request* taken = t->scratch[TAKEN].bytes;
  for (int i = 0; i < t->taken; ++i) {
    if (taken[i].kind != 0) klt_request_add(taken[i]);
  }
  t->taken = 0;
}

MPI_Status* klt_statuses(struct klt_thread* t, int n) {
  if (t->kept == 0 || n <= 0) return MPI_STATUSES_IGNORE;
  MPI_Status* statuses = klt_scratch(t, STATUSES, (size_t)n * sizeof(MPI_Status));
  return statuses == NULL ? MPI_STATUSES_IGNORE : statuses;
}

static void persistentDone(struct klt_thread* t, struct klt_persistent* persistent,
                           const MPI_Status* status) {
  if (!persistent->isActive) return;
  persistent->isActive = 0;
  switch (persistent->record.kind) {
    case KLT_NONE:
      putReceive(t, persistent->comm, persistent->post, status);
      return;
    case KLT_SEND:
      if (KLT_STATUS_CANCELLED(status))
        klt_put_wide(t, klt_ticks(), KLT_TAKE_BACK, persistent->thread, persistent->number);
      return;
    default:
      klt_put_wide(t, klt_ticks(), KLT_COMPLETED, persistent->thread, persistent->number);
  }
}

static void requestDone(struct klt_thread* t, struct klt_request request,
                        const MPI_Status* status) {
  switch (request.kind) {
    case KLT_REQUEST_SENT:
      if (KLT_STATUS_CANCELLED(status))
        klt_put_wide(t, klt_ticks(), KLT_TAKE_BACK, request.thread, request.number);
      break;
    case KLT_REQUEST_RECEIVE:
      putReceive(t, request.what, request.post, status);
      break;
    case KLT_REQUEST_COLLECTIVE:
      klt_put_wide(t, klt_ticks(), KLT_COMPLETED, request.thread, request.number);
      break;
    case KLT_REQUEST_FILE:
      klt_file_done(t, request.thread, request.number, status);
      break;
    case KLT_REQUEST_COMM: {
      struct klt_new_comm* made = request.what;
      klt_made(t, made->call, made->parent, 0,
               made->comm != NULL ? *made->comm : PMPI_Comm_f2c(*made->fortran));
      free(made);
      break;
    }
    default:
      break;
  }
}

/* Request `i` of those kept is complete. */
static void oneDone(struct klt_thread* t, int i, const MPI_Status* status) {
  const MPI_Request handle = ((const MPI_Request*)t->scratch[KEPT].bytes)[i];
  if (handle == MPI_REQUEST_NULL) return;
  struct klt_request request;
  if (t->taken != 0) {
    struct klt_request* taken = t->scratch[TAKEN].bytes;
    request = taken[i];
    taken[i].kind = 0;
  } else {
    request = klt_request_take(KLT_KEY(handle));
  }
  if (request.kind != 0) {
    requestDone(t, request, status);
    return;
  }
  struct klt_persistent* persistent = klt_request_persistent(KLT_KEY(handle), 0);
  if (persistent != NULL) persistentDone(t, persistent, status);
}

void klt_done(struct klt_thread* t, int index, const MPI_Status* status) {
  if (index >= 0 && index < t->kept) oneDone(t, index, status);
}

void klt_done_all(struct klt_thread* t, int n, const MPI_Status* statuses) {
  if (statuses == MPI_STATUSES_IGNORE) return;
  for (int i = 0; i < n && i < t->kept; ++i) oneDone(t, i, &statuses[i]);
}

void klt_done_some(struct klt_thread* t, int outcount, const int* indices,
                   const MPI_Status* statuses) {
  if (statuses == MPI_STATUSES_IGNORE || outcount == MPI_UNDEFINED) return;
  for (int i = 0; i < outcount; ++i) klt_done(t, indices[i], &statuses[i]);
}

void klt_forget(MPI_Request request) {
  if (request == MPI_REQUEST_NULL || klt_requests == 0) return;
  const struct klt_request taken = klt_request_take(KLT_KEY(request));
  if (taken.kind == KLT_REQUEST_COMM) free(taken.what);
  if (taken.kind == 0) free(klt_request_persistent(KLT_KEY(request), 1));
}
