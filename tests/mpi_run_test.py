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
import time
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
    has none when there are several (as the documented solvers split it)."""
    owners = max(size - 1, 1)
    if rank >= owners:
        return Y[:0]
    return Y[rank * len(Y) // owners:(rank + 1) * len(Y) // owners]


REQUESTS_PER_CYCLE = 4 * TIME_STEPS + 1
# Where a fault of MPI_TEST_FAULT strikes: rank 1, in this request.
FAULT_AT = (2, 1, 2)


def parallel_solver(directory: Path, cycles: int) -> None:
    """sub1 on every rank; MPI_TEST_FAULT makes rank 1 fail at FAULT_AT:
    "raise", "kill" (SIGKILL), "type" or "name" (a put that does not match
    the other ranks'); "publish" only puts the mesh, "no-mesh" never does,
    and with "reverse" every rank gives its points in reverse order."""
    import signal

    from mpi4py import MPI

    import lockstep.mpi

    fault = os.environ.get("MPI_TEST_FAULT", "")
    world = MPI.COMM_WORLD
    mine = own_points(world.rank, world.size)
    if fault == "reverse":
        mine = mine[::-1].copy()
    with lockstep.mpi.Project(directory, world) as project, open(directory / f"rank{world.rank}.log", "a") as log:
        served = (project.resumes_after or 0) * REQUESTS_PER_CYCLE

        def publish(when, name="w", values=None):
            w = mine * 3 + served if values is None else values
            if fault != "no-mesh":
                project.put("y", mine)
            project.put(name, w)
            log.write(f"put {when} {' '.join(map(repr, mine))} | {' '.join(map(repr, w))}\n")
        if project.resumes_after is None:
            publish("0 0 0")
        if fault == "publish":
            return
        for request in project.requests(cycles):
            when = f"{request.cycle} {request.time_step} {request.stage}"
            struck = world.rank == 1 and (request.cycle, request.time_step, request.stage) == FAULT_AT
            if struck and fault == "raise":
                raise RuntimeError("the solver diverged")
            if struck and fault == "kill":
                os.kill(os.getpid(), signal.SIGKILL)
            v = project.get("v")
            assert v.shape == mine.shape, (v.shape, mine.shape)
            log.write(f"get {when} {' '.join(map(repr, v))}\n")
            served += 1
            if struck and fault == "type":
                publish(when, values=(mine * 3).astype(numpy.int64))
            elif struck and fault == "name":
                publish(when, name="q")
            else:
                publish(when)
            if request.cycle_end:
                project.checkpoint()


def serial_solver(directory: Path, cycles: int) -> None:
    import lockstep

    with lockstep.Project(directory) as project, open(directory / "mesh.log", "a") as log:
        served = (project.resumes_after or 0) * REQUESTS_PER_CYCLE

        def publish(when):
            u = X * 2 + served
            project.put("x", X)
            project.put("u", u)
            log.write(f"put {when} {' '.join(map(repr, X))} | {' '.join(map(repr, u))}\n")
        if project.resumes_after is None:
            publish("0 0 0")
        for request in project.requests(cycles):
            when = f"{request.cycle} {request.time_step} {request.stage}"
            log.write(f"get {when} {' '.join(map(repr, project.get('w')))}\n")
            served += 1
            publish(when)
            if request.cycle_end:
                project.checkpoint()


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


def read_rank_log(path: Path):
    """A rank's log: "put C T S POINTS | VALUES" and "get C T S VALUES"
    lines, numbers apart by any spaces, as read_log gives them."""
    puts, gets = [], []
    for line in path.read_text().splitlines():
        kind, cycle, time_step, stage, *rest = line.replace("|", " | ").split()
        if kind == "put":
            bar = rest.index("|")
            puts.append((numpy.array(rest[:bar], float), numpy.array(rest[bar + 1:], float)))
        else:
            gets.append(((int(cycle), int(time_step), int(stage)), numpy.array(rest, float)))
    return puts, gets


def joined_logs(directory: Path, ranks: int):
    """The ranks' logs as one process's: each put and get's rows in rank
    order."""
    logs = [read_rank_log(directory / f"rank{rank}.log") for rank in range(ranks)]
    puts = [(numpy.concatenate([log[0][k][0] for log in logs]), numpy.concatenate([log[0][k][1] for log in logs]))
            for k in range(len(logs[0][0]))]
    gets = [(logs[0][1][k][0], numpy.concatenate([log[1][k][1] for log in logs])) for k in range(len(logs[0][1]))]
    return puts, gets


def make_tree(root: Path, exchange: str) -> None:
    (root / "run").mkdir()
    (root / "run" / "analysis_settings.dat").write_text(
        f"time_step=\n{TIME_STEPS}\ncycle_num=\n{CYCLES}\nnum_subprojects=\n1\n")
    (root / "run" / "exchange.dat").write_text(
        "main u sub1 v map=nearest-neighbour from-mesh=x to-mesh=y\n"
        "sub1 w main w map=nearest-neighbour from-mesh=y to-mesh=x\n")
    for name in ("main", "sub1"):
        (root / name / "fields" / "out").mkdir(parents=True)
        (root / name / "go2.dat").write_text("0\n")
        os.symlink(exchange, root / name / "exchange")
        (root / name / "CalculateInteraction.dat").write_text("exchange\n")


class Solvers:
    """main's serial solver and sub1's parallel one on `ranks` ranks,
    killed on leaving if still running."""

    def __init__(self, root: Path, ranks: int, solver: list = (), fault: str = "") -> None:
        command = mpirun(ranks) + (list(solver) or [sys.executable, __file__, "--parallel"])
        environment = dict(os.environ, MPI_TEST_FAULT=fault)
        self.serial = subprocess.Popen([sys.executable, __file__, "--serial", str(root / "main"), str(CYCLES)])
        self.parallel = subprocess.Popen(command + [str(root / "sub1"), str(CYCLES)], env=environment,
                                         stderr=subprocess.PIPE, text=True)

    def __enter__(self) -> "Solvers":
        return self

    def __exit__(self, *exception) -> None:
        for process in (self.serial, self.parallel):
            if process.poll() is None:
                process.kill()
                process.wait()

    def published(self, root: Path) -> bool:
        """Waits until both have put their first outputs; False if one
        stopped before."""
        for name, field in (("main", "u"), ("sub1", "w")):
            while not (root / name / "fields" / "out" / f"{field}.npy").exists():
                if self.serial.poll() is not None or self.parallel.poll() is not None:
                    print(f"a solver stopped before publishing: {self.parallel.stderr.read()}", file=sys.stderr)
                    return False
                time.sleep(0.01)
        return True


def main() -> int:
    driver, exchange, ranks = sys.argv[1], sys.argv[2], int(sys.argv[3])
    solver = sys.argv[4:]
    with tempfile.TemporaryDirectory() as work:
        root = Path(work)
        make_tree(root, exchange)
        with Solvers(root, ranks, solver) as solvers, FileCreations(root / "sub1" / "fields" / "out") as creations:
            if not solvers.published(root):
                return 1
            run = subprocess.run([driver], cwd=root / "run", stdout=subprocess.DEVNULL)
            if run.returncode != 0 or solvers.serial.wait() != 0 or solvers.parallel.wait() != 0:
                print(f"the run failed: {solvers.parallel.stderr.read()}", file=sys.stderr)
                return 1
            created = creations.count()
        checked = served(root, ranks, Path(driver).parent / "lockstepctl")
        # One file a field a put, whatever the number of ranks: the two
        # outputs at the start and in every request.
        puts = 2 * (1 + CYCLES * REQUESTS_PER_CYCLE)
        assert created == puts, f"{created} files created in sub1/fields/out for {puts} puts"
        print(f"{ranks} ranks ({' '.join(solver[-1:]) or 'Python'}): {checked} mapped reads exact; "
              f"{created} files created for {puts} puts")
    return 0


def served(root: Path, ranks: int, lockstepctl: Path) -> str:
    """Checks every value both solvers read against one process's
    mapping, and the stored mesh against the ranks' parts."""
    main_puts, main_gets = read_log(root / "main" / "mesh.log")
    sub1_puts, sub1_gets = joined_logs(root / "sub1", ranks)
    assert len(main_gets) == len(sub1_gets) == CYCLES * REQUESTS_PER_CYCLE
    checked = expect_mapped("sub1", sub1_gets, main_puts, [Y] * len(sub1_gets))
    checked_main = expect_mapped("main", main_gets, sub1_puts, [X] * len(main_gets))
    # The field on disk is the ranks' parts in rank order, with their row
    # counts in its header; NumPy reads it as any array.
    stored = numpy.load(root / "sub1" / "fields" / "out" / "y.npy")
    assert (stored == Y).all(), stored
    header = (root / "sub1" / "fields" / "out" / "y.npy").read_bytes()[:256]
    parts = [len(own_points(rank, ranks)) for rank in range(ranks)]
    assert f" parts={parts_text(parts)} ".encode() in header, header
    show = subprocess.run([lockstepctl, "field", "show", root / "sub1" / "fields" / "out" / "y.npy"],
                          capture_output=True, text=True)
    assert f"\nparts: {parts_text(parts)} ({ranks} ranks)\nvalues:\n" in show.stdout, show.stdout + show.stderr
    return f"{checked} + {checked_main} (parts {parts})"


class FileCreations:
    """Counts the files created in a directory, through inotify."""

    IN_CREATE, IN_MOVED_TO = 0x100, 0x80

    def __init__(self, directory: Path) -> None:
        import ctypes

        self.libc = ctypes.CDLL(None, use_errno=True)
        self.fd = self.libc.inotify_init1(os.O_NONBLOCK)
        assert self.fd >= 0 and self.libc.inotify_add_watch(self.fd, str(directory).encode(), self.IN_CREATE) >= 0
        self.created = 0

    def __enter__(self) -> "FileCreations":
        return self

    def __exit__(self, *exception) -> None:
        os.close(self.fd)

    def count(self) -> int:
        """The creations so far: events are 16 bytes and a padded name."""
        import struct

        while True:
            try:
                data = os.read(self.fd, 65536)
            except BlockingIOError:
                return self.created
            at = 0
            while at < len(data):
                _, mask, _, length = struct.unpack_from("iIII", data, at)
                self.created += bool(mask & self.IN_CREATE)
                at += 16 + length


if __name__ == "__main__":
    if os.environ.get("LOCKSTEP_SANITIZED") == "ON":
        print("skipped: the module is built with AddressSanitizer, whose runtime this python3 does not load")
        sys.exit(77)
    if len(sys.argv) == 4 and sys.argv[1] in ("--parallel", "--serial"):
        (parallel_solver if sys.argv[1] == "--parallel" else serial_solver)(Path(sys.argv[2]), int(sys.argv[3]))
        sys.exit(0)
    sys.exit(main())
