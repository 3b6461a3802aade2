/* Records collective operations with the bytes of this process. See klt_hooks.h. */

#include "record/mpi/klt_hooks.h"

static long long sizeOf(MPI_Datatype type) {
  MPI_Count size = 0;
  if (type != MPI_DATATYPE_NULL) PMPI_Type_size_x(type, &size);
  return (long long)size;
}

static long long countAt(struct klt_counts counts, int i) {
  if (counts.narrow != NULL) return counts.narrow[i];
  return counts.wide != NULL ? (long long)counts.wide[i] : 0;
}

static long long sum(struct klt_counts counts, int n) {
  long long total = 0;
  for (int i = 0; i < n; ++i) total += countAt(counts, i);
  return total;
}

static long long sumTyped(struct klt_counts counts, const MPI_Datatype* types, int n) {
  long long total = 0;
  for (int i = 0; i < n; ++i) {
    if (countAt(counts, i) != 0) total += countAt(counts, i) * sizeOf(types[i]);
  }
  return total;
}

static void put(struct klt_thread* t, int op, const struct klt_comm* comm, uint32_t root,
                long long sent, long long received) {
  struct klt_record record = {.time = t->now, .kind = KLT_COLLECTIVE, .detail = (uint8_t)op};
  const int mode = t->mode;
  t->mode = KLT_BLOCKING;
  record.small = comm == NULL ? 0 : comm->id;
  record.a = klt_bytes(sent);
  record.u.two.b = klt_bytes(received);
  record.u.two.c = root;
  if (mode != KLT_BLOCKING) record.kind = KLT_ICOLLECTIVE;
  t->operation = record;
  t->sent = klt_next_number(t);
  if (mode != KLT_PERSISTENT && record.small != 0) klt_put(t, record);
}

/* Whether the communicator is known; otherwise the operation is forgotten. */
static int isKnown(struct klt_thread* t, int op, const struct klt_comm* comm) {
  if (comm == NULL) put(t, op, NULL, 0, 0, 0);
  return comm != NULL;
}

void klt_istarted(struct klt_thread* t, MPI_Request request) {
  if (t->operation.small == 0) return;
  const struct klt_request entry = {.handle = KLT_KEY(request),
                                    .number = t->sent,
                                    .thread = (uint16_t)t->number,
                                    .kind = KLT_REQUEST_COLLECTIVE};
  klt_request_add(entry);
}

void klt_collective_init(struct klt_thread* t, MPI_Request request) {
  klt_persistent_add(request, t->operation, NULL);
}

void klt_barrier(struct klt_thread* t, int op, MPI_Comm comm) {
  put(t, op, klt_comm_of(t, comm), 0, 0, 0);
}

/* The process of the root, and the role of this process. On an intercommunicator the root's group
 * passes MPI_ROOT and MPI_PROC_NULL instead of a rank. */
struct rooted {
  const struct klt_comm* comm;
  uint32_t process;
  int isRoot;
  int isOther; /* takes part, but isn't the root; a root on one communicator is both */
};

static struct rooted rootOf(struct klt_thread* t, MPI_Comm handle, int root) {
  struct rooted result = {klt_comm_of(t, handle), KLT_NO_PROCESS, 0, 0};
  if (result.comm == NULL) return result;
  if (root == MPI_ROOT) {
    result.process = result.comm->self;
    result.isRoot = 1;
  } else if (root != MPI_PROC_NULL) {
    result.process = klt_process(result.comm, root);
    result.isRoot = !result.comm->isInter && root == result.comm->rank;
    result.isOther = 1;
  }
  return result;
}

void klt_bcast(struct klt_thread* t, int op, MPI_Count count, MPI_Datatype type, int root,
               MPI_Comm comm) {
  const struct rooted r = rootOf(t, comm, root);
  const long long bytes = (long long)count * sizeOf(type);
  put(t, op, r.comm, r.process, r.isRoot ? bytes : 0, r.isOther && !r.isRoot ? bytes : 0);
}

void klt_gather(struct klt_thread* t, int op, const void* sendbuf, MPI_Count sendcount,
                MPI_Datatype sendtype, MPI_Count recvcount, MPI_Datatype recvtype, int root,
                MPI_Comm comm) {
  const struct rooted r = rootOf(t, comm, root);
  const long long part = r.isRoot ? (long long)recvcount * sizeOf(recvtype) : 0;
  long long sent = 0;
  if (r.isOther) sent = sendbuf == MPI_IN_PLACE ? part : (long long)sendcount * sizeOf(sendtype);
  put(t, op, r.comm, r.process, sent, r.isRoot ? part * r.comm->peers : 0);
}

void klt_gatherv(struct klt_thread* t, int op, const void* sendbuf, MPI_Count sendcount,
                 MPI_Datatype sendtype, struct klt_counts recvcounts, MPI_Datatype recvtype,
                 int root, MPI_Comm comm) {
  const struct rooted r = rootOf(t, comm, root);
  const long long size = r.isRoot ? sizeOf(recvtype) : 0;
  long long sent = 0;
  if (r.isOther && sendbuf == MPI_IN_PLACE) sent = countAt(recvcounts, r.comm->rank) * size;
  if (r.isOther && sendbuf != MPI_IN_PLACE) sent = (long long)sendcount * sizeOf(sendtype);
  put(t, op, r.comm, r.process, sent, r.isRoot ? sum(recvcounts, r.comm->peers) * size : 0);
}

void klt_scatter(struct klt_thread* t, int op, MPI_Count sendcount, MPI_Datatype sendtype,
                 const void* recvbuf, MPI_Count recvcount, MPI_Datatype recvtype, int root,
                 MPI_Comm comm) {
  const struct rooted r = rootOf(t, comm, root);
  const long long part = r.isRoot ? (long long)sendcount * sizeOf(sendtype) : 0;
  long long received = 0;
  if (r.isOther)
    received = recvbuf == MPI_IN_PLACE ? part : (long long)recvcount * sizeOf(recvtype);
  put(t, op, r.comm, r.process, r.isRoot ? part * r.comm->peers : 0, received);
}

void klt_scatterv(struct klt_thread* t, int op, struct klt_counts sendcounts, MPI_Datatype sendtype,
                  const void* recvbuf, MPI_Count recvcount, MPI_Datatype recvtype, int root,
                  MPI_Comm comm) {
  const struct rooted r = rootOf(t, comm, root);
  const long long size = r.isRoot ? sizeOf(sendtype) : 0;
  long long received = 0;
  if (r.isOther && recvbuf == MPI_IN_PLACE) received = countAt(sendcounts, r.comm->rank) * size;
  if (r.isOther && recvbuf != MPI_IN_PLACE) received = (long long)recvcount * sizeOf(recvtype);
  put(t, op, r.comm, r.process, r.isRoot ? sum(sendcounts, r.comm->peers) * size : 0, received);
}

void klt_allgather(struct klt_thread* t, int op, const void* sendbuf, MPI_Count sendcount,
                   MPI_Datatype sendtype, MPI_Count recvcount, MPI_Datatype recvtype,
                   MPI_Comm comm) {
  const struct klt_comm* known = klt_comm_of(t, comm);
  const long long part = (long long)recvcount * sizeOf(recvtype);
  const long long sent = sendbuf == MPI_IN_PLACE ? part : (long long)sendcount * sizeOf(sendtype);
  put(t, op, known, 0, sent, known == NULL ? 0 : part * known->peers);
}

void klt_allgatherv(struct klt_thread* t, int op, const void* sendbuf, MPI_Count sendcount,
                    MPI_Datatype sendtype, struct klt_counts recvcounts, MPI_Datatype recvtype,
                    MPI_Comm comm) {
  const struct klt_comm* known = klt_comm_of(t, comm);
  if (!isKnown(t, op, known)) return;
  const long long size = sizeOf(recvtype);
  const long long sent = sendbuf == MPI_IN_PLACE ? countAt(recvcounts, known->rank) * size
                                                 : (long long)sendcount * sizeOf(sendtype);
  put(t, op, known, 0, sent, sum(recvcounts, known->peers) * size);
}

void klt_alltoall(struct klt_thread* t, int op, const void* sendbuf, MPI_Count sendcount,
                  MPI_Datatype sendtype, MPI_Count recvcount, MPI_Datatype recvtype,
                  MPI_Comm comm) {
  const struct klt_comm* known = klt_comm_of(t, comm);
  if (!isKnown(t, op, known)) return;
  const long long received = (long long)recvcount * sizeOf(recvtype) * known->peers;
  const long long sent =
      sendbuf == MPI_IN_PLACE ? received : (long long)sendcount * sizeOf(sendtype) * known->peers;
  put(t, op, known, 0, sent, received);
}

void klt_alltoallv(struct klt_thread* t, int op, const void* sendbuf, struct klt_counts sendcounts,
                   MPI_Datatype sendtype, struct klt_counts recvcounts, MPI_Datatype recvtype,
                   MPI_Comm comm) {
  const struct klt_comm* known = klt_comm_of(t, comm);
  if (!isKnown(t, op, known)) return;
  const long long received = sum(recvcounts, known->peers) * sizeOf(recvtype);
  const long long sent =
      sendbuf == MPI_IN_PLACE ? received : sum(sendcounts, known->peers) * sizeOf(sendtype);
  put(t, op, known, 0, sent, received);
}

void klt_alltoallw(struct klt_thread* t, int op, const void* sendbuf, struct klt_counts sendcounts,
                   const MPI_Datatype* sendtypes, struct klt_counts recvcounts,
                   const MPI_Datatype* recvtypes, MPI_Comm comm) {
  const struct klt_comm* known = klt_comm_of(t, comm);
  if (!isKnown(t, op, known)) return;
  const long long received = sumTyped(recvcounts, recvtypes, known->peers);
  const long long sent =
      sendbuf == MPI_IN_PLACE ? received : sumTyped(sendcounts, sendtypes, known->peers);
  put(t, op, known, 0, sent, received);
}

/* The communicator, with the numbers of its neighbours. */
static const struct klt_comm* withNeighbors(struct klt_thread* t, MPI_Comm handle) {
  struct klt_comm* comm = klt_comm_of(t, handle);
  if (comm == NULL || comm->indegree >= 0) return comm;
  int topology = MPI_UNDEFINED;
  int in = 0;
  int out = 0;
  int weighted = 0;
  PMPI_Topo_test(handle, &topology);
  if (topology == MPI_CART) {
    PMPI_Cartdim_get(handle, &in);
    in = out = 2 * in;
  } else if (topology == MPI_GRAPH) {
    PMPI_Graph_neighbors_count(handle, comm->rank, &in);
    out = in;
  } else if (topology == MPI_DIST_GRAPH) {
    PMPI_Dist_graph_neighbors_count(handle, &in, &out, &weighted);
  }
  comm->outdegree = out;
  comm->indegree = in;
  return comm;
}

void klt_neighbor(struct klt_thread* t, int op, int each, MPI_Count sendcount,
                  MPI_Datatype sendtype, MPI_Count recvcount, MPI_Datatype recvtype,
                  MPI_Comm comm) {
  const struct klt_comm* known = withNeighbors(t, comm);
  if (!isKnown(t, op, known)) return;
  const long long part = (long long)sendcount * sizeOf(sendtype);
  put(t, op, known, 0, each ? part * known->outdegree : part,
      (long long)recvcount * sizeOf(recvtype) * known->indegree);
}

void klt_neighbor_gatherv(struct klt_thread* t, int op, MPI_Count sendcount, MPI_Datatype sendtype,
                          struct klt_counts recvcounts, MPI_Datatype recvtype, MPI_Comm comm) {
  const struct klt_comm* known = withNeighbors(t, comm);
  if (!isKnown(t, op, known)) return;
  put(t, op, known, 0, (long long)sendcount * sizeOf(sendtype),
      sum(recvcounts, known->indegree) * sizeOf(recvtype));
}

void klt_neighbor_v(struct klt_thread* t, int op, struct klt_counts sendcounts,
                    MPI_Datatype sendtype, struct klt_counts recvcounts, MPI_Datatype recvtype,
                    MPI_Comm comm) {
  const struct klt_comm* known = withNeighbors(t, comm);
  if (!isKnown(t, op, known)) return;
  put(t, op, known, 0, sum(sendcounts, known->outdegree) * sizeOf(sendtype),
      sum(recvcounts, known->indegree) * sizeOf(recvtype));
}

void klt_neighbor_w(struct klt_thread* t, int op, struct klt_counts sendcounts,
                    const MPI_Datatype* sendtypes, struct klt_counts recvcounts,
                    const MPI_Datatype* recvtypes, MPI_Comm comm) {
  const struct klt_comm* known = withNeighbors(t, comm);
  if (!isKnown(t, op, known)) return;
  put(t, op, known, 0, sumTyped(sendcounts, sendtypes, known->outdegree),
      sumTyped(recvcounts, recvtypes, known->indegree));
}

void klt_reduce(struct klt_thread* t, int op, MPI_Count count, MPI_Datatype type, int root,
                MPI_Comm comm) {
  const struct rooted r = rootOf(t, comm, root);
  const long long bytes = (long long)count * sizeOf(type);
  put(t, op, r.comm, r.process, r.isOther ? bytes : 0, r.isRoot ? bytes : 0);
}

void klt_allreduce(struct klt_thread* t, int op, MPI_Count count, MPI_Datatype type,
                   MPI_Comm comm) {
  const long long bytes = (long long)count * sizeOf(type);
  put(t, op, klt_comm_of(t, comm), 0, bytes, bytes);
}

void klt_exscan(struct klt_thread* t, int op, MPI_Count count, MPI_Datatype type, MPI_Comm comm) {
  const struct klt_comm* known = klt_comm_of(t, comm);
  const long long bytes = (long long)count * sizeOf(type);
  /* Process 0 receives nothing. */
  put(t, op, known, 0, bytes, known != NULL && known->rank != 0 ? bytes : 0);
}

void klt_reduce_scatter(struct klt_thread* t, int op, struct klt_counts recvcounts,
                        MPI_Datatype type, MPI_Comm comm) {
  const struct klt_comm* known = klt_comm_of(t, comm);
  if (!isKnown(t, op, known)) return;
  const long long size = sizeOf(type);
  put(t, op, known, 0, sum(recvcounts, known->size) * size,
      countAt(recvcounts, known->rank) * size);
}

void klt_reduce_block(struct klt_thread* t, int op, MPI_Count recvcount, MPI_Datatype type,
                      MPI_Comm comm) {
  const struct klt_comm* known = klt_comm_of(t, comm);
  const long long bytes = (long long)recvcount * sizeOf(type);
  put(t, op, known, 0, known == NULL ? 0 : bytes * known->size, bytes);
}
