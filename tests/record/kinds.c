/* Uses every kind of message and collective operation, and writes to LOG.RANK what it has sent,
 * received and called, by counting for itself:
 *
 *   S|R PROCESS TAG BYTES          a message sent or received, in order
 *   C NAME SENT RECEIVED           a collective operation, in order
 *   F NAME                         a call
 *
 * usage: kinds LOG [skip]        skip: polls that find nothing aren't counted */
#define _GNU_SOURCE
#include <mpi.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static FILE* out;
static int rank, size, next, before, skips;
#define CALL(name, ...) (fprintf(out, "F " #name "\n"), name(__VA_ARGS__))
#define POLL(found, name, ...) \
  (name(__VA_ARGS__), (found) || !skips ? fprintf(out, "F " #name "\n") : 0)
#define SENT(to, tag, bytes) fprintf(out, "S %d %d %d\n", to, tag, (int)(bytes))
#define RECEIVED(from, tag, bytes) fprintf(out, "R %d %d %d\n", from, tag, (int)(bytes))
#define OPERATION(name, sent, received) \
  fprintf(out, "C " #name " %d %d\n", (int)(sent), (int)(received))
#define WORLD MPI_COMM_WORLD
#define IGNORE MPI_STATUS_IGNORE

static int data[4096], other[4096];

/* One message to the next process by each kind of send, taken in by each kind of completion. */
static void nonblocking(void) {
  typedef int (*isend)(const void*, int, MPI_Datatype, int, int, MPI_Comm, MPI_Request*);
  const isend sends[] = {MPI_Isend,  MPI_Issend, MPI_Ibsend, MPI_Isend,
                         MPI_Irsend, MPI_Isend,  MPI_Isend,  MPI_Isend};
  const char* const names[] = {"MPI_Isend",  "MPI_Issend", "MPI_Ibsend", "MPI_Isend",
                               "MPI_Irsend", "MPI_Isend",  "MPI_Isend",  "MPI_Isend"};
  for (int how = 0; how < 8; ++how) {
    MPI_Request requests[2];
    MPI_Status statuses[2];
    int index = 0, flag = 0, count = 0, indices[2], done = 0;
    CALL(MPI_Irecv, other, 4096, MPI_INT, how % 2 ? MPI_ANY_SOURCE : before, MPI_ANY_TAG, WORLD,
         &requests[0]);
    CALL(MPI_Barrier, WORLD);
    OPERATION(MPI_Barrier, 0, 0);
    fprintf(out, "F %s\n", names[how]);
    sends[how](data, 10 + how, MPI_INT, next, 100 + how, WORLD, &requests[1]);
    SENT(next, 100 + how, 40 + 4 * how);
    switch (how) {
      case 0:
        CALL(MPI_Wait, &requests[0], IGNORE);
        CALL(MPI_Wait, &requests[1], &statuses[1]);
        break;
      case 1:
        while (done < 2) {
          CALL(MPI_Waitany, 2, requests, &index, how == 1 ? IGNORE : statuses);
          ++done;
        }
        break;
      case 2:
        while (done < 2) {
          CALL(MPI_Waitsome, 2, requests, &count, indices, MPI_STATUSES_IGNORE);
          done += count;
        }
        break;
      case 3:
        CALL(MPI_Waitall, 2, requests, MPI_STATUSES_IGNORE);
        break;
      case 4:
        while (!flag) POLL(flag, MPI_Test, &requests[0], &flag, IGNORE);
        CALL(MPI_Wait, &requests[1], IGNORE);
        break;
      case 5:
        while (done < 2) {
          POLL(flag, MPI_Testany, 2, requests, &index, &flag, &statuses[0]);
          if (flag && index != MPI_UNDEFINED) ++done;
        }
        break;
      case 6:
        while (done < 2) {
          POLL(count != 0, MPI_Testsome, 2, requests, &count, indices, statuses);
          done += count;
        }
        break;
      default:
        while (!flag) POLL(flag, MPI_Testall, 2, requests, &flag, statuses);
    }
    RECEIVED(before, 100 + how, 40 + 4 * how);
    CALL(MPI_Barrier, WORLD);
    OPERATION(MPI_Barrier, 0, 0);
  }
}

/* Polls that find nothing, also while a ring is full. */
static void polls(void) {
  MPI_Request request;
  MPI_Message message;
  int flag = 0, count = 0, index = 0;
  CALL(MPI_Irecv, other, 1, MPI_INT, before, 998, WORLD, &request);
  POLL(0, MPI_Test, &request, &flag, IGNORE);
  POLL(0, MPI_Testany, 1, &request, &index, &flag, IGNORE);
  POLL(0, MPI_Testall, 1, &request, &flag, MPI_STATUSES_IGNORE);
  POLL(0, MPI_Testsome, 1, &request, &count, &index, MPI_STATUSES_IGNORE);
  POLL(0, MPI_Request_get_status, request, &flag, IGNORE);
  POLL(0, MPI_Improbe, before, 997, WORLD, &flag, &message, IGNORE);
  for (int i = 0; i < 3000; ++i) {
    POLL(0, MPI_Iprobe, before, 997, WORLD, &flag, IGNORE);
    CALL(MPI_Comm_size, WORLD, &count);
  }
  CALL(MPI_Cancel, &request);
  CALL(MPI_Wait, &request, IGNORE);
  CALL(MPI_Testany, 1, &request, &index, &flag, IGNORE);
}

/* Each process sends first if its number is even. */
#define PAIRED(send, receive) \
  do {                        \
    if (rank % 2 == 0) {      \
      send;                   \
      receive;                \
    } else {                  \
      receive;                \
      send;                   \
    }                         \
  } while (0)

static void blocking(void) {
  MPI_Status status;
  MPI_Datatype vector;
  MPI_Message message;
  MPI_Request request;
  int flag = 0;
  CALL(MPI_Type_vector, 5, 2, 7, MPI_DOUBLE, &vector);
  CALL(MPI_Type_commit, &vector);
  PAIRED(CALL(MPI_Bsend, data, 3, MPI_INT, next, 1, WORLD),
         CALL(MPI_Recv, other, 4096, MPI_INT, before, 1, WORLD, IGNORE));
  SENT(next, 1, 12), RECEIVED(before, 1, 12);
  PAIRED(CALL(MPI_Send, data, 2, vector, next, 70000, WORLD),
         CALL(MPI_Recv, other, 4096, MPI_BYTE, MPI_ANY_SOURCE, MPI_ANY_TAG, WORLD, &status));
  SENT(next, 70000, 160), RECEIVED(before, 70000, 160);
  CALL(MPI_Sendrecv, data, 8, MPI_CHAR, next, 3, other, 4096, MPI_CHAR, before, 3, WORLD, IGNORE);
  SENT(next, 3, 8), RECEIVED(before, 3, 8);
  CALL(MPI_Sendrecv_replace, data, 0, MPI_INT, next, 4, before, 4, WORLD, &status);
  SENT(next, 4, 0), RECEIVED(before, 4, 0);
  CALL(MPI_Send, data, 1, MPI_INT, MPI_PROC_NULL, 5, WORLD);
  CALL(MPI_Recv, data, 1, MPI_INT, MPI_PROC_NULL, 5, WORLD, &status);
  CALL(MPI_Irecv, other, 1, MPI_INT, before, 999, WORLD, &request);
  CALL(MPI_Cancel, &request);
  CALL(MPI_Wait, &request, IGNORE);
  PAIRED(CALL(MPI_Ssend, data, 6, MPI_INT, next, 6, WORLD),
         CALL(MPI_Probe, before, MPI_ANY_TAG, WORLD, IGNORE);
         CALL(MPI_Recv, other, 6, MPI_INT, before, 6, WORLD, IGNORE));
  SENT(next, 6, 24), RECEIVED(before, 6, 24);
  PAIRED(CALL(MPI_Bsend, data, 7, MPI_INT, next, 7, WORLD),
         CALL(MPI_Mprobe, MPI_ANY_SOURCE, 7, WORLD, &message, IGNORE);
         CALL(MPI_Mrecv, other, 4096, MPI_INT, &message, IGNORE));
  SENT(next, 7, 28), RECEIVED(before, 7, 28);
  CALL(MPI_Bsend, data, 9, MPI_INT, next, 9, WORLD);
  while (!flag) POLL(flag, MPI_Improbe, before, 9, WORLD, &flag, &message, &status);
  CALL(MPI_Imrecv, other, 4096, MPI_INT, &message, &request);
  CALL(MPI_Wait, &request, IGNORE);
  SENT(next, 9, 36), RECEIVED(before, 9, 36);
  CALL(MPI_Type_free, &vector);
}

static void persistent(void) {
  MPI_Request requests[2];
  CALL(MPI_Recv_init, other, 4096, MPI_INT, before, 20, WORLD, &requests[0]);
  CALL(MPI_Send_init, data, 50, MPI_INT, next, 20, WORLD, &requests[1]);
  for (int i = 0; i < 3; ++i) {
    if (i == 1) {
      CALL(MPI_Start, &requests[0]);
      CALL(MPI_Start, &requests[1]);
    } else {
      CALL(MPI_Startall, 2, requests);
    }
    CALL(MPI_Waitall, 2, requests, MPI_STATUSES_IGNORE);
    SENT(next, 20, 200), RECEIVED(before, 20, 200);
  }
  CALL(MPI_Request_free, &requests[0]);
  CALL(MPI_Request_free, &requests[1]);
}

/* Two equal messages whose receives complete in the other order, a while apart. */
static void unordered(void) {
  MPI_Request requests[2];
  CALL(MPI_Irecv, other, 1, MPI_INT, before, 30, WORLD, &requests[0]);
  CALL(MPI_Irecv, other + 1, 1, MPI_INT, before, 30, WORLD, &requests[1]);
  for (int i = 0; i < 2; ++i) {
    CALL(MPI_Send, data, 1, MPI_INT, next, 30, WORLD);
    SENT(next, 30, 4);
  }
  CALL(MPI_Wait, &requests[1], IGNORE);
  usleep(20000);
  CALL(MPI_Wait, &requests[0], IGNORE);
  RECEIVED(before, 30, 4), RECEIVED(before, 30, 4);
}

static void collectives(MPI_Comm comm) {
  int n = 0, me = 0, counts[64], places[64];
  MPI_Datatype types[64];
  MPI_Request request;
  CALL(MPI_Comm_size, comm, &n);
  CALL(MPI_Comm_rank, comm, &me);
  const int isRoot = me == n - 1, root = n - 1;
  int total = 0;
  for (int i = 0; i < n; ++i) {
    counts[i] = i + 1;
    places[i] = total;
    types[i] = MPI_INT;
    total += i + 1;
  }
  CALL(MPI_Bcast, data, 10, MPI_INT, root, comm);
  OPERATION(MPI_Bcast, isRoot ? 40 : 0, isRoot ? 0 : 40);
  CALL(MPI_Gather, isRoot ? MPI_IN_PLACE : data, 2, MPI_INT, other, 2, MPI_INT, root, comm);
  OPERATION(MPI_Gather, 8, isRoot ? 8 * n : 0);
  CALL(MPI_Gatherv, data, counts[me], MPI_INT, other, counts, places, MPI_INT, root, comm);
  OPERATION(MPI_Gatherv, 4 * counts[me], isRoot ? 4 * total : 0);
  CALL(MPI_Scatter, data, 3, MPI_INT, isRoot ? MPI_IN_PLACE : other, 3, MPI_INT, root, comm);
  OPERATION(MPI_Scatter, isRoot ? 12 * n : 0, 12);
  CALL(MPI_Scatterv, data, counts, places, MPI_INT, other, counts[me], MPI_INT, root, comm);
  OPERATION(MPI_Scatterv, isRoot ? 4 * total : 0, 4 * counts[me]);
  CALL(MPI_Allgather, MPI_IN_PLACE, 0, MPI_DATATYPE_NULL, other, 1, MPI_INT, comm);
  OPERATION(MPI_Allgather, 4, 4 * n);
  CALL(MPI_Allgatherv, data, counts[me], MPI_INT, other, counts, places, MPI_INT, comm);
  OPERATION(MPI_Allgatherv, 4 * counts[me], 4 * total);
  CALL(MPI_Alltoall, data, 2, MPI_INT, other, 2, MPI_INT, comm);
  OPERATION(MPI_Alltoall, 8 * n, 8 * n);
  for (int i = 0; i < n; ++i) counts[i] = 1;
  CALL(MPI_Alltoallv, data, counts, places, MPI_INT, other, counts, places, MPI_INT, comm);
  OPERATION(MPI_Alltoallv, 4 * n, 4 * n);
  for (int i = 0; i < n; ++i) places[i] *= 4;
  CALL(MPI_Alltoallw, data, counts, places, types, other, counts, places, types, comm);
  OPERATION(MPI_Alltoallw, 4 * n, 4 * n);
  CALL(MPI_Reduce, data, other, 5, MPI_INT, MPI_SUM, root, comm);
  OPERATION(MPI_Reduce, 20, isRoot ? 20 : 0);
  CALL(MPI_Allreduce, MPI_IN_PLACE, other, 6, MPI_INT, MPI_SUM, comm);
  OPERATION(MPI_Allreduce, 24, 24);
  CALL(MPI_Reduce_scatter, data, other, counts, MPI_INT, MPI_SUM, comm);
  OPERATION(MPI_Reduce_Scatter, 4 * n, 4);
  CALL(MPI_Reduce_scatter_block, data, other, 2, MPI_INT, MPI_SUM, comm);
  OPERATION(MPI_Reduce_Scatter_Block, 8 * n, 8);
  CALL(MPI_Scan, data, other, 1, MPI_INT, MPI_SUM, comm);
  OPERATION(MPI_Scan, 4, 4);
  CALL(MPI_Exscan, data, other, 1, MPI_INT, MPI_SUM, comm);
  OPERATION(MPI_Exscan, 4, me == 0 ? 0 : 4);
  CALL(MPI_Ibarrier, comm, &request);
  OPERATION(MPI_Ibarrier, 0, 0);
  CALL(MPI_Wait, &request, IGNORE);
  CALL(MPI_Ibcast, data, 11, MPI_INT, root, comm, &request);
  OPERATION(MPI_Ibcast, isRoot ? 44 : 0, isRoot ? 0 : 44);
  CALL(MPI_Waitall, 1, &request, MPI_STATUSES_IGNORE);
  CALL(MPI_Iallreduce, data, other, 12, MPI_INT, MPI_MAX, comm, &request);
  OPERATION(MPI_Iallreduce, 48, 48);
  CALL(MPI_Wait, &request, IGNORE);
}

static void communicators(void) {
  MPI_Comm half, twin, cart, graph, inter, merged, late, created;
  MPI_Group group, part;
  MPI_Request request;
  const int dims[1] = {size}, ring[1] = {1}, local = rank % 2;
  CALL(MPI_Comm_split, WORLD, local, -rank, &half);
  collectives(half);
  CALL(MPI_Comm_dup, half, &twin);
  CALL(MPI_Comm_idup, WORLD, &late, &request);
  CALL(MPI_Wait, &request, IGNORE);
  CALL(MPI_Barrier, late);
  OPERATION(MPI_Barrier, 0, 0);
  CALL(MPI_Cart_create, WORLD, 1, dims, ring, 0, &cart);
  CALL(MPI_Neighbor_allgather, data, 2, MPI_INT, other, 2, MPI_INT, cart);
  OPERATION(MPI_Neighbor_allgather, 8, 16);
  CALL(MPI_Neighbor_alltoall, data, 2, MPI_INT, other, 2, MPI_INT, cart);
  OPERATION(MPI_Neighbor_alltoall, 16, 16);
  CALL(MPI_Dist_graph_create_adjacent, WORLD, 1, &before, MPI_UNWEIGHTED, 1, &next, MPI_UNWEIGHTED,
       MPI_INFO_NULL, 0, &graph);
  CALL(MPI_Ineighbor_alltoall, data, 3, MPI_INT, other, 3, MPI_INT, graph, &request);
  OPERATION(MPI_Ineighbor_alltoall, 12, 12);
  CALL(MPI_Wait, &request, IGNORE);
  CALL(MPI_Comm_group, WORLD, &group);
  CALL(MPI_Group_excl, group, 1, &(int){size - 1}, &part);
  CALL(MPI_Comm_create, WORLD, part, &created);
  if (created != MPI_COMM_NULL) {
    CALL(MPI_Barrier, created);
    OPERATION(MPI_Barrier, 0, 0);
    CALL(MPI_Comm_free, &created);
    CALL(MPI_Comm_create_group, WORLD, part, 17, &created);
    CALL(MPI_Comm_free, &created);
  }
  if (size >= 2) {
    /* The even processes and the odd ones, whose leaders are 0 and 1. In `half` they are last. */
    int n = 0, me = 0, peers = 0;
    CALL(MPI_Comm_size, half, &n);
    CALL(MPI_Comm_rank, half, &me);
    CALL(MPI_Intercomm_create, half, n - 1, WORLD, 1 - local, 8, &inter);
    CALL(MPI_Comm_remote_size, inter, &peers);
    if (me < peers) {
      const int peer = local == 0 ? 2 * peers - 1 - 2 * me : 2 * peers - 2 - 2 * me;
      CALL(MPI_Sendrecv, data, 4, MPI_INT, me, 40, other, 4, MPI_INT, me, 40, inter, IGNORE);
      SENT(peer, 40, 16), RECEIVED(peer, 40, 16);
    }
    CALL(MPI_Barrier, inter);
    OPERATION(MPI_Barrier, 0, 0);
    CALL(MPI_Intercomm_merge, inter, local, &merged);
    CALL(MPI_Barrier, merged);
    OPERATION(MPI_Barrier, 0, 0);
    CALL(MPI_Comm_free, &merged);
    CALL(MPI_Comm_free, &inter);
  }
  /* Handles are used again, ids aren't. */
  for (int i = 0; i < 1000; ++i) {
    MPI_Comm copy;
    CALL(MPI_Comm_dup, MPI_COMM_SELF, &copy);
    CALL(MPI_Comm_free, &copy);
  }
  CALL(MPI_Comm_set_name, twin, "the twin");
  CALL(MPI_Barrier, twin);
  OPERATION(MPI_Barrier, 0, 0);
}

static void files(const char* log) {
  char name[4096];
  MPI_File file;
  MPI_Status status;
  MPI_Request request;
  snprintf(name, sizeof name, "%s.data", log);
  CALL(MPI_File_open, WORLD, name, MPI_MODE_CREATE | MPI_MODE_RDWR, MPI_INFO_NULL, &file);
  CALL(MPI_File_write_at, file, 400 * rank, data, 100, MPI_INT, IGNORE);
  CALL(MPI_File_write_at_all, file, 400 * rank, data, 100, MPI_INT, &status);
  CALL(MPI_File_iread_at, file, 400 * rank, other, 50, MPI_INT, &request);
  CALL(MPI_Wait, &request, IGNORE);
  CALL(MPI_File_close, &file);
}

int main(int argc, char** argv) {
  char name[4096];
  void* buffer = malloc(1 << 20);
  MPI_Init(&argc, &argv);
  MPI_Comm_rank(WORLD, &rank);
  MPI_Comm_size(WORLD, &size);
  snprintf(name, sizeof name, "%s.%d", argv[1], rank);
  out = fopen(name, "w");
  fprintf(out, "F MPI_Init\nF MPI_Comm_rank\nF MPI_Comm_size\nF MPI_Finalize\n");
  skips = argc > 2;
  next = (rank + 1) % size;
  before = (rank + size - 1) % size;
  CALL(MPI_Buffer_attach, buffer, 1 << 20);
  nonblocking();
  polls();
  if (size % 2 == 0) blocking();
  persistent();
  unordered();
  collectives(WORLD);
  communicators();
  files(argv[1]);
  fclose(out);
  return MPI_Finalize();
}
