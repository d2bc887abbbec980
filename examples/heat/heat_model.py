"""The heat example's model: u_t = u_xx + u_yy + f on [0, 2] x [0, 1], split
at x = 1, with the manufactured solution

    u(x, y, t) = exp(-t / 2) sin(1.3 x + 0.3) cos(1.7 y - 0.2),

so that f = (1.3^2 + 1.7^2 - 1/2) u. Each side has a grid of its own and
steps with classical RK4, one stage per request. The left side (heat_left.f90
in Fortran, mirrored here as Left for the one-process program) takes the right
side's temperature at x = 1; the right side (Right, which heat_right.py runs)
takes the left side's flux u_x there, through a ghost point.
"""
import numpy

A, B = 1.3, 1.7
SOURCE = A * A + B * B - 0.5
STAGE_OFFSET = (0.0, 0.5, 0.5, 1.0)


def exact(x, y, t):
    return numpy.exp(-0.5 * t) * numpy.sin(A * x + 0.3) * numpy.cos(B * y - 0.2)


def grid_cells(n):
    """Two triangles a square of an (n + 1) x (n + 1) grid numbered row by row."""
    cells = []
    for j in range(n):
        for i in range(n):
            p = j * (n + 1) + i
            cells += [(p, p + 1, p + n + 2), (p, p + n + 2, p + n + 1)]
    return numpy.array(cells, dtype=numpy.int32)


class Side:
    """One side's RK4, a stage per call: the state u[i, j] at (x_i, y_j), the
    stage state y, and the stage derivatives' weighted sum."""

    def __init__(self, n, dt, x0):
        self.n, self.dt, self.h = n, dt, 1.0 / n
        self.x = x0 + numpy.arange(n + 1) * self.h
        self.y_coordinates = numpy.arange(n + 1) * self.h
        self.u = exact(self.x[:, None], self.y_coordinates[None, :], 0.0)
        self.y = self.u.copy()
        self.total = numpy.zeros_like(self.u)
        self.steps = 0

    def stage(self, s, given):
        """Stage s (1 to 4) with the other side's interface values for this
        stage; returns this side's interface output for the next one."""
        k = self.derivative(self.steps * self.dt + STAGE_OFFSET[s - 1] * self.dt, given)
        if s == 1:
            self.total = k
            self.y = self.u + 0.5 * self.dt * k
        elif s < 4:
            self.total = self.total + 2.0 * k
            self.y = self.u + STAGE_OFFSET[s] * self.dt * k
        else:
            self.total = self.total + k
            self.u = self.u + self.dt / 6.0 * self.total
            self.y = self.u.copy()
            self.steps += 1
        return self.output(self.steps * self.dt + STAGE_OFFSET[s % 4] * self.dt, given)

    def points(self):
        """The grid's points, row by row, as the solvers publish them."""
        return numpy.column_stack([numpy.tile(self.x, self.n + 1), numpy.repeat(self.y_coordinates, self.n + 1)])

    def whole(self):
        return self.y.T.ravel().copy()


class Left(Side):
    """x in [0, 1]; Dirichlet at x = 1 with the temperature given."""

    def __init__(self, n, dt):
        super().__init__(n, dt, 0.0)

    def boundary(self, t, given):
        n, h = self.n, self.h
        m = numpy.arange(n + 1) * h
        self.y[0, :] = exact(0.0, m, t)
        self.y[:, 0] = exact(m, 0.0, t)
        self.y[:, n] = exact(m, 1.0, t)
        self.y[n, 1:n] = given[1:n]

    def derivative(self, t, given):
        self.boundary(t, given)
        y, h = self.y, self.h
        k = numpy.zeros_like(y)
        x = numpy.arange(1, self.n) * h
        k[1:-1, 1:-1] = ((y[2:, 1:-1] + y[:-2, 1:-1] + y[1:-1, 2:] + y[1:-1, :-2] - 4.0 * y[1:-1, 1:-1]) / (h * h)
                         + SOURCE * exact(x[:, None], x[None, :], t))
        return k

    def output(self, t, given):
        """The flux u_x at x = 1 for the next stage."""
        self.boundary(t, given)
        y, n = self.y, self.n
        return (3.0 * given - 4.0 * y[n - 1, :] + y[n - 2, :]) / (2.0 * self.h)

    def start(self):
        return self.output(0.0, exact(1.0, self.y_coordinates, 0.0))


class Right(Side):
    """x in [1, 2]; Neumann at x = 1 with the flux given, through a ghost
    point u[-1, j] = u[1, j] - 2 h g_j."""

    def __init__(self, n, dt):
        super().__init__(n, dt, 1.0)

    def boundary(self, t):
        n = self.n
        self.y[n, :] = exact(2.0, self.y_coordinates, t)
        self.y[:, 0] = exact(self.x, 0.0, t)
        self.y[:, n] = exact(self.x, 1.0, t)

    def derivative(self, t, given):
        self.boundary(t)
        y, h = self.y, self.h
        k = numpy.zeros_like(y)
        inner = self.y_coordinates[1:-1]
        k[1:-1, 1:-1] = ((y[2:, 1:-1] + y[:-2, 1:-1] + y[1:-1, 2:] + y[1:-1, :-2] - 4.0 * y[1:-1, 1:-1]) / (h * h)
                         + SOURCE * exact(self.x[1:-1, None], inner[None, :], t))
        k[0, 1:-1] = ((2.0 * y[1, 1:-1] - 2.0 * h * given[1:-1] + y[0, 2:] + y[0, :-2] - 4.0 * y[0, 1:-1]) / (h * h)
                      + SOURCE * exact(1.0, inner, t))
        return k

    def output(self, t, given=None):
        """The temperature at x = 1 for the next stage."""
        self.boundary(t)
        return self.y[0, :].copy()

    def start(self):
        return self.output(0.0)


def segments(n):
    return numpy.column_stack([numpy.arange(n), numpy.arange(1, n + 1)]).astype(numpy.int32)
