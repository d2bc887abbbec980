! One project's solver for the chain example, in Fortran on the library's
! module: the same model and arithmetic as chain_model.h, the same fields as
! chain_solver.cpp.
!
!   chain_solver_fortran DIR FIRST COUNT LAST_CYCLE
!
! At each cycle end it saves its state to DIR/state-CYCLE.txt and records a
! checkpoint; in a run resumed after cycle C it starts from DIR/state-C.txt.
program chain_solver_fortran
  use lockstep_project
  implicit none
  integer, parameter :: dp = kind(1.0d0), masses = 12
  real(dp), parameter :: stiffness = 4.0_dp, time_step = 0.1_dp
  real(dp), parameter :: stage_offset(4) = [0.0_dp, 0.5_dp, 0.5_dp, 1.0_dp]
  real(dp), parameter :: stage_weight(4) = [1.0_dp, 2.0_dp, 2.0_dp, 1.0_dp]

  type(lockstep_project_t) :: project
  character(len=4096) :: directory, argument
  integer :: first, count, last_cycle, cycle, step, stage, j, steps, csv, resumed
  real(dp), allocatable :: u(:), v(:), stage_u(:), stage_v(:), sum_u(:), sum_v(:)

  call get_command_argument(1, directory)
  call get_command_argument(2, argument)
  read (argument, *) first
  call get_command_argument(3, argument)
  read (argument, *) count
  call get_command_argument(4, argument)
  read (argument, *) last_cycle

  if (lockstep_open(project, directory) /= LOCKSTEP_PROJECT_OK) error stop project%error()
  if (project%lock() /= LOCKSTEP_PROJECT_OK) error stop project%error()

  allocate (u(count), v(count), sum_u(count), sum_v(count))
  do j = 1, count
    u(j) = initial_displacement(first + j - 1)
  end do
  v = 0.0_dp
  stage_u = u
  stage_v = v
  sum_u = 0.0_dp
  sum_v = 0.0_dp

  steps = 0
  resumed = project%resumes_after()
  if (resumed > 0) then
    call load_state(resumed)
    open (newunit=csv, file=trim(directory) // '/chain.csv', status='old', position='append', action='write')
  else
    open (newunit=csv, file=trim(directory) // '/chain.csv', status='replace', action='write')
    write (csv, '(a)', advance='no') 'cycle,time,energy'
    do j = 1, count
      write (csv, '(a, i0)', advance='no') ',u', first + j - 1
    end do
    do j = 1, count
      write (csv, '(a, i0)', advance='no') ',v', first + j - 1
    end do
    write (csv, '(a)') ''
    flush (csv)
  end if
  call export_boundary()

  do
    if (project%wait(cycle, step, stage) /= LOCKSTEP_PROJECT_OK) error stop project%error()
    if (stage == 5) then
      write (csv, '(i0, 2(a, es25.16e3))', advance='no') cycle, ',', steps * time_step, ',', internal_energy()
      write (csv, '(*(a, es25.16e3))') (',', u(j), j = 1, count), (',', v(j), j = 1, count)
      flush (csv)
      call save_state(cycle)
      if (project%checkpoint() /= LOCKSTEP_PROJECT_OK) error stop project%error()
    else
      call rk4_stage(stage, neighbour('left', first > 0), neighbour('right', first + count < masses))
      if (stage == 4) steps = steps + 1
      call export_boundary()
    end if
    if (project%done() /= LOCKSTEP_PROJECT_OK) error stop project%error()
    if (stage == 5 .and. cycle >= last_cycle) exit
  end do
  close (csv)
  call project%close()

contains

  character(len=4200) function state_path(after)
    integer, intent(in) :: after
    write (state_path, '(a, a, i0, a)') trim(directory), '/state-', after, '.txt'
  end function

  ! The time steps done, then the displacements and velocities, exactly: a
  ! temporary file renamed into place.
  subroutine save_state(after)
    integer, intent(in) :: after
    integer :: unit
    open (newunit=unit, file=trim(state_path(after)) // '.tmp', status='replace', action='write')
    write (unit, '(i0)') steps
    write (unit, '(es25.16e3)') u, v
    close (unit)
    call rename(trim(state_path(after)) // '.tmp', trim(state_path(after)))
  end subroutine

  subroutine load_state(after)
    integer, intent(in) :: after
    integer :: unit, status
    open (newunit=unit, file=trim(state_path(after)), status='old', action='read', iostat=status)
    if (status == 0) read (unit, *, iostat=status) steps, u, v
    if (status /= 0) then
      status = project%cannot_resume(trim(state_path(after)) // ' does not hold this solver''s state')
      error stop project%error()
    end if
    close (unit)
    stage_u = u
    stage_v = v
  end subroutine

  real(dp) function mass(i)
    integer, intent(in) :: i
    mass = 1.0_dp + 0.1_dp * real(i, dp)
  end function

  real(dp) function initial_displacement(i)
    integer, intent(in) :: i
    real(dp) :: x
    x = real(i + 1, dp) / real(masses + 1, dp)
    initial_displacement = 0.1_dp * x * (1.0_dp - x)
    if (i == 0) initial_displacement = initial_displacement + 0.05_dp
  end function

  ! Stage s (1 to 4) with the neighbours' displacements at this stage.
  subroutine rk4_stage(s, left, right)
    integer, intent(in) :: s
    real(dp), intent(in) :: left, right
    real(dp) :: ku(count), kv(count), l, r
    integer :: j

    do j = 1, count
      l = left
      if (j > 1) l = stage_u(j - 1)
      r = right
      if (j < count) r = stage_u(j + 1)
      ku(j) = stage_v(j)
      kv(j) = stiffness * (l - 2.0_dp * stage_u(j) + r) / mass(first + j - 1)
      sum_u(j) = sum_u(j) + stage_weight(s) * ku(j)
      sum_v(j) = sum_v(j) + stage_weight(s) * kv(j)
    end do
    if (s < 4) then
      stage_u = u + stage_offset(s + 1) * time_step * ku
      stage_v = v + stage_offset(s + 1) * time_step * kv
      return
    end if
    u = u + time_step / 6.0_dp * sum_u
    v = v + time_step / 6.0_dp * sum_v
    stage_u = u
    stage_v = v
    sum_u = 0.0_dp
    sum_v = 0.0_dp
  end subroutine

  real(dp) function internal_energy()
    integer :: j
    internal_energy = 0.0_dp
    do j = 1, count
      internal_energy = internal_energy + 0.5_dp * mass(first + j - 1) * v(j) * v(j)
    end do
    do j = 1, count - 1
      internal_energy = internal_energy + 0.5_dp * stiffness * (u(j + 1) - u(j)) * (u(j + 1) - u(j))
    end do
  end function

  ! The neighbour's displacement, or 0 (the wall) when there is none.
  real(dp) function neighbour(name, present)
    character(len=*), intent(in) :: name
    logical, intent(in) :: present
    real(dp) :: value(1)
    neighbour = 0.0_dp
    if (.not. present) return
    if (project%get(name, value) /= LOCKSTEP_PROJECT_OK) error stop project%error()
    neighbour = value(1)
  end function

  ! This block's boundary displacements at the next stage, for the
  ! neighbours.
  subroutine export_boundary()
    if (project%put('first', stage_u(1:1)) /= LOCKSTEP_PROJECT_OK) error stop project%error()
    if (project%put('last', stage_u(count:count)) /= LOCKSTEP_PROJECT_OK) error stop project%error()
  end subroutine

end program chain_solver_fortran
