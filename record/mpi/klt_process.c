/* MPI_Init, MPI_Finalize and MPI_Pcontrol: who this process is, what time it is elsewhere, and the
 * end of the record. See klt_hooks.h. */
#include <limits.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "record/mpi/klt_hooks.h"

enum { CLOCK_TAG = 1, ROUND_TRIPS = 50, MOST_ROUND_TRIPS = 2000 };

static MPI_Comm own = MPI_COMM_NULL; /* for the messages of the recorder */
int klt_has_world;

/* Round trips with process 0 to the clock of one other host, until none has been shorter for a
 * while; the shortest one counts. The first word of a question says whether it is the last one. */
static void askClock(MPI_Comm comm, int moment) {
  uint64_t shortest = UINT64_MAX;
  uint64_t isLast = 0;
  for (int i = 0, since = 0; isLast == 0; ++i, ++since) {
    uint64_t theirs = 0;
    isLast = i == MOST_ROUND_TRIPS || since == ROUND_TRIPS;
    const uint64_t before = klt_ticks();
    PMPI_Send(&isLast, 1, MPI_UINT64_T, 0, CLOCK_TAG, comm);
    PMPI_Recv(&theirs, 1, MPI_UINT64_T, 0, CLOCK_TAG, comm, MPI_STATUS_IGNORE);
    const uint64_t after = klt_ticks();
    if (after - before >= shortest) continue;
    since = 0;
    shortest = after - before;
    klt_header->sync[moment].ticks = before + shortest / 2;
    klt_header->sync[moment].other = theirs;
  }
  klt_header->flags |= moment == 0 ? KLT_SPOOL_SYNC_START : KLT_SPOOL_SYNC_END;
}

static void answerClock(MPI_Comm comm, int process) {
  uint64_t isLast = 0;
  while (isLast == 0) {
    PMPI_Recv(&isLast, 1, MPI_UINT64_T, process, CLOCK_TAG, comm, MPI_STATUS_IGNORE);
    const uint64_t mine = klt_ticks();
    PMPI_Send(&mine, 1, MPI_UINT64_T, process, CLOCK_TAG, comm);
  }
}

void klt_measure_clocks(MPI_Comm comm, int moment) {
  int rank = 0;
  int size = 0;
  PMPI_Comm_rank(comm, &rank);
  PMPI_Comm_size(comm, &size);
  uint64_t* hosts = malloc((size_t)size * sizeof *hosts);
  if (hosts == NULL) abort(); /* as MPI itself would */
  PMPI_Allgather(&klt_header->host_hash, 1, MPI_UINT64_T, hosts, 1, MPI_UINT64_T, comm);
  for (int i = 1; i < size; ++i) {
    int first = 0;
    while (hosts[first] != hosts[i]) ++first;
    if (first != i) continue;
    if (rank == 0) answerClock(comm, i);
    if (rank == i) askClock(comm, moment);
  }
  free(hosts);
}

/* A spawned run doesn't write its trace over that of its parents: run.klt becomes
 * run.spawned-PID.klt. */
static void nameSpawned(void) {
  static const char ending[] = ".klt";
  const char* given = getenv("KLT_RECORD_NAME");
  MPI_Comm parents = MPI_COMM_NULL;
  PMPI_Comm_get_parent(&parents);
  if (parents == MPI_COMM_NULL || given == NULL) return;
  const size_t length = strlen(given);
  const size_t stem = length < 4 || strcmp(given + length - 4, ending) != 0 ? length : length - 4;
  char name[PATH_MAX];
  snprintf(name, sizeof name, "%.*s.spawned-%ld%s", (int)stem, given, (long)getpid(), ending);
  setenv("KLT_RECORD_NAME", name, 1);
}

void klt_initialised(void) {
  int level = MPI_THREAD_SINGLE;
  int rank = 0;
  int size = 1;
  if (klt_has_world) return;
  klt_begin();
  if (klt_state == KLT_OFF) {
    /* The others measure clocks with this process. */
    klt_header->host_hash = 0;
  }
  klt_has_world = 1;
  PMPI_Query_thread(&level);
  if (level == MPI_THREAD_MULTIPLE) klt_has_threads = 1;
  PMPI_Comm_rank(MPI_COMM_WORLD, &rank);
  PMPI_Comm_size(MPI_COMM_WORLD, &size);
  PMPI_Comm_dup(MPI_COMM_WORLD, &own);
  klt_header->rank = (uint32_t)rank;
  klt_header->size = (uint32_t)size;
  uint64_t job = klt_header->job;
  PMPI_Bcast(&job, 1, MPI_UINT64_T, 0, own);
  klt_header->job = job;
  klt_header->flags |= KLT_SPOOL_MPI;
  klt_measure_clocks(own, 0);
  setenv("KLT_RECORD_PID", "0", 1);
  nameSpawned();
  struct klt_thread* t = klt_self();
  if (t == NULL) return;
  /* The usual communicators have the first numbers. */
  klt_comm_of(t, MPI_COMM_WORLD);
  klt_note_clock();
}

int MPI_Finalize(void) {
  struct klt_thread* t = klt_call(KLT_CALL_Finalize);
  if (!klt_has_world) return PMPI_Finalize();
  /* A process that doesn't record takes part in the messages of the recorder all the same. */
  klt_measure_clocks(own, 1);
  if (t != NULL) klt_return(t, KLT_CALL_Finalize);
  const int wasOn = klt_state != KLT_OFF;
  klt_end(KLT_SPOOL_FINALIZED);
  PMPI_Barrier(own);
  PMPI_Comm_free(&own);
  klt_has_world = 0;
  const int result = PMPI_Finalize();
  if (klt_header->rank == 0 && (wasOn || (klt_header->flags & KLT_SPOOL_STOPPED) != 0))
    klt_finish_run();
  return result;
}

/* Level 0 pauses recording, every other level resumes it. */
int MPI_Pcontrol(const int level, ...) {
  struct klt_thread* t = klt_call(KLT_CALL_Pcontrol);
  const int result = PMPI_Pcontrol(level);
  if (t != NULL) klt_return(t, KLT_CALL_Pcontrol);
  if (klt_state != KLT_OFF) klt_state = level == 0 ? KLT_PAUSED : KLT_ON;
  return result;
}
