! The heat example's left side on many MPI ranks, over the MPI module's
! mpi_f08 interface: heat_left.f90's grid split into horizontal strips, each
! rank owning the rows j0 to j1 and trading its edge rows with its
! neighbours before every stage. Every rank has interface points (its rows'
! ends at x = 1), and puts and gets its rows of every field. Each rank's
! arithmetic at a point is heat_left.f90's, so the result is the serial
! solver's.
!
!   mpirun -n L heat_left_mpi DIR N TIME_STEP LAST_CYCLE
!
! Fields as heat_left.f90's, each rank putting its rows; the parts follow
! each other as the serial solver numbers the points.
program heat_left_mpi
  use mpi_f08
  use lockstep_mpi
  implicit none
  integer, parameter :: dp = kind(1.0d0)
  real(dp), parameter :: a = 1.3_dp, b = 1.7_dp
  real(dp), parameter :: stage_offset(4) = [0.0_dp, 0.5_dp, 0.5_dp, 1.0_dp]

  type(lockstep_mpi_project_t) :: project
  character(len=4096) :: directory, argument
  character(len=16) :: name
  character(len=:), allocatable :: state
  integer :: n, last_cycle, cycle, step, stage, i, j, steps, rank, ranks, j0, j1, rows, c, unit
  real(dp) :: h, dt, time
  real(dp), allocatable :: u(:, :), y(:, :), k(:, :), total(:, :), given(:), flux(:), interface(:)
  real(dp), allocatable :: grid(:, :), whole(:)
  integer(4), allocatable :: segments(:, :), cells(:, :)

  call MPI_Init()
  call MPI_Comm_rank(MPI_COMM_WORLD, rank)
  call MPI_Comm_size(MPI_COMM_WORLD, ranks)
  call get_command_argument(1, directory)
  call get_command_argument(2, argument)
  read (argument, *) n
  call get_command_argument(3, argument)
  read (argument, *) dt
  call get_command_argument(4, argument)
  read (argument, *) last_cycle
  h = 1.0_dp / n
  ! Rows 0 to n in strips as even as they go, the first ones a row longer.
  j0 = rank * ((n + 1) / ranks) + min(rank, mod(n + 1, ranks))
  j1 = j0 + (n + 1) / ranks - 1
  if (rank < mod(n + 1, ranks)) j1 = j1 + 1
  rows = j1 - j0 + 1

  if (lockstep_mpi_open(project, directory, MPI_COMM_WORLD) /= LOCKSTEP_PROJECT_OK) then
    if (rank == 0) write (0, '(2a)') 'heat_left_mpi: ', project%error()
    call MPI_Abort(MPI_COMM_WORLD, 1)
  end if

  ! u(i, j) at x = i h, y = j h: this rank's rows, and one ghost row on each side.
  allocate (u(0:n, j0 - 1:j1 + 1), y(0:n, j0 - 1:j1 + 1), k(0:n, j0 - 1:j1 + 1), total(0:n, j0 - 1:j1 + 1))
  allocate (given(j0:j1), flux(j0:j1), interface(j0:j1))
  do j = j0 - 1, j1 + 1
    do i = 0, n
      u(i, j) = exact(i * h, j * h, 0.0_dp)
    end do
  end do
  do j = j0, j1
    interface(j) = j * h
    given(j) = exact(1.0_dp, j * h, 0.0_dp)
  end do
  y = u
  ! The segments between this rank's interface points and the next one's,
  ! and the cells of the squares above its rows, numbered over all ranks.
  allocate (segments(count_squares(), 2), cells(2 * n * count_squares(), 3), grid((n + 1) * rows, 2), &
            whole((n + 1) * rows))
  do j = j0, min(j1, n - 1)
    segments(j - j0 + 1, :) = [j, j + 1]
  end do
  do j = j0, j1
    do i = 0, n
      grid(local(i, j), :) = [i * h, j * h]
    end do
  end do
  c = 0
  do j = j0, min(j1, n - 1)
    do i = 0, n - 1
      cells(c + 1, :) = [point(i, j), point(i + 1, j), point(i + 1, j + 1)]
      cells(c + 2, :) = [point(i, j), point(i + 1, j + 1), point(i, j + 1)]
      c = c + 2
    end do
  end do
  steps = 0
  if (project%resumes_after() > 0) then
    ! This rank's own state at the cycle end the run resumes after.
    call state_file(project%resumes_after())
    open (newunit=unit, file=state, access='stream', form='unformatted', action='read')
    read (unit) steps, u(:, j0:j1), given
    close (unit)
    y = u
    call set_boundary(steps * dt)
    call fill_outputs()
  else
    call must(project%put('interface', interface))
    call must(project%put('segments', segments))
    call must(project%put('grid', grid))
    call must(project%put('cells', cells))
    call publish(0.0_dp)
  end if

  do
    if (project%wait(cycle, step, stage) /= LOCKSTEP_PROJECT_OK) call fail()
    if (stage == 5) then
      write (name, '(a, i4.4)') 'T-', cycle
      call must(project%put(trim(name), whole))
      write (name, '(a, i4.4)') 'flux-', cycle
      call must(project%put(trim(name), flux))
      call state_file(cycle)
      open (newunit=unit, file=state, access='stream', form='unformatted', action='write', status='replace')
      write (unit) steps, u(:, j0:j1), given
      close (unit)
      call must(project%checkpoint())
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
    if (project%done() /= LOCKSTEP_PROJECT_OK) call fail()
    if (stage == 5 .and. cycle >= last_cycle) exit
  end do
  call project%close()
  call MPI_Finalize()

contains

  real(dp) function exact(x, yy, t)
    real(dp), intent(in) :: x, yy, t
    exact = exp(-0.5_dp * t) * sin(a * x + 0.3_dp) * cos(b * yy - 0.2_dp)
  end function

  integer(4) function point(i, j)
    integer, intent(in) :: i, j
    point = j * (n + 1) + i
  end function

  ! A point's place among this rank's, from 1.
  integer function local(i, j)
    integer, intent(in) :: i, j
    local = (j - j0) * (n + 1) + i + 1
  end function

  ! The rows of squares (and segments) above this rank's rows.
  integer function count_squares()
    count_squares = max(0, min(j1, n - 1) - j0 + 1)
  end function

  ! Every rank gets the same status: each leaves with the message.
  subroutine fail()
    if (rank == 0) write (0, '(2a)') 'heat_left_mpi: ', project%error()
    call MPI_Finalize()
    error stop 1
  end subroutine

  subroutine must(status)
    integer, intent(in) :: status
    if (status /= LOCKSTEP_PROJECT_OK) call fail()
  end subroutine

  ! The neighbours' edge rows into the ghost rows.
  subroutine trade_edges()
    integer :: below, above
    below = MPI_PROC_NULL
    above = MPI_PROC_NULL
    if (rank > 0) below = rank - 1
    if (rank + 1 < ranks) above = rank + 1
    call MPI_Sendrecv(y(:, j1), n + 1, MPI_DOUBLE_PRECISION, above, 0, y(:, j0 - 1), n + 1, &
                      MPI_DOUBLE_PRECISION, below, 0, MPI_COMM_WORLD, MPI_STATUS_IGNORE)
    call MPI_Sendrecv(y(:, j0), n + 1, MPI_DOUBLE_PRECISION, below, 1, y(:, j1 + 1), n + 1, &
                      MPI_DOUBLE_PRECISION, above, 1, MPI_COMM_WORLD, MPI_STATUS_IGNORE)
  end subroutine

  ! The stage state y's boundary on this rank's rows at time t: the
  ! solution's, and the given temperature at x = 1.
  subroutine set_boundary(t)
    real(dp), intent(in) :: t
    integer :: m
    do m = j0, j1
      y(0, m) = exact(0.0_dp, m * h, t)
    end do
    do m = 0, n
      if (j0 == 0) y(m, 0) = exact(m * h, 0.0_dp, t)
      if (j1 == n) y(m, n) = exact(m * h, 1.0_dp, t)
    end do
    do m = max(j0, 1), min(j1, n - 1)
      y(n, m) = given(m)
    end do
  end subroutine

  ! k = the right-hand side at the stage state y and time t.
  subroutine derivative(t)
    real(dp), intent(in) :: t
    integer :: p, q
    call set_boundary(t)
    call trade_edges()
    k = 0.0_dp
    do q = max(j0, 1), min(j1, n - 1)
      do p = 1, n - 1
        k(p, q) = (y(p + 1, q) + y(p - 1, q) + y(p, q + 1) + y(p, q - 1) - 4.0_dp * y(p, q)) / (h * h) &
                  + (a * a + b * b - 0.5_dp) * exact(p * h, q * h, t)
      end do
    end do
  end subroutine

  ! DIR/state-rankR-CCCC.bin: this rank's state at the end of a cycle.
  subroutine state_file(number)
    integer, intent(in) :: number
    character(len=32) :: tail
    write (tail, '(a, i0, a, i4.4, a)') '/state-rank', rank, '-', number, '.bin'
    state = trim(directory) // trim(tail)
  end subroutine

  ! The outputs for the next stage, at its time t: the flux at x = 1 on this
  ! rank's rows and its rows of the temperature.
  subroutine publish(t)
    real(dp), intent(in) :: t
    call set_boundary(t)
    call fill_outputs()
    call must(project%put('flux', flux))
    call must(project%put('T', whole))
  end subroutine

  ! The flux and the temperature from the stage state y, its boundary set.
  subroutine fill_outputs()
    integer :: p, q
    do q = j0, j1
      flux(q) = (3.0_dp * given(q) - 4.0_dp * y(n - 1, q) + y(n - 2, q)) / (2.0_dp * h)
    end do
    do q = j0, j1
      do p = 0, n
        whole(local(p, q)) = y(p, q)
      end do
    end do
  end subroutine

end program
