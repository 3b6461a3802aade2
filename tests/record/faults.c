/* Programs that end, start or behave in unusual ways. usage: faults WHAT */
#define _GNU_SOURCE
#include <mpi.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include "record/klt_record.h"

static int rank, size, value, got;
static MPI_Comm comm = MPI_COMM_WORLD;

static void start(void) {
  MPI_Init(NULL, NULL);
  MPI_Comm_rank(MPI_COMM_WORLD, &rank);
  MPI_Comm_size(MPI_COMM_WORLD, &size);
}

static void ring(int times) {
  for (int i = 0; i < times; ++i)
    MPI_Sendrecv(&value, 1, MPI_INT, (rank + 1) % size, 1, &got, 1, MPI_INT,
                 (rank + size - 1) % size, 1, comm, MPI_STATUS_IGNORE);
}

/* The others wait for a message that never comes. */
static void stuck(void) {
  MPI_Send(&value, 1, MPI_INT, (rank + 1) % size, 2, MPI_COMM_WORLD);
  MPI_Recv(&got, 1, MPI_INT, 1, 3, MPI_COMM_WORLD, MPI_STATUS_IGNORE);
}

static int die(const char* what) {
  start();
  ring(100);
  if (rank != 1) stuck();
  usleep(200000); /* so that the others wait */
  if (strcmp(what, "abort") == 0) MPI_Abort(MPI_COMM_WORLD, 7);
  if (strcmp(what, "kill") == 0) kill(getpid(), SIGKILL);
  if (strcmp(what, "crash") == 0) raise(SIGSEGV);
  exit(3);
}

static void* sendAndReceive(void* number) {
  const int tag = (int)(intptr_t)number;
  for (int i = 0; i < 100; ++i) {
    MPI_Request request;
    int mine = 0, other = 0;
    MPI_Irecv(&other, 1, MPI_INT, (rank + size - 1) % size, tag, MPI_COMM_WORLD, &request);
    MPI_Send(&mine, 1, MPI_INT, (rank + 1) % size, tag, MPI_COMM_WORLD);
    MPI_Wait(&request, MPI_STATUS_IGNORE);
  }
  return NULL;
}

static void threads(void) {
  int level = 0;
  pthread_t workers[3];
  MPI_Init_thread(NULL, NULL, MPI_THREAD_MULTIPLE, &level);
  MPI_Comm_rank(MPI_COMM_WORLD, &rank);
  MPI_Comm_size(MPI_COMM_WORLD, &size);
  if (level < MPI_THREAD_MULTIPLE) return;
  for (intptr_t i = 0; i < 3; ++i)
    pthread_create(&workers[i], NULL, sendAndReceive, (void*)(100 + i));
  sendAndReceive((void*)50);
  for (int i = 0; i < 3; ++i) pthread_join(workers[i], NULL);
}

static void* startHere(void* unused) {
  start();
  ring(10);
  MPI_Finalize();
  return unused;
}

static void childEnds(int unused) { _exit(8); }

static void children(void) {
  int status = 0;
  start();
  const pid_t child = fork();
  if (child == 0) {
    klt_record_comment("from the child");
    execlp("sh", "sh", "-c", "exit 5", NULL);
  }
  waitpid(child, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 5 || system("exit 6") == -1) exit(9);
  ring(5);
  signal(SIGCHLD, childEnds);
  MPI_Finalize();
  if (wait(NULL) != -1) exit(9);
}

static void many(int count) {
  MPI_Request* requests = malloc((size_t)count * sizeof *requests);
  start();
  for (int i = 0; i < count; ++i) MPI_Irecv(&got, 1, MPI_INT, 0, 1, MPI_COMM_SELF, &requests[i]);
  for (int i = 0; i < count; ++i) MPI_Send(&value, 1, MPI_INT, 0, 1, MPI_COMM_SELF);
  MPI_Waitall(count, requests, MPI_STATUSES_IGNORE);
  free(requests);
}

static void marks(void) {
  static klt_record_id outer = KLT_RECORD_ID, scope = KLT_RECORD_ID, count = KLT_RECORD_ID;
  static klt_record_id measure = KLT_RECORD_ID;
  klt_record_enter(&outer, "outer part");
  klt_record_begin(&scope, "a scope", 3);
  klt_record_count(&count, "widgets", "pieces", 42);
  klt_record_measure(&measure, "heat", "K", 1.5);
  klt_record_comment("half-way");
  klt_record_pause();
  klt_record_comment("not recorded");
  klt_record_resume();
  klt_record_end(&scope, 3);
  klt_record_leave(&outer);
}

/* Only some processes record after this. */
static void quiet(void) {
  start();
  MPI_Pcontrol(rank == 0 ? 1 : 0);
  MPI_Barrier(MPI_COMM_WORLD);
  if (rank == 0) ring(0);
}

/* Two worlds, each recorded; messages and an operation between them, and a ring within each. */
static void spawn(void) {
  MPI_Comm others;
  char* arguments[] = {"./faults", "spawn", NULL};
  start();
  MPI_Comm_get_parent(&others);
  if (others == MPI_COMM_NULL)
    MPI_Comm_spawn(getenv("KLT_RECORD_EXE"), arguments, 2, MPI_INFO_NULL, 0, comm, &others,
                   MPI_ERRCODES_IGNORE);
  MPI_Sendrecv(&value, 1, MPI_INT, rank, 1, &got, 1, MPI_INT, rank, 1, others, MPI_STATUS_IGNORE);
  MPI_Barrier(others);
  MPI_Comm_disconnect(&others);
  ring(10);
}

/* Messages of a session, beside MPI_Init or without it. */
static void session(int isAlone) {
#if MPI_VERSION >= 4
  MPI_Session session;
  MPI_Group group;
  if (!isAlone) start();
  MPI_Session_init(MPI_INFO_NULL, MPI_ERRORS_ARE_FATAL, &session);
  MPI_Group_from_session_pset(session, "mpi://WORLD", &group);
  MPI_Comm_create_from_group(group, "test", MPI_INFO_NULL, MPI_ERRORS_ARE_FATAL, &comm);
  MPI_Comm_rank(comm, &rank);
  MPI_Comm_size(comm, &size);
  ring(10);
  MPI_Comm_free(&comm);
  MPI_Session_finalize(&session);
  if (!isAlone) MPI_Finalize();
#endif
}

static int run(const char* what) {
  pthread_t thread;
  if (strcmp(what, "plain") == 0) return marks(), 4;
  if (strcmp(what, "session") == 0 || strcmp(what, "alone") == 0) return session(what[0] == 'a'), 0;
  if (strcmp(what, "threads") == 0) {
    threads();
  } else if (strcmp(what, "inthread") == 0) {
    pthread_create(&thread, NULL, startHere, NULL);
    return pthread_join(thread, NULL);
  } else if (strcmp(what, "children") == 0) {
    return children(), 0;
  } else if (strcmp(what, "many") == 0) {
    many(10000);
  } else if (strcmp(what, "more") == 0) {
    many(250000); /* MPICH itself stops below 270000 */
  } else if (strcmp(what, "spawn") == 0) {
    spawn();
  } else if (strcmp(what, "quiet") == 0) {
    quiet();
  } else if (strcmp(what, "twice") == 0) {
    start();
    MPI_Comm_set_errhandler(MPI_COMM_WORLD, MPI_ERRORS_RETURN);
    MPI_Init(NULL, NULL);
    ring(10);
  } else if (strcmp(what, "long") == 0) {
    start();
    ring(6000);
  } else {
    return die(what);
  }
  MPI_Finalize();
  return 0;
}

int main(int argc, char** argv) { return argc == 2 ? run(argv[1]) : 1; }
