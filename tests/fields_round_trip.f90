! The Fortran side of the cross-language field test (fields_languages_test.py).
!   fields_round_trip DIR put   publishes plate(2, 3) = 10 i + j and counts = [1, 2, 3]
!   fields_round_trip DIR get   waits for a request, prints the inputs back(2, 3) and
!                               ids(2, 2), row by row
program fields_round_trip
  use lockstep_project
  implicit none
  type(lockstep_project_t) :: project
  character(len=4096) :: directory, mode
  real(8) :: plate(2, 3), back(2, 3)
  integer(4) :: counts(3)
  integer(8) :: ids(2, 2)
  integer :: i, j, cycle, time_step, stage

  call get_command_argument(1, directory)
  call get_command_argument(2, mode)
  if (lockstep_open(project, directory) /= LOCKSTEP_PROJECT_OK) error stop project%error()
  if (mode == 'put') then
    do j = 1, 3
      do i = 1, 2
        plate(i, j) = 10 * i + j
      end do
    end do
    counts = [1, 2, 3]
    if (project%put('plate', plate) /= LOCKSTEP_PROJECT_OK) error stop project%error()
    if (project%put('counts', counts) /= LOCKSTEP_PROJECT_OK) error stop project%error()
  else
    if (project%wait(cycle, time_step, stage) /= LOCKSTEP_PROJECT_OK) error stop project%error()
    if (project%get('back', back) /= LOCKSTEP_PROJECT_OK) error stop project%error()
    if (project%get('ids', ids) /= LOCKSTEP_PROJECT_OK) error stop project%error()
    print '(3f5.1)', (back(i, :), i = 1, 2)
    print '(2i3)', (ids(i, :), i = 1, 2)
    if (project%get('plate', plate) /= LOCKSTEP_FIELD_STALE) error stop 'a missing input is not stale'
    print '(a)', project%error()
  end if
  call project%close()
end program
