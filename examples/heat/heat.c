/* Heat in a square plate: a solver of the heat equation with MPI, to be recorded with klt-record.
 *
 * The plate is divided into strips of rows, one for each process. In every step a process exchanges
 * its outer rows with its neighbours, computes the new temperatures, and every 50 steps all find
 * out how much they have changed.
 *
 *   mpicc -O2 -DKLT_RECORD heat.c -o heat -lm && mpirun -n 4 klt-record ./heat
 *
 * usage: heat [ROWS [STEPS]] */
#include <math.h>
#include <mpi.h>
#include <stdio.h>
#include <stdlib.h>

#include "klt_record.h"

enum { UPWARD = 1, DOWNWARD = 2 };

/* A strip of the plate with a row of the neighbour on each side. */
struct strip {
  int rows;
  int columns;
  double* now; /* (rows + 2) x columns */
  double* next;
};

static double* row(const struct strip* strip, double* of, int i) {
  return of + (size_t)i * (size_t)strip->columns;
}

static void* allocate(size_t bytes) {
  void* memory = calloc(1, bytes);
  if (memory == NULL) MPI_Abort(MPI_COMM_WORLD, 1);
  return memory;
}

/* The rows of a plate are shared evenly. The upper edge is hot. */
static struct strip makeStrip(int total, int rank, int size) {
  struct strip strip = {total / size + (rank < total % size), total, NULL, NULL};
  const size_t bytes = (size_t)(strip.rows + 2) * (size_t)total * sizeof(double);
  strip.now = allocate(bytes);
  strip.next = allocate(bytes);
  if (rank == 0) {
    for (int j = 0; j < total; ++j) strip.now[j] = strip.next[j] = 100;
  }
  return strip;
}

/* Exchanges the outer rows with the neighbours, of which the first and the last process lack one.
 */
static void exchange(const struct strip* strip, int up, int down) {
  MPI_Request requests[4];
  MPI_Status statuses[4]; /* gcc warns of MPI_STATUSES_IGNORE of MPICH */
  const int n = strip->columns;
  const int last = strip->rows;
  MPI_Irecv(row(strip, strip->now, 0), n, MPI_DOUBLE, up, DOWNWARD, MPI_COMM_WORLD, &requests[0]);
  MPI_Irecv(row(strip, strip->now, last + 1), n, MPI_DOUBLE, down, UPWARD, MPI_COMM_WORLD,
            &requests[1]);
  MPI_Isend(row(strip, strip->now, 1), n, MPI_DOUBLE, up, UPWARD, MPI_COMM_WORLD, &requests[2]);
  MPI_Isend(row(strip, strip->now, last), n, MPI_DOUBLE, down, DOWNWARD, MPI_COMM_WORLD,
            &requests[3]);
  MPI_Waitall(4, requests, statuses);
}

/* Computes the next temperatures. Returns the largest change. */
static double compute(const struct strip* strip) {
  double largest = 0;
  for (int i = 1; i <= strip->rows; ++i) {
    const double* above = row(strip, strip->now, i - 1);
    const double* here = row(strip, strip->now, i);
    const double* below = row(strip, strip->now, i + 1);
    double* next = row(strip, strip->next, i);
    for (int j = 1; j < strip->columns - 1; ++j) {
      next[j] = 0.25 * (above[j] + below[j] + here[j - 1] + here[j + 1]);
      largest = fmax(largest, fabs(next[j] - here[j]));
    }
  }
  return largest;
}

static double sumOf(const struct strip* strip) {
  double sum = 0;
  for (int i = 1; i <= strip->rows; ++i) {
    for (int j = 0; j < strip->columns; ++j) sum += row(strip, strip->now, i)[j];
  }
  return sum;
}

/* Takes the given number of steps. Returns the largest change of the last common check. */
static double solve(struct strip* strip, int rank, int size, int steps) {
  static klt_record_id exchanging = KLT_RECORD_ID;
  static klt_record_id computing = KLT_RECORD_ID;
  static klt_record_id change = KLT_RECORD_ID;
  const int up = rank == 0 ? MPI_PROC_NULL : rank - 1;
  const int down = rank == size - 1 ? MPI_PROC_NULL : rank + 1;
  double overall = 0;
  for (int step = 1; step <= steps; ++step) {
    klt_record_enter(&exchanging, "exchange");
    exchange(strip, up, down);
    klt_record_leave(&exchanging);
    klt_record_enter(&computing, "compute");
    const double largest = compute(strip);
    klt_record_leave(&computing);
    double* const old = strip->now;
    strip->now = strip->next;
    strip->next = old;
    /* The edge that isn't computed has to be in both. */
    if (rank == 0) {
      for (int j = 0; j < strip->columns; ++j) strip->now[j] = 100;
    }
    if (step % 50 == 0 || step == steps) {
      MPI_Allreduce(&largest, &overall, 1, MPI_DOUBLE, MPI_MAX, MPI_COMM_WORLD);
      klt_record_measure(&change, "largest change", "K", overall);
    }
  }
  return overall;
}

int main(int argc, char** argv) {
  int rank = 0;
  int size = 1;
  MPI_Init(&argc, &argv);
  MPI_Comm_rank(MPI_COMM_WORLD, &rank);
  MPI_Comm_size(MPI_COMM_WORLD, &size);
  const int rows = argc > 1 ? atoi(argv[1]) : 400;
  const int steps = argc > 2 ? atoi(argv[2]) : 500;
  if (rows < size || rows > 20000 || steps < 1) {
    if (rank == 0) fprintf(stderr, "usage: heat [ROWS [STEPS]], with a row for each process\n");
    MPI_Finalize();
    return 1;
  }
  struct strip strip = makeStrip(rows, rank, size);
  const double change = solve(&strip, rank, size, steps);
  const double mine = sumOf(&strip);
  double all = 0;
  MPI_Reduce(&mine, &all, 1, MPI_DOUBLE, MPI_SUM, 0, MPI_COMM_WORLD);
  if (rank == 0)
    printf("%d x %d points, %d steps: mean %.6f, last change %.6f\n", rows, rows, steps,
           all / rows / rows, change);
  free(strip.now);
  free(strip.next);
  MPI_Finalize();
  return 0;
}
