! Serves one project directory through the Fortran module: answers a given
! number of requests, logging "cycle time_step stage" for each.
program fortran_project
  use lockstep_project
  implicit none

  character(len=4096) :: directory, count_text
  type(lockstep_project_t) :: project
  integer :: cycle, time_step, stage
  integer :: requests, i, log_unit

  call get_command_argument(1, directory)
  call get_command_argument(2, count_text)
  read (count_text, *) requests

  if (lockstep_open(project, directory) /= LOCKSTEP_PROJECT_OK) error stop project%error()
  open (newunit=log_unit, file=trim(directory) // '/fortran.log', status='replace', action='write')
  do i = 1, requests
    if (project%wait(cycle, time_step, stage) /= LOCKSTEP_PROJECT_OK) error stop project%error()
    write (log_unit, '(i0, 1x, i0, 1x, i0)') cycle, time_step, stage
    flush (log_unit)
    if (project%done() /= LOCKSTEP_PROJECT_OK) error stop project%error()
  end do
  close (log_unit)
  call project%close()
end program fortran_project
