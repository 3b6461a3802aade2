! Marks parts of a Fortran program in the trace that klt-record makes of it. Compile this file with
! the program, together with klt_record_fortran.c:
!
!   use klt_record
!   type(klt_id), save :: solve
!   call klt_enter(solve, 'solve')
!   ...
!   call klt_leave(solve)
!
! See klt_record.h for what the calls mean.
module klt_record
  use, intrinsic :: iso_c_binding
  implicit none
  private
  public :: klt_id, klt_enter, klt_leave, klt_begin, klt_end, klt_count, klt_measure
  public :: klt_comment, klt_pause, klt_resume

  type, bind(c) :: klt_id
    integer(c_int32_t) :: number = 0
  end type klt_id

  interface
    subroutine c_enter(id, name) bind(c, name='klt_record_f_enter')
      import :: klt_id, c_char
      type(klt_id), intent(inout) :: id
      character(kind=c_char), intent(in) :: name(*)
    end subroutine c_enter
    subroutine klt_leave(id) bind(c, name='klt_record_f_leave')
      import :: klt_id
      type(klt_id), intent(inout) :: id
    end subroutine klt_leave
    subroutine c_begin(id, name, instance) bind(c, name='klt_record_f_begin')
      import :: klt_id, c_char, c_int32_t
      type(klt_id), intent(inout) :: id
      character(kind=c_char), intent(in) :: name(*)
      integer(c_int32_t), value :: instance
    end subroutine c_begin
    subroutine klt_end(id, instance) bind(c, name='klt_record_f_end')
      import :: klt_id, c_int32_t
      type(klt_id), intent(inout) :: id
      integer(c_int32_t), value :: instance
    end subroutine klt_end
    subroutine c_count(id, name, unit, value) bind(c, name='klt_record_f_count')
      import :: klt_id, c_char, c_int64_t
      type(klt_id), intent(inout) :: id
      character(kind=c_char), intent(in) :: name(*), unit(*)
      integer(c_int64_t), value :: value
    end subroutine c_count
    subroutine c_measure(id, name, unit, value) bind(c, name='klt_record_f_measure')
      import :: klt_id, c_char, c_double
      type(klt_id), intent(inout) :: id
      character(kind=c_char), intent(in) :: name(*), unit(*)
      real(c_double), value :: value
    end subroutine c_measure
    subroutine c_comment(text) bind(c, name='klt_record_f_comment')
      import :: c_char
      character(kind=c_char), intent(in) :: text(*)
    end subroutine c_comment
    subroutine klt_pause() bind(c, name='klt_record_f_pause')
    end subroutine klt_pause
    subroutine klt_resume() bind(c, name='klt_record_f_resume')
    end subroutine klt_resume
  end interface

contains

  subroutine klt_enter(id, name)
    type(klt_id), intent(inout) :: id
    character(len=*), intent(in) :: name
    call c_enter(id, trim(name)//c_null_char)
  end subroutine klt_enter

  subroutine klt_begin(id, name, instance)
    type(klt_id), intent(inout) :: id
    character(len=*), intent(in) :: name
    integer(c_int32_t), intent(in) :: instance
    call c_begin(id, trim(name)//c_null_char, instance)
  end subroutine klt_begin

  subroutine klt_count(id, name, unit, value)
    type(klt_id), intent(inout) :: id
    character(len=*), intent(in) :: name, unit
    integer(c_int64_t), intent(in) :: value
    call c_count(id, trim(name)//c_null_char, trim(unit)//c_null_char, value)
  end subroutine klt_count

  subroutine klt_measure(id, name, unit, value)
    type(klt_id), intent(inout) :: id
    character(len=*), intent(in) :: name, unit
    real(c_double), intent(in) :: value
    call c_measure(id, trim(name)//c_null_char, trim(unit)//c_null_char, value)
  end subroutine klt_measure

  subroutine klt_comment(text)
    character(len=*), intent(in) :: text
    call c_comment(trim(text)//c_null_char)
  end subroutine klt_comment
end module klt_record
