"""The heat example's right side on many MPI ranks, with mpi4py: the grid of
heat_right.py split into vertical strips, x from 1 to 2, each rank owning a
band of columns and trading its edge columns with its neighbours before
every stage. Only the rank whose strip holds x = 1 has interface points;
the others put and get none. Each rank's arithmetic at a point is
heat_model.Right's, so the result is the serial solver's.

    mpirun -n R python3 heat_right_mpi.py DIR N TIME_STEP LAST_CYCLE

Fields as heat_right.py's, each rank putting its part: "grid" and "T" hold
each rank's columns in turn (row by row within them), and "cells" numbers
the points so.
"""
import sys

import numpy
from mpi4py import MPI

import lockstep.mpi
from heat_model import SOURCE, Side, exact, segments


class Strip(Side):
    """Columns first..last of the right side's (n + 1) x (n + 1) grid, with
    one ghost column on each side: u[c] is column first - 1 + c. Side's
    stage steps it, with this strip's derivative and output."""

    def __init__(self, world, n, dt):
        self.world, self.n, self.dt, self.h = world, n, dt, 1.0 / n
        columns = numpy.array_split(numpy.arange(n + 1), world.size)[world.rank]
        self.first, self.last = int(columns[0]), int(columns[-1])
        self.x = 1.0 + numpy.arange(self.first - 1, self.last + 2) * self.h
        self.y_coordinates = numpy.arange(n + 1) * self.h
        self.u = exact(self.x[:, None], self.y_coordinates[None, :], 0.0)
        self.y = self.u.copy()
        self.total = numpy.zeros_like(self.u)
        self.steps = 0
        self.owned = slice(1, self.last - self.first + 2)

    def trade_edges(self):
        """The neighbours' edge columns into the ghost columns."""
        left = self.world.rank - 1 if self.world.rank > 0 else MPI.PROC_NULL
        right = self.world.rank + 1 if self.world.rank + 1 < self.world.size else MPI.PROC_NULL
        received = numpy.empty(self.n + 1)
        self.world.Sendrecv(self.y[-2].copy(), dest=right, recvbuf=received, source=left)
        if left != MPI.PROC_NULL:
            self.y[0] = received
        self.world.Sendrecv(self.y[1].copy(), dest=left, recvbuf=received, source=right)
        if right != MPI.PROC_NULL:
            self.y[-1] = received

    def boundary(self, t):
        n, owned = self.n, self.owned
        if self.last == n:
            self.y[-2, :] = exact(2.0, self.y_coordinates, t)
        self.y[owned, 0] = exact(self.x[owned], 0.0, t)
        self.y[owned, n] = exact(self.x[owned], 1.0, t)

    def derivative(self, t, flux):
        self.boundary(t)
        self.trade_edges()
        y, h = self.y, self.h
        k = numpy.zeros_like(y)
        inner = self.y_coordinates[1:-1]
        # The columns 1 to n - 1 that this rank owns, as indices into y.
        low, high = max(self.first, 1), min(self.last, self.n - 1)
        if low <= high:
            c = slice(low - self.first + 1, high - self.first + 2)
            cp = slice(low - self.first + 2, high - self.first + 3)
            cm = slice(low - self.first, high - self.first + 1)
            k[c, 1:-1] = ((y[cp, 1:-1] + y[cm, 1:-1] + y[c, 2:] + y[c, :-2] - 4.0 * y[c, 1:-1]) / (h * h)
                          + SOURCE * exact(self.x[c, None], inner[None, :], t))
        if self.first == 0:
            k[1, 1:-1] = ((2.0 * y[2, 1:-1] - 2.0 * h * flux[1:-1] + y[1, 2:] + y[1, :-2] - 4.0 * y[1, 1:-1]) / (h * h)
                          + SOURCE * exact(1.0, inner, t))
        return k

    def output(self, t, given=None):
        """The temperature at x = 1, on the rank that has it."""
        self.boundary(t)
        return self.y[1, :].copy() if self.first == 0 else numpy.zeros(0)

    def points(self):
        x = self.x[self.owned]
        return numpy.column_stack([numpy.tile(x, self.n + 1), numpy.repeat(self.y_coordinates, len(x))])

    def whole(self):
        return self.y[self.owned].T.ravel().copy()


def strip_cells(world, n):
    """This rank's triangles, two a square whose left column it owns, as
    heat_model.grid_cells makes them, numbered as the ranks' grids follow
    each other."""
    splits = numpy.array_split(numpy.arange(n + 1), world.size)
    widths = [len(columns) for columns in splits]
    offsets = numpy.cumsum([0] + [width * (n + 1) for width in widths])
    owner = numpy.repeat(numpy.arange(world.size), widths)

    def number(i, j):
        rank = owner[i]
        return offsets[rank] + j * widths[rank] + i - splits[rank][0]
    cells = []
    for j in range(n):
        for i in splits[world.rank]:
            if i < n:
                cells += [(number(i, j), number(i + 1, j), number(i + 1, j + 1)),
                          (number(i, j), number(i + 1, j + 1), number(i, j + 1))]
    return numpy.array(cells, dtype=numpy.int32).reshape(-1, 3)


def main():
    directory, n, dt, last_cycle = sys.argv[1], int(sys.argv[2]), float(sys.argv[3]), int(sys.argv[4])
    world = MPI.COMM_WORLD
    with lockstep.mpi.Project(directory, world) as project:
        strip = Strip(world, n, dt)
        on_interface = strip.first == 0
        # Each rank's own state at a cycle end, which it loads to resume.
        state = f"{directory}/state-rank{world.rank}-%04d.npz"
        if project.resumes_after is not None:
            saved = numpy.load(state % project.resumes_after)
            strip.u, strip.steps = saved["u"], int(saved["steps"])
            strip.y = strip.u.copy()
            temperature = strip.output(strip.steps * dt)
        else:
            project.put("interface", strip.y_coordinates if on_interface else numpy.zeros(0))
            project.put("segments", segments(n) if on_interface else numpy.zeros((0, 2), numpy.int32))
            project.put("grid", strip.points())
            project.put("cells", strip_cells(world, n))
            temperature = strip.output(0.0)
            project.put("temperature", temperature)
            project.put("T", strip.whole())
        for request in project.requests(last_cycle):
            if request.cycle_end:
                project.put("T-%04d" % request.cycle, strip.whole())
                project.put("temperature-%04d" % request.cycle, temperature)
                numpy.savez(state % request.cycle, u=strip.u, steps=strip.steps)
                project.checkpoint()
                continue
            temperature = strip.stage(request.stage, project.get("flux"))
            project.put("temperature", temperature)
            project.put("T", strip.whole())


if __name__ == "__main__":
    main()
