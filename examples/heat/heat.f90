! Heat in a square plate: the solver of heat.c in Fortran with mpi_f08. Its functions are recorded
! through the compiler:
!
!   mpif90 -O2 -finstrument-functions heat.f90 -o heat_f && mpirun -n 4 klt-record ./heat_f
!
! usage: heat_f [COLUMNS [STEPS]]
module plate
  use mpi_f08
  implicit none
  integer, parameter :: real8 = kind(1.0d0)
  integer, parameter :: leftward = 1, rightward = 2
  ! A strip of columns, with a column of the neighbour on each side.
  real(real8), allocatable :: now(:, :), next(:, :)
  integer :: rank, nprocs, rows, columns, left, right

contains

  subroutine make_strip(total)
    integer, intent(in) :: total
    rows = total
    columns = total / nprocs
    if (rank < mod(total, nprocs)) columns = columns + 1
    allocate (now(rows, 0:columns + 1), next(rows, 0:columns + 1))
    now = 0
    next = 0
    left = merge(MPI_PROC_NULL, rank - 1, rank == 0)
    right = merge(MPI_PROC_NULL, rank + 1, rank == nprocs - 1)
    if (rank == 0) call heat_edge()
  end subroutine make_strip

  ! The left edge is hot.
  subroutine heat_edge()
    now(:, 0) = 100
    next(:, 0) = 100
  end subroutine heat_edge

  subroutine exchange()
    type(MPI_Request) :: requests(4)
    call MPI_Irecv(now(:, 0), rows, MPI_DOUBLE_PRECISION, left, rightward, MPI_COMM_WORLD, requests(1))
    call MPI_Irecv(now(:, columns + 1), rows, MPI_DOUBLE_PRECISION, right, leftward, MPI_COMM_WORLD, requests(2))
    call MPI_Isend(now(:, 1), rows, MPI_DOUBLE_PRECISION, left, leftward, MPI_COMM_WORLD, requests(3))
    call MPI_Isend(now(:, columns), rows, MPI_DOUBLE_PRECISION, right, rightward, MPI_COMM_WORLD, requests(4))
    call MPI_Waitall(4, requests, MPI_STATUSES_IGNORE)
  end subroutine exchange

  ! Computes the next temperatures and the largest change.
  subroutine compute(largest)
    real(real8), intent(out) :: largest
    integer :: i, j
    largest = 0
    do j = 1, columns
      do i = 2, rows - 1
        next(i, j) = 0.25_real8 * (now(i - 1, j) + now(i + 1, j) + now(i, j - 1) + now(i, j + 1))
        largest = max(largest, abs(next(i, j) - now(i, j)))
      end do
    end do
  end subroutine compute

  subroutine solve(steps, overall)
    integer, intent(in) :: steps
    real(real8), intent(out) :: overall
    real(real8) :: largest
    integer :: step
    overall = 0
    do step = 1, steps
      call exchange()
      call compute(largest)
      now(:, 1:columns) = next(:, 1:columns)
      if (mod(step, 50) == 0 .or. step == steps) &
        call MPI_Allreduce(largest, overall, 1, MPI_DOUBLE_PRECISION, MPI_MAX, MPI_COMM_WORLD)
    end do
  end subroutine solve

end module plate

program heat
  use plate
  implicit none
  integer :: total, steps
  real(real8) :: overall, mine, all
  call MPI_Init()
  call MPI_Comm_rank(MPI_COMM_WORLD, rank)
  call MPI_Comm_size(MPI_COMM_WORLD, nprocs)
  total = argument(1, 400)
  steps = argument(2, 500)
  if (total < nprocs .or. total > 20000 .or. steps < 1) then
    if (rank == 0) print '(a)', 'usage: heat_f [COLUMNS [STEPS]], with a column for each process'
    call MPI_Finalize()
    stop
  end if
  call make_strip(total)
  call solve(steps, overall)
  mine = sum(now(:, 1:columns))
  call MPI_Reduce(mine, all, 1, MPI_DOUBLE_PRECISION, MPI_SUM, 0, MPI_COMM_WORLD)
  if (rank == 0) print '(i0,a,i0,a,i0,a,f0.6,a,f0.6)', total, ' x ', total, ' points, ', steps, &
    ' steps: mean ', all / total / total, ', last change ', overall
  call MPI_Finalize()

contains

  integer function argument(position, otherwise)
    integer, intent(in) :: position, otherwise
    character(len=32) :: text
    integer :: failed
    argument = otherwise
    if (command_argument_count() < position) return
    call get_command_argument(position, text)
    read (text, *, iostat=failed) argument
    if (failed /= 0) argument = 0
  end function argument
end program heat
