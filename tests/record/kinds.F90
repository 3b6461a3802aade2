! Counts what it sends, receives and calls like kinds.c, with one of the Fortran interfaces:
! compiled with -DMPIF, -DUSEMPI or -DF08.
!
! usage: kinds LOG [skip]
#ifdef F08
#define COMM type(MPI_Comm)
#define REQUEST type(MPI_Request)
#define STATUS(s) type(MPI_Status) :: s
#define STATUSES(s, n) type(MPI_Status) :: s(n)
#else
#define COMM integer
#define REQUEST integer
#define STATUS(s) integer :: s(MPI_STATUS_SIZE)
#define STATUSES(s, n) integer :: s(MPI_STATUS_SIZE, n)
#endif
#define CALLED(name) write(unit, '(a)') 'F ' // name; call
program kinds
#ifdef F08
  use mpi_f08
#endif
#ifdef USEMPI
  use mpi
#endif
  implicit none
#ifdef MPIF
  include 'mpif.h'
#endif
  integer, parameter :: unit = 20
  integer :: rank, nprocs, next, before, ierr, i, idx, n, indices(2)
  integer :: values(100), others(100)
  logical :: flag, skips
  character(len=1000) :: path
  COMM :: half, twin
  REQUEST :: requests(2), operation
  STATUS(state)
  STATUSES(states, 2)

  call MPI_Init(ierr)
  call MPI_Comm_rank(MPI_COMM_WORLD, rank, ierr)
  call MPI_Comm_size(MPI_COMM_WORLD, nprocs, ierr)
  call get_command_argument(1, path)
  skips = command_argument_count() > 1
  write(path, '(a,a,i0)') trim(path), '.', rank
  open(unit, file=trim(path), status='replace')
  write(unit, '(a)') 'F MPI_Init', 'F MPI_Comm_rank', 'F MPI_Comm_size', 'F MPI_Finalize'
  next = mod(rank + 1, nprocs)
  before = mod(rank + nprocs - 1, nprocs)
  values = rank
  do i = 1, 5
    CALLED('MPI_Irecv') MPI_Irecv(others, 100, MPI_INTEGER, MPI_ANY_SOURCE, MPI_ANY_TAG, MPI_COMM_WORLD, requests(1), ierr)
    CALLED('MPI_Isend') MPI_Isend(values, i, MPI_INTEGER, next, i, MPI_COMM_WORLD, requests(2), ierr)
    select case (i)
    case (1)
      CALLED('MPI_Wait') MPI_Wait(requests(1), MPI_STATUS_IGNORE, ierr)
      CALLED('MPI_Wait') MPI_Wait(requests(2), state, ierr)
    case (2)
      CALLED('MPI_Waitall') MPI_Waitall(2, requests, MPI_STATUSES_IGNORE, ierr)
    case (3)
      CALLED('MPI_Waitany') MPI_Waitany(2, requests, idx, MPI_STATUS_IGNORE, ierr)
      CALLED('MPI_Waitany') MPI_Waitany(2, requests, idx, state, ierr)
    case (4)
      flag = .false.
      do while (.not. flag)
        call MPI_Testall(2, requests, flag, states, ierr)
        if (flag .or. .not. skips) write(unit, '(a)') 'F MPI_Testall'
      end do
    case (5)
      n = 0
      do while (n < 2)
        CALLED('MPI_Waitsome') MPI_Waitsome(2, requests, idx, indices, MPI_STATUSES_IGNORE, ierr)
        n = n + idx
      end do
    end select
    write(unit, '(a,3(1x,i0))') 'S', next, i, 4 * i
    write(unit, '(a,3(1x,i0))') 'R', before, i, 4 * i
    CALLED('MPI_Barrier') MPI_Barrier(MPI_COMM_WORLD, ierr)
    write(unit, '(a)') 'C MPI_Barrier 0 0'
  end do
  do i = 1, 3
    call MPI_Iprobe(before, 99, MPI_COMM_WORLD, flag, MPI_STATUS_IGNORE, ierr)
    if (.not. skips) write(unit, '(a)') 'F MPI_Iprobe'
  end do
  CALLED('MPI_Sendrecv') MPI_Sendrecv(values, 7, MPI_INTEGER, next, 9, others, 100, MPI_INTEGER, before, 9, MPI_COMM_WORLD, MPI_STATUS_IGNORE, ierr)
  write(unit, '(a,3(1x,i0))') 'S', next, 9, 28
  write(unit, '(a,3(1x,i0))') 'R', before, 9, 28
  if (nprocs == 1) then
    CALLED('MPI_Send') MPI_Send(values, 1, MPI_INTEGER, MPI_PROC_NULL, 9, MPI_COMM_WORLD, ierr)
  else if (rank == 0) then
    CALLED('MPI_Send') MPI_Send(values, 3, MPI_INTEGER, 1, 10, MPI_COMM_WORLD, ierr)
    write(unit, '(a)') 'S 1 10 12'
  else if (rank == 1) then
    CALLED('MPI_Probe') MPI_Probe(0, MPI_ANY_TAG, MPI_COMM_WORLD, MPI_STATUS_IGNORE, ierr)
    CALLED('MPI_Recv') MPI_Recv(others, 100, MPI_INTEGER, MPI_ANY_SOURCE, 10, MPI_COMM_WORLD, state, ierr)
    write(unit, '(a)') 'R 0 10 12'
  end if
  CALLED('MPI_Recv_init') MPI_Recv_init(others, 100, MPI_INTEGER, before, 11, MPI_COMM_WORLD, requests(1), ierr)
  CALLED('MPI_Send_init') MPI_Send_init(values, 2, MPI_INTEGER, next, 11, MPI_COMM_WORLD, requests(2), ierr)
  CALLED('MPI_Startall') MPI_Startall(2, requests, ierr)
  CALLED('MPI_Waitall') MPI_Waitall(2, requests, states, ierr)
  write(unit, '(a,3(1x,i0))') 'S', next, 11, 8
  write(unit, '(a,3(1x,i0))') 'R', before, 11, 8
  CALLED('MPI_Comm_split') MPI_Comm_split(MPI_COMM_WORLD, mod(rank, 2), rank, half, ierr)
  CALLED('MPI_Allreduce') MPI_Allreduce(MPI_IN_PLACE, values, 4, MPI_INTEGER, MPI_SUM, half, ierr)
  write(unit, '(a)') 'C MPI_Allreduce 16 16'
  CALLED('MPI_Comm_size') MPI_Comm_size(half, n, ierr)
  CALLED('MPI_Allgather') MPI_Allgather(MPI_IN_PLACE, 0, MPI_DATATYPE_NULL, others, 2, MPI_INTEGER, half, ierr)
  write(unit, '(a,2(1x,i0))') 'C MPI_Allgather', 8, 8 * n
  CALLED('MPI_Bcast') MPI_Bcast(values, 5, MPI_INTEGER, 0, half, ierr)
  write(unit, '(a,2(1x,i0))') 'C MPI_Bcast', merge(20, 0, rank < 2), merge(0, 20, rank < 2)
  CALLED('MPI_Ibarrier') MPI_Ibarrier(half, operation, ierr)
  write(unit, '(a)') 'C MPI_Ibarrier 0 0'
  CALLED('MPI_Wait') MPI_Wait(operation, MPI_STATUS_IGNORE, ierr)
  CALLED('MPI_Comm_idup') MPI_Comm_idup(half, twin, operation, ierr)
  CALLED('MPI_Wait') MPI_Wait(operation, MPI_STATUS_IGNORE, ierr)
  CALLED('MPI_Reduce') MPI_Reduce(values, others, 1, MPI_INTEGER, MPI_MAX, 0, twin, ierr)
  write(unit, '(a,2(1x,i0))') 'C MPI_Reduce', 4, merge(4, 0, rank < 2)
  CALLED('MPI_Comm_free') MPI_Comm_free(twin, ierr)
  close(unit)
  call MPI_Finalize(ierr)
end program kinds
