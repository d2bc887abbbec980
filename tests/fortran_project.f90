! Serves one project directory through the C interface: answers a given
! number of requests, logging "cycle time_step stage" for each.
program fortran_project
  use, intrinsic :: iso_c_binding
  implicit none

  interface
    type(c_ptr) function lockstep_project_open(directory, error, error_size) bind(c)
      import :: c_ptr, c_char, c_int
      character(kind=c_char), intent(in) :: directory(*)
      character(kind=c_char), intent(out) :: error(*)
      integer(c_int), value :: error_size
    end function
    integer(c_int) function lockstep_project_wait(project, cycle, time_step, stage) bind(c)
      import :: c_ptr, c_int
      type(c_ptr), value :: project
      integer(c_int), intent(out) :: cycle, time_step, stage
    end function
    integer(c_int) function lockstep_project_done(project) bind(c)
      import :: c_ptr, c_int
      type(c_ptr), value :: project
    end function
    subroutine lockstep_project_close(project) bind(c)
      import :: c_ptr
      type(c_ptr), value :: project
    end subroutine
  end interface

  character(len=4096) :: directory, count_text
  character(kind=c_char) :: error(256)
  type(c_ptr) :: project
  integer(c_int) :: cycle, time_step, stage
  integer :: requests, i, log_unit

  call get_command_argument(1, directory)
  call get_command_argument(2, count_text)
  read (count_text, *) requests

  project = lockstep_project_open(trim(directory) // c_null_char, error, 256_c_int)
  if (.not. c_associated(project)) stop 2
  open (newunit=log_unit, file=trim(directory) // '/fortran.log', status='replace', action='write')
  do i = 1, requests
    if (lockstep_project_wait(project, cycle, time_step, stage) /= 0) stop 3
    write (log_unit, '(i0, 1x, i0, 1x, i0)') cycle, time_step, stage
    flush (log_unit)
    if (lockstep_project_done(project) /= 0) stop 4
  end do
  close (log_unit)
  call lockstep_project_close(project)
end program fortran_project
