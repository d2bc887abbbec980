! The heat example's left side, x in [0, 1], in Fortran on the library's
! module: u_t = u_xx + u_yy + f on an N x N grid of spacing 1/N, classical
! RK4 with one stage per request. Its boundary values are the manufactured
! solution's, but at x = 1, where it takes the right side's temperature
! (Dirichlet); it gives the right side its heat flux u_x there, by a
! second-order one-sided difference with the temperature it was last given.
!
!   heat_left DIR N TIME_STEP LAST_CYCLE
!
! Fields: outputs "interface" (y of its points on x = 1), "segments" (the
! segments between them), "flux", and "grid", "cells", "T" (the whole
! temperature), with "T-CCCC" and "flux-CCCC" at each cycle end; input
! "temperature".
program heat_left
  use lockstep_project
  implicit none
  integer, parameter :: dp = kind(1.0d0)
  real(dp), parameter :: a = 1.3_dp, b = 1.7_dp
  real(dp), parameter :: stage_offset(4) = [0.0_dp, 0.5_dp, 0.5_dp, 1.0_dp]

  type(lockstep_project_t) :: project
  character(len=4096) :: directory, argument
  character(len=16) :: name
  integer :: n, last_cycle, cycle, step, stage, i, j, steps
  real(dp) :: h, dt, time
  real(dp), allocatable :: u(:, :), y(:, :), k(:, :), total(:, :), given(:), flux(:), interface(:)
  real(dp), allocatable :: grid(:, :), whole(:)
  integer(4), allocatable :: segments(:, :), cells(:, :)

  call get_command_argument(1, directory)
  call get_command_argument(2, argument)
  read (argument, *) n
  call get_command_argument(3, argument)
  read (argument, *) dt
  call get_command_argument(4, argument)
  read (argument, *) last_cycle
  h = 1.0_dp / n

  if (lockstep_open(project, directory) /= LOCKSTEP_PROJECT_OK) error stop project%error()
  if (project%lock() /= LOCKSTEP_PROJECT_OK) error stop project%error()

  ! u(i, j) at x = i h, y = j h, i and j from 0 to n.
  allocate (u(0:n, 0:n), y(0:n, 0:n), k(0:n, 0:n), total(0:n, 0:n), given(0:n), flux(0:n), interface(0:n))
  do j = 0, n
    interface(j) = j * h
    do i = 0, n
      u(i, j) = exact(i * h, j * h, 0.0_dp)
    end do
    given(j) = exact(1.0_dp, j * h, 0.0_dp)
  end do
  y = u
  allocate (segments(n, 2), cells(2 * n * n, 3), grid((n + 1) * (n + 1), 2), whole((n + 1) * (n + 1)))
  do j = 1, n
    segments(j, :) = [j - 1, j]
  end do
  do j = 0, n
    do i = 0, n
      grid(point(i, j) + 1, :) = [i * h, j * h]
    end do
  end do
  do j = 0, n - 1
    do i = 0, n - 1
      cells(2 * (j * n + i) + 1, :) = [point(i, j), point(i + 1, j), point(i + 1, j + 1)]
      cells(2 * (j * n + i) + 2, :) = [point(i, j), point(i + 1, j + 1), point(i, j + 1)]
    end do
  end do
  call must(project%put('interface', interface))
  call must(project%put('segments', segments))
  call must(project%put('grid', grid))
  call must(project%put('cells', cells))
  call publish(0.0_dp)

  steps = 0
  do
    if (project%wait(cycle, step, stage) /= LOCKSTEP_PROJECT_OK) error stop project%error()
    if (stage == 5) then
      write (name, '(a, i4.4)') 'T-', cycle
      call must(project%put(trim(name), whole))
      write (name, '(a, i4.4)') 'flux-', cycle
      call must(project%put(trim(name), flux))
    else
      call must(project%get('temperature', given))
      time = steps * dt + stage_offset(stage) * dt
      call derivative(time)
      select case (stage)
      case (1)
        total = k
        y = u + 0.5_dp * dt * k
      case (2, 3)
        total = total + 2.0_dp * k
        y = u + stage_offset(stage + 1) * dt * k
      case (4)
        total = total + k
        u = u + dt / 6.0_dp * total
        y = u
        steps = steps + 1
      end select
      call publish(steps * dt + stage_offset(mod(stage, 4) + 1) * dt)
    end if
    if (project%done() /= LOCKSTEP_PROJECT_OK) error stop project%error()
    if (stage == 5 .and. cycle >= last_cycle) exit
  end do
  call project%close()

contains

  real(dp) function exact(x, yy, t)
    real(dp), intent(in) :: x, yy, t
    exact = exp(-0.5_dp * t) * sin(a * x + 0.3_dp) * cos(b * yy - 0.2_dp)
  end function

  integer(4) function point(i, j)
    integer, intent(in) :: i, j
    point = j * (n + 1) + i
  end function

  subroutine must(status)
    integer, intent(in) :: status
    if (status /= LOCKSTEP_PROJECT_OK) error stop project%error()
  end subroutine

  ! The stage state y's boundary at time t: the solution's, and the given
  ! temperature at x = 1.
  subroutine set_boundary(t)
    real(dp), intent(in) :: t
    integer :: m
    do m = 0, n
      y(0, m) = exact(0.0_dp, m * h, t)
      y(m, 0) = exact(m * h, 0.0_dp, t)
      y(m, n) = exact(m * h, 1.0_dp, t)
    end do
    y(n, 1:n - 1) = given(1:n - 1)
  end subroutine

  ! k = the right-hand side at the stage state y and time t.
  subroutine derivative(t)
    real(dp), intent(in) :: t
    integer :: p, q
    call set_boundary(t)
    k = 0.0_dp
    do q = 1, n - 1
      do p = 1, n - 1
        k(p, q) = (y(p + 1, q) + y(p - 1, q) + y(p, q + 1) + y(p, q - 1) - 4.0_dp * y(p, q)) / (h * h) &
                  + (a * a + b * b - 0.5_dp) * exact(p * h, q * h, t)
      end do
    end do
  end subroutine

  ! The outputs for the next stage, at its time t: the flux at x = 1 and
  ! the whole temperature.
  subroutine publish(t)
    real(dp), intent(in) :: t
    integer :: p, q
    call set_boundary(t)
    do q = 0, n
      flux(q) = (3.0_dp * given(q) - 4.0_dp * y(n - 1, q) + y(n - 2, q)) / (2.0_dp * h)
    end do
    do q = 0, n
      do p = 0, n
        whole(point(p, q) + 1) = y(p, q)
      end do
    end do
    call must(project%put('flux', flux))
    call must(project%put('T', whole))
  end subroutine

end program
