! Fortran interface to a lockstep project directory, over the C interface:
! Fortran strings in and out, the handle kept inside a derived type.
!
!   use lockstep_project
!   type(lockstep_project_t) :: project
!   if (lockstep_open(project, '../main') /= LOCKSTEP_PROJECT_OK) error stop project%error()
!   status = project%wait(cycle, time_step, stage)
!   ... carry out the request ...
!   status = project%done()
!   call project%close()
module lockstep_project
  use, intrinsic :: iso_c_binding, only: c_ptr, c_null_ptr, c_associated, c_char, c_int, c_size_t, &
                                         c_null_char, c_f_pointer, c_int64_t, c_double, c_int32_t, c_loc
  implicit none
  private

  integer, parameter, public :: LOCKSTEP_PROJECT_OK = 0
  integer, parameter, public :: LOCKSTEP_PROJECT_ERROR = -1
  ! wait: the request does not come after the last one served (the driver
  ! was restarted); its numbers are returned all the same.
  integer, parameter, public :: LOCKSTEP_PROJECT_OUT_OF_ORDER = -2
  ! done: the driver no longer waits for the request; nothing was written.
  integer, parameter, public :: LOCKSTEP_PROJECT_OVERRUN = -3
  ! put / get: the field is not the one this request needs.
  integer, parameter, public :: LOCKSTEP_FIELD_STALE = -4
  ! get: how recent an input must be; this stage unless asked otherwise.
  integer, parameter, public :: LOCKSTEP_ACCEPT_STAGE = 0
  integer, parameter, public :: LOCKSTEP_ACCEPT_TIME_STEP = 1
  integer, parameter, public :: LOCKSTEP_ACCEPT_ANY = 2

  integer(c_int), parameter :: c_float64 = 1, c_int32 = 2, c_int64 = 3, c_column_major = 1

  type, public :: lockstep_project_t
    private
    type(c_ptr) :: handle = c_null_ptr
    character(len=:), allocatable :: open_error
  contains
    procedure :: lock => project_lock
    procedure :: wait => project_wait
    procedure :: done => project_done
    procedure :: checkpoint => project_checkpoint
    procedure :: resumes_after => project_resumes_after
    procedure :: cannot_resume => project_cannot_resume
    procedure :: error => project_error
    ! Fields: real(8), integer(4) and integer(8) arrays of rank 1 and 2,
    ! stored in Fortran's order, so that Python sees a(i, j) as a[i-1, j-1].
    generic :: put => put_real_1, put_real_2, put_int32_1, put_int32_2, put_int64_1, put_int64_2
    generic :: get => get_real_1, get_real_2, get_int32_1, get_int32_2, get_int64_1, get_int64_2
    procedure, private :: put_real_1, put_real_2, put_int32_1, put_int32_2, put_int64_1, put_int64_2
    procedure, private :: get_real_1, get_real_2, get_int32_1, get_int32_2, get_int64_1, get_int64_2
    procedure :: close => project_close
  end type

  ! An interaction program's context: the project it serves and its stage,
  ! from the program's arguments and the settings in its working directory.
  type, public :: lockstep_interaction_t
    private
    type(c_ptr) :: handle = c_null_ptr
    character(len=:), allocatable :: open_error
  contains
    procedure :: request => interaction_request
    procedure :: error => interaction_error
    procedure :: close => interaction_close
    ! get: another project's newest output; put: this project's input.
    generic :: get => iget_real_1, iget_real_2, iget_int32_1, iget_int32_2, iget_int64_1, iget_int64_2
    generic :: put => iput_real_1, iput_real_2, iput_int32_1, iput_int32_2, iput_int64_1, iput_int64_2
    procedure, private :: iget_real_1, iget_real_2, iget_int32_1, iget_int32_2, iget_int64_1, iget_int64_2
    procedure, private :: iput_real_1, iput_real_2, iput_int32_1, iput_int32_2, iput_int64_1, iput_int64_2
  end type

  public :: lockstep_open, lockstep_interaction_open
  ! For modules over other C interfaces of the library (lockstep_mpi).
  public :: lockstep_buffer_text, lockstep_c_text

  integer(c_int), parameter :: error_capacity = 4096

  interface
    type(c_ptr) function c_open(directory, error, error_size) bind(c, name='lockstep_project_open')
      import :: c_ptr, c_char, c_int
      character(kind=c_char), intent(in) :: directory(*)
      character(kind=c_char), intent(out) :: error(*)
      integer(c_int), value :: error_size
    end function
    integer(c_int) function c_lock(project) bind(c, name='lockstep_project_lock')
      import :: c_ptr, c_int
      type(c_ptr), value :: project
    end function
    integer(c_int) function c_wait(project, cycle, time_step, stage) bind(c, name='lockstep_project_wait')
      import :: c_ptr, c_int
      type(c_ptr), value :: project
      integer(c_int), intent(out) :: cycle, time_step, stage
    end function
    integer(c_int) function c_done(project) bind(c, name='lockstep_project_done')
      import :: c_ptr, c_int
      type(c_ptr), value :: project
    end function
    integer(c_int) function c_checkpoint(project) bind(c, name='lockstep_project_checkpoint')
      import :: c_ptr, c_int
      type(c_ptr), value :: project
    end function
    integer(c_int) function c_resumes_after(project) bind(c, name='lockstep_project_resumes_after')
      import :: c_ptr, c_int
      type(c_ptr), value :: project
    end function
    integer(c_int) function c_cannot_resume(project, reason) bind(c, name='lockstep_project_cannot_resume')
      import :: c_ptr, c_int, c_char
      type(c_ptr), value :: project
      character(kind=c_char), intent(in) :: reason(*)
    end function
    type(c_ptr) function c_error(project) bind(c, name='lockstep_project_error')
      import :: c_ptr
      type(c_ptr), value :: project
    end function
    subroutine c_close(project) bind(c, name='lockstep_project_close')
      import :: c_ptr
      type(c_ptr), value :: project
    end subroutine
    integer(c_int) function c_put(project, name, type, rank, shape, order, values) &
        bind(c, name='lockstep_project_put')
      import :: c_ptr, c_char, c_int, c_int64_t
      type(c_ptr), value :: project
      character(kind=c_char), intent(in) :: name(*)
      integer(c_int), value :: type, rank, order
      integer(c_int64_t), intent(in) :: shape(*)
      type(c_ptr), value :: values
    end function
    integer(c_int) function c_get(project, name, type, rank, shape, order, values, accept) &
        bind(c, name='lockstep_project_get')
      import :: c_ptr, c_char, c_int, c_int64_t
      type(c_ptr), value :: project
      character(kind=c_char), intent(in) :: name(*)
      integer(c_int), value :: type, rank, order, accept
      integer(c_int64_t), intent(in) :: shape(*)
      type(c_ptr), value :: values
    end function
    type(c_ptr) function c_interaction_open(argc, argv, error, error_size) bind(c, name='lockstep_interaction_open')
      import :: c_ptr, c_char, c_int
      integer(c_int), value :: argc
      type(c_ptr), intent(in) :: argv(*)
      character(kind=c_char), intent(out) :: error(*)
      integer(c_int), value :: error_size
    end function
    subroutine c_interaction_request(interaction, project, cycle, time_step, stage) &
        bind(c, name='lockstep_interaction_request')
      import :: c_ptr, c_int
      type(c_ptr), value :: interaction
      integer(c_int), intent(out) :: project, cycle, time_step, stage
    end subroutine
    integer(c_int) function c_interaction_get(interaction, source, name, type, rank, shape, order, values, accept) &
        bind(c, name='lockstep_interaction_get')
      import :: c_ptr, c_char, c_int, c_int64_t
      type(c_ptr), value :: interaction
      integer(c_int), value :: source, type, rank, order, accept
      character(kind=c_char), intent(in) :: name(*)
      integer(c_int64_t), intent(in) :: shape(*)
      type(c_ptr), value :: values
    end function
    integer(c_int) function c_interaction_put(interaction, name, type, rank, shape, order, values) &
        bind(c, name='lockstep_interaction_put')
      import :: c_ptr, c_char, c_int, c_int64_t
      type(c_ptr), value :: interaction
      character(kind=c_char), intent(in) :: name(*)
      integer(c_int), value :: type, rank, order
      integer(c_int64_t), intent(in) :: shape(*)
      type(c_ptr), value :: values
    end function
    type(c_ptr) function c_interaction_error(interaction) bind(c, name='lockstep_interaction_error')
      import :: c_ptr
      type(c_ptr), value :: interaction
    end function
    subroutine c_interaction_close(interaction) bind(c, name='lockstep_interaction_close')
      import :: c_ptr
      type(c_ptr), value :: interaction
    end subroutine
    integer(c_size_t) function c_strlen(text) bind(c, name='strlen')
      import :: c_ptr, c_size_t
      type(c_ptr), value :: text
    end function
  end interface

contains

  ! Opens the project directory; LOCKSTEP_PROJECT_ERROR when it is missing or
  ! not writable, with the reason in project%error().
  integer function lockstep_open(project, directory) result(status)
    type(lockstep_project_t), intent(inout) :: project
    character(len=*), intent(in) :: directory
    character(kind=c_char) :: error(error_capacity)

    call project%close()
    error = c_null_char
    project%handle = c_open(trim(directory) // c_null_char, error, error_capacity)
    if (c_associated(project%handle)) then
      project%open_error = ''
      status = LOCKSTEP_PROJECT_OK
      return
    end if
    project%open_error = lockstep_buffer_text(error)
    status = LOCKSTEP_PROJECT_ERROR
  end function

  ! Takes the directory's lock, so that no other process serves it.
  integer function project_lock(project) result(status)
    class(lockstep_project_t), intent(inout) :: project
    status = LOCKSTEP_PROJECT_ERROR
    if (c_associated(project%handle)) status = c_lock(project%handle)
  end function

  ! Waits for the next request: time_step -1 and stage 5 for the cycle-end
  ! request.
  integer function project_wait(project, cycle, time_step, stage) result(status)
    class(lockstep_project_t), intent(inout) :: project
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

  ! Reports the request handed out done.
  integer function project_done(project) result(status)
    class(lockstep_project_t), intent(inout) :: project
    status = LOCKSTEP_PROJECT_ERROR
    if (c_associated(project%handle)) status = c_done(project%handle)
  end function

  ! In the cycle-end request, before done, once the solver has saved its
  ! state: this project can restart after this cycle.
  integer function project_checkpoint(project) result(status)
    class(lockstep_project_t), intent(inout) :: project
    status = LOCKSTEP_PROJECT_ERROR
    if (c_associated(project%handle)) status = c_checkpoint(project%handle)
  end function

  ! The cycle after which this run resumes, whose state the solver loads
  ! before its first request; 0 for a run that starts at its beginning.
  integer function project_resumes_after(project) result(cycle)
    class(lockstep_project_t), intent(in) :: project
    cycle = 0
    if (c_associated(project%handle)) cycle = c_resumes_after(project%handle)
  end function

  ! For a solver that cannot load its state after resumes_after(): the
  ! error then says what is wrong and what to do.
  integer function project_cannot_resume(project, reason) result(status)
    class(lockstep_project_t), intent(inout) :: project
    character(len=*), intent(in) :: reason
    status = LOCKSTEP_PROJECT_ERROR
    if (c_associated(project%handle)) status = c_cannot_resume(project%handle, trim(reason) // c_null_char)
  end function

  ! The reason for the last error.
  function project_error(project) result(message)
    class(lockstep_project_t), intent(in) :: project
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
    class(lockstep_project_t), intent(inout) :: project
    character(len=*), intent(in) :: field
    real(c_double), contiguous, target, intent(in) :: values(:)
    status = field_call(project, field, c_float64, shape(values, kind=c_int64_t), c_loc(values), .true.)
  end function

  integer function get_real_1(project, field, values, accept) result(status)
    class(lockstep_project_t), intent(inout) :: project
    character(len=*), intent(in) :: field
    real(c_double), contiguous, target, intent(inout) :: values(:)
    integer, intent(in), optional :: accept
    status = field_call(project, field, c_float64, shape(values, kind=c_int64_t), c_loc(values), .false., accept)
  end function

  integer function put_real_2(project, field, values) result(status)
    class(lockstep_project_t), intent(inout) :: project
    character(len=*), intent(in) :: field
    real(c_double), contiguous, target, intent(in) :: values(:, :)
    status = field_call(project, field, c_float64, shape(values, kind=c_int64_t), c_loc(values), .true.)
  end function

  integer function get_real_2(project, field, values, accept) result(status)
    class(lockstep_project_t), intent(inout) :: project
    character(len=*), intent(in) :: field
    real(c_double), contiguous, target, intent(inout) :: values(:, :)
    integer, intent(in), optional :: accept
    status = field_call(project, field, c_float64, shape(values, kind=c_int64_t), c_loc(values), .false., accept)
  end function

  integer function put_int32_1(project, field, values) result(status)
    class(lockstep_project_t), intent(inout) :: project
    character(len=*), intent(in) :: field
    integer(c_int32_t), contiguous, target, intent(in) :: values(:)
    status = field_call(project, field, c_int32, shape(values, kind=c_int64_t), c_loc(values), .true.)
  end function

  integer function get_int32_1(project, field, values, accept) result(status)
    class(lockstep_project_t), intent(inout) :: project
    character(len=*), intent(in) :: field
    integer(c_int32_t), contiguous, target, intent(inout) :: values(:)
    integer, intent(in), optional :: accept
    status = field_call(project, field, c_int32, shape(values, kind=c_int64_t), c_loc(values), .false., accept)
  end function

  integer function put_int32_2(project, field, values) result(status)
    class(lockstep_project_t), intent(inout) :: project
    character(len=*), intent(in) :: field
    integer(c_int32_t), contiguous, target, intent(in) :: values(:, :)
    status = field_call(project, field, c_int32, shape(values, kind=c_int64_t), c_loc(values), .true.)
  end function

  integer function get_int32_2(project, field, values, accept) result(status)
    class(lockstep_project_t), intent(inout) :: project
    character(len=*), intent(in) :: field
    integer(c_int32_t), contiguous, target, intent(inout) :: values(:, :)
    integer, intent(in), optional :: accept
    status = field_call(project, field, c_int32, shape(values, kind=c_int64_t), c_loc(values), .false., accept)
  end function

  integer function put_int64_1(project, field, values) result(status)
    class(lockstep_project_t), intent(inout) :: project
    character(len=*), intent(in) :: field
    integer(c_int64_t), contiguous, target, intent(in) :: values(:)
    status = field_call(project, field, c_int64, shape(values, kind=c_int64_t), c_loc(values), .true.)
  end function

  integer function get_int64_1(project, field, values, accept) result(status)
    class(lockstep_project_t), intent(inout) :: project
    character(len=*), intent(in) :: field
    integer(c_int64_t), contiguous, target, intent(inout) :: values(:)
    integer, intent(in), optional :: accept
    status = field_call(project, field, c_int64, shape(values, kind=c_int64_t), c_loc(values), .false., accept)
  end function

  integer function put_int64_2(project, field, values) result(status)
    class(lockstep_project_t), intent(inout) :: project
    character(len=*), intent(in) :: field
    integer(c_int64_t), contiguous, target, intent(in) :: values(:, :)
    status = field_call(project, field, c_int64, shape(values, kind=c_int64_t), c_loc(values), .true.)
  end function

  integer function get_int64_2(project, field, values, accept) result(status)
    class(lockstep_project_t), intent(inout) :: project
    character(len=*), intent(in) :: field
    integer(c_int64_t), contiguous, target, intent(inout) :: values(:, :)
    integer, intent(in), optional :: accept
    status = field_call(project, field, c_int64, shape(values, kind=c_int64_t), c_loc(values), .false., accept)
  end function

  ! One put or get through the C interface, values in Fortran's order.
  integer function field_call(project, field, type, extents, values, put, accept) result(status)
    class(lockstep_project_t), intent(inout) :: project
    character(len=*), intent(in) :: field
    integer(c_int), intent(in) :: type
    integer(c_int64_t), intent(in) :: extents(:)
    type(c_ptr), intent(in) :: values
    logical, intent(in) :: put
    integer, intent(in), optional :: accept
    integer(c_int) :: rule
    status = LOCKSTEP_PROJECT_ERROR
    if (.not. c_associated(project%handle)) return
    if (put) then
      status = c_put(project%handle, trim(field) // c_null_char, type, int(size(extents), c_int), extents, &
                     c_column_major, values)
    else
      rule = LOCKSTEP_ACCEPT_STAGE
      if (present(accept)) rule = int(accept, c_int)
      status = c_get(project%handle, trim(field) // c_null_char, type, int(size(extents), c_int), extents, &
                     c_column_major, values, rule)
    end if
  end function

  subroutine project_close(project)
    class(lockstep_project_t), intent(inout) :: project
    if (c_associated(project%handle)) call c_close(project%handle)
    project%handle = c_null_ptr
  end subroutine

  ! The context of the interaction program this process is, from its command
  ! line; LOCKSTEP_PROJECT_ERROR with the reason in interaction%error() when
  ! its arguments or the tree are not lockstep's.
  integer function lockstep_interaction_open(interaction) result(status)
    type(lockstep_interaction_t), intent(inout) :: interaction
    character(kind=c_char), target :: arguments(256, 0:4)
    type(c_ptr) :: argv(0:4)
    character(len=255) :: argument
    character(kind=c_char) :: error(error_capacity)
    integer :: i, n, length

    call interaction%close()
    n = min(command_argument_count(), 4)
    do i = 0, n
      call get_command_argument(i, argument)
      length = len_trim(argument)
      arguments(1:length, i) = transfer(argument(1:length), arguments(1:length, i))
      arguments(length + 1, i) = c_null_char
      argv(i) = c_loc(arguments(1, i))
    end do
    error = c_null_char
    interaction%handle = c_interaction_open(int(n + 1, c_int), argv, error, error_capacity)
    status = LOCKSTEP_PROJECT_OK
    if (c_associated(interaction%handle)) return
    interaction%open_error = lockstep_buffer_text(error)
    status = LOCKSTEP_PROJECT_ERROR
  end function

  ! The project this program serves and the stage it was started for.
  subroutine interaction_request(interaction, project, cycle, time_step, stage)
    class(lockstep_interaction_t), intent(in) :: interaction
    integer, intent(out) :: project, cycle, time_step, stage
    integer(c_int) :: p, c, t, s
    p = -1
    c = 0
    t = 0
    s = 0
    if (c_associated(interaction%handle)) call c_interaction_request(interaction%handle, p, c, t, s)
    project = p
    cycle = c
    time_step = t
    stage = s
  end subroutine

  function interaction_error(interaction) result(message)
    class(lockstep_interaction_t), intent(in) :: interaction
    character(len=:), allocatable :: message
    if (.not. c_associated(interaction%handle)) then
      message = 'the interaction context is not open'
      if (allocated(interaction%open_error)) message = interaction%open_error
      return
    end if
    message = lockstep_c_text(c_interaction_error(interaction%handle))
  end function

  subroutine interaction_close(interaction)
    class(lockstep_interaction_t), intent(inout) :: interaction
    if (c_associated(interaction%handle)) call c_interaction_close(interaction%handle)
    interaction%handle = c_null_ptr
  end subroutine

  ! One get or put of an interaction, values in Fortran's order.
  integer function interaction_call(interaction, source, field, type, extents, values, put, accept) result(status)
    class(lockstep_interaction_t), intent(inout) :: interaction
    integer, intent(in) :: source
    character(len=*), intent(in) :: field
    integer(c_int), intent(in) :: type
    integer(c_int64_t), intent(in) :: extents(:)
    type(c_ptr), intent(in) :: values
    logical, intent(in) :: put
    integer, intent(in), optional :: accept
    integer(c_int) :: rule
    status = LOCKSTEP_PROJECT_ERROR
    if (.not. c_associated(interaction%handle)) return
    if (put) then
      status = c_interaction_put(interaction%handle, trim(field) // c_null_char, type, int(size(extents), c_int), &
                                 extents, c_column_major, values)
    else
      rule = LOCKSTEP_ACCEPT_STAGE
      if (present(accept)) rule = int(accept, c_int)
      status = c_interaction_get(interaction%handle, int(source, c_int), trim(field) // c_null_char, type, &
                                 int(size(extents), c_int), extents, c_column_major, values, rule)
    end if
  end function

  integer function iget_real_1(interaction, source, field, values, accept) result(status)
    class(lockstep_interaction_t), intent(inout) :: interaction
    integer, intent(in) :: source
    character(len=*), intent(in) :: field
    real(c_double), contiguous, target, intent(inout) :: values(:)
    integer, intent(in), optional :: accept
    status = interaction_call(interaction, source, field, c_float64, shape(values, kind=c_int64_t), c_loc(values), &
                              .false., accept)
  end function

  integer function iput_real_1(interaction, field, values) result(status)
    class(lockstep_interaction_t), intent(inout) :: interaction
    character(len=*), intent(in) :: field
    real(c_double), contiguous, target, intent(in) :: values(:)
    status = interaction_call(interaction, 0, field, c_float64, shape(values, kind=c_int64_t), c_loc(values), .true.)
  end function

  integer function iget_real_2(interaction, source, field, values, accept) result(status)
    class(lockstep_interaction_t), intent(inout) :: interaction
    integer, intent(in) :: source
    character(len=*), intent(in) :: field
    real(c_double), contiguous, target, intent(inout) :: values(:, :)
    integer, intent(in), optional :: accept
    status = interaction_call(interaction, source, field, c_float64, shape(values, kind=c_int64_t), c_loc(values), &
                              .false., accept)
  end function

  integer function iput_real_2(interaction, field, values) result(status)
    class(lockstep_interaction_t), intent(inout) :: interaction
    character(len=*), intent(in) :: field
    real(c_double), contiguous, target, intent(in) :: values(:, :)
    status = interaction_call(interaction, 0, field, c_float64, shape(values, kind=c_int64_t), c_loc(values), .true.)
  end function

  integer function iget_int32_1(interaction, source, field, values, accept) result(status)
    class(lockstep_interaction_t), intent(inout) :: interaction
    integer, intent(in) :: source
    character(len=*), intent(in) :: field
    integer(c_int32_t), contiguous, target, intent(inout) :: values(:)
    integer, intent(in), optional :: accept
    status = interaction_call(interaction, source, field, c_int32, shape(values, kind=c_int64_t), c_loc(values), &
                              .false., accept)
  end function

  integer function iput_int32_1(interaction, field, values) result(status)
    class(lockstep_interaction_t), intent(inout) :: interaction
    character(len=*), intent(in) :: field
    integer(c_int32_t), contiguous, target, intent(in) :: values(:)
    status = interaction_call(interaction, 0, field, c_int32, shape(values, kind=c_int64_t), c_loc(values), .true.)
  end function

  integer function iget_int32_2(interaction, source, field, values, accept) result(status)
    class(lockstep_interaction_t), intent(inout) :: interaction
    integer, intent(in) :: source
    character(len=*), intent(in) :: field
    integer(c_int32_t), contiguous, target, intent(inout) :: values(:, :)
    integer, intent(in), optional :: accept
    status = interaction_call(interaction, source, field, c_int32, shape(values, kind=c_int64_t), c_loc(values), &
                              .false., accept)
  end function

  integer function iput_int32_2(interaction, field, values) result(status)
    class(lockstep_interaction_t), intent(inout) :: interaction
    character(len=*), intent(in) :: field
    integer(c_int32_t), contiguous, target, intent(in) :: values(:, :)
    status = interaction_call(interaction, 0, field, c_int32, shape(values, kind=c_int64_t), c_loc(values), .true.)
  end function

  integer function iget_int64_1(interaction, source, field, values, accept) result(status)
    class(lockstep_interaction_t), intent(inout) :: interaction
    integer, intent(in) :: source
    character(len=*), intent(in) :: field
    integer(c_int64_t), contiguous, target, intent(inout) :: values(:)
    integer, intent(in), optional :: accept
    status = interaction_call(interaction, source, field, c_int64, shape(values, kind=c_int64_t), c_loc(values), &
                              .false., accept)
  end function

  integer function iput_int64_1(interaction, field, values) result(status)
    class(lockstep_interaction_t), intent(inout) :: interaction
    character(len=*), intent(in) :: field
    integer(c_int64_t), contiguous, target, intent(in) :: values(:)
    status = interaction_call(interaction, 0, field, c_int64, shape(values, kind=c_int64_t), c_loc(values), .true.)
  end function

  integer function iget_int64_2(interaction, source, field, values, accept) result(status)
    class(lockstep_interaction_t), intent(inout) :: interaction
    integer, intent(in) :: source
    character(len=*), intent(in) :: field
    integer(c_int64_t), contiguous, target, intent(inout) :: values(:, :)
    integer, intent(in), optional :: accept
    status = interaction_call(interaction, source, field, c_int64, shape(values, kind=c_int64_t), c_loc(values), &
                              .false., accept)
  end function

  integer function iput_int64_2(interaction, field, values) result(status)
    class(lockstep_interaction_t), intent(inout) :: interaction
    character(len=*), intent(in) :: field
    integer(c_int64_t), contiguous, target, intent(in) :: values(:, :)
    status = interaction_call(interaction, 0, field, c_int64, shape(values, kind=c_int64_t), c_loc(values), .true.)
  end function


  ! The zero-terminated text in `buffer` (an error a C call wrote there).
  function lockstep_buffer_text(buffer) result(text)
    character(kind=c_char), intent(in) :: buffer(:)
    character(len=:), allocatable :: text
    integer :: length
    length = 0
    do while (length < size(buffer))
      if (buffer(length + 1) == c_null_char) exit
      length = length + 1
    end do
    allocate (character(len=length) :: text)
    text = transfer(buffer(1:length), text)
  end function

  ! The zero-terminated text at `pointer` (an error the C interface keeps).
  function lockstep_c_text(pointer) result(text)
    type(c_ptr), intent(in) :: pointer
    character(len=:), allocatable :: text
    character(kind=c_char), pointer :: characters(:)
    integer :: length
    length = int(c_strlen(pointer))
    call c_f_pointer(pointer, characters, [length])
    allocate (character(len=length) :: text)
    text = transfer(characters, text)
  end function
end module lockstep_project
