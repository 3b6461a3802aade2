/* Small kernels with the communication of usual benchmarks, to measure what klt-record costs. They
 * print the seconds between MPI_Init and MPI_Finalize.
 *
 *   cg  conjugate gradients on a sparse matrix: exchanges of vectors, sums over all processes
 *   is  sort of integers: an all-to-all of counts, then one of the keys
 *   ft  transposition of a matrix in each step, as a Fourier transform in several dimensions has it
 *   lu  a sweep through rows of blocks, a small message after each: many messages, little work
 *
 * usage: record_kernels cg|is|ft|lu STEPS */
#include <math.h>
#include <mpi.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { ROWS = 200000, ENTRIES = 16, KEYS = 1 << 20, EDGE = 1024, BLOCKS = 200, BLOCK = 2000 };

static int rank, size;

static void* allocate(size_t count, size_t bytes) {
  void* memory = calloc(count, bytes);
  if (memory == NULL) MPI_Abort(MPI_COMM_WORLD, 1);
  return memory;
}

/* A number that looks random, from 0 to `limit` - 1. */
static int draw(unsigned* state, int limit) {
  *state = *state * 1103515245U + 12345U;
  return (int)((*state >> 8) % (unsigned)limit);
}

static double product(const double* a, const double* b, int count) {
  double sum = 0;
  for (int i = 0; i < count; ++i) sum += a[i] * b[i];
  MPI_Allreduce(MPI_IN_PLACE, &sum, 1, MPI_DOUBLE, MPI_SUM, MPI_COMM_WORLD);
  return sum;
}

static void conjugateGradients(int steps) {
  const int rows = ROWS / size;
  int* columns = allocate((size_t)rows * ENTRIES, sizeof(int));
  double* all = allocate((size_t)rows * (size_t)size, sizeof(double));
  double* r = allocate((size_t)rows, sizeof(double));
  double* p = allocate((size_t)rows, sizeof(double));
  double* q = allocate((size_t)rows, sizeof(double));
  unsigned state = (unsigned)rank + 1;
  for (int i = 0; i < rows * ENTRIES; ++i) columns[i] = draw(&state, rows * size);
  for (int i = 0; i < rows; ++i) r[i] = p[i] = 1.0 / (1 + i);
  double rho = product(r, r, rows);
  for (int step = 0; step < steps; ++step) {
    MPI_Allgather(p, rows, MPI_DOUBLE, all, rows, MPI_DOUBLE, MPI_COMM_WORLD);
    for (int i = 0; i < rows; ++i) {
      q[i] = 20 * p[i];
      for (int j = 0; j < ENTRIES; ++j) q[i] -= 0.5 * all[columns[i * ENTRIES + j]];
    }
    const double alpha = rho / product(p, q, rows);
    for (int i = 0; i < rows; ++i) r[i] -= alpha * q[i];
    const double next = product(r, r, rows);
    for (int i = 0; i < rows; ++i) p[i] = r[i] + next / rho * p[i];
    rho = next;
  }
  free(columns), free(all), free(r), free(p), free(q);
}

static void sortIntegers(int steps) {
  int* keys = allocate(KEYS, sizeof(int));
  int* sorted = allocate(KEYS, sizeof(int));
  int* received = allocate((size_t)KEYS * 2, sizeof(int));
  int* of = allocate((size_t)size * 4, sizeof(int));
  int *count = of, *start = of + size, *come = of + 2 * size, *at = of + 3 * size;
  unsigned state = (unsigned)rank + 1;
  for (int step = 0; step < steps; ++step) {
    memset(of, 0, (size_t)size * 4 * sizeof(int));
    for (int i = 0; i < KEYS; ++i) ++count[(keys[i] = draw(&state, KEYS)) * (long)size / KEYS];
    MPI_Alltoall(count, 1, MPI_INT, come, 1, MPI_INT, MPI_COMM_WORLD);
    for (int i = 1; i < size; ++i) {
      start[i] = start[i - 1] + count[i - 1];
      at[i] = at[i - 1] + come[i - 1];
    }
    for (int i = 0; i < KEYS; ++i) sorted[start[keys[i] * (long)size / KEYS]++] = keys[i];
    for (int i = 0; i < size; ++i) start[i] -= count[i];
    MPI_Alltoallv(sorted, count, start, MPI_INT, received, come, at, MPI_INT, MPI_COMM_WORLD);
  }
  free(keys), free(sorted), free(received), free(of);
}

static void transpose(int steps) {
  const int rows = EDGE / size, edge = rows * size;
  double* mine = allocate((size_t)rows * (size_t)edge, sizeof(double));
  double* other = allocate((size_t)rows * (size_t)edge, sizeof(double));
  for (int step = 0; step < steps; ++step) {
    for (int i = 0; i < rows * edge; ++i) mine[i] = sin(mine[i] + i);
    MPI_Alltoall(mine, rows * rows, MPI_DOUBLE, other, rows * rows, MPI_DOUBLE, MPI_COMM_WORLD);
    double* swap = mine;
    mine = other;
    other = swap;
  }
  free(mine), free(other);
}

static void sweep(int steps) {
  double* blocks = allocate((size_t)BLOCKS * BLOCK, sizeof(double));
  for (int step = 0; step < steps; ++step) {
    for (int block = 0; block < BLOCKS; ++block) {
      double* row = blocks + block * BLOCK;
      if (rank > 0) MPI_Recv(row, 10, MPI_DOUBLE, rank - 1, 0, MPI_COMM_WORLD, MPI_STATUS_IGNORE);
      for (int i = 1; i < BLOCK; ++i) row[i] = 0.5 * row[i] + 0.3 * sqrt(row[i - 1] + 1);
      if (rank + 1 < size) MPI_Send(row, 10, MPI_DOUBLE, rank + 1, 0, MPI_COMM_WORLD);
    }
  }
  free(blocks);
}

int main(int argc, char** argv) {
  MPI_Init(&argc, &argv);
  MPI_Comm_rank(MPI_COMM_WORLD, &rank);
  MPI_Comm_size(MPI_COMM_WORLD, &size);
  const char* kind = argc == 3 ? argv[1] : "";
  const int steps = argc == 3 ? atoi(argv[2]) : 0;
  MPI_Barrier(MPI_COMM_WORLD);
  const double start = MPI_Wtime();
  if (strcmp(kind, "cg") == 0) conjugateGradients(steps);
  if (strcmp(kind, "is") == 0) sortIntegers(steps);
  if (strcmp(kind, "ft") == 0) transpose(steps);
  if (strcmp(kind, "lu") == 0) sweep(steps);
  MPI_Barrier(MPI_COMM_WORLD);
  if (rank == 0) printf("%.6f seconds\n", MPI_Wtime() - start);
  MPI_Finalize();
  return 0;
}
