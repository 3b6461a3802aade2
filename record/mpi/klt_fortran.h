/* Converts Fortran arguments for the actions of the table of calls.
 *
 * The Fortran library of Open MPI calls PMPI_ functions, which C wrappers don't see; that of MPICH
 * does so only for calls of mpi_f08 without a buffer, whose handles and statuses are those of C. */
#ifndef KLT_FORTRAN_H
#define KLT_FORTRAN_H

#include "record/mpi/klt_hooks.h"

/* A buffer, or the constant of C for that of Fortran. */
KLT_HIDDEN const void* klt_f_buffer(const void* buffer);
KLT_HIDDEN int klt_f_is_status_ignore(const MPI_Fint* status);
KLT_HIDDEN int klt_f_is_statuses_ignore(const MPI_Fint* statuses);
KLT_HIDDEN void klt_f_status(const MPI_Fint* from, MPI_Status* to);
/* Room for n statuses of Fortran. */
KLT_HIDDEN MPI_Fint* klt_f_statuses(struct klt_thread* t, int n);
/* These results are valid until the next call of the function in this thread. */
KLT_HIDDEN const MPI_Status* klt_f_convert_statuses(struct klt_thread* t, int n,
                                                    const MPI_Fint* statuses);
KLT_HIDDEN const MPI_Request* klt_f_requests(struct klt_thread* t, int n, const MPI_Fint* requests);
/* Datatypes by rank of a peer; of sends (0) or receives (1). */
KLT_HIDDEN const MPI_Datatype* klt_f_types(struct klt_thread* t, int receives, MPI_Comm comm,
                                           const MPI_Fint* types);
/* Indices, which begin at 1 in Fortran. */
KLT_HIDDEN const int* klt_f_indices(struct klt_thread* t, int n, const MPI_Fint* indices);
/* Copies at most 4096 bytes of a text that is filled with blanks. */
KLT_HIDDEN void klt_f_text(char* to, const char* text, int length);
/* Where MPI_Finalize writes its result; `error` may be null. */
KLT_HIDDEN void klt_f_finalize(MPI_Fint* error);

#endif
