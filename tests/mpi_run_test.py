"""Real runs with a parallel project: sub1's solver runs on RANKS MPI ranks
(the last of several owning no point of its mesh) and maps both ways, in
every stage, with main's serial Python solver. Every value each rank reads
must be the one a single process computes: the nearest point's value on
the other mesh, from the put of the request before.

    mpi_run_test.py LOCKSTEP LOCKSTEP_EXCHANGE RANKS [SOLVER...]

SOLVER is the parallel solver's command line before its two arguments
(directory, cycles); by default this file's Python one. Each rank logs as
mapping_run_test.py's solvers do, to rank<R>.log.
"""
import os
import subprocess
import sys
import tempfile
from pathlib import Path

import numpy

from mapping_run_test import expect_mapped, read_log

CYCLES, TIME_STEPS = 2, 2
X = numpy.linspace(0.0, 1.0, 13)  # main's mesh
Y = (numpy.arange(10) + 0.37) / 10  # sub1's mesh, split over its ranks


def mpirun(ranks: int) -> list:
    """mpirun oversubscribed on this machine's cores, also as root."""
    os.environ.update(OMPI_ALLOW_RUN_AS_ROOT="1", OMPI_ALLOW_RUN_AS_ROOT_CONFIRM="1")
    return ["mpirun", "--oversubscribe", "-n", str(ranks)]


def own_points(rank: int, size: int) -> numpy.ndarray:
    """Rank r's points: the mesh split over all ranks but the last, which
    has none when there are several."""
    owners = max(size - 1, 1)
    if rank >= owners:
        return Y[:0]
    return numpy.array_split(Y, owners)[rank]


def parallel_solver(directory: Path, cycles: int) -> None:
    from mpi4py import MPI

    import lockstep.mpi

    world = MPI.COMM_WORLD
    mine = own_points(world.rank, world.size)
    served = 0
    with lockstep.mpi.Project(directory, world) as project, open(directory / f"rank{world.rank}.log", "w") as log:
        def publish(when):
            w = mine * 3 + served
            project.put("y", mine)
            project.put("w", w)
            log.write(f"put {when} {' '.join(map(repr, mine))} | {' '.join(map(repr, w))}\n")
        publish("0 0 0")
        for request in project.requests(cycles):
            when = f"{request.cycle} {request.time_step} {request.stage}"
            v = project.get("v")
            assert v.shape == mine.shape, (v.shape, mine.shape)
            log.write(f"get {when} {' '.join(map(repr, v))}\n")
            served += 1
            publish(when)


def serial_solver(directory: Path, cycles: int) -> None:
    import lockstep

    served = 0
    with lockstep.Project(directory) as project, open(directory / "mesh.log", "w") as log:
        def publish(when):
            u = X * 2 + served
            project.put("x", X)
            project.put("u", u)
            log.write(f"put {when} {' '.join(map(repr, X))} | {' '.join(map(repr, u))}\n")
        publish("0 0 0")
        for request in project.requests(cycles):
            when = f"{request.cycle} {request.time_step} {request.stage}"
            log.write(f"get {when} {' '.join(map(repr, project.get('w')))}\n")
            served += 1
            publish(when)


def parts_text(parts: list) -> str:
    """The parts as a field's header holds them: a run of one count as
    COUNT*REPEAT."""
    runs = []
    for part in parts:
        if runs and runs[-1][0] == part:
            runs[-1][1] += 1
        else:
            runs.append([part, 1])
    return ",".join(f"{count}*{repeat}" if repeat > 1 else str(count) for count, repeat in runs)


def joined_logs(directory: Path, ranks: int):
    """The ranks' logs as one process's: each put and get's rows in rank
    order."""
    logs = [read_log(directory / f"rank{rank}.log") for rank in range(ranks)]
    puts = [(numpy.concatenate([log[0][k][0] for log in logs]), numpy.concatenate([log[0][k][1] for log in logs]))
            for k in range(len(logs[0][0]))]
    gets = [(logs[0][1][k][0], numpy.concatenate([log[1][k][1] for log in logs])) for k in range(len(logs[0][1]))]
    return puts, gets


def main() -> int:
    driver, exchange, ranks = sys.argv[1], sys.argv[2], int(sys.argv[3])
    solver = sys.argv[4:] or [sys.executable, __file__, "--parallel"]
    with tempfile.TemporaryDirectory() as work:
        root = Path(work)
        (root / "run").mkdir()
        (root / "run" / "analysis_settings.dat").write_text(
            f"time_step=\n{TIME_STEPS}\ncycle_num=\n{CYCLES}\nnum_subprojects=\n1\n")
        (root / "run" / "exchange.dat").write_text(
            "main u sub1 v map=nearest-neighbour from-mesh=x to-mesh=y\n"
            "sub1 w main w map=nearest-neighbour from-mesh=y to-mesh=x\n")
        for name in ("main", "sub1"):
            (root / name).mkdir()
            (root / name / "go2.dat").write_text("0\n")
            os.symlink(exchange, root / name / "exchange")
            (root / name / "CalculateInteraction.dat").write_text("exchange\n")
        serial = subprocess.Popen([sys.executable, __file__, "--serial", str(root / "main"), str(CYCLES)])
        parallel = subprocess.Popen(mpirun(ranks) + solver + [str(root / "sub1"), str(CYCLES)])
        try:
            return served(root, ranks, solver, driver, serial, parallel)
        finally:
            for process in (serial, parallel):
                if process.poll() is None:
                    process.kill()
                    process.wait()


def served(root: Path, ranks: int, solver: list, driver: str, serial, parallel) -> int:
    """Runs the driver once both solvers have published, and checks what
    they read."""
    for name, field in (("main", "u"), ("sub1", "w")):
        while not (root / name / "fields" / "out" / f"{field}.npy").exists():
            if serial.poll() is not None or parallel.poll() is not None:
                print("a solver stopped before publishing", file=sys.stderr)
                return 1
            os.sched_yield()
    run = subprocess.run([driver], cwd=root / "run", stdout=subprocess.DEVNULL)
    if run.returncode != 0 or serial.wait() != 0 or parallel.wait() != 0:
        print("the run failed", file=sys.stderr)
        return 1
    main_puts, main_gets = read_log(root / "main" / "mesh.log")
    sub1_puts, sub1_gets = joined_logs(root / "sub1", ranks)
    assert len(main_gets) == len(sub1_gets) == CYCLES * (4 * TIME_STEPS + 1)
    checked = expect_mapped("sub1", sub1_gets, main_puts, [Y] * len(sub1_gets))
    checked_main = expect_mapped("main", main_gets, sub1_puts, [X] * len(main_gets))
    # The field on disk is the ranks' parts in rank order, with their row
    # counts in its header; NumPy reads it as any array.
    stored = numpy.load(root / "sub1" / "fields" / "out" / "y.npy")
    assert (stored == Y).all(), stored
    header = (root / "sub1" / "fields" / "out" / "y.npy").read_bytes()[:256]
    parts = [len(own_points(rank, ranks)) for rank in range(ranks)]
    assert f" parts={parts_text(parts)} ".encode() in header, header
    print(f"{ranks} ranks ({' '.join(solver[-1:])}): {checked} + {checked_main} mapped reads exact; "
          f"parts {parts}")
    return 0


if __name__ == "__main__":
    if os.environ.get("LOCKSTEP_SANITIZED") == "ON":
        print("skipped: the module is built with AddressSanitizer, whose runtime this python3 does not load")
        sys.exit(77)
    if len(sys.argv) == 4 and sys.argv[1] in ("--parallel", "--serial"):
        (parallel_solver if sys.argv[1] == "--parallel" else serial_solver)(Path(sys.argv[2]), int(sys.argv[3]))
        sys.exit(0)
    sys.exit(main())
