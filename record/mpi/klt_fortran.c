/* Converts Fortran arguments. See klt_fortran.h. */
#include "record/mpi/klt_fortran.h"

#include <string.h>

/* The addresses of constants of Open MPI's Fortran interfaces, in every spelling of compilers.
 * Those of a program without Fortran are null. */
#define CONSTANT(name, NAME)                                                     \
  extern int name __attribute__((weak));                                         \
  extern int name##_ __attribute__((weak));                                      \
  extern int name##__ __attribute__((weak));                                     \
  extern int NAME __attribute__((weak));                                         \
  static int is_##name(const void* address) {                                    \
    return address != NULL &&                                                    \
           (address == (const void*)&name || address == (const void*)&name##_ || \
            address == (const void*)&name##__ || address == (const void*)&NAME); \
  }
CONSTANT(mpi_fortran_in_place, MPI_FORTRAN_IN_PLACE)
CONSTANT(mpi_fortran_status_ignore, MPI_FORTRAN_STATUS_IGNORE)
CONSTANT(mpi_fortran_statuses_ignore, MPI_FORTRAN_STATUSES_IGNORE)

enum { STATUSES = 1, HANDLES = 2, CONVERTED = 3 };
enum { STATUS_INTS = sizeof(MPI_Status) / sizeof(MPI_Fint) };

const void* klt_f_buffer(const void* buffer) {
  return is_mpi_fortran_in_place(buffer) ? MPI_IN_PLACE : buffer;
}

int klt_f_is_status_ignore(const MPI_Fint* status) { return is_mpi_fortran_status_ignore(status); }

int klt_f_is_statuses_ignore(const MPI_Fint* statuses) {
  return is_mpi_fortran_statuses_ignore(statuses);
}

MPI_Fint* klt_f_statuses(struct klt_thread* t, int n) {
  static MPI_Fint none[STATUS_INTS];
  MPI_Fint* statuses =
      klt_scratch(t, STATUSES, (size_t)(n < 1 ? 1 : n) * STATUS_INTS * sizeof *statuses);
  return statuses == NULL ? none : statuses;
}

const MPI_Status* klt_f_convert_statuses(struct klt_thread* t, int n, const MPI_Fint* statuses) {
  if (t->kept == 0 || n <= 0) return MPI_STATUSES_IGNORE;
  MPI_Status* converted = klt_scratch(t, CONVERTED, (size_t)n * sizeof *converted);
  if (converted == NULL) return MPI_STATUSES_IGNORE;
  for (int i = 0; i < n; ++i) PMPI_Status_f2c(statuses + (size_t)i * STATUS_INTS, &converted[i]);
  return converted;
}

const MPI_Request* klt_f_requests(struct klt_thread* t, int n, const MPI_Fint* requests) {
  static const MPI_Request none = NULL;
  if (n <= 0) return &none;
  MPI_Request* converted = klt_scratch(t, HANDLES, (size_t)n * sizeof *converted);
  for (int i = 0; converted != NULL && i < n; ++i) converted[i] = PMPI_Request_f2c(requests[i]);
  return converted;
}

const MPI_Datatype* klt_f_types(struct klt_thread* t, int receives, MPI_Comm comm,
                                const MPI_Fint* types) {
  const struct klt_comm* known = klt_comm_of(t, comm);
  const int n = known == NULL ? 0 : known->peers;
  MPI_Datatype* converted =
      klt_scratch(t, receives ? CONVERTED : HANDLES, (size_t)(n + 1) * sizeof *converted);
  for (int i = 0; converted != NULL && i < n; ++i) converted[i] = PMPI_Type_f2c(types[i]);
  return converted;
}

const int* klt_f_indices(struct klt_thread* t, int n, const MPI_Fint* indices) {
  static const int none = MPI_UNDEFINED;
  int* converted = n <= 0 ? NULL : klt_scratch(t, HANDLES, (size_t)n * sizeof *converted);
  for (int i = 0; converted != NULL && i < n; ++i)
    converted[i] = indices[i] == MPI_UNDEFINED ? MPI_UNDEFINED : indices[i] - 1;
  return converted == NULL ? &none : converted;
}

void klt_f_text(char* to, const char* text, int length) {
  while (length > 0 && text[length - 1] == ' ') --length;
  if (length > 4096) length = 4096;
  if (length < 0) length = 0;
  memcpy(to, text, (size_t)length);
  to[length] = '\0';
}
