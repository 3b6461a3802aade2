/* What the wrappers know about the communicators, requests and files of a process. Only for the
 * files of this folder, which are compiled for each MPI library. */
#ifndef KLT_MPI_H
#define KLT_MPI_H

#include <mpi.h>

#include "record/mpi/klt_calls.h"
#include "record/runtime/klt_runtime.h"

/* Handles are pointers in one library and numbers in another. */
#define KLT_KEY(handle) ((uintptr_t)(intptr_t)(handle))
#if defined(OPEN_MPI)
/* Weak, so that a child process without MPI can load the library. */
#pragma weak ompi_message_no_proc
#pragma weak ompi_message_null
#pragma weak ompi_mpi_comm_null
#pragma weak ompi_mpi_comm_world
#pragma weak ompi_mpi_datatype_null
#pragma weak ompi_mpi_uint64_t
#pragma weak ompi_request_null
#define KLT_STATUS_BYTES(status) ((long long)(status)->_ucount)
#define KLT_STATUS_CANCELLED(status) ((status)->_cancelled != 0)
#else
#define KLT_STATUS_BYTES(status)                        \
  ((long long)((uint64_t)(unsigned)(status)->count_lo | \
               ((uint64_t)(unsigned)(status)->count_hi_and_cancelled >> 1) << 32))
#define KLT_STATUS_CANCELLED(status) (((status)->count_hi_and_cancelled & 1) != 0)
#endif

/* A communicator. Never freed: records and requests refer to it after MPI_Comm_free. */
struct klt_comm {
  uint16_t id; /* in the definitions of this process; 0: too many, or not of this run */
  int isInter;
  int size;        /* of the own group */
  int peers;       /* processes that a rank of a message can mean */
  int rank;        /* of this process in its group */
  uint32_t self;   /* this process */
  uint32_t* world; /* process by rank of a peer */
  int indegree;    /* of a topology; -1: not known yet */
  int outdegree;
};

/* The communicator of a handle; null for MPI_COMM_NULL. A communicator that isn't known yet is
 * defined. */
KLT_HIDDEN struct klt_comm* klt_comm_slowly(struct klt_thread* t, MPI_Comm comm);
extern KLT_HIDDEN uint32_t klt_comm_generation;

static inline struct klt_comm* klt_comm_of(struct klt_thread* t, MPI_Comm comm) {
  const uintptr_t key = KLT_KEY(comm);
  const unsigned place = (unsigned)((key >> 4 ^ key) % KLT_CACHED);
  if (t->generation == klt_comm_generation && t->comms[place].handle == key)
    return t->comms[place].comm;
  return klt_comm_slowly(t, comm);
}

/* The process that `rank` means in messages, or KLT_NO_PROCESS. */
static inline uint32_t klt_process(const struct klt_comm* comm, int rank) {
  return rank >= 0 && rank < comm->peers ? comm->world[rank] : KLT_NO_PROCESS;
}

/* Requests, and messages of MPI_Mprobe, that are in progress. */
enum klt_request_kind {
  KLT_REQUEST_SENT = 1,   /* thread, number: of the send's record */
  KLT_REQUEST_RECEIVE,    /* what: communicator, post */
  KLT_REQUEST_COLLECTIVE, /* thread, number: of the record */
  KLT_REQUEST_FILE,       /* number: file, thread: operation */
  KLT_REQUEST_COMM,       /* what: struct klt_new_comm */
  KLT_REQUEST_MESSAGE,    /* what: communicator, post */
  KLT_REQUEST_PERSISTENT  /* what: struct klt_persistent */
};

struct klt_request {
  uintptr_t handle;
  void* what;
  uint64_t number;
  uint32_t post;
  uint16_t thread;
  uint8_t kind; /* 0: free place */
};

struct klt_persistent {
  struct klt_record record; /* of a send or a collective operation; kind 0: a receive */
  struct klt_comm* comm;    /* of a receive */
  uint64_t number;          /* of the record at the last start */
  uint32_t post;
  uint16_t thread;
  int isActive;
};

struct klt_new_comm {
  MPI_Comm parent;
  MPI_Comm* comm;
  MPI_Fint* fortran; /* instead of `comm` */
  uint32_t call;
};

/* The number of requests in the table; without any nothing has to be looked up. */
extern KLT_HIDDEN uint64_t klt_requests;
/* Adds a request. Equal handles may be in the table several times: a library may use one handle
 * for all requests that are complete at once. */
KLT_HIDDEN void klt_request_add(struct klt_request request);
/* Removes a request that isn't persistent, and returns a copy; kind 0 if it isn't there. */
KLT_HIDDEN struct klt_request klt_request_take(uintptr_t handle);
/* The persistent request of a handle, or null; it is removed if `remove`. */
KLT_HIDDEN struct klt_persistent* klt_request_persistent(uintptr_t handle, int remove);
/* Adds the persistent request `request`. `record` and `comm` as in klt_persistent. */
KLT_HIDDEN void klt_persistent_add(MPI_Request request, struct klt_record record,
                                   struct klt_comm* comm);
/* The number of calls of MPI_Type_free so far: then a handle may have a new meaning. */
extern KLT_HIDDEN uint32_t klt_types_freed;
/* Whether MPI_COMM_WORLD exists, whose ranks are the numbers of the processes of a run. A program
 * that only uses sessions has none. */
extern KLT_HIDDEN int klt_has_world;
/* Whether several threads may call MPI at a time. */
extern KLT_HIDDEN int klt_has_threads;

/* The number of a receive that is posted now. */
static inline uint32_t klt_next_post(void) {
  static uint32_t posts;
  return __atomic_add_fetch(&posts, 1, __ATOMIC_RELAXED);
}

/* Clock offsets to process 0, at MPI_Init (0) and at MPI_Finalize (1). Collective. */
KLT_HIDDEN void klt_measure_clocks(MPI_Comm comm, int moment);

#endif
