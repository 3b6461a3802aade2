/* The actions of the table of calls (klt_calls.table). Each gets the thread's state and arguments
 * of the call; counts are wide enough for the calls with large counts. */
#ifndef KLT_HOOKS_H
#define KLT_HOOKS_H

#include <mpi.h>

#include "record/mpi/klt_mpi.h"

/* An array of counts, of int or of MPI_Count. Null where the argument isn't significant. */
struct klt_counts {
  const int* narrow;
  const MPI_Count* wide;
};
static inline struct klt_counts klt_narrow_counts(const int* counts) {
  const struct klt_counts result = {counts, NULL};
  return result;
}
static inline struct klt_counts klt_wide_counts(const MPI_Count* counts) {
  const struct klt_counts result = {NULL, counts};
  return result;
}
#define KLT_COUNTS(counts) \
  _Generic((counts),               \
      const int*: klt_narrow_counts, \
      int*: klt_narrow_counts,     \
      const MPI_Count*: klt_wide_counts, \
      MPI_Count*: klt_wide_counts)(counts)

/* --- messages --- */

/* Records a send at the time of its call. */
KLT_HIDDEN void klt_send(struct klt_thread* t, MPI_Count count, MPI_Datatype type, int dest,
                         int tag, MPI_Comm comm);
/* That send has not happened. */
KLT_HIDDEN void klt_take_back(struct klt_thread* t);
KLT_HIDDEN void klt_isent(struct klt_thread* t, MPI_Request request);
KLT_HIDDEN void klt_send_init(struct klt_thread* t, MPI_Count count, MPI_Datatype type, int dest,
                              int tag, MPI_Comm comm, MPI_Request request);
/* A receive is posted: receives of equal messages are matched in this order. */
static inline void klt_post(struct klt_thread* t) { t->post = klt_next_post(); }
KLT_HIDDEN void klt_received(struct klt_thread* t, MPI_Comm comm, const MPI_Status* status);
KLT_HIDDEN void klt_ireceive(struct klt_thread* t, int source, MPI_Comm comm, MPI_Request request);
KLT_HIDDEN void klt_receive_init(struct klt_thread* t, int source, MPI_Comm comm,
                                 MPI_Request request);
/* MPI_Mprobe and the receives of its messages. */
KLT_HIDDEN void klt_probed(struct klt_thread* t, MPI_Comm comm, MPI_Message message);
KLT_HIDDEN void klt_message(struct klt_thread* t, MPI_Message message);
KLT_HIDDEN void klt_message_received(struct klt_thread* t, const MPI_Status* status);
KLT_HIDDEN void klt_message_ireceive(struct klt_thread* t, MPI_Request request);

/* --- completion --- */

KLT_HIDDEN void klt_start(struct klt_thread* t, MPI_Request request);
/* Keeps the handles of requests, which the call clears. */
KLT_HIDDEN void klt_keep(struct klt_thread* t, int n, const MPI_Request* requests);
/* Puts kept requests that aren't complete back into the table. */
KLT_HIDDEN void klt_put_back(struct klt_thread* t);
/* Ends what klt_keep has begun. */
static inline void klt_restore(struct klt_thread* t) {
  if (KLT_RARE(t->taken != 0)) klt_put_back(t);
}
/* Statuses for a call whose caller ignores them; MPI_STATUSES_IGNORE if none are needed. */
KLT_HIDDEN MPI_Status* klt_statuses(struct klt_thread* t, int n);
/* Requests that were kept are complete. */
KLT_HIDDEN void klt_done(struct klt_thread* t, int index, const MPI_Status* status);
KLT_HIDDEN void klt_done_all(struct klt_thread* t, int n, const MPI_Status* statuses);
KLT_HIDDEN void klt_done_some(struct klt_thread* t, int outcount, const int* indices,
                              const MPI_Status* statuses);
KLT_HIDDEN void klt_forget(MPI_Request request);
static inline void klt_type_freed(void) {
  __atomic_add_fetch(&klt_types_freed, 1, __ATOMIC_RELAXED);
}

/* --- collective operations --- */

/* Bytes in and out of this process, its own part included; MPI_IN_PLACE counts like a copy. */
enum klt_mode { KLT_BLOCKING = 0, KLT_NONBLOCKING, KLT_PERSISTENT };
static inline void klt_nonblocking(struct klt_thread* t) { t->mode = KLT_NONBLOCKING; }
static inline void klt_persistent(struct klt_thread* t) { t->mode = KLT_PERSISTENT; }
KLT_HIDDEN void klt_istarted(struct klt_thread* t, MPI_Request request);
KLT_HIDDEN void klt_collective_init(struct klt_thread* t, MPI_Request request);

KLT_HIDDEN void klt_barrier(struct klt_thread* t, int op, MPI_Comm comm);
KLT_HIDDEN void klt_bcast(struct klt_thread* t, int op, MPI_Count count, MPI_Datatype type,
                          int root, MPI_Comm comm);
KLT_HIDDEN void klt_gather(struct klt_thread* t, int op, const void* sendbuf, MPI_Count sendcount,
                           MPI_Datatype sendtype, MPI_Count recvcount, MPI_Datatype recvtype,
                           int root, MPI_Comm comm);
KLT_HIDDEN void klt_gatherv(struct klt_thread* t, int op, const void* sendbuf, MPI_Count sendcount,
                            MPI_Datatype sendtype, struct klt_counts recvcounts,
                            MPI_Datatype recvtype, int root, MPI_Comm comm);
KLT_HIDDEN void klt_scatter(struct klt_thread* t, int op, MPI_Count sendcount,
                            MPI_Datatype sendtype, const void* recvbuf, MPI_Count recvcount,
                            MPI_Datatype recvtype, int root, MPI_Comm comm);
KLT_HIDDEN void klt_scatterv(struct klt_thread* t, int op, struct klt_counts sendcounts,
                             MPI_Datatype sendtype, const void* recvbuf, MPI_Count recvcount,
                             MPI_Datatype recvtype, int root, MPI_Comm comm);
KLT_HIDDEN void klt_allgather(struct klt_thread* t, int op, const void* sendbuf,
                              MPI_Count sendcount, MPI_Datatype sendtype, MPI_Count recvcount,
                              MPI_Datatype recvtype, MPI_Comm comm);
KLT_HIDDEN void klt_allgatherv(struct klt_thread* t, int op, const void* sendbuf,
                               MPI_Count sendcount, MPI_Datatype sendtype,
                               struct klt_counts recvcounts, MPI_Datatype recvtype, MPI_Comm comm);
KLT_HIDDEN void klt_alltoall(struct klt_thread* t, int op, const void* sendbuf, MPI_Count sendcount,
                             MPI_Datatype sendtype, MPI_Count recvcount, MPI_Datatype recvtype,
                             MPI_Comm comm);
KLT_HIDDEN void klt_alltoallv(struct klt_thread* t, int op, const void* sendbuf,
                              struct klt_counts sendcounts, MPI_Datatype sendtype,
                              struct klt_counts recvcounts, MPI_Datatype recvtype, MPI_Comm comm);
KLT_HIDDEN void klt_alltoallw(struct klt_thread* t, int op, const void* sendbuf,
                              struct klt_counts sendcounts, const MPI_Datatype* sendtypes,
                              struct klt_counts recvcounts, const MPI_Datatype* recvtypes,
                              MPI_Comm comm);
/* `each`: whether each neighbour gets another part. */
KLT_HIDDEN void klt_neighbor(struct klt_thread* t, int op, int each, MPI_Count sendcount,
                             MPI_Datatype sendtype, MPI_Count recvcount, MPI_Datatype recvtype,
                             MPI_Comm comm);
KLT_HIDDEN void klt_neighbor_gatherv(struct klt_thread* t, int op, MPI_Count sendcount,
                                     MPI_Datatype sendtype, struct klt_counts recvcounts,
                                     MPI_Datatype recvtype, MPI_Comm comm);
KLT_HIDDEN void klt_neighbor_v(struct klt_thread* t, int op, struct klt_counts sendcounts,
                               MPI_Datatype sendtype, struct klt_counts recvcounts,
                               MPI_Datatype recvtype, MPI_Comm comm);
KLT_HIDDEN void klt_neighbor_w(struct klt_thread* t, int op, struct klt_counts sendcounts,
                               const MPI_Datatype* sendtypes, struct klt_counts recvcounts,
                               const MPI_Datatype* recvtypes, MPI_Comm comm);
KLT_HIDDEN void klt_reduce(struct klt_thread* t, int op, MPI_Count count, MPI_Datatype type,
                           int root, MPI_Comm comm);
KLT_HIDDEN void klt_allreduce(struct klt_thread* t, int op, MPI_Count count, MPI_Datatype type,
                              MPI_Comm comm);
KLT_HIDDEN void klt_exscan(struct klt_thread* t, int op, MPI_Count count, MPI_Datatype type,
                           MPI_Comm comm);
KLT_HIDDEN void klt_reduce_scatter(struct klt_thread* t, int op, struct klt_counts recvcounts,
                                   MPI_Datatype type, MPI_Comm comm);
KLT_HIDDEN void klt_reduce_block(struct klt_thread* t, int op, MPI_Count recvcount,
                                 MPI_Datatype type, MPI_Comm comm);

/* --- communicators, files, the process --- */

KLT_HIDDEN void klt_made(struct klt_thread* t, uint32_t call, MPI_Comm parent, int tag,
                         MPI_Comm comm);
/* `comm` is made when `request` is complete. */
KLT_HIDDEN void klt_imade(struct klt_thread* t, uint32_t call, MPI_Comm parent, MPI_Comm* comm,
                          MPI_Request request);
KLT_HIDDEN void klt_f_imade(struct klt_thread* t, uint32_t call, MPI_Comm parent, MPI_Fint* comm,
                            MPI_Request request);
KLT_HIDDEN void klt_comm_freed(MPI_Comm comm);
KLT_HIDDEN void klt_comm_named(MPI_Comm comm);

KLT_HIDDEN void klt_file_opened(MPI_Comm comm, MPI_File file, const char* name);
KLT_HIDDEN void klt_file_closed(MPI_File file);
/* `direction`: 1 read, 2 write. */
KLT_HIDDEN void klt_file_begin(struct klt_thread* t, int direction, MPI_File file, MPI_Count count,
                               MPI_Datatype type);
/* A null status: nothing was transferred. */
KLT_HIDDEN void klt_file_end(struct klt_thread* t, int direction, MPI_File file,
                             const MPI_Status* status);
KLT_HIDDEN void klt_file_started(struct klt_thread* t, int direction, MPI_File file,
                                 MPI_Request request);
/* Ends the operation of a request. */
KLT_HIDDEN void klt_file_done(struct klt_thread* t, uint16_t direction, uint64_t file,
                              const MPI_Status* status);

KLT_HIDDEN void klt_initialised(void);
/* Threads of a session may call MPI at a time. */
static inline void klt_session_begun(void) { klt_has_threads = 1; }

#endif
