! Fortran interface to a lockstep project served by every rank of an MPI
! communicator, over mpi_f08 and the C interface. Every call is collective
! and returns the same status on every rank; put and get take this rank's
! rows (its points of a mesh), which may be none.
!
!   use mpi_f08
!   use lockstep_mpi
!   type(lockstep_mpi_project_t) :: project
!   if (lockstep_mpi_open(project, '../sub1', MPI_COMM_WORLD) /= LOCKSTEP_PROJECT_OK) error stop project%error()
!   status = project%wait(cycle, time_step, stage)
!   status = project%put('temperature', my_rows)
!   status = project%done()
!   call project%close()
module lockstep_mpi
  use, intrinsic :: iso_c_binding, only: c_ptr, c_null_ptr, c_associated, c_char, c_int, c_null_char, c_int64_t, &
                                         c_double, c_int32_t, c_loc
  use mpi_f08, only: MPI_Comm
  use lockstep_project, only: lockstep_buffer_text, lockstep_c_text, &
                              LOCKSTEP_PROJECT_OK, LOCKSTEP_PROJECT_ERROR, LOCKSTEP_PROJECT_OUT_OF_ORDER, &
                              LOCKSTEP_PROJECT_OVERRUN, LOCKSTEP_FIELD_STALE, LOCKSTEP_ACCEPT_STAGE, &
                              LOCKSTEP_ACCEPT_TIME_STEP, LOCKSTEP_ACCEPT_ANY
  implicit none
  private

  public :: LOCKSTEP_PROJECT_OK, LOCKSTEP_PROJECT_ERROR, LOCKSTEP_PROJECT_OUT_OF_ORDER, LOCKSTEP_PROJECT_OVERRUN, &
            LOCKSTEP_FIELD_STALE, LOCKSTEP_ACCEPT_STAGE, LOCKSTEP_ACCEPT_TIME_STEP, LOCKSTEP_ACCEPT_ANY
  public :: lockstep_mpi_open

  integer(c_int), parameter :: c_float64 = 1, c_int32 = 2, c_column_major = 1
  integer(c_int), parameter :: error_capacity = 4096

  type, public :: lockstep_mpi_project_t
    private
    type(c_ptr) :: handle = c_null_ptr
    character(len=:), allocatable :: open_error
  contains
    procedure :: wait => project_wait
    procedure :: done => project_done
    procedure :: checkpoint => project_checkpoint
    procedure :: resumes_after => project_resumes_after
    procedure :: cannot_resume => project_cannot_resume
    procedure :: abort => project_abort
    procedure :: error => project_error
    ! This rank's rows: real(8) and integer(4) arrays of rank 1 and 2, the
    ! first index counting the rows.
    generic :: put => put_real_1, put_real_2, put_int32_1, put_int32_2
    generic :: get => get_real_1, get_real_2, get_int32_1, get_int32_2
    procedure, private :: put_real_1, put_real_2, put_int32_1, put_int32_2
    procedure, private :: get_real_1, get_real_2, get_int32_1, get_int32_2
    procedure :: close => project_close
  end type

  interface
    type(c_ptr) function c_open(directory, communicator, error, error_size) bind(c, name='lockstep_mpi_open_fortran')
      import :: c_ptr, c_char, c_int
      character(kind=c_char), intent(in) :: directory(*)
      integer(c_int), value :: communicator
      character(kind=c_char), intent(inout) :: error(*)
      integer(c_int), value :: error_size
    end function
    integer(c_int) function c_wait(project, cycle, time_step, stage) bind(c, name='lockstep_mpi_wait')
      import :: c_ptr, c_int
      type(c_ptr), value :: project
      integer(c_int), intent(out) :: cycle, time_step, stage
    end function
    integer(c_int) function c_done(project) bind(c, name='lockstep_mpi_done')
      import :: c_ptr, c_int
      type(c_ptr), value :: project
    end function
    integer(c_int) function c_checkpoint(project) bind(c, name='lockstep_mpi_checkpoint')
      import :: c_ptr, c_int
      type(c_ptr), value :: project
    end function
    integer(c_int) function c_resumes_after(project) bind(c, name='lockstep_mpi_resumes_after')
      import :: c_ptr, c_int
      type(c_ptr), value :: project
    end function
    integer(c_int) function c_cannot_resume(project, reason) bind(c, name='lockstep_mpi_cannot_resume')
      import :: c_ptr, c_int, c_char
      type(c_ptr), value :: project
      character(kind=c_char), intent(in) :: reason(*)
    end function
    subroutine c_abort(project, message) bind(c, name='lockstep_mpi_abort')
      import :: c_ptr, c_char
      type(c_ptr), value :: project
      character(kind=c_char), intent(in) :: message(*)
    end subroutine
    type(c_ptr) function c_error(project) bind(c, name='lockstep_mpi_error')
      import :: c_ptr
      type(c_ptr), value :: project
    end function
    subroutine c_close(project) bind(c, name='lockstep_mpi_close')
      import :: c_ptr
      type(c_ptr), value :: project
    end subroutine
    integer(c_int) function c_put(project, name, type, rank, shape, order, values) bind(c, name='lockstep_mpi_put')
      import :: c_ptr, c_int, c_char, c_int64_t
      type(c_ptr), value :: project
      character(kind=c_char), intent(in) :: name(*)
      integer(c_int), value :: type, rank, order
      integer(c_int64_t), intent(in) :: shape(*)
      type(c_ptr), value :: values
    end function
    integer(c_int) function c_get(project, name, type, rank, shape, order, values, accept) &
        bind(c, name='lockstep_mpi_get')
      import :: c_ptr, c_int, c_char, c_int64_t
      type(c_ptr), value :: project
      character(kind=c_char), intent(in) :: name(*)
      integer(c_int), value :: type, rank, order, accept
      integer(c_int64_t), intent(in) :: shape(*)
      type(c_ptr), value :: values
    end function
  end interface

contains

  ! Collective: opens and locks the project directory on the communicator's
  ! rank 0; LOCKSTEP_PROJECT_ERROR on every rank when it cannot.
  integer function lockstep_mpi_open(project, directory, communicator) result(status)
    type(lockstep_mpi_project_t), intent(inout) :: project
    character(len=*), intent(in) :: directory
    type(MPI_Comm), intent(in) :: communicator
    character(kind=c_char) :: error(error_capacity)

    call project%close()
    error = c_null_char
    project%handle = c_open(trim(directory) // c_null_char, int(communicator%MPI_VAL, c_int), error, error_capacity)
    if (c_associated(project%handle)) then
      project%open_error = ''
      status = LOCKSTEP_PROJECT_OK
      return
    end if
    project%open_error = lockstep_buffer_text(error)
    status = LOCKSTEP_PROJECT_ERROR
  end function

  ! The next request, the same on every rank.
  integer function project_wait(project, cycle, time_step, stage) result(status)
    class(lockstep_mpi_project_t), intent(inout) :: project
    integer, intent(out) :: cycle, time_step, stage
    integer(c_int) :: c_cycle, c_time_step, c_stage
    cycle = 0
    time_step = 0
    stage = 0
    status = LOCKSTEP_PROJECT_ERROR
    if (.not. c_associated(project%handle)) return
    status = c_wait(project%handle, c_cycle, c_time_step, c_stage)
    cycle = c_cycle
    time_step = c_time_step
    stage = c_stage
  end function

  ! Reports the request done once every rank calls it, none having failed.
  integer function project_done(project) result(status)
    class(lockstep_mpi_project_t), intent(inout) :: project
    status = LOCKSTEP_PROJECT_ERROR
    if (c_associated(project%handle)) status = c_done(project%handle)
  end function

  ! In the cycle-end request, once every rank has saved its own state.
  integer function project_checkpoint(project) result(status)
    class(lockstep_mpi_project_t), intent(inout) :: project
    status = LOCKSTEP_PROJECT_ERROR
    if (c_associated(project%handle)) status = c_checkpoint(project%handle)
  end function

  ! The cycle after which this run resumes; 0 for a run from its beginning.
  integer function project_resumes_after(project) result(cycle)
    class(lockstep_mpi_project_t), intent(in) :: project
    cycle = 0
    if (c_associated(project%handle)) cycle = c_resumes_after(project%handle)
  end function

  integer function project_cannot_resume(project, reason) result(status)
    class(lockstep_mpi_project_t), intent(inout) :: project
    character(len=*), intent(in) :: reason
    status = LOCKSTEP_PROJECT_ERROR
    if (c_associated(project%handle)) status = c_cannot_resume(project%handle, trim(reason) // c_null_char)
  end function

  ! For a failure of this rank outside these calls: says so and ends every
  ! rank, so that none waits for this one forever.
  subroutine project_abort(project, message)
    class(lockstep_mpi_project_t), intent(inout) :: project
    character(len=*), intent(in) :: message
    if (c_associated(project%handle)) call c_abort(project%handle, trim(message) // c_null_char)
    error stop message
  end subroutine

  function project_error(project) result(message)
    class(lockstep_mpi_project_t), intent(in) :: project
    character(len=:), allocatable :: message

    if (.not. c_associated(project%handle)) then
      message = 'the project directory is not open'
      if (allocated(project%open_error)) then
        if (len(project%open_error) > 0) message = project%open_error
      end if
      return
    end if
    message = lockstep_c_text(c_error(project%handle))
  end function

  integer function put_real_1(project, field, values) result(status)
    class(lockstep_mpi_project_t), intent(inout) :: project
    character(len=*), intent(in) :: field
    real(c_double), contiguous, target, intent(in) :: values(:)
    status = field_call(project, field, c_float64, shape(values, kind=c_int64_t), c_loc(values), .true.)
  end function

  integer function get_real_1(project, field, values, accept) result(status)
    class(lockstep_mpi_project_t), intent(inout) :: project
    character(len=*), intent(in) :: field
    real(c_double), contiguous, target, intent(inout) :: values(:)
    integer, intent(in), optional :: accept
    status = field_call(project, field, c_float64, shape(values, kind=c_int64_t), c_loc(values), .false., accept)
  end function

  integer function put_real_2(project, field, values) result(status)
    class(lockstep_mpi_project_t), intent(inout) :: project
    character(len=*), intent(in) :: field
    real(c_double), contiguous, target, intent(in) :: values(:, :)
    status = field_call(project, field, c_float64, shape(values, kind=c_int64_t), c_loc(values), .true.)
  end function

  integer function get_real_2(project, field, values, accept) result(status)
    class(lockstep_mpi_project_t), intent(inout) :: project
    character(len=*), intent(in) :: field
    real(c_double), contiguous, target, intent(inout) :: values(:, :)
    integer, intent(in), optional :: accept
    status = field_call(project, field, c_float64, shape(values, kind=c_int64_t), c_loc(values), .false., accept)
  end function

  integer function put_int32_1(project, field, values) result(status)
    class(lockstep_mpi_project_t), intent(inout) :: project
    character(len=*), intent(in) :: field
    integer(c_int32_t), contiguous, target, intent(in) :: values(:)
    status = field_call(project, field, c_int32, shape(values, kind=c_int64_t), c_loc(values), .true.)
  end function

  integer function get_int32_1(project, field, values, accept) result(status)
    class(lockstep_mpi_project_t), intent(inout) :: project
    character(len=*), intent(in) :: field
    integer(c_int32_t), contiguous, target, intent(inout) :: values(:)
    integer, intent(in), optional :: accept
    status = field_call(project, field, c_int32, shape(values, kind=c_int64_t), c_loc(values), .false., accept)
  end function

  integer function put_int32_2(project, field, values) result(status)
    class(lockstep_mpi_project_t), intent(inout) :: project
    character(len=*), intent(in) :: field
    integer(c_int32_t), contiguous, target, intent(in) :: values(:, :)
    status = field_call(project, field, c_int32, shape(values, kind=c_int64_t), c_loc(values), .true.)
  end function

  integer function get_int32_2(project, field, values, accept) result(status)
    class(lockstep_mpi_project_t), intent(inout) :: project
    character(len=*), intent(in) :: field
    integer(c_int32_t), contiguous, target, intent(inout) :: values(:, :)
    integer, intent(in), optional :: accept
    status = field_call(project, field, c_int32, shape(values, kind=c_int64_t), c_loc(values), .false., accept)
  end function

  integer function field_call(project, field, type, shape, values, put, accept) result(status)
    class(lockstep_mpi_project_t), intent(inout) :: project
    character(len=*), intent(in) :: field
    integer(c_int), intent(in) :: type
    integer(c_int64_t), intent(in) :: shape(:)
    type(c_ptr), intent(in) :: values
    logical, intent(in) :: put
    integer, intent(in), optional :: accept
    integer(c_int) :: rule
    status = LOCKSTEP_PROJECT_ERROR
    if (.not. c_associated(project%handle)) return
    if (put) then
      status = c_put(project%handle, trim(field) // c_null_char, type, size(shape, kind=c_int), shape, &
                     c_column_major, values)
    else
      rule = LOCKSTEP_ACCEPT_STAGE
      if (present(accept)) rule = int(accept, c_int)
      status = c_get(project%handle, trim(field) // c_null_char, type, size(shape, kind=c_int), shape, &
                     c_column_major, values, rule)
    end if
  end function

  ! Collective: releases the directory.
  subroutine project_close(project)
    class(lockstep_mpi_project_t), intent(inout) :: project
    if (c_associated(project%handle)) call c_close(project%handle)
    project%handle = c_null_ptr
  end subroutine
end module lockstep_mpi
