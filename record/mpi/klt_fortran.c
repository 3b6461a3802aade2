/* Converts Fortran arguments. See klt_fortran.h. */
#include "record/mpi/klt_fortran.h"

#include <string.h>

#if defined(OPEN_MPI)
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

const void* klt_f_buffer(const void* buffer) {
  return is_mpi_fortran_in_place(buffer) ? MPI_IN_PLACE : buffer;
}

int klt_f_is_status_ignore(const MPI_Fint* status) { return is_mpi_fortran_status_ignore(status); }

int klt_f_is_statuses_ignore(const MPI_Fint* statuses) {
  return is_mpi_fortran_statuses_ignore(statuses);
}

void klt_f_status(const MPI_Fint* from, MPI_Status* to) { PMPI_Status_f2c(from, to); }

static int firstIndex(void) { return 1; }
#else
#pragma weak MPI_F08_STATUS_IGNORE
#pragma weak MPI_F08_STATUSES_IGNORE
const void* klt_f_buffer(const void* buffer) { return buffer; }

int klt_f_is_status_ignore(const MPI_Fint* status) {
  return (const void*)status == (const void*)MPI_F08_STATUS_IGNORE;
}

int klt_f_is_statuses_ignore(const MPI_Fint* statuses) {
  return (const void*)statuses == (const void*)MPI_F08_STATUSES_IGNORE;
}

void klt_f_status(const MPI_Fint* from, MPI_Status* to) { memcpy(to, from, sizeof *to); }

void pmpir_waitany_f08_(const MPI_Fint* n, MPI_Fint* requests, MPI_Fint* index, MPI_Fint* status,
                        MPI_Fint* error);

/* In some versions of MPICH the indices of mpi_f08 begin at 0 instead of 1. */
static int firstIndex(void) {
  static int first = -1;
  if (first >= 0) return first;
  const MPI_Fint one = 1;
  MPI_Request request;
  MPI_Fint index = 1;
  MPI_Fint error;
  MPI_Fint status[sizeof(MPI_Status) / sizeof(MPI_Fint)];
  PMPI_Isend(NULL, 0, MPI_BYTE, MPI_PROC_NULL, 0, MPI_COMM_WORLD, &request);
  pmpir_waitany_f08_(&one, &request, &index, status, &error);
  return first = index == 0 ? 0 : 1;
}
#endif

enum { STATUSES = 1, HANDLES = 2, CONVERTED = 3 };
enum { STATUS_INTS = sizeof(MPI_Status) / sizeof(MPI_Fint) };

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
  for (int i = 0; i < n; ++i) klt_f_status(statuses + (size_t)i * STATUS_INTS, &converted[i]);
  return converted;
}

const MPI_Request* klt_f_requests(struct klt_thread* t, int n, const MPI_Fint* requests) {
  static const MPI_Request none;
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
  const int first = firstIndex();
  int* converted = n <= 0 ? NULL : klt_scratch(t, HANDLES, (size_t)n * sizeof *converted);
  for (int i = 0; converted != NULL && i < n; ++i)
    converted[i] = indices[i] == MPI_UNDEFINED ? MPI_UNDEFINED : indices[i] - first;
  return converted == NULL ? &none : converted;
}

void klt_f_text(char* to, const char* text, int length) {
  while (length > 0 && text[length - 1] == ' ') --length;
  if (length > 4096) length = 4096;
  if (length < 0) length = 0;
  memcpy(to, text, (size_t)length);
  to[length] = '\0';
}

void klt_f_finalize(MPI_Fint* error) {
  const int result = MPI_Finalize();
  if (error != NULL) *error = result;
}

/* MPI_Pcontrol has a variable number of arguments in C, so its entry points aren't made from the
 * table. */
#if defined(OPEN_MPI)
void ompi_pcontrol_f(const MPI_Fint* level);
void ompi_pcontrol_f(const MPI_Fint* level) { MPI_Pcontrol(*level); }
#define PCONTROL(name) \
  void name(const MPI_Fint* level) __attribute__((weak, alias("ompi_pcontrol_f")))
PCONTROL(mpi_pcontrol);
PCONTROL(mpi_pcontrol_);
PCONTROL(mpi_pcontrol__);
PCONTROL(MPI_PCONTROL);
PCONTROL(MPI_Pcontrol_f);
PCONTROL(MPI_Pcontrol_f08);
#else
void mpi_pcontrol_f08_(const MPI_Fint* level);
void mpi_pcontrol_f08_(const MPI_Fint* level) { MPI_Pcontrol(*level); }
#endif
