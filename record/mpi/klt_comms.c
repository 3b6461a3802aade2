/* Follows communicators: defines each with its members, and finds it by its handle.
 *
 * A communicator needs no message to get the same id on all its members: klt-record finds out later
 * which definitions are the same one, by parent, call, tag, members and order. */
#include <pthread.h>
#include <stdlib.h>
#include <string.h>

#include "record/mpi/klt_hooks.h"
#include "record/mpi/klt_mpi.h"

uint32_t klt_comm_generation = 1;

/* Known communicators by handle, in a table with open addressing. */
struct known {
  uintptr_t handle;
  struct klt_comm* comm; /* null: free; &freed: was freed */
};
static struct known* table;
static size_t places;
static size_t used;
static struct klt_comm freed;
static unsigned lastId;
static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;

static struct known* placeOf(struct known* in, size_t n, uintptr_t handle) {
  size_t i = (size_t)((uint64_t)handle * 0x9e3779b97f4a7c15ULL >> 32) & (n - 1);
  while (in[i].comm != NULL && (in[i].handle != handle || in[i].comm == &freed))
    i = (i + 1) & (n - 1);
  return &in[i];
}

static void remember(uintptr_t handle, struct klt_comm* comm) {
  if (used * 2 >= places) {
    size_t live = 0;
    for (size_t i = 0; i < places; ++i) live += table[i].comm != NULL && table[i].comm != &freed;
    const size_t wanted = live * 4 < 64 ? 64 : live * 4 <= places ? places : places * 2;
    struct known* larger = calloc(wanted, sizeof *larger);
    if (larger == NULL) return;
    used = 0;
    for (size_t i = 0; i < places; ++i) {
      if (table[i].comm == NULL || table[i].comm == &freed) continue;
      *placeOf(larger, wanted, table[i].handle) = table[i];
      ++used;
    }
    free(table);
    table = larger;
    places = wanted;
  }
  struct known* place = placeOf(table, places, handle);
  if (place->comm == NULL) ++used;
  place->handle = handle;
  place->comm = comm;
}

/* The processes of a group by rank; KLT_NO_PROCESS for those outside of the run. */
static uint32_t* processesOf(MPI_Group group, int n) {
  uint32_t* processes = malloc((size_t)(n + 1) * sizeof *processes);
  int* ranks = malloc((size_t)(n + 1) * 2 * sizeof *ranks);
  MPI_Group world;
  if (processes == NULL || ranks == NULL) {
    free(processes);
    free(ranks);
    return NULL;
  }
  int* of = ranks + n + 1;
  for (int i = 0; i < n; ++i) {
    ranks[i] = i;
    of[i] = MPI_UNDEFINED;
  }
  if (klt_has_world) {
    PMPI_Comm_group(MPI_COMM_WORLD, &world);
    PMPI_Group_translate_ranks(group, n, ranks, world, of);
    PMPI_Group_free(&world);
  }
  for (int i = 0; i < n; ++i) {
    processes[i] = of[i] == MPI_UNDEFINED ? KLT_NO_PROCESS : (uint32_t)of[i];
    if (of[i] == MPI_UNDEFINED) klt_header->flags |= KLT_SPOOL_OUTSIDERS;
  }
  free(ranks);
  return processes;
}

/* Defines a communicator by its two groups; the second one is empty unless it has two. So that all
 * members define the same, the group with the lowest process is first. */
static void define(const struct klt_comm* comm, const uint32_t* own, uint32_t parent, uint32_t call,
                   int tag) {
  const int remote = comm->isInter ? comm->peers : 0;
  struct klt_def_communicator head = {parent, call, tag, -2, (uint32_t)(comm->size + remote)};
  uint32_t* members = malloc((size_t)(comm->size + remote + 1) * sizeof *members);
  if (members == NULL) return;
  const int isFirst = remote == 0 || own[0] < comm->world[0];
  const int first = isFirst ? comm->size : remote;
  memcpy(members, isFirst ? own : comm->world, (size_t)first * sizeof *members);
  memcpy(members + first, isFirst ? comm->world : own,
         (size_t)(comm->size + remote - first) * sizeof *members);
  if (comm->isInter) head.left_size = first;
  klt_define(KLT_DEF_COMMUNICATOR, comm->id, 0, &head, sizeof head, members,
             head.members * sizeof *members);
  free(members);
}

static void nameOf(MPI_Comm comm, const struct klt_comm* known) {
  char name[MPI_MAX_OBJECT_NAME] = "";
  int length = 0;
  PMPI_Comm_get_name(comm, name, &length);
  if (length > 0) klt_define(KLT_DEF_COMM_NAME, known->id, 0, name, (size_t)length, NULL, 0);
}

/* A new communicator, which the caller holds the lock to add. */
static struct klt_comm* make(MPI_Comm handle, uint32_t parent, uint32_t call, int tag) {
  struct klt_comm* comm = calloc(1, sizeof *comm);
  MPI_Group group;
  if (comm == NULL) return NULL;
  PMPI_Comm_test_inter(handle, &comm->isInter);
  PMPI_Comm_size(handle, &comm->size);
  PMPI_Comm_rank(handle, &comm->rank);
  PMPI_Comm_group(handle, &group);
  uint32_t* own = processesOf(group, comm->size);
  PMPI_Group_free(&group);
  comm->peers = comm->size;
  comm->world = own;
  if (comm->isInter) {
    PMPI_Comm_remote_size(handle, &comm->peers);
    PMPI_Comm_remote_group(handle, &group);
    comm->world = processesOf(group, comm->peers);
    PMPI_Group_free(&group);
  }
  if (own == NULL || comm->world == NULL) return NULL;
  comm->self = own[comm->rank];
  comm->indegree = -1;
  if (lastId == 0xffff || comm->self == KLT_NO_PROCESS) return comm;
  comm->id = (uint16_t)++lastId;
  define(comm, own, parent, call, tag);
  nameOf(handle, comm);
  return comm;
}

struct klt_comm* klt_comm_slowly(struct klt_thread* t, MPI_Comm comm) {
  if (comm == MPI_COMM_NULL) return NULL;
  const uintptr_t key = KLT_KEY(comm);
  pthread_mutex_lock(&lock);
  struct klt_comm* found = places == 0 ? NULL : placeOf(table, places, key)->comm;
  if (found == NULL) {
    found = make(comm, 0, 0, 0);
    if (found != NULL) remember(key, found);
  }
  if (t->generation != klt_comm_generation) memset(t->comms, 0, sizeof t->comms);
  t->generation = klt_comm_generation;
  pthread_mutex_unlock(&lock);
  const unsigned place = (unsigned)((key >> 4 ^ key) % KLT_CACHED);
  t->comms[place].handle = key;
  t->comms[place].comm = found;
  return found;
}

void klt_made(struct klt_thread* t, uint32_t call, MPI_Comm parent, int tag, MPI_Comm comm) {
  if (comm == MPI_COMM_NULL) return;
  const struct klt_comm* origin = klt_comm_of(t, parent);
  pthread_mutex_lock(&lock);
  struct klt_comm* made = make(comm, origin == NULL ? 0 : origin->id, call, tag);
  if (made != NULL) remember(KLT_KEY(comm), made);
  ++klt_comm_generation;
  pthread_mutex_unlock(&lock);
}

static void addNew(struct klt_new_comm new, MPI_Request request) {
  struct klt_new_comm* made = malloc(sizeof *made);
  if (made == NULL) return;
  *made = new;
  const struct klt_request entry = {
      .handle = KLT_KEY(request), .what = made, .kind = KLT_REQUEST_COMM};
  klt_request_add(entry);
}

void klt_imade(struct klt_thread* t, uint32_t call, MPI_Comm parent, MPI_Comm* comm,
               MPI_Request request) {
  (void)t;
  const struct klt_new_comm new = {parent, comm, NULL, call};
  addNew(new, request);
}

void klt_f_imade(struct klt_thread* t, uint32_t call, MPI_Comm parent, MPI_Fint* comm,
                 MPI_Request request) {
  (void)t;
  const struct klt_new_comm new = {parent, NULL, comm, call};
  addNew(new, request);
}

void klt_comm_freed(MPI_Comm comm) {
  pthread_mutex_lock(&lock);
  struct known* place = places == 0 ? NULL : placeOf(table, places, KLT_KEY(comm));
  if (place != NULL && place->comm != NULL) {
    place->comm = &freed;
    ++klt_comm_generation;
  }
  pthread_mutex_unlock(&lock);
}

void klt_comm_named(MPI_Comm comm) {
  struct klt_thread* t = klt_self();
  const struct klt_comm* known = t == NULL ? NULL : klt_comm_of(t, comm);
  if (known != NULL) nameOf(comm, known);
}
