"""Runs the heat example and checks it: the left side's Fortran solver
(main) and the right side's Python solver (sub1) coupled by lockstep, their
interface values mapped by lockstep-exchange.

1. Matching interface points: the coupled result equals, to 1e-12, a program
   that steps both sides in one process with the same discretisation and
   interface conditions; its error against the exact solution is the
   scheme's own.
2. Interface points that do not match (N_left + 1 against N_right + 1): for
   each mapping method, the error at the final time under refinement and the
   observed order, which must reach about 1 for nearest-neighbour and about
   2 for the others (at least 0.7 and 1.7).
3. The temperatures of the matching run as VTK files for ParaView (one
   collection per side over the cycle ends, and one of each side's
   interface values), and
   the data for a picture of both sides on grids that do not match (8 x 8
   and 20 x 20, mapped linearly).

4. With --ranks L,R: the same runs with the parallel solvers, the left side
   on L ranks (heat_left_mpi, Fortran over the MPI module) and the right
   side on R ranks (heat_right_mpi.py, mpi4py), with matching and with
   non-matching interface points: every final temperature equals the
   serial coupled run's to 1e-12. --ranks all does so for every L and R
   from 1 to 4 and prints the table of the largest differences. With
   --stop-and-resume as well, each parallel run is killed whole in the
   middle of cycle 3, resumed with lockstepctl resume, and completed, every
   rank loading its own state.

    heat.py BIN_DIR HEAT_LEFT WORK [--smallest] [--table FILE] [--ranks L,R [--stop-and-resume] | --ranks all]

BIN_DIR holds lockstep, lockstepctl and lockstep-exchange; HEAT_LEFT is the
Fortran solver; the lockstep package must be importable.
"""
import math
import os
import subprocess
import sys
import time
from pathlib import Path

import numpy

import lockstep
from heat_model import Left, Right, exact, segments

HERE = Path(__file__).resolve().parent
END_TIME = 0.05
CYCLES = 4
MATCHING = 8
SIZES = [(4, 10), (8, 20), (16, 40), (32, 80)]
METHODS = {"nearest-neighbour": 0.7, "linear": 1.7, "rbf-pum": 1.7}


def schedule(n_left, n_right):
    """Time steps per cycle and the time step: RK4 stays stable below
    0.35 h^2 for this Laplacian; 0.2 h^2 of the finer side, rounded so that
    the cycles end at END_TIME."""
    h = 1.0 / max(n_left, n_right)
    time_steps = math.ceil(END_TIME / (0.2 * h * h) / CYCLES)
    return time_steps, END_TIME / (CYCLES * time_steps)


def table_words(method):
    cells = " from-cells=segments" if method == "linear" else ""
    return (f"sub1 temperature main temperature map={method} from-mesh=interface{cells} to-mesh=interface\n"
            f"main flux sub1 flux map={method} from-mesh=interface{cells} to-mesh=interface\n")


def mpirun(ranks):
    """mpirun oversubscribed on this machine's cores, also as root."""
    os.environ.update(OMPI_ALLOW_RUN_AS_ROOT="1", OMPI_ALLOW_RUN_AS_ROOT_CONFIRM="1")
    return ["mpirun", "--oversubscribe", "-n", str(ranks)]


def in_the_middle_of_a_cycle(tree, cycle):
    """True once main's request is time step 2 or later of `cycle`."""
    try:
        code, at_cycle, time_step, _ = map(int, (tree / "main" / "go.dat").read_text().split())
    except (OSError, ValueError):
        return False
    return code == 1 and at_cycle == cycle and time_step >= 2


def stop_and_resume(binaries, tree, solvers, commands):
    """Kills the driver and both sides' ranks in the middle of cycle 3,
    resumes the run with lockstepctl resume, and starts both sides again;
    their new processes."""
    driver = subprocess.Popen([str(binaries / "lockstep")], cwd=tree / "run", stdout=subprocess.DEVNULL)
    while not in_the_middle_of_a_cycle(tree, CYCLES - 1):
        if driver.poll() is not None:
            raise SystemExit(f"heat: the run in {tree} ended before it could be stopped")
        time.sleep(0.001)
    driver.kill()
    for process in solvers:
        process.terminate()
    for process in [driver] + solvers:
        process.wait()
    resume = subprocess.run([str(binaries / "lockstepctl"), "resume", str(tree / "run")], capture_output=True,
                            text=True)
    if resume.returncode != 0:
        raise SystemExit(f"heat: lockstepctl resume failed: {resume.stdout}{resume.stderr}")
    print("  stopped in the middle of cycle %d; %s" % (CYCLES - 1, resume.stdout.splitlines()[0]))
    return [subprocess.Popen(command) for command in commands]


def run_coupled(binaries, heat_left, work, n_left, n_right, method, ranks=None, interrupted=False):
    """The coupled run, by the serial solvers or on `ranks` (left, right),
    stopped and resumed once when `interrupted`; the final temperatures of
    both sides."""
    time_steps, dt = schedule(n_left, n_right)
    tree = work / (f"{method}-{n_left}-{n_right}" + ("" if ranks is None else "-on-%d-%d-ranks" % ranks))
    subprocess.run(["rm", "-rf", str(tree)], check=True)
    (tree / "run").mkdir(parents=True)
    (tree / "run" / "analysis_settings.dat").write_text(
        f"time_step=\n{time_steps}\ncycle_num=\n{CYCLES}\nnum_subprojects=\n1\n")
    (tree / "run" / "exchange.dat").write_text(table_words(method))
    for name in ("main", "sub1"):
        (tree / name).mkdir()
        (tree / name / "go2.dat").write_text("0\n")
        os.symlink(binaries / "lockstep-exchange", tree / name / "exchange")
        (tree / name / "CalculateInteraction.dat").write_text("exchange\n")
    step = "%.17g" % dt
    left_command, right_command = [str(heat_left)], [sys.executable, str(HERE / "heat_right.py")]
    if ranks is not None:
        left_command = mpirun(ranks[0]) + [str(heat_left.parent / "heat_left_mpi")]
        right_command = mpirun(ranks[1]) + [sys.executable, str(HERE / "heat_right_mpi.py")]
    commands = [left_command + [str(tree / "main"), str(n_left), step, str(CYCLES)],
                right_command + [str(tree / "sub1"), str(n_right), step, str(CYCLES)]]
    solvers = [subprocess.Popen(command) for command in commands]
    for name, field in (("main", "flux"), ("sub1", "temperature")):
        while not (tree / name / "fields" / "out" / f"{field}.npy").exists():
            if any(solver.poll() is not None for solver in solvers):
                raise SystemExit(f"heat: a solver stopped before publishing its starting outputs ({tree})")
            time.sleep(0.01)
    if interrupted:
        solvers = stop_and_resume(binaries, tree, solvers, commands)
    driver = subprocess.run([str(binaries / "lockstep")], cwd=tree / "run", stdout=subprocess.DEVNULL)
    if driver.returncode != 0 or any(solver.wait() != 0 for solver in solvers):
        raise SystemExit(f"heat: the run in {tree} failed")
    left = numpy.load(tree / "main" / "fields" / "out" / "T.npy")
    right = numpy.load(tree / "sub1" / "fields" / "out" / "T.npy")
    return tree, left, right, dt, CYCLES * time_steps


def by_point(tree, project):
    """A side's final temperature, ordered by its grid points (y, then x),
    whatever order its ranks put them in."""
    fields = tree / project / "fields" / "out"
    grid, values = numpy.load(fields / "grid.npy"), numpy.load(fields / "T.npy")
    return values[numpy.lexsort((grid[:, 0], grid[:, 1]))]


def parallel_difference(binaries, heat_left, work, sizes, ranks, serial_runs, interrupted=False):
    """The largest difference between the final temperatures of the
    parallel and the serial coupled runs, over matching and non-matching
    interfaces; serial_runs keeps the serial runs' trees."""
    largest = 0.0
    for n_left, n_right, method in sizes:
        if (n_left, n_right, method) not in serial_runs:
            serial_runs[n_left, n_right, method] = run_coupled(binaries, heat_left, work, n_left, n_right, method)[0]
        serial = serial_runs[n_left, n_right, method]
        parallel = run_coupled(binaries, heat_left, work, n_left, n_right, method, ranks, interrupted)[0]
        for project in ("main", "sub1"):
            largest = max(largest, numpy.abs(by_point(parallel, project) - by_point(serial, project)).max())
    return largest


def compare_ranks(binaries, heat_left, work, argument, smallest):
    """--ranks: the parallel solvers against the serial ones."""
    sizes = [(4, 10, "linear")] if smallest else []
    sizes = [(MATCHING, MATCHING, "nearest-neighbour")] + (sizes or [(8, 20, "linear")])
    pairs = [(l, r) for l in (1, 2, 3, 4) for r in (1, 2, 3, 4)] if argument == "all" else \
        [tuple(int(part) for part in argument.split(","))]
    rows, serial_runs = [], {}
    for ranks in pairs:
        difference = parallel_difference(binaries, heat_left, work, sizes, ranks, serial_runs,
                                         "--stop-and-resume" in sys.argv)
        # The VTK files of the matching run, for ParaView and to set beside
        # the serial run's.
        for tree, out in ((serial_runs[sizes[0]], work / "vtk-serial"),
                          (work / ("%s-%d-%d-on-%d-%d-ranks" % (sizes[0][2], *sizes[0][:2], *ranks)),
                           work / ("vtk-on-%d-%d-ranks" % ranks))):
            out.mkdir(exist_ok=True)
            export_vtk(binaries, tree, out)
        rows.append((ranks, difference))
        print(f"left on {ranks[0]} ranks, right on {ranks[1]}: largest difference from the serial run "
              f"{difference:.3e} (at most 1e-12)")
    if argument == "all":
        print("\n| left ranks \\ right ranks | 1 | 2 | 3 | 4 |\n|---|---:|---:|---:|---:|")
        for left in (1, 2, 3, 4):
            print(f"| {left} | " + " | ".join("%.1e" % d for (l, _), d in rows if l == left) + " |")
    if any(difference > 1e-12 for _, difference in rows):
        raise SystemExit("heat: a parallel run differs from the serial one")


def run_in_one_process(n_left, n_right, method, dt, steps):
    """Both sides stepped here, the interface values mapped with the weights
    lockstep-exchange computes, exchanged in memory."""
    left, right = Left(n_left, dt), Right(n_right, dt)

    def weights(source, target, source_segments):
        cells = source_segments if method == "linear" else None
        rows, columns, values, shape = lockstep.mapping_weights(source, target, map=method, from_cells=cells)
        matrix = numpy.zeros(shape)
        numpy.add.at(matrix, (rows, columns), values)
        return matrix

    to_left = weights(right.y_coordinates, left.y_coordinates, segments(n_right))
    to_right = weights(left.y_coordinates, right.y_coordinates, segments(n_left))
    flux, temperature = left.start(), right.start()
    for _ in range(steps):
        for s in (1, 2, 3, 4):
            flux, temperature = left.stage(s, to_left @ temperature), right.stage(s, to_right @ flux)
    return left.whole(), right.whole()


def error_against_exact(left_values, right_values, n_left, n_right):
    t = END_TIME
    worst = 0.0
    for values, side in ((left_values, Left(n_left, 1.0)), (right_values, Right(n_right, 1.0))):
        points = side.points()
        if not numpy.isfinite(values).all():
            return math.inf
        worst = max(worst, numpy.abs(values - exact(points[:, 0], points[:, 1], t)).max())
    return worst


def export_vtk(binaries, tree, out):
    """Each side's temperature at every cycle end, and the interface values."""
    ctl = str(binaries / "lockstepctl")
    for name, side in (("main", "left"), ("sub1", "right")):
        fields = tree / name / "fields" / "out"
        frames = sorted(str(p) for p in fields.glob("T-*.npy"))
        subprocess.run([ctl, "field", "export", "--mesh", str(fields / "grid.npy"), "--cells", str(fields / "cells.npy"),
                        "--output", str(out / f"heat-{side}.pvd"), *frames], check=True, stdout=subprocess.DEVNULL)
        interface = "flux" if name == "main" else "temperature"
        frames = sorted(str(p) for p in fields.glob(f"{interface}-*.npy"))
        subprocess.run([ctl, "field", "export", "--mesh", str(fields / "interface.npy"), "--cells",
                        str(fields / "segments.npy"), "--output", str(out / f"interface-{side}.pvd"), *frames],
                       check=True, stdout=subprocess.DEVNULL)


def write_plot_data(tree, out):
    """x y T of both sides' final temperatures, a blank line between rows,
    for gnuplot's pm3d."""
    for name, side, n, origin in (("main", "left", int(tree.name.split("-")[-2]), 0.0),
                                  ("sub1", "right", int(tree.name.split("-")[-1]), 1.0)):
        values = numpy.load(tree / name / "fields" / "out" / "T.npy").reshape(n + 1, n + 1)
        with open(out / f"heat-{side}.dat", "w") as data:
            for j in range(n + 1):
                for i in range(n + 1):
                    data.write("%.6f %.6f %.9f\n" % (origin + i / n, j / n, values[j, i]))
                data.write("\n")


def main():
    binaries, heat_left, work = Path(sys.argv[1]), Path(sys.argv[2]), Path(sys.argv[3])
    smallest = "--smallest" in sys.argv
    table_file = Path(sys.argv[sys.argv.index("--table") + 1]) if "--table" in sys.argv else None
    work.mkdir(parents=True, exist_ok=True)
    if "--ranks" in sys.argv:
        compare_ranks(binaries, heat_left, work, sys.argv[sys.argv.index("--ranks") + 1], smallest)
        return

    tree, left, right, dt, steps = run_coupled(binaries, heat_left, work, MATCHING, MATCHING, "nearest-neighbour")
    one_left, one_right = run_in_one_process(MATCHING, MATCHING, "nearest-neighbour", dt, steps)
    difference = max(numpy.abs(left - one_left).max(), numpy.abs(right - one_right).max())
    print(f"matching interface points ({MATCHING + 1} on each side), {steps} time steps to t = {END_TIME}:")
    print(f"  coupled run against one process: largest difference {difference:.3e} (at most 1e-12)")
    print(f"  error against the exact solution: {error_against_exact(left, right, MATCHING, MATCHING):.3e}")
    if difference > 1e-12:
        raise SystemExit("heat: the coupled run differs from the one-process program")
    export_vtk(binaries, tree, work)

    sizes = SIZES[:2] if smallest else SIZES
    rows = []
    failed = []
    for method, least in METHODS.items():
        errors = []
        for n_left, n_right in sizes:
            errors.append(error_against_exact(*run_coupled(binaries, heat_left, work, n_left, n_right, method)[1:3],
                                              n_left, n_right))
        # A run that blew up has an infinite error, and no order.
        orders = [math.log(errors[i - 1] / errors[i], 2) if math.isfinite(errors[i]) else -math.inf
                  for i in range(1, len(errors))]
        rows.append((method, errors, orders))
        if not all(map(math.isfinite, errors)) or (not smallest and min(orders[1:]) < least):
            failed.append(f"{method}: observed orders {', '.join('%.2f' % o for o in orders)}, expected at least {least}")
    # The picture: the grids that do not match, 8 x 8 against 20 x 20.
    write_plot_data(work / "linear-8-20", work)
    header = "| method | " + " | ".join(f"{l + 1} / {r + 1} points" for l, r in sizes) + " | observed orders |"
    lines = [header, "|---|" + "---:|" * len(sizes) + "---|"]
    for method, errors, orders in rows:
        lines.append(f"| {method} | " + " | ".join("%.3e" % e for e in errors) + " | " +
                     ", ".join("%.2f" % o for o in orders) + " |")
    print("\nlargest error against the exact solution at t = %g, interface points left / right:" % END_TIME)
    print("\n".join(lines))
    if table_file:
        table_file.write_text("\n".join(lines) + "\n")
    if failed:
        raise SystemExit("heat: " + "; ".join(failed))


if __name__ == "__main__":
    main()
