/* What recording costs: the time of a loop of MPI_Irecv, MPI_Send and MPI_Wait of one process to
 * itself, and of a loop of a function that marks itself. Run by record_overhead.py.
 *
 * usage: record_overhead ROUNDS */
#include <mpi.h>
#include <stdio.h>
#include <stdlib.h>

#include "record/klt_record.h"

int main(int argc, char** argv) {
  const long rounds = argc > 1 ? strtol(argv[1], NULL, 10) : 1000000;
  static klt_record_id mark = KLT_RECORD_ID;
  int sent = 0, received = 0;
  MPI_Request request;
  MPI_Init(&argc, &argv);
  double best = 1e9, bestMark = 1e9;
  for (int part = 0; part < 10; ++part) {
    const double start = MPI_Wtime();
    for (long i = 0; i < rounds / 10; ++i) {
      MPI_Irecv(&received, 1, MPI_INT, 0, 1, MPI_COMM_SELF, &request);
      MPI_Send(&sent, 1, MPI_INT, 0, 1, MPI_COMM_SELF);
      MPI_Wait(&request, MPI_STATUS_IGNORE);
    }
    const double middle = MPI_Wtime();
    for (long i = 0; i < rounds / 10; ++i) {
      klt_record_enter(&mark, "mark");
      klt_record_leave(&mark);
    }
    const double end = MPI_Wtime();
    if (middle - start < best) best = middle - start;
    if (end - middle < bestMark) bestMark = end - middle;
  }
  printf("%.2f %.2f\n", best / (double)(rounds / 10) * 1e9, bestMark / (double)(rounds / 10) * 1e9);
  MPI_Finalize();
  return 0;
}
